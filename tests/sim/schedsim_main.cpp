// ostrel-schedsim: a simulated schedule server for operators and tests.

#include <cstdio>
#include <string>
#include <vector>

#include "tests/sim/schedsim.h"
#include "tests/sim/sim_common.h"
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
    using namespace otools;
    SchedSimConfig cfg;
    const std::vector<ToolOption> table = {
        {"listen", true, HostPortOption(80, &cfg.host, &cfg.port)},
        {"record", true, TextOption(&cfg.recordPath)},
        {"no-stdout", false, FlagOption(&cfg.recordStdout, false)},
        {"status", true, IntegerOption(100, 999, &cfg.status)},
        {"body-bytes", true, IntegerOption(0, 1 << 24, &cfg.bodyBytes)},
        {"no-length", false, FlagOption(&cfg.noLength)},
        {"delay-ms", true, IntegerOption(0, 3600000, &cfg.delayMs)},
        {"silent", false, FlagOption(&cfg.silent)},
        {"quiet", false, FlagOption(&cfg.quiet)},
    };
    const int end = ParseToolOptions(kTool, kUsage, argc, argv, table);
    if (end >= 0)
        return end;
    SchedSim sim(cfg);
    return RunSimulator(kTool, "schedsim", cfg.host, cfg.quiet, sim, [&] {
        std::fprintf(stderr, "schedsim: stopped: %d requests, %d stop requests\n", sim.Requests(), sim.Stops());
    });
}
