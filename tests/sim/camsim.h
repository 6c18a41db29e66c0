#ifndef OSTREL_TOOLS_CAMSIM_H
#define OSTREL_TOOLS_CAMSIM_H

// CamSim: a simulated Axis network camera. It answers
//   GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=N
// with the camera's motion-JPEG stream:
//
//   HTTP/1.0 200 OK ... Content-Type: multipart/x-mixed-replace; boundary=B
//   --B CRLF Content-Type: image/jpeg CRLF Content-Length: n CRLF CRLF
//   <n bytes of JPEG> CRLF
//   --B ...
//
// Content-Length is sent in each part only when the request asked for
// showlength=1, as the real camera does. Every picture carries a stamp (see
// jpeg_stamp.h) with a sequence number that increases across all
// connections and the time the part was handed to the socket. Faults can be
// injected at a chosen part. With a password it asks for Basic or for Digest
// (RFC 7616 / 2617 / 2069; its nonces can be made to go stale). Each connection is served by its own thread.
//
// Start/Stop are called from one controlling thread; the statistics may be
// read from any thread.

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "tests/sim/request_recorder.h"
#include "viewer/tcp_server.h"
#include "viewer/tool_http.h"

namespace otools {

enum class CamFault {
    kNone,
    kDrop,         // close the connection instead of sending part N
    kTruncate,     // part N announces its full length, half is sent, then FIN
    kOversize,     // part N is a valid JPEG of fault-arg bytes (default 1 MiB)
    kStall,        // nothing more is sent from part N on; the connection stays open
    kGarbageHead,  // the response head is not HTTP
    kWrongLength,  // part N's Content-Length is off by fault-arg (default +100)
    kNoLength,     // part N has no Content-Length line
    kZeroLength,   // part N has Content-Length: 0 and no data
    kReset,        // part N is cut off half-way by a TCP reset
    kStatus,       // the response is an error status (fault-arg, default 503)
    kHang,         // part N stops after fault-arg bytes (default half); the
                   // connection stays open and silent
};

// Parses a fault name as used on the command line ("drop", "truncate", ...).
bool ParseCamFault(const std::string& name, CamFault* out);
const char* CamFaultName(CamFault f);

struct CamSimConfig {
    std::string host = "127.0.0.1";
    int port = 80;    // 0 = any free port (see CamSim::Port)
    double fps = 10;  // 0 = as fast as the connection takes them
    // Generated pictures (when imageDir is empty): `distinct` different
    // pictures of width x height are made at start and sent in turn.
    int width = 640, height = 480, quality = 40, detail = 0, distinct = 25;
    std::string imageDir;  // *.jpg / *.jpeg files, sent in name order
    uint64_t frames = 0;   // parts per connection, then a normal close; 0 = endless
    bool auth = false;
    std::string user, password;
    // Digest instead of Basic (with auth): "MD5", "MD5-sess", "SHA-256" or
    // "SHA-256-sess"; digestQop offers qop="auth" (else RFC 2069's form).
    std::string digestAlgorithm;
    bool digestQop = false;
    // A nonce serves this many authorised requests, then the next one using
    // it gets 401 with stale=true and a new nonce; 0 = for ever.
    long long nonceUses = 0;
    std::string boundary = "myboundary";
    int cameras = 4;  // camera numbers 1..cameras exist
    CamFault fault = CamFault::kNone;
    uint64_t faultAt = 1;  // 1-based part number the fault hits
    long long faultArg = 0;
    bool faultArgSet = false;
    int faultConnections = 0;  // the fault hits connections 1..n; 0 = all
    std::string recordPath;
    bool recordStdout = false;
    bool quiet = false;
    int sendTimeoutMs = 10000;
    int requestTimeoutMs = 10000;
};

class CamSim {
public:
    explicit CamSim(CamSimConfig cfg);
    ~CamSim();
    CamSim(const CamSim&) = delete;
    CamSim& operator=(const CamSim&) = delete;

    // Prepares the pictures, opens the record file, listens and starts the
    // accept thread. False with *err on any failure.
    bool Start(std::string* err);
    // Stops accepting, ends every connection and joins all threads. Safe to
    // call twice.
    void Stop();

    int Port() const { return server_.Port(); }
    uint64_t FramesSent() const { return frames_sent_.load(std::memory_order_relaxed); }
    int Connections() const { return server_.Connections(); }
    int Requests() const { return recorder_.Count(); }

private:
    struct Picture {
        std::vector<uint8_t> data;
        size_t stampAt = 0;
    };

    bool load_pictures(std::string* err);
    void serve(int fd, const std::string& peer, int connNo);
    void stream(int fd, bool showLength, bool faulty, int connNo);
    void log(const std::string& line) const;
    // Digest: true when the request's Authorization answers a live nonce
    // correctly; otherwise *challenge is the WWW-Authenticate line to send.
    bool check_digest(const HttpHead& req, std::string* challenge);

    const CamSimConfig cfg_;
    std::vector<Picture> pictures_;
    RequestRecorder recorder_;
    TcpServer server_;
    const std::atomic<bool>& stop_ = server_.StopFlag();
    std::atomic<uint64_t> seq_{0};
    std::atomic<uint64_t> frames_sent_{0};

    struct NonceUse {
        long long uses = 0;        // authorised requests so far
        unsigned long lastNc = 0;  // highest nonce count seen (qop only)
    };
    std::mutex nonce_mu_;
    std::map<std::string, NonceUse> nonces_;  // guarded by nonce_mu_
    uint64_t nonce_seq_ = 0;                  // guarded by nonce_mu_
};

}  // namespace otools

#endif  // OSTREL_TOOLS_CAMSIM_H
