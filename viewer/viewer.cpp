#include "viewer/viewer.h"

#include <algorithm>
#include <chrono>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <unistd.h>
#include <vector>

#include "viewer/jpeg_stamp.h"
#include "viewer/tool_http.h"
#include "viewer/tool_net.h"
#include "viewer/tool_options.h"

namespace otools {
namespace {

// A picture of the relay is at most 819199 bytes; leave room for heads.
constexpr size_t kMaxAnswer = 4u << 20;

}  // namespace

bool ControlExchange(const ViewerConfig& cfg, const std::atomic<bool>& stop, const std::string& target,
                     std::vector<ControlAnswer>* answers, int64_t* receivedUs, std::string* raw, std::string* err)
{
    answers->clear();
    // With a first local port, a port still held by an earlier connection is
    // skipped: only bind failures move on to the next port.
    static std::atomic<unsigned> connections{0};
    int fd = -1;
    for (int tries = 0; tries < 16; ++tries) {
        const unsigned n = connections.fetch_add(1, std::memory_order_relaxed);
        const int localPort = cfg.bindPort ? cfg.bindPort + static_cast<int>(n % 10000) : 0;
        fd = ConnectTcp(cfg.host, cfg.port, cfg.bindAddr, cfg.requestTimeoutMs, err, localPort);
        if (fd >= 0 || !cfg.bindPort || err->rfind("bind to", 0) != 0)
            break;
    }
    if (fd < 0)
        return false;
    const std::string req = "GET " + target + " HTTP/1.0\r\nUser-Agent: ostrel-viewer\r\n\r\n";
    std::string data;
    IoResult r = SendAll(fd, req.data(), req.size(), cfg.requestTimeoutMs, stop);
    if (r == IoResult::kOk)
        r = ReadUntilClose(fd, kMaxAnswer, cfg.requestTimeoutMs, stop, &data);
    if (receivedUs)
        *receivedUs = RealtimeUs();
    ::close(fd);
    if (raw)
        *raw = data;
    if (r != IoResult::kOk) {
        *err = std::string("reading the answer to ") + target + ": " + IoResultName(r);
        return false;
    }
    size_t pos = 0;
    while (pos < data.size()) {
        std::string head, rest = data.substr(pos);
        size_t end = rest.find("\r\n\r\n");
        size_t endLf = rest.find("\n\n");
        if (end == std::string::npos && endLf == std::string::npos) {
            *err = "answer without a complete head";
            return false;
        }
        end = (end != std::string::npos && (endLf == std::string::npos || end + 2 <= endLf)) ? end + 4 : endLf + 2;
        ControlAnswer a;
        if (!ParseResponseHead(rest.substr(0, end), &a.head)) {
            *err = "malformed answer head";
            return false;
        }
        size_t bodyLen = rest.size() - end;
        long long cl = 0;
        if (const std::string* v = a.head.Find("Content-Length")) {
            a.hasLength = true;
            if (!ParseInteger(*v, &cl) || cl < 0) {
                *err = "malformed Content-Length";
                return false;
            }
            if (static_cast<size_t>(cl) <= bodyLen) {
                bodyLen = static_cast<size_t>(cl);
            } else {
                a.lengthMatches = false;
            }
        }
        a.body = rest.substr(end, bodyLen);
        pos += end + bodyLen;
        answers->push_back(std::move(a));
    }
    if (answers->empty()) {
        *err = "connection closed without an answer";
        return false;
    }
    return true;
}

bool OptionTextOk(const std::string& v)
{
    if (v.size() < 13 + 1 + 5 + 1 + 41 + 1 + 12)
        return false;
    size_t pos = 0;
    for (int len : {13, 5, 41}) {
        for (int i = 0; i < len; ++i)
            if (v[pos++] != '0')
                return false;
        if (v[pos++] != ':')
            return false;
    }
    for (; pos < v.size(); ++pos)
        if (!std::isxdigit(static_cast<unsigned char>(v[pos])) || std::isupper(static_cast<unsigned char>(v[pos])))
            return false;
    return true;
}

namespace {

std::string trimmed(const std::string& s)
{
    size_t e = s.size();
    while (e > 0 && (s[e - 1] == '\r' || s[e - 1] == '\n' || s[e - 1] == ' '))
        --e;
    return s.substr(0, e);
}

double percentile(const std::vector<double>& sorted, double p)
{
    if (sorted.empty())
        return 0;
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    if (rank == 0)
        rank = 1;
    return sorted[std::min(rank, sorted.size()) - 1];
}

double seconds_since(std::chrono::steady_clock::time_point t)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

}  // namespace

int RunViewer(const ViewerConfig& cfg, const std::atomic<bool>& stop, std::FILE* out, ViewerReport* report)
{
    ViewerReport rep;
    std::vector<ControlAnswer> answers;
    std::string err;

    // Log in. A failed step before the login answer (ERROR_SYSTEM:) may come
    // first on the same connection; the login answer is the last one.
    if (!ControlExchange(cfg, stop, "/ptippreimg.cgi?img_login=1", &answers, nullptr, nullptr, &err)) {
        std::fprintf(stderr, "viewer: login: %s\n", err.c_str());
        return 2;
    }
    const std::string loginText = trimmed(answers.back().body);
    for (size_t i = 0; i + 1 < answers.size(); ++i) {
        std::fprintf(stderr, "viewer: login: extra answer before the login: %s\n", trimmed(answers[i].body).c_str());
        ++rep.faults;
    }
    long long userId = 0;
    const std::string kLoginWord = "LOGIN_SUCCESS:";
    if (answers.back().head.status != 200 || loginText.compare(0, kLoginWord.size(), kLoginWord) != 0 ||
        !ParseInteger(loginText.substr(kLoginWord.size(), loginText.find(':', kLoginWord.size()) - kLoginWord.size()),
                      &userId)) {
        std::fprintf(stderr, "viewer: login refused: %d %s\n", answers.back().head.status, loginText.c_str());
        if (loginText == "ERROR_UNKNOWN_IP:")
            std::fprintf(stderr, "viewer: connect from the channel's own address (--bind)\n");
        return 2;
    }
    if (!cfg.quiet)
        std::fprintf(out, "login: user id %lld\n", userId);

    const std::string getTarget = "/ptippreimg.cgi?get_image=1&img_user_id=" + std::to_string(userId);
    std::vector<double> latencies;
    std::string lastPicture;
    uint64_t lastSeq = 0;
    bool haveSeq = false, aborted = false;
    const auto start = std::chrono::steady_clock::now();
    auto lastPictureAt = start;
    while (!stop.load(std::memory_order_relaxed)) {
        if (cfg.count > 0 && rep.pictures >= cfg.count)
            break;
        if (cfg.seconds > 0 && seconds_since(start) >= cfg.seconds)
            break;
        if (seconds_since(lastPictureAt) * 1000 >= cfg.idleLimitMs) {
            std::fprintf(stderr, "viewer: no picture for %d ms\n", cfg.idleLimitMs);
            aborted = true;
            break;
        }
        int64_t recvUs = 0;
        if (!ControlExchange(cfg, stop, getTarget, &answers, &recvUs, nullptr, &err)) {
            if (stop.load(std::memory_order_relaxed))
                break;
            std::fprintf(stderr, "viewer: get_image: %s\n", err.c_str());
            ++rep.faults;
            // The relay may be restarting: pause instead of spinning on refusals.
            SleepUntil(std::chrono::steady_clock::now() + std::chrono::milliseconds(100), stop);
            continue;
        }
        const ControlAnswer& a = answers.front();
        const std::string* type = a.head.Find("Content-Type");
        if (a.head.status == 200 && type && *type == "text/plain") {
            const std::string word = trimmed(a.body);
            if (word == "ERROR_TRANSLATOR_RECEIVE:") {
                ++rep.waits;  // the picture is not there yet: ask again
                continue;
            }
            std::fprintf(stderr, "viewer: get_image answered %s\n", word.c_str());
            ++rep.faults;
            if (word == "ERROR_USER_ID:" || word == "ERROR_UNKNOWN_IP:") {
                aborted = true;
                break;
            }
            continue;
        }
        // A picture: check it whole.
        std::vector<std::string> problems;
        const uint8_t* p = reinterpret_cast<const uint8_t*>(a.body.data());
        if (a.head.status != 200)
            problems.push_back("status " + std::to_string(a.head.status));
        if (!type || *type != "image/jpeg")
            problems.push_back("Content-Type is not image/jpeg");
        if (!a.hasLength)
            problems.push_back("no Content-Length");
        if (!a.lengthMatches)
            problems.push_back("fewer bytes than Content-Length");
        if (answers.size() > 1)
            problems.push_back("bytes after the picture");
        const std::string jpegErr = CheckJpegStructure(p, a.body.size());
        if (!jpegErr.empty())
            problems.push_back("JPEG: " + jpegErr);
        const std::string* option = a.head.Find("IMAGE_ID0000");
        if (!option || !OptionTextOk(*option))
            problems.push_back("bad IMAGE_ID0000 option text");
        uint64_t seq = 0;
        int64_t sentUs = 0;
        double latencyMs = -1;
        if (!ReadStamp(p, a.body.size(), &seq, &sentUs)) {
            problems.push_back("no camera stamp");
        } else {
            if (haveSeq && seq <= lastSeq)
                problems.push_back("sequence " + std::to_string(seq) + " not above " + std::to_string(lastSeq));
            if (haveSeq && seq > lastSeq + 1)
                ++rep.gaps;
            lastSeq = seq;
            haveSeq = true;
            latencyMs = static_cast<double>(recvUs - sentUs) / 1000.0;
            latencies.push_back(latencyMs);
        }
        ++rep.pictures;
        lastPictureAt = std::chrono::steady_clock::now();
        lastPicture = a.body;
        if (!problems.empty()) {
            ++rep.faults;
            std::string all;
            for (const std::string& s : problems)
                all += (all.empty() ? "" : "; ") + s;
            std::fprintf(stderr, "viewer: picture %d: %s\n", rep.pictures, all.c_str());
        }
        if (!cfg.quiet)
            std::fprintf(out, "picture %d seq=%llu bytes=%zu latency_ms=%.3f sent_us=%lld\n", rep.pictures,
                         static_cast<unsigned long long>(seq), a.body.size(), latencyMs,
                         static_cast<long long>(sentUs));
    }
    rep.seconds = seconds_since(start);

    if (cfg.logout) {
        // Log out even when a stop request ended the pull: the relay keeps its
        // camera stream open for as long as someone is logged in.
        static const std::atomic<bool> kNoStop{false};
        const std::string target = "/ptippreimg.cgi?img_logout=1&img_user_id=" + std::to_string(userId);
        if (!ControlExchange(cfg, kNoStop, target, &answers, nullptr, nullptr, &err)) {
            std::fprintf(stderr, "viewer: logout: %s\n", err.c_str());
            ++rep.faults;
        } else if (trimmed(answers.back().body).compare(0, 15, "LOGOUT_SUCCESS:") != 0) {
            std::fprintf(stderr, "viewer: logout refused: %s\n", trimmed(answers.back().body).c_str());
            ++rep.faults;
        } else if (!cfg.quiet) {
            std::fprintf(out, "logout: %s\n", trimmed(answers.back().body).c_str());
        }
    }

    if (!cfg.savePath.empty() && !lastPicture.empty()) {
        if (FILE* f = std::fopen(cfg.savePath.c_str(), "wb")) {
            std::fwrite(lastPicture.data(), 1, lastPicture.size(), f);
            std::fclose(f);
        } else {
            std::fprintf(stderr, "viewer: cannot write %s: %s\n", cfg.savePath.c_str(), std::strerror(errno));
            ++rep.faults;
        }
    }

    std::sort(latencies.begin(), latencies.end());
    rep.fps = rep.seconds > 0 ? rep.pictures / rep.seconds : 0;
    rep.p50Ms = percentile(latencies, 0.50);
    rep.p99Ms = percentile(latencies, 0.99);
    rep.maxMs = latencies.empty() ? 0 : latencies.back();
    std::fprintf(out,
                 "summary: pictures=%d seconds=%.3f fps=%.2f latency_ms p50=%.3f p99=%.3f "
                 "max=%.3f gaps=%d waits=%d faults=%d\n",
                 rep.pictures, rep.seconds, rep.fps, rep.p50Ms, rep.p99Ms, rep.maxMs, rep.gaps, rep.waits, rep.faults);
    std::fflush(out);
    if (report)
        *report = rep;
    const bool complete = cfg.count == 0 || rep.pictures >= cfg.count;
    return rep.faults == 0 && rep.pictures > 0 && complete && !aborted ? 0 : 1;
}

int RunTrcom(const ViewerConfig& cfg, const std::atomic<bool>& stop, std::FILE* out)
{
    const std::string query =
        !cfg.trcomQuery.empty() ? cfg.trcomQuery : "p_name=TrCommunicate&p_version=1&command=" + cfg.trcomCommand;
    std::vector<ControlAnswer> answers;
    std::string raw, err;
    if (!ControlExchange(cfg, stop, "/trcom.cgi?" + query, &answers, nullptr, &raw, &err)) {
        if (!raw.empty())
            std::fwrite(raw.data(), 1, raw.size(), out);
        std::fprintf(stderr, "viewer: trcom: %s\n", err.c_str());
        return 2;
    }
    std::fwrite(raw.data(), 1, raw.size(), out);
    if (raw.empty() || raw.back() != '\n')
        std::fputc('\n', out);
    std::fflush(out);
    const ControlAnswer& a = answers.front();
    const std::string* result = a.head.Find("Query_Result");
    if (a.head.status != 200 || !result)
        return 1;
    const size_t colon = result->find(':');
    long long code = 0;
    if (colon == std::string::npos || !ParseInteger(result->substr(colon + 1), &code))
        return 1;
    return code == 1 ? 0 : 1;
}

}  // namespace otools
