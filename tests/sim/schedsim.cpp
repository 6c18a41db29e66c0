#include "tests/sim/schedsim.h"

#include <chrono>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/sim/sim_common.h"
#include "viewer/tool_http.h"
#include "viewer/tool_net.h"
#include "viewer/tool_options.h"

namespace otools {
namespace {

constexpr char kSchedulePath[] = "/cgi-bin/scheduleServer.cgi";

// Checks a stop request's parameters; returns what is wrong or "".
std::string check_stop_params(const std::string& query, long long* channel)
{
    const auto params = SplitQuery(query);
    const std::string* name = FindParam(params, "p_name");
    const std::string* version = FindParam(params, "p_version");
    const std::string* command = FindParam(params, "command");
    const std::string* ch = FindParam(params, "channel_no");
    if (!name || *name != "StorageSchedule")
        return "p_name is not StorageSchedule";
    if (!version || *version != "1")
        return "p_version is not 1";
    if (!command || *command != "stop_urgent_storage_wpp_ch")
        return "command is not stop_urgent_storage_wpp_ch";
    if (!ch || !ParseInteger(*ch, channel) || *channel < 0)
        return "channel_no is not a number";
    return "";
}

}  // namespace

bool SchedSim::Start(std::string* err)
{
    if (!recorder_.Open(cfg_.recordPath, cfg_.recordStdout, err))
        return false;
    return server_.Start(
        cfg_.host, cfg_.port, [this](int fd, const std::string& peer, int connNo) { serve(fd, peer, connNo); }, err);
}

void SchedSim::serve(int fd, const std::string& peer, int connNo)
{
    const std::atomic<bool>& stop = server_.StopFlag();
    std::string head, rest;
    const IoResult r = ReadHttpHead(fd, 16384, cfg_.requestTimeoutMs, stop, &head, &rest);
    if (!head.empty())
        recorder_.Record(peer, head);
    if (r != IoResult::kOk) {
        ::close(fd);
        return;
    }
    HttpHead req;
    std::string path, query, body, note;
    long long channel = -1;
    int status = 200;
    if (!ParseRequestHead(head, &req)) {
        status = 400;
        note = "malformed request";
    } else {
        SplitTarget(req.target, &path, &query);
        if (req.method != "GET") {
            status = 405;
            note = "method " + req.method;
        } else if (path != kSchedulePath) {
            status = 404;
            note = "unknown path " + path;
        } else if (!(note = check_stop_params(query, &channel)).empty()) {
            status = 400;
        } else {
            stops_.fetch_add(1, std::memory_order_relaxed);
            note = "stop urgent storage of channel " + std::to_string(channel);
        }
    }
    if (!cfg_.quiet)
        std::fprintf(stderr, "schedsim: request %d from %s: %s\n", connNo, peer.c_str(), note.c_str());
    if (status == 200) {
        body = "p_name=StorageSchedule\r\np_version=1\r\ncommand=stop_urgent_storage_wpp_ch\r\n"
               "channel_no=" +
               std::to_string(channel) + "\r\nresult=OK\r\n";
    } else {
        body = std::to_string(status) + " " + ReasonPhrase(status) + ": " + note + "\r\n";
    }
    if (cfg_.status)
        status = cfg_.status;
    if (cfg_.bodyBytes >= 0)
        body.assign(static_cast<size_t>(cfg_.bodyBytes), 'x');

    if (cfg_.delayMs > 0 &&
        !SleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(cfg_.delayMs), stop)) {
        ::close(fd);
        return;
    }
    if (cfg_.silent) {
        ::close(fd);
        return;
    }
    AnswerAndClose(fd,
                   "HTTP/1.0 " + std::to_string(status) + " " + ReasonPhrase(status) +
                       "\r\nContent-Type: text/plain\r\n" +
                       (cfg_.noLength ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n") +
                       "Connection: close\r\n\r\n" + body,
                   10000, stop);
}

}  // namespace otools
