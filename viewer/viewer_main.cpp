// ostrel-viewer: pulls pictures from the relay's control port, shows them
// to browsers, or sends the relay one TrCommunicate command.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <string>
#include <sys/socket.h>

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
    enum {
        kControl = 1,
        kBind,
        kSeconds,
        kCount,
        kSave,
        kNoLogout,
        kTimeout,
        kIdle,
        kQuiet,
        kTrcom,
        kQuery,
        kServe,
        kServeFd,
        kStates,
        kHelp
    };
    static const option kOptions[] = {{"control", required_argument, nullptr, kControl},
                                      {"bind", required_argument, nullptr, kBind},
                                      {"seconds", required_argument, nullptr, kSeconds},
                                      {"count", required_argument, nullptr, kCount},
                                      {"save", required_argument, nullptr, kSave},
                                      {"no-logout", no_argument, nullptr, kNoLogout},
                                      {"timeout-ms", required_argument, nullptr, kTimeout},
                                      {"idle-ms", required_argument, nullptr, kIdle},
                                      {"quiet", no_argument, nullptr, kQuiet},
                                      {"trcom", required_argument, nullptr, kTrcom},
                                      {"query", required_argument, nullptr, kQuery},
                                      {"serve", required_argument, nullptr, kServe},
                                      {"serve-fd", required_argument, nullptr, kServeFd},
                                      {"states", required_argument, nullptr, kStates},
                                      {"help", no_argument, nullptr, kHelp},
                                      {nullptr, 0, nullptr, 0}};
    otools::ViewerConfig cfg;
    otools::ViewServerConfig view;
    bool haveControl = false, command = false, serve = false;
    int c;
    while ((c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
        const std::string arg = optarg ? optarg : "";
        switch (c) {
        case kControl:
            if (!otools::ParseHostPort(arg, -1, &cfg.host, &cfg.port) || cfg.port <= 0)
                return otools::UsageError(kTool, "bad --control " + arg + " (ADDR:PORT)");
            haveControl = true;
            break;
        case kBind: {
            std::string host;
            int port = 0;
            if (!otools::ParseHostPort(arg, 0, &host, &port) || port > 55535)
                return otools::UsageError(kTool, "bad --bind " + arg);
            cfg.bindAddr = host;
            cfg.bindPort = port;
            break;
        }
        case kSeconds: {
            char* end = nullptr;
            cfg.seconds = std::strtod(optarg, &end);
            if (*end || !(cfg.seconds > 0))
                return otools::UsageError(kTool, "bad --seconds " + arg);
            break;
        }
        case kCount:
            if (!otools::ParseIntegerIn(optarg, 1, 1 << 30, &cfg.count))
                return otools::UsageError(kTool, "bad --count " + arg);
            break;
        case kSave: cfg.savePath = arg; break;
        case kNoLogout: cfg.logout = false; break;
        case kTimeout:
            if (!otools::ParseIntegerIn(optarg, 1, 3600000, &cfg.requestTimeoutMs))
                return otools::UsageError(kTool, "bad --timeout-ms " + arg);
            break;
        case kIdle:
            if (!otools::ParseIntegerIn(optarg, 1, 3600000, &cfg.idleLimitMs))
                return otools::UsageError(kTool, "bad --idle-ms " + arg);
            break;
        case kQuiet: cfg.quiet = true; break;
        case kTrcom:
            if (arg.find_first_of(" \r\n&?") != std::string::npos)
                return otools::UsageError(kTool, "bad --trcom");
            cfg.trcomCommand = arg;
            command = true;
            break;
        case kQuery:
            if (arg.find_first_of(" \r\n") != std::string::npos)
                return otools::UsageError(kTool, "bad --query");
            cfg.trcomQuery = arg;
            command = true;
            break;
        case kServe:
            if (!otools::ParseHostPort(arg, -1, &view.serveHost, &view.servePort) || view.servePort < 0)
                return otools::UsageError(kTool, "bad --serve " + arg + " (ADDR:PORT)");
            serve = true;
            break;
        case kServeFd:
            if (!otools::ParseIntegerIn(optarg, 0, 1 << 20, &view.serveFd))
                return otools::UsageError(kTool, "bad --serve-fd " + arg);
            serve = true;
            break;
        case kStates: view.statesPath = arg; break;
        case kHelp: std::fputs(kUsage, stdout); return 0;
        default: return otools::UsageError(kTool, "unknown option");
        }
    }
    if (optind < argc)
        return otools::UsageError(kTool, std::string("unexpected argument ") + argv[optind]);
    if (!haveControl)
        return otools::UsageError(kTool, "--control is required");
    if (serve && command)
        return otools::UsageError(kTool, "--serve and --trcom/--query exclude each other");
    if (!serve && !view.statesPath.empty())
        return otools::UsageError(kTool, "--states goes with --serve");
    int listening = 0;
    socklen_t len = sizeof listening;
    if (view.serveFd >= 0 &&
        (::getsockopt(view.serveFd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) != 0 || !listening))
        return otools::UsageError(kTool, "descriptor " + std::to_string(view.serveFd) + " is not a listening socket");

    otools::InstallStopSignals();
    if (serve) {
        view.control = cfg;
        otools::ViewServer server;
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
        while (!otools::g_stopRequested.load() && (cfg.seconds == 0 || std::chrono::steady_clock::now() < end))
            otools::SleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(100),
                               otools::g_stopRequested);
        server.Stop();
        return 0;
    }
    if (cfg.seconds == 0 && cfg.count == 0)
        cfg.seconds = 10;
    if (command)
        return otools::RunTrcom(cfg, otools::g_stopRequested, stdout);
    return otools::RunViewer(cfg, otools::g_stopRequested, stdout, nullptr);
}
