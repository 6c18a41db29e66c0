// ostrel-camsim: a simulated Axis network camera for operators and tests.

#include <cstdio>
#include <cstdlib>
#include <getopt.h>
#include <string>
#include <thread>

#include "tests/sim/camsim.h"
#include "viewer/tool_net.h"
#include "viewer/tool_options.h"

namespace {

constexpr char kTool[] = "ostrel-camsim";

const char kUsage[] = "Usage: ostrel-camsim --listen ADDR[:PORT] [options]\n"
                      "\n"
                      "Simulated Axis camera: answers\n"
                      "  GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=N\n"
                      "with a multipart/x-mixed-replace stream of JPEG pictures, one part each.\n"
                      "Every picture carries a comment segment \"ostrel-stamp seq=S t_us=T\":\n"
                      "a sequence number rising across all connections and the send time in\n"
                      "microseconds (CLOCK_REALTIME). One thread per connection.\n"
                      "\n"
                      "  --listen ADDR[:PORT]   address to listen on (port default 80; 0 = any)\n"
                      "  --fps N                pictures per second per connection (default 10;\n"
                      "                         0 = as fast as the connection takes them)\n"
                      "  --frames N             pictures per connection, then close (0 = endless)\n"
                      "  --size WxH             generated picture size (default 640x480)\n"
                      "  --quality Q            JPEG quality 1..100 (default 40: about 18 KB at 640x480)\n"
                      "  --detail D             texture 0..255 that enlarges pictures (default 0;\n"
                      "                         1920x1080 with quality 85 and detail 20 is about 400 KB)\n"
                      "  --distinct N           number of different generated pictures (default 25)\n"
                      "  --images DIR           send the *.jpg/*.jpeg files of DIR in name order instead\n"
                      "  --cameras N            camera numbers 1..N exist (default 4); others get 404\n"
                      "  --auth USER:PASSWORD   require Basic authorisation (standard Base64); 401 otherwise\n"
                      "  --auth-digest ALG[,auth]\n"
                      "                         ask for Digest instead of Basic (with --auth): ALG is MD5,\n"
                      "                         MD5-sess, SHA-256 or SHA-256-sess; \",auth\" offers qop=auth\n"
                      "                         (the -sess forms need it), without it RFC 2069's form\n"
                      "  --nonce-uses N         a Digest nonce serves N authorised requests; the next one\n"
                      "                         gets 401 with stale=true and a new nonce (default 0 = for ever)\n"
                      "  --boundary TEXT        multipart boundary (default myboundary)\n"
                      "  --fault KIND           inject a fault (below)\n"
                      "  --fault-at N           the part number the fault hits (default 1)\n"
                      "  --fault-arg N          number used by some faults\n"
                      "  --fault-connections N  only connections 1..N get the fault (default 0 = all)\n"
                      "  --record FILE          append every raw request to FILE, one record each:\n"
                      "                         \"#REQUEST n peer=A:P t_us=T bytes=L\\n\" L bytes \"\\n\"\n"
                      "  --record-stdout        also write the records to standard output\n"
                      "  --quiet                no connection log on standard error\n"
                      "  --help                 this text\n"
                      "\n"
                      "Faults:\n"
                      "  drop          close the connection instead of sending part N\n"
                      "  truncate      part N announces its length, half of it is sent, then close\n"
                      "  oversize      part N is a valid JPEG of fault-arg bytes (default 1048576)\n"
                      "  stall         send nothing from part N on, keep the connection open\n"
                      "  garbage-head  answer with a head that is not HTTP\n"
                      "  wrong-length  part N's Content-Length is off by fault-arg (default +100)\n"
                      "  no-length     part N has no Content-Length line\n"
                      "  zero-length   part N is empty with Content-Length: 0\n"
                      "  reset         part N is cut half-way by a TCP reset\n"
                      "  status        answer with the status fault-arg (default 503)\n"
                      "  hang          part N stops after fault-arg bytes, counted from its boundary\n"
                      "                line (default: half of the part), and the connection stays\n"
                      "                open and silent\n"
                      "Every fault acts only once the bytes sent before it have reached the client.\n"
                      "\n"
                      "Stops on SIGINT or SIGTERM. Exit status 0, or 2 for bad options or set-up.\n";

}  // namespace

int main(int argc, char** argv)
{
    enum {
        kListen = 1,
        kFps,
        kFrames,
        kSize,
        kQuality,
        kDetail,
        kDistinct,
        kImages,
        kCameras,
        kAuth,
        kAuthDigest,
        kNonceUses,
        kBoundary,
        kFault,
        kFaultAt,
        kFaultArg,
        kFaultConns,
        kRecord,
        kRecordStdout,
        kQuiet,
        kHelp
    };
    static const option kOptions[] = {{"listen", required_argument, nullptr, kListen},
                                      {"fps", required_argument, nullptr, kFps},
                                      {"frames", required_argument, nullptr, kFrames},
                                      {"size", required_argument, nullptr, kSize},
                                      {"quality", required_argument, nullptr, kQuality},
                                      {"detail", required_argument, nullptr, kDetail},
                                      {"distinct", required_argument, nullptr, kDistinct},
                                      {"images", required_argument, nullptr, kImages},
                                      {"cameras", required_argument, nullptr, kCameras},
                                      {"auth", required_argument, nullptr, kAuth},
                                      {"auth-digest", required_argument, nullptr, kAuthDigest},
                                      {"nonce-uses", required_argument, nullptr, kNonceUses},
                                      {"boundary", required_argument, nullptr, kBoundary},
                                      {"fault", required_argument, nullptr, kFault},
                                      {"fault-at", required_argument, nullptr, kFaultAt},
                                      {"fault-arg", required_argument, nullptr, kFaultArg},
                                      {"fault-connections", required_argument, nullptr, kFaultConns},
                                      {"record", required_argument, nullptr, kRecord},
                                      {"record-stdout", no_argument, nullptr, kRecordStdout},
                                      {"quiet", no_argument, nullptr, kQuiet},
                                      {"help", no_argument, nullptr, kHelp},
                                      {nullptr, 0, nullptr, 0}};

    otools::CamSimConfig cfg;
    bool haveListen = false;
    long long v = 0;
    int c;
    while ((c = getopt_long(argc, argv, "", kOptions, nullptr)) != -1) {
        const std::string arg = optarg ? optarg : "";
        switch (c) {
        case kListen:
            if (!otools::ParseHostPort(arg, 80, &cfg.host, &cfg.port))
                return otools::UsageError(kTool, "bad --listen " + arg);
            haveListen = true;
            break;
        case kFps: {
            char* end = nullptr;
            cfg.fps = std::strtod(optarg, &end);
            if (*end || cfg.fps < 0 || cfg.fps > 10000)
                return otools::UsageError(kTool, "bad --fps " + arg);
            break;
        }
        case kFrames:
            if (!otools::ParseIntegerIn(optarg, 0, 1LL << 62, &v))
                return otools::UsageError(kTool, "bad --frames " + arg);
            cfg.frames = static_cast<uint64_t>(v);
            break;
        case kSize: {
            const size_t x = arg.find('x');
            long long w = 0, h = 0;
            if (x == std::string::npos || !otools::ParseIntegerIn(arg.substr(0, x).c_str(), 1, 65535, &w) ||
                !otools::ParseIntegerIn(arg.substr(x + 1).c_str(), 1, 65535, &h))
                return otools::UsageError(kTool, "bad --size " + arg);
            cfg.width = static_cast<int>(w);
            cfg.height = static_cast<int>(h);
            break;
        }
        case kQuality:
            if (!otools::ParseIntegerIn(optarg, 1, 100, &v))
                return otools::UsageError(kTool, "bad --quality " + arg);
            cfg.quality = static_cast<int>(v);
            break;
        case kDetail:
            if (!otools::ParseIntegerIn(optarg, 0, 255, &v))
                return otools::UsageError(kTool, "bad --detail " + arg);
            cfg.detail = static_cast<int>(v);
            break;
        case kDistinct:
            if (!otools::ParseIntegerIn(optarg, 1, 10000, &v))
                return otools::UsageError(kTool, "bad --distinct " + arg);
            cfg.distinct = static_cast<int>(v);
            break;
        case kImages: cfg.imageDir = arg; break;
        case kCameras:
            if (!otools::ParseIntegerIn(optarg, 1, 9999, &v))
                return otools::UsageError(kTool, "bad --cameras " + arg);
            cfg.cameras = static_cast<int>(v);
            break;
        case kAuth: {
            const size_t colon = arg.find(':');
            if (colon == std::string::npos)
                return otools::UsageError(kTool, "--auth wants USER:PASSWORD");
            cfg.auth = true;
            cfg.user = arg.substr(0, colon);
            cfg.password = arg.substr(colon + 1);
            break;
        }
        case kAuthDigest: {
            const size_t comma = arg.find(',');
            const std::string alg = arg.substr(0, comma);
            const std::string qop = comma == std::string::npos ? "" : arg.substr(comma + 1);
            const bool sess = alg == "MD5-sess" || alg == "SHA-256-sess";
            if ((alg != "MD5" && alg != "SHA-256" && !sess) || (qop != "" && qop != "auth") || (sess && qop.empty()))
                return otools::UsageError(kTool, "bad --auth-digest " + arg);
            cfg.digestAlgorithm = alg;
            cfg.digestQop = !qop.empty();
            break;
        }
        case kNonceUses:
            if (!otools::ParseIntegerIn(optarg, 0, 1LL << 62, &v))
                return otools::UsageError(kTool, "bad --nonce-uses " + arg);
            cfg.nonceUses = v;
            break;
        case kBoundary:
            if (arg.empty() || arg.find_first_of("\r\n") != std::string::npos)
                return otools::UsageError(kTool, "bad --boundary");
            cfg.boundary = arg;
            break;
        case kFault:
            if (!otools::ParseCamFault(arg, &cfg.fault))
                return otools::UsageError(kTool, "unknown fault " + arg);
            break;
        case kFaultAt:
            if (!otools::ParseIntegerIn(optarg, 1, 1LL << 62, &v))
                return otools::UsageError(kTool, "bad --fault-at " + arg);
            cfg.faultAt = static_cast<uint64_t>(v);
            break;
        case kFaultArg:
            if (!otools::ParseInteger(arg, &cfg.faultArg))
                return otools::UsageError(kTool, "bad --fault-arg " + arg);
            cfg.faultArgSet = true;
            break;
        case kFaultConns:
            if (!otools::ParseIntegerIn(optarg, 0, 1 << 30, &v))
                return otools::UsageError(kTool, "bad --fault-connections " + arg);
            cfg.faultConnections = static_cast<int>(v);
            break;
        case kRecord: cfg.recordPath = arg; break;
        case kRecordStdout: cfg.recordStdout = true; break;
        case kQuiet: cfg.quiet = true; break;
        case kHelp: std::fputs(kUsage, stdout); return 0;
        default: return otools::UsageError(kTool, "unknown option");
        }
    }
    if (optind < argc)
        return otools::UsageError(kTool, std::string("unexpected argument ") + argv[optind]);
    if (!haveListen)
        return otools::UsageError(kTool, "--listen is required");
    if (!cfg.digestAlgorithm.empty() && !cfg.auth)
        return otools::UsageError(kTool, "--auth-digest needs --auth USER:PASSWORD");

    otools::InstallStopSignals();
    otools::CamSim sim(cfg);
    std::string err;
    if (!sim.Start(&err)) {
        std::fprintf(stderr, "ostrel-camsim: %s\n", err.c_str());
        return 2;
    }
    if (!cfg.quiet)
        std::fprintf(stderr, "camsim: listening on %s:%d\n", cfg.host.c_str(), sim.Port());
    while (!otools::g_stopRequested.load(std::memory_order_relaxed))
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    sim.Stop();
    if (!cfg.quiet)
        std::fprintf(stderr, "camsim: stopped: %d connections, %llu frames\n", sim.Connections(),
                     static_cast<unsigned long long>(sim.FramesSent()));
    return 0;
}
