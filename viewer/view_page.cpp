// The browser view's page. It is served filled with the figures of the
// moment, so that it says something without script; its script then
// replaces the picture as soon as a newer one exists (latest.jpg?after=N,
// which the server holds until then) and refreshes the figures twice a
// second. The picture sits at a fixed place (16,72) and size (640x480) so
// that a screenshot can be checked at known pixels.

#include <cstdio>
#include <string>

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

const char kStyle[] = R"(
body{margin:0;font:14px/1.4 sans-serif;background:#f4f4f2;color:#222}
header{height:56px;box-sizing:border-box;padding:14px 16px;background:#26323c;color:#fff}
header h1{margin:0;font-size:20px;font-weight:600}
header a{color:#cfe3f5;font-size:13px;margin-left:14px}
#side{position:absolute;left:672px;top:72px;width:312px}
#banner{box-sizing:border-box;padding:8px 10px;border-radius:4px;font-weight:600;
 margin-bottom:12px}
.live{background:#d8f0d8;color:#185c18}.bad{background:#f7d4d0;color:#8a1a10}
.wait{background:#f6ecc8;color:#6a5200}
#live{position:absolute;left:16px;top:72px;width:640px;height:480px;background:#1b1b1b;
 object-fit:contain}
#figs{width:100%;border-collapse:collapse}
#figs td{padding:3px 6px;border-bottom:1px solid #ddd;vertical-align:top}
#figs td:first-child{color:#555;width:46%}
#below{position:absolute;left:16px;top:568px;right:16px}
h2{font-size:14px;margin:10px 0 4px}
pre{margin:0;padding:6px 8px;background:#fff;border:1px solid #ddd;white-space:pre-wrap;
 word-break:break-all;font-size:12px}
)";

// Element ids of the figures and the JSON fields that fill them.
const char kScript[] = R"(
'use strict';
const $ = id => document.getElementById(id);
const ms = v => v === null ? '-' : v.toFixed(1) + ' ms';
function showFigures(f) {
  const banner = $('banner');
  if (f.channel === 'pulling') {
    banner.className = f.camera === 'delivering' ? 'live' : 'wait';
    banner.textContent = f.camera === 'delivering' ? 'live' : 'camera ' + f.camera;
  } else {
    banner.className = f.channel === 'connecting' ? 'wait' : 'bad';
    banner.textContent = f.message || f.channel;
  }
  $('f-channel').textContent = f.channel;
  $('f-camera').textContent = f.camera;
  $('f-fps').textContent = f.fps.toFixed(1);
  $('f-p50').textContent = ms(f.latency_p50_ms);
  $('f-p99').textContent = ms(f.latency_p99_ms);
  $('f-pictures').textContent = f.pictures;
  $('f-seq').textContent = f.seq === null ? '-' : f.seq;
  $('f-age').textContent = f.picture_age_ms === null ? '-' : (f.picture_age_ms / 1000).toFixed(1) + ' s';
  $('f-waits').textContent = f.waits;
  $('f-faults').textContent = f.faults;
  $('f-logins').textContent = f.logins;
  $('f-streams').textContent = f.streams;
  $('option').textContent = f.option || '(no picture yet)';
  $('states').textContent = f.states === null ? '(no states file: the channel is not running)' : f.states;
}
async function figures() {
  for (;;) {
    try {
      const r = await fetch('figures.json', {cache: 'no-store'});
      showFigures(await r.json());
    } catch (e) {
      $('banner').className = 'bad';
      $('banner').textContent = 'the view itself does not answer (ostrel-viewer stopped?)';
    }
    await new Promise(done => setTimeout(done, 500));
  }
}
async function pictures(shown) {
  for (;;) {
    try {
      const r = await fetch('latest.jpg?after=' + shown, {cache: 'no-store'});
      if (r.ok) {
        shown = Number(r.headers.get('X-Ostrel-Picture'));
        const url = URL.createObjectURL(await r.blob());
        const img = $('live'), old = img.src;
        img.src = url;
        if (old.startsWith('blob:')) URL.revokeObjectURL(old);
        continue;
      }
    } catch (e) {}
    await new Promise(done => setTimeout(done, 1000));
  }
}
)";

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
    auto row = [](const char* label, const char* id, const std::string& value) {
        return std::string("<tr><td>") + label + "</td><td id=\"" + id + "\">" + escape(value) + "</td></tr>\n";
    };
    const std::string none = "-";
    std::string h;
    h += "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n";
    h += "<title>Ostrel channel " + escape(control) + "</title>\n<style>" + kStyle + "</style>\n";
    h += "</head><body>\n<header><h1>Ostrel channel " + escape(control) +
         "<a href=\"stream.mjpg\">MJPEG stream</a><a href=\"latest.jpg\">latest picture</a>"
         "<a href=\"figures.json\">figures</a><a href=\"states\">states file</a></h1></header>\n";
    // Without a picture yet the box stays empty until the script fills it.
    h += f.pictures > 0 ? "<img id=\"live\" src=\"latest.jpg\" alt=\"latest picture\">\n"
                        : "<img id=\"live\" alt=\"\">\n";
    h += "<div id=\"side\">\n<div id=\"banner\" class=\"" + bannerClass + "\">" + escape(bannerText) + "</div>\n";
    h += "<table id=\"figs\">\n";
    h += row("channel", "f-channel", ChannelStateName(f.channel));
    h += row("camera", "f-camera", f.camera);
    h += row("pictures per second", "f-fps", fixed(f.fps, "%.1f"));
    h += row("latency p50", "f-p50", f.haveLatency ? fixed(f.p50Ms, "%.1f ms") : none);
    h += row("latency p99", "f-p99", f.haveLatency ? fixed(f.p99Ms, "%.1f ms") : none);
    h += row("pictures pulled", "f-pictures", std::to_string(f.pictures));
    h += row("camera sequence", "f-seq", f.haveSeq ? std::to_string(f.seq) : none);
    h += row("last picture", "f-age", f.pictureAgeMs >= 0 ? fixed(f.pictureAgeMs / 1000, "%.1f s") : none);
    h += row("waits (not yet)", "f-waits", std::to_string(f.waits));
    h += row("faults", "f-faults", std::to_string(f.faults));
    h += row("logins", "f-logins", std::to_string(f.logins));
    h += row("stream viewers", "f-streams", std::to_string(f.streams));
    h += "</table>\n</div>\n<div id=\"below\">\n<h2>Option text of the last picture (IMAGE_ID0000)</h2>\n";
    h += "<pre id=\"option\">" + escape(f.option.empty() ? "(no picture yet)" : f.option) + "</pre>\n";
    h += "<h2>States file " + escape(cfg_.statesPath) + "</h2>\n<pre id=\"states\">" +
         escape(states.empty() ? "(no states file: the channel is not running)" : states) + "</pre>\n</div>\n";
    h += std::string("<script>") + kScript + "figures();\npictures(" + std::to_string(f.pictures) +
         ");\n</script>\n</body></html>\n";
    return h;
}

}  // namespace otools
