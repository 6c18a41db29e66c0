#ifndef OSTREL_TOOLS_VIEW_SERVER_H
#define OSTREL_TOOLS_VIEW_SERVER_H

// The viewer's browser view: one pull from the relay's control port, shown
// to any number of browsers.
//
// A pull thread logs in on the control port ("img_login"), fetches pictures
// with "get_image" one request per connection, as the relay expects, and
// logs out when the view stops. When the channel stops answering or answers
// an error word it says so in the figures and tries again every retryMs,
// logging in afresh (a restarted relay has forgotten the login). Only this
// thread talks to the relay: the channel always sees one viewer, however
// many browsers watch.
//
// An HTTP server (one thread per connection, each answer closes its
// connection) serves:
//   /                 the page: live picture, figures, option text, states file
//   /stream.mjpg      the pictures as multipart/x-mixed-replace (boundary
//                     "ostrelframe"), one part per new picture
//   /latest.jpg       the latest picture; "?after=N" waits up to 5 s for a
//                     picture newer than number N. X-Ostrel-Picture gives
//                     the picture's number (pictures pulled so far)
//   /figures.json     the figures below, as one JSON object
//   /states           the channel's states file as it stands
// A browser that is slow or goes away costs only its own connection.
//
// Start and Stop are called from one controlling thread; Snapshot from any.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "viewer/tcp_server.h"
#include "viewer/viewer.h"

namespace otools {

struct ViewServerConfig {
    ViewerConfig control;    // host, port, bindAddr, bindPort, requestTimeoutMs
    std::string serveHost;   // where the browser view listens
    int servePort = 0;       // 0 = any free port (see ViewServer::Port)
    int serveFd = -1;        // a listening socket to use instead (>= 0); the server owns it
    std::string statesPath;  // the channel's states file ("" = none)
    int retryMs = 1000;      // pause before trying a silent or refusing channel again
    int maxClients = 64;     // browser connections served at once; more get 503
};

// What the page shows. Latencies are camera stamp to receipt, over the last
// 500 stamped pictures; fps over the last 5 seconds.
struct ViewFigures {
    enum class Channel { kConnecting, kPulling, kNoAnswer, kErrorWord };
    Channel channel = Channel::kConnecting;
    std::string message;    // why the channel is not pulling ("" while pulling)
    std::string camera;     // camera connection as the answers show it
    uint64_t pictures = 0;  // pictures pulled; also the latest picture's number
    uint64_t waits = 0;     // "ERROR_TRANSLATOR_RECEIVE:" answers: not yet
    uint64_t faults = 0;    // error words, failed requests, malformed pictures
    uint64_t logins = 0;
    double fps = 0;
    bool haveLatency = false;
    double p50Ms = 0, p99Ms = 0;
    bool haveSeq = false;
    uint64_t seq = 0;          // camera stamp of the latest picture
    double pictureAgeMs = -1;  // since the latest picture came (-1: none yet)
    std::string option;        // IMAGE_ID0000 text of the latest picture
    int streams = 0;           // browsers watching /stream.mjpg
};

const char* ChannelStateName(ViewFigures::Channel c);

class ViewServer {
public:
    ViewServer() = default;
    ~ViewServer();
    ViewServer(const ViewServer&) = delete;
    ViewServer& operator=(const ViewServer&) = delete;

    // Starts serving and pulling; false with *err when the address cannot be
    // listened on. `log` (may be null) gets a line per change of the
    // channel's state; it must outlive the server.
    bool Start(const ViewServerConfig& cfg, std::FILE* log, std::string* err);
    // Stops pulling (logging out when logged in) and serving. Safe twice.
    void Stop();

    int Port() const { return server_.Port(); }
    ViewFigures Snapshot() const;
    std::string FiguresJson() const;

private:
    void pull_loop();
    bool login(uint64_t* userId);
    void fetch(uint64_t userId, bool* loggedIn);
    void set_channel(ViewFigures::Channel c, const std::string& message);
    void pause(int ms);
    void handle(int fd, int connNo);
    void serve_stream(int fd);
    std::string page() const;
    std::string states_text() const;

    ViewServerConfig cfg_;
    std::FILE* log_ = nullptr;
    TcpServer server_;
    std::thread puller_;
    std::atomic<bool> stop_{false};
    std::atomic<int> clients_{0};

    mutable std::mutex mu_;            // guards everything below
    std::condition_variable changed_;  // a new picture, or stop
    ViewFigures fig_;
    std::shared_ptr<const std::string> picture_;
    int64_t pictureAtMs_ = 0;       // steady clock
    int64_t loginAtMs_ = 0;         // steady clock, of the latest login
    std::deque<int64_t> recent_;    // steady ms of the pictures of the last 5 s
    std::deque<double> latencies_;  // last 500
};

}  // namespace otools

#endif  // OSTREL_TOOLS_VIEW_SERVER_H
