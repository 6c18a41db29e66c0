// ostrel-camsim: a simulated Axis network camera for operators and tests.

#include <cstdio>
#include <string>
#include <vector>

#include "tests/sim/camsim.h"
#include "tests/sim/sim_common.h"
#include "viewer/tool_options.h"

namespace {

constexpr char kTool[] = "ostrel-camsim";

const char kUsage[] = "Usage: ostrel-camsim --listen ADDR[:PORT] [options]\n"
                      "\n"
                      "Simulated Axis camera: answers\n"
                      "  GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=N  (N 1..4; others get 404)\n"
                      "with a multipart/x-mixed-replace stream of JPEG pictures, one part each.\n"
                      "Every picture carries a comment segment \"ostrel-stamp seq=S t_us=T\":\n"
                      "a sequence number rising across all connections and the send time in\n"
                      "microseconds (CLOCK_REALTIME). One thread per connection.\n"
                      "\n"
                      "  --listen ADDR[:PORT]   address to listen on (port default 80; 0 = any)\n"
                      "  --fps N                pictures per second per connection (default 10;\n"
                      "                         0 = as fast as the connection takes them)\n"
                      "  --frames N             pictures per connection, then close (0 = endless)\n"
                      "  --size WxH             generated picture size (default 640x480; 25 pictures in turn)\n"
                      "  --quality Q            JPEG quality 1..100 (default 40: about 18 KB at 640x480)\n"
                      "  --detail D             texture 0..255 that enlarges pictures (default 0;\n"
                      "                         1920x1080 with quality 85 and detail 20 is about 400 KB)\n"
                      "  --images DIR           send the *.jpg/*.jpeg files of DIR in name order instead\n"
                      "  --auth USER:PASSWORD   require Basic authorisation (standard Base64); 401 otherwise\n"
                      "  --auth-digest ALG[,auth]\n"
                      "                         ask for Digest instead of Basic (with --auth): ALG is MD5,\n"
                      "                         MD5-sess, SHA-256 or SHA-256-sess; \",auth\" offers qop=auth\n"
                      "                         (the -sess forms need it), without it RFC 2069's form\n"
                      "  --nonce-uses N         a Digest nonce serves N authorised requests; the next one\n"
                      "                         gets 401 with stale=true and a new nonce (default 0 = for ever)\n"
                      "  --fault KIND           inject a fault (below)\n"
                      "  --fault-at N           the part number the fault hits (default 1)\n"
                      "  --fault-arg N          number used by some faults\n"
                      "  --fault-connections N  only connections 1..N get the fault (default 0 = all)\n"
                      "  --record FILE          append every raw request to FILE, one record each:\n"
                      "                         \"#REQUEST n peer=A:P t_us=T bytes=L\\n\" L bytes \"\\n\"\n"
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
    using namespace otools;
    CamSimConfig cfg;
    bool haveListen = false;
    const std::vector<ToolOption> table = {
        {"listen", true,
         [&](const std::string& a) { return haveListen = ParseHostPort(a, 80, &cfg.host, &cfg.port); }},
        {"fps", true, NumberOption(0, 10000, &cfg.fps)},
        {"frames", true, IntegerOption(0, 1LL << 62, &cfg.frames)},
        {"size", true,
         [&](const std::string& a) {
             const size_t x = a.find('x');
             return x != std::string::npos && ParseIntegerIn(a.substr(0, x), 1, 65535, &cfg.width) &&
                    ParseIntegerIn(a.substr(x + 1), 1, 65535, &cfg.height);
         }},
        {"quality", true, IntegerOption(1, 100, &cfg.quality)},
        {"detail", true, IntegerOption(0, 255, &cfg.detail)},
        {"images", true, TextOption(&cfg.imageDir)},
        {"auth", true,
         [&](const std::string& a) {
             const size_t colon = a.find(':');
             cfg.auth = colon != std::string::npos;
             cfg.user = a.substr(0, colon);
             cfg.password = cfg.auth ? a.substr(colon + 1) : "";
             return cfg.auth;
         },
         " (USER:PASSWORD)"},
        {"auth-digest", true,
         [&](const std::string& a) {
             const size_t comma = a.find(',');
             const std::string alg = a.substr(0, comma);
             const std::string qop = comma == std::string::npos ? "" : a.substr(comma + 1);
             const bool sess = alg == "MD5-sess" || alg == "SHA-256-sess";
             cfg.digestAlgorithm = alg;
             cfg.digestQop = !qop.empty();
             return (alg == "MD5" || alg == "SHA-256" || sess) && (qop.empty() || qop == "auth") &&
                    !(sess && qop.empty());
         }},
        {"nonce-uses", true, IntegerOption(0, 1LL << 62, &cfg.nonceUses)},
        {"fault", true, [&](const std::string& a) { return ParseCamFault(a, &cfg.fault); }},
        {"fault-at", true, IntegerOption(1, 1LL << 62, &cfg.faultAt)},
        {"fault-arg", true, [&](const std::string& a) { return cfg.faultArgSet = ParseInteger(a, &cfg.faultArg); }},
        {"fault-connections", true, IntegerOption(0, 1 << 30, &cfg.faultConnections)},
        {"record", true, TextOption(&cfg.recordPath)},
        {"quiet", false, FlagOption(&cfg.quiet)},
    };
    const int end = ParseToolOptions(kTool, kUsage, argc, argv, table);
    if (end >= 0)
        return end;
    if (!haveListen)
        return UsageError(kTool, "--listen is required");
    if (!cfg.digestAlgorithm.empty() && !cfg.auth)
        return UsageError(kTool, "--auth-digest needs --auth USER:PASSWORD");
    CamSim sim(cfg);
    return RunSimulator(kTool, "camsim", cfg.host, cfg.quiet, sim, [&] {
        std::fprintf(stderr, "camsim: stopped: %d connections, %llu frames\n", sim.Connections(),
                     static_cast<unsigned long long>(sim.FramesSent()));
    });
}
