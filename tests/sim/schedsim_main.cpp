// ostrel-schedsim: a simulated schedule server for operators and tests.

#include <chrono>
#include <cstdio>
#include <getopt.h>
#include <string>
#include <thread>

#include "tests/sim/schedsim.h"
#include "viewer/tool_net.h"
#include "viewer/tool_options.h"

namespace {

constexpr char kTool[] = "ostrel-schedsim";

const char kUsage[] = "Usage: ostrel-schedsim [--listen ADDR[:PORT]] [options]\n"
                      "\n"
                      "Simulated schedule server: answers the storage stop request\n"
                      "  GET /cgi-bin/scheduleServer.cgi?p_name=StorageSchedule&p_version=1\n"
                      "      &command=stop_urgent_storage_wpp_ch&channel_no=N\n"
                      "with status 200 and a short text body (Content-Length set, connection\n"
                      "closed). Other paths get 404, wrong parameters 400. Every raw request is\n"
                      "recorded to standard output and, with --record, to a file, one record each:\n"
                      "  \"#REQUEST n peer=A:P t_us=T bytes=L\\n\" L raw bytes \"\\n\"\n"
                      "\n"
                      "  --listen ADDR[:PORT]  address to listen on (default 127.0.0.1:80; port 0 = any)\n"
                      "  --record FILE         also append the records to FILE\n"
                      "  --no-stdout           do not write records to standard output\n"
                      "  --status CODE         answer every request with this status\n"
                      "  --body-bytes N        answer with a body of N bytes (the daemon takes at most 1024)\n"
                      "  --no-length           leave out the Content-Length line\n"
                      "  --delay-ms N          wait N ms before answering\n"
                      "  --silent              read the request and close without answering\n"
                      "  --quiet               no request log on standard error\n"
                      "  --help                this text\n"
                      "\n"
                      "Stops on SIGINT or SIGTERM. Exit status 0, or 2 for bad options or set-up.\n";

}  // namespace

int main(int argc, char** argv)
{
    enum { kListen = 1, kRecord, kNoStdout, kStatus, kBody, kNoLength, kDelay, kSilent, kQuiet, kHelp };
    static const option kOptions[] = {{"listen", required_argument, nullptr, kListen},
                                      {"record", required_argument, nullptr, kRecord},
                                      {"no-stdout", no_argument, nullptr, kNoStdout},
                                      {"status", required_argument, nullptr, kStatus},
                                      {"body-bytes", required_argument, nullptr, kBody},
                                      {"no-length", no_argument, nullptr, kNoLength},
                                      {"delay-ms", required_argument, nullptr, kDelay},
                                      {"silent", no_argument, nullptr, kSilent},
                                      {"quiet", no_argument, nullptr, kQuiet},
                                      {"help", no_argument, nullptr, kHelp},
                                      {nullptr, 0, nullptr, 0}};
    otools::SchedSimConfig cfg;
    int c;
    while ((c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
        const std::string arg = optarg ? optarg : "";
        switch (c) {
        case kListen:
            if (!otools::ParseHostPort(arg, 80, &cfg.host, &cfg.port))
                return otools::UsageError(kTool, "bad --listen " + arg);
            break;
        case kRecord: cfg.recordPath = arg; break;
        case kNoStdout: cfg.recordStdout = false; break;
        case kStatus:
            if (!otools::ParseIntegerIn(optarg, 100, 999, &cfg.status))
                return otools::UsageError(kTool, "bad --status " + arg);
            break;
        case kBody:
            if (!otools::ParseIntegerIn(optarg, 0, 1 << 24, &cfg.bodyBytes))
                return otools::UsageError(kTool, "bad --body-bytes " + arg);
            break;
        case kNoLength: cfg.noLength = true; break;
        case kDelay:
            if (!otools::ParseIntegerIn(optarg, 0, 3600000, &cfg.delayMs))
                return otools::UsageError(kTool, "bad --delay-ms " + arg);
            break;
        case kSilent: cfg.silent = true; break;
        case kQuiet: cfg.quiet = true; break;
        case kHelp: std::fputs(kUsage, stdout); return 0;
        default: return otools::UsageError(kTool, "unknown option");
        }
    }
    if (optind < argc)
        return otools::UsageError(kTool, std::string("unexpected argument ") + argv[optind]);

    otools::InstallStopSignals();
    otools::SchedSim sim(cfg);
    std::string err;
    if (!sim.Start(&err)) {
        std::fprintf(stderr, "ostrel-schedsim: %s\n", err.c_str());
        return 2;
    }
    if (!cfg.quiet)
        std::fprintf(stderr, "schedsim: listening on %s:%d\n", cfg.host.c_str(), sim.Port());
    while (!otools::g_stopRequested.load(std::memory_order_relaxed))
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    sim.Stop();
    if (!cfg.quiet)
        std::fprintf(stderr, "schedsim: stopped: %d requests, %d stop requests\n", sim.Requests(), sim.Stops());
    return 0;
}
