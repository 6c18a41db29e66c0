#include "viewer/view_server.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <unistd.h>

#include "viewer/jpeg_stamp.h"
#include "viewer/tool_http.h"
#include "viewer/tool_net.h"
#include "viewer/tool_options.h"

namespace otools {
namespace {

constexpr int64_t kFpsWindowMs = 5000;
constexpr size_t kLatencyWindow = 500;
// A camera that delivers sends several pictures a second; this long without
// one, while the channel answers "not yet", means it does not deliver.
constexpr int64_t kCameraSilentMs = 2000;
constexpr int kBrowserTimeoutMs = 10000;
constexpr int kLatestWaitMs = 5000;
constexpr const char* kBoundary = "ostrelframe";

int64_t steady_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string trimmed(const std::string& s)
{
    size_t e = s.size();
    while (e > 0 && (s[e - 1] == '\r' || s[e - 1] == '\n' || s[e - 1] == ' '))
        --e;
    return s.substr(0, e);
}

// An answer text fit for one line of the page: printable, at most 200 bytes.
std::string printable(const std::string& s)
{
    std::string out;
    for (char c : s.substr(0, 200))
        out += (c >= 0x20 && c < 0x7f) ? c : '?';
    return out;
}

double percentile(std::vector<double> v, double p)
{
    std::sort(v.begin(), v.end());
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(v.size())));
    if (rank == 0)
        rank = 1;
    return v[std::min(rank, v.size()) - 1];
}

// JSON string literal; bytes above 0x7f are taken as Latin-1.
std::string json_string(const std::string& s)
{
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c < 0x20 || c >= 0x7f) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string json_number(double v)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", v);
    return buf;
}

void send_answer(int fd, int status, const char* reason, const std::string& type, const std::string& body,
                 bool headOnly, const std::string& extra = "")
{
    const std::string head = "HTTP/1.0 " + std::to_string(status) + " " + reason + "\r\nContent-Type: " + type +
                             "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nCache-Control: no-store\r\n" +
                             extra + "Connection: close\r\n\r\n";
    static const std::atomic<bool> kNoStop{false};
    iovec iov[2] = {{const_cast<char*>(head.data()), head.size()},
                    {const_cast<char*>(body.data()), headOnly ? 0 : body.size()}};
    SendAllV(fd, iov, 2, kBrowserTimeoutMs, kNoStop);
}

// True when the browser has closed its side (or reset the connection).
bool peer_gone(int fd)
{
    pollfd p{fd, POLLRDHUP, 0};
    return ::poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

}  // namespace

const char* ChannelStateName(ViewFigures::Channel c)
{
    switch (c) {
    case ViewFigures::Channel::kConnecting: return "connecting";
    case ViewFigures::Channel::kPulling: return "pulling";
    case ViewFigures::Channel::kNoAnswer: return "no answer";
    case ViewFigures::Channel::kErrorWord: return "error word";
    }
    return "?";
}

ViewServer::~ViewServer()
{
    Stop();
}

bool ViewServer::Start(const ViewServerConfig& cfg, std::FILE* log, std::string* err)
{
    cfg_ = cfg;
    log_ = log;
    auto handler = [this](int fd, const std::string&, int connNo) { handle(fd, connNo); };
    if (cfg_.serveFd >= 0) {
        server_.StartOnListener(cfg_.serveFd, handler);
    } else if (!server_.Start(cfg_.serveHost, cfg_.servePort, handler, err)) {
        return false;
    }
    puller_ = std::thread([this] { pull_loop(); });
    return true;
}

void ViewServer::Stop()
{
    {
        std::lock_guard<std::mutex> lock(mu_);
        stop_.store(true, std::memory_order_relaxed);
    }
    changed_.notify_all();
    if (puller_.joinable())
        puller_.join();
    server_.Stop();
}

// REQUIRES: mu_ is held.
void ViewServer::set_channel(ViewFigures::Channel c, const std::string& message)
{
    if (fig_.channel == c && fig_.message == message)
        return;
    fig_.channel = c;
    fig_.message = message;
    if (!log_)
        return;
    char when[32];
    const std::time_t now = std::time(nullptr);
    std::tm tm;
    std::strftime(when, sizeof when, "%H:%M:%S", localtime_r(&now, &tm));
    std::fprintf(log_, "view %s: channel %s%s%s\n", when, ChannelStateName(c), message.empty() ? "" : ": ",
                 message.c_str());
    std::fflush(log_);
}

void ViewServer::pause(int ms)
{
    std::unique_lock<std::mutex> lock(mu_);
    changed_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return stop_.load(std::memory_order_relaxed); });
}

void ViewServer::pull_loop()
{
    uint64_t userId = 0;
    bool loggedIn = false;
    while (!stop_.load(std::memory_order_relaxed)) {
        if (!loggedIn) {
            if (!login(&userId)) {
                pause(cfg_.retryMs);
                continue;
            }
            loggedIn = true;
        }
        fetch(userId, &loggedIn);
    }
    if (!loggedIn)
        return;
    // The relay keeps its camera stream open while someone is logged in.
    ViewerConfig c = cfg_.control;
    c.requestTimeoutMs = std::min(c.requestTimeoutMs, 2000);
    static const std::atomic<bool> kNoStop{false};
    std::vector<ControlAnswer> answers;
    std::string err;
    const bool ok = ControlExchange(c, kNoStop, "/ptippreimg.cgi?img_logout=1&img_user_id=" + std::to_string(userId),
                                    &answers, nullptr, nullptr, &err) &&
                    trimmed(answers.back().body).rfind("LOGOUT_SUCCESS:", 0) == 0;
    if (log_) {
        const std::string why = !err.empty() ? err : printable(trimmed(answers.back().body));
        std::fprintf(log_, "view: logout %s\n", ok ? "done" : ("failed: " + why).c_str());
        std::fflush(log_);
    }
}

bool ViewServer::login(uint64_t* userId)
{
    std::vector<ControlAnswer> answers;
    std::string err;
    const std::string channel = cfg_.control.host + ":" + std::to_string(cfg_.control.port);
    if (!ControlExchange(cfg_.control, stop_, "/ptippreimg.cgi?img_login=1", &answers, nullptr, nullptr, &err)) {
        std::lock_guard<std::mutex> lock(mu_);
        if (stop_.load(std::memory_order_relaxed))
            return false;
        ++fig_.faults;
        set_channel(ViewFigures::Channel::kNoAnswer,
                    "the channel at " + channel + " does not answer the login: " + err);
        return false;
    }
    // A failed step may answer "ERROR_SYSTEM:" before the login answer on the
    // same connection; the login answer is the last.
    const std::string text = trimmed(answers.back().body);
    const std::string kWord = "LOGIN_SUCCESS:";
    long long id = 0;
    const bool ok = answers.back().head.status == 200 && text.rfind(kWord, 0) == 0 &&
                    ParseInteger(text.substr(kWord.size(), text.find(':', kWord.size()) - kWord.size()), &id) &&
                    id >= 0;
    std::lock_guard<std::mutex> lock(mu_);
    fig_.faults += answers.size() - 1;
    if (!ok) {
        ++fig_.faults;
        std::string msg =
            "the channel at " + channel + " refuses the login: " +
            (answers.back().head.status != 200 ? "status " + std::to_string(answers.back().head.status) + " " : "") +
            printable(text);
        if (text == "ERROR_UNKNOWN_IP:")
            msg += " (it serves only its own address: start the view with --bind that address)";
        set_channel(ViewFigures::Channel::kErrorWord, msg);
        return false;
    }
    *userId = static_cast<uint64_t>(id);
    ++fig_.logins;
    loginAtMs_ = steady_ms();
    set_channel(ViewFigures::Channel::kPulling, "");
    return true;
}

void ViewServer::fetch(uint64_t userId, bool* loggedIn)
{
    std::vector<ControlAnswer> answers;
    std::string err;
    int64_t recvUs = 0;
    const std::string channel = cfg_.control.host + ":" + std::to_string(cfg_.control.port);
    if (!ControlExchange(cfg_.control, stop_, "/ptippreimg.cgi?get_image=1&img_user_id=" + std::to_string(userId),
                         &answers, &recvUs, nullptr, &err)) {
        if (stop_.load(std::memory_order_relaxed))
            return;
        {
            std::lock_guard<std::mutex> lock(mu_);
            ++fig_.faults;
            set_channel(ViewFigures::Channel::kNoAnswer, "the channel at " + channel + " does not answer: " + err);
        }
        // A restarted relay has forgotten the login.
        *loggedIn = false;
        pause(cfg_.retryMs);
        return;
    }
    const ControlAnswer& a = answers.front();
    const std::string* type = a.head.Find("Content-Type");
    const int64_t now = steady_ms();
    if (a.head.status != 200 || !type || *type != "image/jpeg") {
        const std::string word = trimmed(a.body);
        if (a.head.status == 200 && word == "ERROR_TRANSLATOR_RECEIVE:") {
            bool silent;
            {
                std::lock_guard<std::mutex> lock(mu_);
                ++fig_.waits;
                set_channel(ViewFigures::Channel::kPulling, "");
                silent = now - std::max(pictureAtMs_, loginAtMs_) > kCameraSilentMs;
            }
            // The relay has waited a few milliseconds already; ask again at once
            // unless the camera has stopped delivering, then gently.
            if (silent)
                pause(50);
            return;
        }
        {
            std::lock_guard<std::mutex> lock(mu_);
            ++fig_.faults;
            std::string msg = "the channel at " + channel + " answers " +
                              (a.head.status != 200 ? "status " + std::to_string(a.head.status) + " " : "") +
                              printable(word);
            if (word == "ERROR_USER_ID:")
                msg += " (it has forgotten the login: logging in again)";
            set_channel(ViewFigures::Channel::kErrorWord, msg);
        }
        if (word == "ERROR_USER_ID:")
            *loggedIn = false;
        pause(word == "ERROR_USER_ID:" ? 100 : cfg_.retryMs);
        return;
    }
    const uint8_t* p = reinterpret_cast<const uint8_t*>(a.body.data());
    const bool wellFormed = a.hasLength && a.lengthMatches && CheckJpegStructure(p, a.body.size()).empty();
    uint64_t seq = 0;
    int64_t sentUs = 0;
    const bool stamped = wellFormed && ReadStamp(p, a.body.size(), &seq, &sentUs);
    const std::string* option = a.head.Find("IMAGE_ID0000");
    {
        std::lock_guard<std::mutex> lock(mu_);
        set_channel(ViewFigures::Channel::kPulling, "");
        if (!wellFormed || !option || !OptionTextOk(*option))
            ++fig_.faults;
        if (!wellFormed)
            return;  // not worth showing
        picture_ = std::make_shared<const std::string>(a.body);
        ++fig_.pictures;
        pictureAtMs_ = now;
        fig_.option = option ? *option : "";
        fig_.haveSeq = stamped;
        fig_.seq = seq;
        if (stamped) {
            latencies_.push_back(static_cast<double>(recvUs - sentUs) / 1000.0);
            if (latencies_.size() > kLatencyWindow)
                latencies_.pop_front();
        }
        recent_.push_back(now);
        while (!recent_.empty() && recent_.front() <= now - kFpsWindowMs)
            recent_.pop_front();
    }
    changed_.notify_all();
}

ViewFigures ViewServer::Snapshot() const
{
    std::lock_guard<std::mutex> lock(mu_);
    ViewFigures f = fig_;
    const int64_t now = steady_ms();
    if (f.pictures > 0)
        f.pictureAgeMs = static_cast<double>(now - pictureAtMs_);
    const int64_t window = std::min<int64_t>(kFpsWindowMs, now - loginAtMs_);
    const auto inWindow =
        std::count_if(recent_.begin(), recent_.end(), [&](int64_t t) { return t > now - kFpsWindowMs; });
    if (f.logins > 0 && window >= 500)
        f.fps = static_cast<double>(inWindow) * 1000.0 / window;
    if (!latencies_.empty()) {
        const std::vector<double> v(latencies_.begin(), latencies_.end());
        f.haveLatency = true;
        f.p50Ms = percentile(v, 0.50);
        f.p99Ms = percentile(v, 0.99);
    }
    if (f.channel != ViewFigures::Channel::kPulling) {
        f.camera = "unknown while the channel does not serve pictures";
    } else if (f.pictures > 0 && now - pictureAtMs_ <= kCameraSilentMs) {
        f.camera = "delivering";
    } else if (now - std::max(pictureAtMs_, loginAtMs_) <= kCameraSilentMs) {
        f.camera = "connecting: no picture yet since the login";
    } else {
        f.camera = "not delivering: the channel has answered only ERROR_TRANSLATOR_RECEIVE: for " +
                   std::to_string((now - std::max(pictureAtMs_, loginAtMs_)) / 1000) + " s";
    }
    return f;
}

std::string ViewServer::states_text() const
{
    if (cfg_.statesPath.empty())
        return "";
    std::ifstream in(cfg_.statesPath, std::ios::binary);
    if (!in)
        return "";
    std::ostringstream s;
    s << in.rdbuf();
    return s.str().substr(0, 65536);
}

std::string ViewServer::FiguresJson() const
{
    const ViewFigures f = Snapshot();
    const std::string states = states_text();
    std::string j = "{";
    j += "\"control\":" + json_string(cfg_.control.host + ":" + std::to_string(cfg_.control.port));
    j += ",\"channel\":" + json_string(ChannelStateName(f.channel));
    j += ",\"message\":" + json_string(f.message);
    j += ",\"camera\":" + json_string(f.camera);
    j += ",\"pictures\":" + std::to_string(f.pictures);
    j += ",\"fps\":" + json_number(f.fps);
    j += ",\"latency_p50_ms\":" + (f.haveLatency ? json_number(f.p50Ms) : "null");
    j += ",\"latency_p99_ms\":" + (f.haveLatency ? json_number(f.p99Ms) : "null");
    j += ",\"waits\":" + std::to_string(f.waits);
    j += ",\"faults\":" + std::to_string(f.faults);
    j += ",\"logins\":" + std::to_string(f.logins);
    j += ",\"seq\":" + (f.haveSeq ? std::to_string(f.seq) : "null");
    j += ",\"picture_age_ms\":" + (f.pictureAgeMs >= 0 ? json_number(f.pictureAgeMs) : "null");
    j += ",\"option\":" + json_string(f.option);
    j += ",\"streams\":" + std::to_string(f.streams);
    j += ",\"states_path\":" + json_string(cfg_.statesPath);
    j += ",\"states\":" + (cfg_.statesPath.empty() || states.empty() ? "null" : json_string(states));
    return j + "}\n";
}

void ViewServer::handle(int fd, int)
{
    struct Closer {
        int fd;
        std::atomic<int>* clients;
        ~Closer()
        {
            clients->fetch_sub(1, std::memory_order_relaxed);
            ::close(fd);
        }
    } closer{fd, &clients_};
    if (clients_.fetch_add(1, std::memory_order_relaxed) >= cfg_.maxClients) {
        send_answer(fd, 503, "Service Unavailable", "text/plain", "too many browsers\n", false);
        return;
    }
    std::string head, rest;
    if (ReadHttpHead(fd, 16384, kBrowserTimeoutMs, server_.StopFlag(), &head, &rest) != IoResult::kOk)
        return;
    HttpHead req;
    if (!ParseRequestHead(head, &req)) {
        send_answer(fd, 400, "Bad Request", "text/plain", "malformed request\n", false);
        return;
    }
    const bool headOnly = req.method == "HEAD";
    if (req.method != "GET" && !headOnly) {
        send_answer(fd, 405, "Method Not Allowed", "text/plain", "GET or HEAD only\n", false, "Allow: GET, HEAD\r\n");
        return;
    }
    std::string path, query;
    SplitTarget(req.target, &path, &query);
    if (path == "/" || path == "/index.html") {
        send_answer(fd, 200, "OK", "text/html; charset=utf-8", page(), headOnly);
    } else if (path == "/figures.json") {
        send_answer(fd, 200, "OK", "application/json", FiguresJson(), headOnly);
    } else if (path == "/states") {
        if (cfg_.statesPath.empty()) {
            send_answer(fd, 404, "Not Found", "text/plain", "no states file given (--states)\n", headOnly);
            return;
        }
        std::ifstream in(cfg_.statesPath, std::ios::binary);
        if (!in) {
            send_answer(fd, 404, "Not Found", "text/plain",
                        "no states file at " + cfg_.statesPath + " (the channel is not running)\n", headOnly);
            return;
        }
        send_answer(fd, 200, "OK", "text/plain; charset=iso-8859-1", states_text(), headOnly);
    } else if (path == "/latest.jpg") {
        long long after = -1;
        const auto params = SplitQuery(query);
        if (const std::string* v = FindParam(params, "after"))
            ParseInteger(*v, &after);
        std::shared_ptr<const std::string> pic;
        uint64_t number = 0;
        {
            std::unique_lock<std::mutex> lock(mu_);
            changed_.wait_for(lock, std::chrono::milliseconds(after >= 0 ? kLatestWaitMs : 0), [&] {
                return stop_.load(std::memory_order_relaxed) || static_cast<long long>(fig_.pictures) > after;
            });
            pic = picture_;
            number = fig_.pictures;
        }
        if (!pic) {
            send_answer(fd, 503, "Service Unavailable", "text/plain", "no picture yet\n", headOnly,
                        "Retry-After: 1\r\n");
            return;
        }
        send_answer(fd, 200, "OK", "image/jpeg", *pic, headOnly,
                    "X-Ostrel-Picture: " + std::to_string(number) + "\r\n");
    } else if (path == "/stream.mjpg") {
        if (headOnly) {
            send_answer(fd, 200, "OK", std::string("multipart/x-mixed-replace; boundary=") + kBoundary, "", true);
            return;
        }
        serve_stream(fd);
    } else {
        send_answer(fd, 404, "Not Found", "text/plain", "no such page: " + printable(path) + "\n", headOnly);
    }
}

void ViewServer::serve_stream(int fd)
{
    const std::string head = std::string("HTTP/1.0 200 OK\r\nContent-Type: multipart/x-mixed-replace; "
                                         "boundary=") +
                             kBoundary + "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n";
    if (SendAll(fd, head.data(), head.size(), kBrowserTimeoutMs, server_.StopFlag()) != IoResult::kOk)
        return;
    {
        std::lock_guard<std::mutex> lock(mu_);
        ++fig_.streams;
    }
    uint64_t sent = 0;
    for (;;) {
        std::shared_ptr<const std::string> pic;
        {
            std::unique_lock<std::mutex> lock(mu_);
            changed_.wait_for(lock, std::chrono::milliseconds(500), [&] {
                return stop_.load(std::memory_order_relaxed) || (picture_ && fig_.pictures > sent);
            });
            if (stop_.load(std::memory_order_relaxed))
                break;
            if (picture_ && fig_.pictures > sent) {
                pic = picture_;
                sent = fig_.pictures;
            }
        }
        // A browser that closed the tab while no picture came is noticed here;
        // otherwise the next send finds out.
        if (!pic) {
            if (peer_gone(fd))
                break;
            continue;
        }
        const std::string partHead = std::string("--") + kBoundary +
                                     "\r\nContent-Type: image/jpeg\r\nContent-Length: " + std::to_string(pic->size()) +
                                     "\r\nX-Ostrel-Picture: " + std::to_string(sent) + "\r\n\r\n";
        iovec iov[3] = {{const_cast<char*>(partHead.data()), partHead.size()},
                        {const_cast<char*>(pic->data()), pic->size()},
                        {const_cast<char*>("\r\n"), 2}};
        if (SendAllV(fd, iov, 3, kBrowserTimeoutMs, server_.StopFlag()) != IoResult::kOk)
            break;
    }
    std::lock_guard<std::mutex> lock(mu_);
    --fig_.streams;
}

}  // namespace otools
