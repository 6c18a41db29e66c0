#ifndef OSTREL_TESTS_SIM_SIM_MAIN_H
#define OSTREL_TESTS_SIM_SIM_MAIN_H

#include <chrono>
#include <cstdio>
#include <string>

#include "viewer/tool_net.h"

namespace otools {

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
