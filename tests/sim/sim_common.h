#ifndef OSTREL_TESTS_SIM_SIM_COMMON_H
#define OSTREL_TESTS_SIM_SIM_COMMON_H

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "viewer/tool_net.h"

// What both simulators (camera, schedule server) share: their answers'
// reason phrases, the way they end an answer, and their program's life.

namespace otools {

inline const char* ReasonPhrase(int status)
{
    switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 401: return "Unauthorized";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 500: return "Internal Server Error";
    case 503: return "Service Unavailable";
    default: return "Error";
    }
}

// Sends the whole answer, half-closes and waits (at most 2 s) for the
// client's close, so that unread bytes on our side cannot turn the close
// into a reset that discards the answer; then closes fd.
inline void AnswerAndClose(int fd, const std::string& answer, int timeoutMs, const std::atomic<bool>& stop)
{
    SendAll(fd, answer.data(), answer.size(), timeoutMs, stop);
    ::shutdown(fd, SHUT_WR);
    std::string sink;
    ReadUntilClose(fd, 1 << 16, 2000, stop, &sink);
    ::close(fd);
}

// The life of a simulator program: starts sim (CamSim, SchedSim), says
// where it listens ("NAME: listening on HOST:PORT" unless quiet), runs
// until SIGINT or SIGTERM, stops it and, unless quiet, calls summary for
// its closing line. Exit status 0, or 2 (with the reason) when it cannot
// start.
template <class Sim, class Summary>
int RunSimulator(const char* tool, const char* name, const std::string& host, bool quiet, Sim& sim,
                 Summary summary)
{
    InstallStopSignals();
    std::string err;
    if (!sim.Start(&err)) {
        std::fprintf(stderr, "%s: %s\n", tool, err.c_str());
        return 2;
    }
    if (!quiet)
        std::fprintf(stderr, "%s: listening on %s:%d\n", name, host.c_str(), sim.Port());
    while (SleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(100), g_stopRequested)) {
    }
    sim.Stop();
    if (!quiet)
        summary();
    return 0;
}

}  // namespace otools

#endif
