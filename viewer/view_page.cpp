// The browser view's page: view.html with view.js (embedded at build time,
// view_assets.h), served filled with the figures of the moment, so that it
// says something without script; its script then replaces the picture as
// soon as a newer one exists (latest.jpg?after=N, which the server holds
// until then) and refreshes the figures twice a second. The picture sits at a fixed place (16,72) and size (640x480) so
// that a screenshot can be checked at known pixels.

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "viewer/view_assets.h"
#include "viewer/view_server.h"

namespace otools {
namespace {

std::string escape(const std::string& s)
{
    std::string out;
    for (char c : s) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string fixed(double v, const char* format)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

// The template with every "{{name}}" replaced by its value in `values`
// (values are put in as given: the caller escapes them). A name the list
// does not hold stays as it is.
std::string fill(const char* page, const std::vector<std::pair<std::string, std::string>>& values)
{
    const std::string text = page;
    std::string out;
    size_t at = 0;
    for (;;) {
        const size_t open = text.find("{{", at);
        const size_t close = open == std::string::npos ? open : text.find("}}", open + 2);
        if (close == std::string::npos) {
            out.append(text, at, std::string::npos);
            return out;
        }
        const std::string name = text.substr(open + 2, close - open - 2);
        auto it = std::find_if(values.begin(), values.end(), [&](const auto& v) { return v.first == name; });
        out.append(text, at, open - at);
        out += it != values.end() ? it->second : text.substr(open, close + 2 - open);
        at = close + 2;
    }
}

}  // namespace

std::string ViewServer::page() const
{
    const ViewFigures f = Snapshot();
    const std::string control = cfg_.control.host + ":" + std::to_string(cfg_.control.port);
    const bool live = f.channel == ViewFigures::Channel::kPulling;
    const std::string bannerClass = live ? (f.camera == "delivering" ? "live" : "wait")
                                         : (f.channel == ViewFigures::Channel::kConnecting ? "wait" : "bad");
    const std::string bannerText = live ? (f.camera == "delivering" ? "live" : "camera " + f.camera)
                                        : (f.message.empty() ? ChannelStateName(f.channel) : f.message);
    const std::string states = states_text();
    const std::string none = "-";
    return fill(kViewHtml,
                {
                    {"control", escape(control)},
                    {"banner-class", bannerClass},
                    {"banner", escape(bannerText)},
                    // Without a picture yet the box stays empty until the script fills it.
                    {"picture", f.pictures > 0 ? " src=\"latest.jpg\" alt=\"latest picture\"" : " alt=\"\""},
                    {"channel", escape(ChannelStateName(f.channel))},
                    {"camera", escape(f.camera)},
                    {"fps", fixed(f.fps, "%.1f")},
                    {"p50", f.haveLatency ? fixed(f.p50Ms, "%.1f ms") : none},
                    {"p99", f.haveLatency ? fixed(f.p99Ms, "%.1f ms") : none},
                    {"pictures", std::to_string(f.pictures)},
                    {"seq", f.haveSeq ? std::to_string(f.seq) : none},
                    {"age", f.pictureAgeMs >= 0 ? fixed(f.pictureAgeMs / 1000, "%.1f s") : none},
                    {"waits", std::to_string(f.waits)},
                    {"faults", std::to_string(f.faults)},
                    {"logins", std::to_string(f.logins)},
                    {"streams", std::to_string(f.streams)},
                    {"option", escape(f.option.empty() ? "(no picture yet)" : f.option)},
                    {"states-path", escape(cfg_.statesPath)},
                    {"states", escape(states.empty() ? "(no states file: the channel is not running)" : states)},
                    {"script", kViewJs},
                });
}

}  // namespace otools
