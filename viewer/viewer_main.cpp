// ostrel-viewer: pulls pictures from the relay's control port, shows them
// to browsers, or sends the relay one TrCommunicate command.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "viewer/tool_net.h"
#include "viewer/tool_options.h"
#include "viewer/view_server.h"
#include "viewer/viewer.h"

namespace {

constexpr char kTool[] = "ostrel-viewer";

const char kUsage[] =
    "Usage: ostrel-viewer --control ADDR:PORT [--bind ADDR[:PORT]] [pull options]\n"
    "       ostrel-viewer --control ADDR:PORT [--bind ADDR[:PORT]] --serve ADDR:PORT|--serve-fd N\n"
    "                     [--states FILE] [--seconds S]\n"
    "       ostrel-viewer --control ADDR:PORT [--bind ADDR[:PORT]] --trcom COMMAND | --query QUERY\n"
    "\n"
    "Pull mode logs in on the relay's control port (img_login), fetches pictures\n"
    "with get_image, checks each one (status, Content-Length, JPEG SOI..EOI, the\n"
    "IMAGE_ID0000 option text, the camera stamp's sequence number rising), saves\n"
    "the last, logs out, and prints one line per picture with its latency (receive\n"
    "time minus the camera simulator's send stamp) and a summary:\n"
    "  summary: pictures=N seconds=S fps=F latency_ms p50=.. p99=.. max=.. gaps=.. waits=.. faults=..\n"
    "The relay serves pictures only to its channel's own address: use --bind.\n"
    "\n"
    "View mode (--serve) pulls the same way until stopped (or for --seconds) and\n"
    "serves a browser view on ADDR:PORT: the page /, the live picture as\n"
    "/stream.mjpg (multipart/x-mixed-replace) and /latest.jpg, the figures as\n"
    "/figures.json and the states file as /states. Every browser shares the one\n"
    "pull; a channel that stops answering is tried again every second.\n"
    "\n"
    "  --control ADDR:PORT   the relay's control port\n"
    "  --bind ADDR[:PORT]    local address to connect from; with PORT, connection n\n"
    "                        uses local port PORT + n mod 10000\n"
    "  --seconds S           pull for S seconds (default 10 when --count is not given)\n"
    "  --count N             stop after N pictures\n"
    "  --save FILE           write the last picture to FILE\n"
    "  --no-logout           leave the login in place at the end\n"
    "  --timeout-ms N        limit per request (default 5000)\n"
    "  --idle-ms N           give up when no picture came for N ms (default 10000)\n"
    "  --quiet               only the summary\n"
    "  --serve ADDR:PORT     view mode: serve the browser view there\n"
    "  --serve-fd N          view mode: serve on descriptor N, a socket that already\n"
    "                        listens (made outside the channel's network namespace)\n"
    "  --states FILE         view mode: the channel's states file to show\n"
    "  --trcom COMMAND       send /trcom.cgi?p_name=TrCommunicate&p_version=1&command=COMMAND\n"
    "                        (notice_update, reset_postterm) and print the raw answer\n"
    "  --query QUERY         send /trcom.cgi?QUERY as it stands and print the raw answer\n"
    "  --help                this text\n"
    "\n"
    "Exit status: 0 all checks passed; 1 a check failed, the pull ended early, or\n"
    "the command's Query_Result is not success; 2 bad options or no usable answer.\n"
    "SIGINT or SIGTERM ends the pull early (the logout and summary still happen).\n";

}  // namespace

int main(int argc, char** argv)
{
    using namespace otools;
    ViewerConfig cfg;
    ViewServerConfig view;
    bool haveControl = false, command = false, serve = false;
    const auto flag = [](bool* set, std::function<bool(const std::string&)> take) {
        return [=](const std::string& a) { return take(a) && (*set = true); };
    };
    const std::vector<ToolOption> table = {
        {"control", true,
         [&](const std::string& a) {
             return haveControl = ParseHostPort(a, -1, &cfg.host, &cfg.port) && cfg.port > 0;
         },
         " (ADDR:PORT)"},
        {"bind", true,
         [&](const std::string& a) {
             return ParseHostPort(a, 0, &cfg.bindAddr, &cfg.bindPort) && cfg.bindPort <= 55535;
         }},
        {"seconds", true, NumberOption(1e-9, 1e12, &cfg.seconds)},
        {"count", true, IntegerOption(1, 1 << 30, &cfg.count)},
        {"save", true, TextOption(&cfg.savePath)},
        {"no-logout", false, FlagOption(&cfg.logout, false)},
        {"timeout-ms", true, IntegerOption(1, 3600000, &cfg.requestTimeoutMs)},
        {"idle-ms", true, IntegerOption(1, 3600000, &cfg.idleLimitMs)},
        {"quiet", false, FlagOption(&cfg.quiet)},
        {"trcom", true,
         flag(&command, [&](const std::string& a) {
             cfg.trcomCommand = a;
             return a.find_first_of(" \r\n&?") == std::string::npos;
         })},
        {"query", true,
         flag(&command, [&](const std::string& a) {
             cfg.trcomQuery = a;
             return a.find_first_of(" \r\n") == std::string::npos;
         })},
        {"serve", true,
         flag(&serve, [&](const std::string& a) {
             return ParseHostPort(a, -1, &view.serveHost, &view.servePort) && view.servePort >= 0;
         }),
         " (ADDR:PORT)"},
        {"serve-fd", true, flag(&serve, IntegerOption(0, 1 << 20, &view.serveFd))},
        {"states", true, TextOption(&view.statesPath)},
    };
    const int end = ParseToolOptions(kTool, kUsage, argc, argv, table);
    if (end >= 0)
        return end;
    if (!haveControl)
        return UsageError(kTool, "--control is required");
    if (serve && command)
        return UsageError(kTool, "--serve and --trcom/--query exclude each other");
    if (!serve && !view.statesPath.empty())
        return UsageError(kTool, "--states goes with --serve");
    int listening = 0;
    socklen_t len = sizeof listening;
    if (view.serveFd >= 0 &&
        (::getsockopt(view.serveFd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) != 0 || !listening))
        return UsageError(kTool, "descriptor " + std::to_string(view.serveFd) + " is not a listening socket");

    InstallStopSignals();
    if (serve) {
        view.control = cfg;
        ViewServer server;
        std::string err;
        if (!server.Start(view, stdout, &err)) {
            std::fprintf(stderr, "ostrel-viewer: %s\n", err.c_str());
            return 2;
        }
        if (view.serveFd >= 0)
            std::printf("view: serving on descriptor %d, port %d (channel %s:%d)\n", view.serveFd, server.Port(),
                        cfg.host.c_str(), cfg.port);
        else
            std::printf("view: http://%s:%d/ (channel %s:%d)\n", view.serveHost.c_str(), server.Port(),
                        cfg.host.c_str(), cfg.port);
        std::fflush(stdout);
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<long long>(cfg.seconds * 1000));
        while (!g_stopRequested.load() && (cfg.seconds == 0 || std::chrono::steady_clock::now() < end))
            SleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(100),
                               g_stopRequested);
        server.Stop();
        return 0;
    }
    if (cfg.seconds == 0 && cfg.count == 0)
        cfg.seconds = 10;
    if (command)
        return RunTrcom(cfg, g_stopRequested, stdout);
    return RunViewer(cfg, g_stopRequested, stdout, nullptr);
}
