#ifndef OSTREL_TOOLS_SCHEDSIM_H
#define OSTREL_TOOLS_SCHEDSIM_H

// SchedSim: a simulated schedule server. It takes the storage stop request
//   GET /cgi-bin/scheduleServer.cgi?p_name=StorageSchedule&p_version=1
//       &command=stop_urgent_storage_wpp_ch&channel_no=N
// and answers like the recorder's CGI program: status 200, a short text
// body with a Content-Length, and the connection closed. Requests for other
// paths get 404; a stop request with missing or wrong parameters gets 400
// (our choice, so that a malformed request is visible as a failure at the
// sender). Every request is recorded raw (request_recorder.h).
//
// Answer variations for tests: a forced status, a body of a given size, no
// Content-Length, a delay before answering, or no answer at all.
//
// Start/Stop from one controlling thread; counters from any thread.

#include <atomic>
#include <string>

#include "tests/sim/request_recorder.h"
#include "viewer/tcp_server.h"

namespace otools {

struct SchedSimConfig {
    std::string host = "127.0.0.1";
    int port = 80;
    int status = 0;         // forced answer status; 0 = decide from the request
    int bodyBytes = -1;     // body of exactly this size; -1 = the normal text
    bool noLength = false;  // leave out Content-Length
    int delayMs = 0;        // wait before answering
    bool silent = false;    // read the request, then close without answering
    std::string recordPath;
    bool recordStdout = true;
    bool quiet = false;
    int requestTimeoutMs = 10000;
};

class SchedSim {
public:
    explicit SchedSim(SchedSimConfig cfg) : cfg_(std::move(cfg)) {}
    ~SchedSim() { Stop(); }

    bool Start(std::string* err);
    void Stop() { server_.Stop(); }

    int Port() const { return server_.Port(); }
    int Requests() const { return recorder_.Count(); }
    // Well-formed stop requests received.
    int Stops() const { return stops_.load(std::memory_order_relaxed); }

private:
    void serve(int fd, const std::string& peer, int connNo);

    const SchedSimConfig cfg_;
    RequestRecorder recorder_;
    TcpServer server_;
    std::atomic<int> stops_{0};
};

}  // namespace otools

#endif  // OSTREL_TOOLS_SCHEDSIM_H
