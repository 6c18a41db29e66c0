#include "tests/sim/camsim.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <iterator>
#include <sys/socket.h>
#include <strings.h>
#include <unistd.h>

#include "http/message_digest.h"
#include "tests/sim/jpeg_encoder.h"
#include "tests/sim/sim_common.h"
#include "viewer/jpeg_stamp.h"
#include "viewer/tool_http.h"
#include "viewer/tool_net.h"
#include "viewer/tool_options.h"

namespace otools {
namespace {

constexpr char kStreamPath[] = "/axis-cgi/mjpg/video.cgi";
constexpr size_t kMaxRequestHead = 16384;

struct FaultName {
    CamFault fault;
    const char* name;
};
constexpr FaultName kFaultNames[] = {
    {CamFault::kNone, "none"},
    {CamFault::kDrop, "drop"},
    {CamFault::kTruncate, "truncate"},
    {CamFault::kOversize, "oversize"},
    {CamFault::kStall, "stall"},
    {CamFault::kGarbageHead, "garbage-head"},
    {CamFault::kWrongLength, "wrong-length"},
    {CamFault::kNoLength, "no-length"},
    {CamFault::kZeroLength, "zero-length"},
    {CamFault::kReset, "reset"},
    {CamFault::kStatus, "status"},
    {CamFault::kHang, "hang"},
};

// How long a fault waits for the bytes before it to be acknowledged.
constexpr int kFlushTimeoutMs = 5000;

// A complete error answer with a short text body, as the camera's web
// server gives for requests it does not stream.
std::string error_response(int status, const std::string& extraHeaders)
{
    const std::string body = std::to_string(status) + " " + ReasonPhrase(status) + "\r\n";
    return "HTTP/1.0 " + std::to_string(status) + " " + ReasonPhrase(status) + "\r\nContent-Type: text/plain\r\n" +
           extraHeaders + "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

bool has_jpeg_suffix(const std::string& name)
{
    const size_t dot = name.rfind('.');
    return dot != std::string::npos &&
           (strcasecmp(name.c_str() + dot, ".jpg") == 0 || strcasecmp(name.c_str() + dot, ".jpeg") == 0);
}

// Keeps the connection open without sending, until the peer closes it or
// the simulator stops: what a hung camera looks like from outside.
void hold_open(int fd, const std::atomic<bool>& stop)
{
    for (;;) {
        std::string sink;
        const IoResult r = ReadUntilClose(fd, 1 << 20, 60000, stop, &sink);
        if (r != IoResult::kTimeout)
            return;
    }
}

// The auth-params of an Authorization value after its scheme: name=token or
// name="quoted \"string\"", separated by commas. Names in lower case.
std::map<std::string, std::string> auth_params(const std::string& text)
{
    std::map<std::string, std::string> out;
    size_t i = 0;
    while (i < text.size()) {
        while (i < text.size() && (text[i] == ' ' || text[i] == ',' || text[i] == '\t'))
            i++;
        const size_t eq = text.find('=', i);
        if (eq == std::string::npos)
            break;
        std::string name = text.substr(i, eq - i);
        while (!name.empty() && name.back() == ' ')
            name.pop_back();
        for (char& c : name)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        i = eq + 1;
        while (i < text.size() && text[i] == ' ')
            i++;
        std::string value;
        if (i < text.size() && text[i] == '"') {
            for (i++; i < text.size() && text[i] != '"'; i++) {
                if (text[i] == '\\' && i + 1 < text.size())
                    i++;
                value += text[i];
            }
            i++;
        } else {
            while (i < text.size() && text[i] != ',' && text[i] != ' ')
                value += text[i++];
        }
        out[name] = value;
    }
    return out;
}

std::string digest_hash(const std::string& algorithm, const std::string& text)
{
    char out[SHA256_HEX_SIZE];
    DigestHashHex(algorithm.compare(0, 7, "SHA-256") == 0, text.data(), text.size(), out);
    return out;
}

}  // namespace

bool CamSim::check_digest(const HttpHead& req, std::string* challenge)
{
    static const char kRealm[] = "AXIS_SIMULATOR";
    const std::string& alg = cfg_.digestAlgorithm;
    const bool sess = alg.size() > 5 && alg.compare(alg.size() - 5, 5, "-sess") == 0;
    const std::string* a = req.Find("Authorization");
    bool stale = false;
    std::lock_guard<std::mutex> lock(nonce_mu_);
    if (a != nullptr && a->compare(0, 7, "Digest ") == 0) {
        auto p = auth_params(a->substr(7));
        auto it = nonces_.find(p["nonce"]);
        if (it != nonces_.end()) {
            NonceUse& use = it->second;
            const unsigned long nc = std::strtoul(p["nc"].c_str(), nullptr, 16);
            if (cfg_.nonceUses > 0 && use.uses >= cfg_.nonceUses) {
                stale = true;
            } else if (p["username"] == cfg_.user && p["realm"] == kRealm && p["uri"] == req.target &&
                       (p.count("algorithm") == 0 ? alg == "MD5" : p["algorithm"] == alg) &&
                       (!cfg_.digestQop || (p["qop"] == "auth" && p["nc"].size() == 8 && nc > use.lastNc &&
                                            !p["cnonce"].empty()))) {
                std::string ha1 = digest_hash(alg, cfg_.user + ":" + kRealm + ":" + cfg_.password);
                if (sess)
                    ha1 = digest_hash(alg, ha1 + ":" + p["nonce"] + ":" + p["cnonce"]);
                const std::string ha2 = digest_hash(alg, req.method + ":" + req.target);
                const std::string want =
                    cfg_.digestQop ? digest_hash(alg, ha1 + ":" + p["nonce"] + ":" + p["nc"] + ":" + p["cnonce"] +
                                                          ":auth:" + ha2)
                                   : digest_hash(alg, ha1 + ":" + p["nonce"] + ":" + ha2);
                if (p["response"] == want && p["opaque"] == "0pa9ue") {
                    use.uses++;
                    use.lastNc = nc;
                    return true;
                }
            }
        }
    }
    const std::string nonce = "camsim" + std::to_string(++nonce_seq_) + "n" + std::to_string(::getpid());
    nonces_[nonce] = NonceUse();
    *challenge = std::string("WWW-Authenticate: Digest realm=\"") + kRealm + "\", nonce=\"" + nonce +
                 "\", algorithm=" + alg + (cfg_.digestQop ? ", qop=\"auth\"" : "") + ", opaque=\"0pa9ue\"" +
                 (stale ? ", stale=true" : "") + "\r\n";
    return false;
}


bool ParseCamFault(const std::string& name, CamFault* out)
{
    for (const auto& f : kFaultNames)
        if (name == f.name) {
            *out = f.fault;
            return true;
        }
    return false;
}

const char* CamFaultName(CamFault f)
{
    for (const auto& n : kFaultNames)
        if (n.fault == f)
            return n.name;
    return "?";
}

CamSim::CamSim(CamSimConfig cfg) : cfg_(std::move(cfg))
{
}

CamSim::~CamSim()
{
    Stop();
}

bool CamSim::load_pictures(std::string* err)
{
    if (cfg_.imageDir.empty()) {
        const int n = std::max(1, cfg_.distinct);
        for (int i = 0; i < n; ++i) {
            Picture p;
            p.data = MakeTestJpeg(cfg_.width, cfg_.height, static_cast<uint64_t>(i), cfg_.quality, cfg_.detail);
            if (p.data.empty()) {
                *err = "cannot make a " + std::to_string(cfg_.width) + "x" + std::to_string(cfg_.height) + " picture";
                return false;
            }
            p.stampAt = StampInsertOffset(p.data.data(), p.data.size());
            pictures_.push_back(std::move(p));
        }
        return true;
    }
    DIR* d = ::opendir(cfg_.imageDir.c_str());
    if (!d) {
        *err = "cannot open directory " + cfg_.imageDir;
        return false;
    }
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d))
        if (has_jpeg_suffix(e->d_name))
            names.push_back(e->d_name);
    ::closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) {
        const std::string path = cfg_.imageDir + "/" + name;
        std::ifstream in(path, std::ios::binary);
        Picture p;
        p.data.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        p.stampAt = StampInsertOffset(p.data.data(), p.data.size());
        if (p.stampAt == 0) {
            *err = path + " does not start like a JPEG file";
            return false;
        }
        pictures_.push_back(std::move(p));
    }
    if (pictures_.empty()) {
        *err = "no .jpg or .jpeg files in " + cfg_.imageDir;
        return false;
    }
    return true;
}

bool CamSim::Start(std::string* err)
{
    if (!load_pictures(err))
        return false;
    if (!recorder_.Open(cfg_.recordPath, cfg_.recordStdout, err))
        return false;
    return server_.Start(
        cfg_.host, cfg_.port, [this](int fd, const std::string& peer, int connNo) { serve(fd, peer, connNo); }, err);
}

void CamSim::Stop()
{
    server_.Stop();
}

void CamSim::log(const std::string& line) const
{
    if (!cfg_.quiet)
        std::fprintf(stderr, "camsim: %s\n", line.c_str());
}

void CamSim::serve(int fd, const std::string& peer, int connNo)
{
    std::string head, rest;
    const IoResult r = ReadHttpHead(fd, kMaxRequestHead, cfg_.requestTimeoutMs, stop_, &head, &rest);
    if (r != IoResult::kOk) {
        if (!head.empty())
            recorder_.Record(peer, head);
        log("connection " + std::to_string(connNo) + " from " + peer + ": no request (" + IoResultName(r) + ")");
        ::close(fd);
        return;
    }
    recorder_.Record(peer, head);

    HttpHead req;
    std::string path, query;
    int status = 0;
    std::string extra;
    bool showLength = false;
    if (!ParseRequestHead(head, &req)) {
        status = 400;
    } else {
        SplitTarget(req.target, &path, &query);
        const auto params = SplitQuery(query);
        const std::string* camera = FindParam(params, "camera");
        const std::string* show = FindParam(params, "showlength");
        long long camNo = 1;  // the camera's default when the query names none
        showLength = show && *show == "1";
        if (req.method != "GET") {
            status = 405;
        } else if (path != kStreamPath) {
            status = 404;
        } else if (camera && (!ParseInteger(*camera, &camNo) || camNo < 1 || camNo > cfg_.cameras)) {
            status = 404;
        } else if (cfg_.auth && !cfg_.digestAlgorithm.empty()) {
            if (!check_digest(req, &extra)) {
                status = 401;
            }
        } else if (cfg_.auth) {
            const std::string* a = req.Find("Authorization");
            const std::string want = "Basic " + Base64Encode(cfg_.user + ":" + cfg_.password);
            if (!a || *a != want) {
                status = 401;
                extra = "WWW-Authenticate: Basic realm=\"AXIS_SIMULATOR\"\r\n";
            }
        }
    }
    const bool faulty =
        cfg_.fault != CamFault::kNone && (cfg_.faultConnections == 0 || connNo <= cfg_.faultConnections);
    log("connection " + std::to_string(connNo) + " from " + peer + ": " + req.method + " " + req.target +
        (status ? " -> " + std::to_string(status) : ""));

    if (status == 0 && faulty && cfg_.fault == CamFault::kStatus) {
        status = cfg_.faultArgSet ? static_cast<int>(cfg_.faultArg) : 503;
    }
    if (status != 0) {
        AnswerAndClose(fd, error_response(status, extra), cfg_.sendTimeoutMs, stop_);
        return;
    }
    if (faulty && cfg_.fault == CamFault::kGarbageHead) {
        static const char kGarbage[] = "AXIS\x01\x02 garbage where the status line belongs\r\n\r\n";
        SendAll(fd, kGarbage, sizeof kGarbage - 1, cfg_.sendTimeoutMs, stop_);
        FlushSendQueue(fd, kFlushTimeoutMs, stop_);
        hold_open(fd, stop_);
        ::close(fd);
        return;
    }
    stream(fd, showLength, faulty, connNo);
}

void CamSim::stream(int fd, bool showLength, bool faulty, int connNo)
{
    const std::string head = "HTTP/1.0 200 OK\r\n"
                             "Cache-Control: no-cache\r\n"
                             "Pragma: no-cache\r\n"
                             "Expires: Thu, 01 Dec 1994 16:00:00 GMT\r\n"
                             "Connection: close\r\n"
                             "Content-Type: multipart/x-mixed-replace; boundary=" +
                             cfg_.boundary + "\r\n\r\n";
    uint64_t sent = 0;
    std::string why = "stopped";
    if (SendAll(fd, head.data(), head.size(), cfg_.sendTimeoutMs, stop_) != IoResult::kOk) {
        ::close(fd);
        return;
    }
    const auto start = std::chrono::steady_clock::now();
    const auto period = cfg_.fps > 0 ? std::chrono::duration<double>(1.0 / cfg_.fps) : std::chrono::duration<double>(0);
    static const char kCrLf[] = "\r\n";
    bool reset = false;
    for (uint64_t part = 1;; ++part) {
        if (cfg_.frames && part > cfg_.frames) {
            why = "all " + std::to_string(cfg_.frames) + " frames sent";
            break;
        }
        const auto due = start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                     period * static_cast<double>(part - 1));
        if (cfg_.fps > 0 && !SleepUntil(due, stop_))
            break;
        if (stop_.load(std::memory_order_relaxed))
            break;

        const CamFault f = faulty && part == cfg_.faultAt ? cfg_.fault : CamFault::kNone;
        if (f == CamFault::kDrop) {
            FlushSendQueue(fd, kFlushTimeoutMs, stop_);
            why = "dropped before part " + std::to_string(part);
            break;
        }
        if (f == CamFault::kStall) {
            FlushSendQueue(fd, kFlushTimeoutMs, stop_);
            log("connection " + std::to_string(connNo) + " stalls before part " + std::to_string(part));
            hold_open(fd, stop_);
            why = "stalled";
            break;
        }

        const Picture& pic = pictures_[(part - 1) % pictures_.size()];
        const uint64_t seq = seq_.fetch_add(1, std::memory_order_relaxed) + 1;
        const std::vector<uint8_t> stamp = MakeStampSegment(seq, RealtimeUs());
        // Oversize parts get filler comment segments so they stay valid JPEGs.
        std::vector<uint8_t> filler;
        size_t size = pic.data.size() + stamp.size();
        if (f == CamFault::kOversize) {
            const size_t want =
                cfg_.faultArgSet && cfg_.faultArg > 0 ? static_cast<size_t>(cfg_.faultArg) : (size_t{1} << 20);
            while (size + 4 <= want) {
                const size_t n = std::min<size_t>(want - size - 4, 65533);
                filler.insert(filler.end(),
                              {0xFF, 0xFE, static_cast<uint8_t>((n + 2) >> 8), static_cast<uint8_t>(n + 2)});
                filler.insert(filler.end(), n, 'x');
                size += n + 4;
            }
        }
        if (f == CamFault::kZeroLength)
            size = 0;
        long long announced = static_cast<long long>(size);
        if (f == CamFault::kWrongLength)
            announced += cfg_.faultArgSet ? cfg_.faultArg : 100;

        std::string partHead = "--" + cfg_.boundary + "\r\nContent-Type: image/jpeg\r\n";
        if (showLength && f != CamFault::kNoLength)
            partHead += "Content-Length: " + std::to_string(announced) + "\r\n";
        partHead += "\r\n";

        iovec iov[6];
        int n = 0;
        iov[n++] = {const_cast<char*>(partHead.data()), partHead.size()};
        if (size > 0) {
            iov[n++] = {const_cast<uint8_t*>(pic.data.data()), pic.stampAt};
            iov[n++] = {const_cast<uint8_t*>(stamp.data()), stamp.size()};
            iov[n++] = {filler.data(), filler.size()};
            iov[n++] = {const_cast<uint8_t*>(pic.data.data()) + pic.stampAt, pic.data.size() - pic.stampAt};
        }
        iov[n++] = {const_cast<char*>(kCrLf), 2};
        if (f == CamFault::kTruncate || f == CamFault::kReset || f == CamFault::kHang) {
            // Keep the head and half of the data (a hang: fault-arg bytes of the
            // whole part): drop whole iovecs from the end, then shorten the last.
            size_t keep = partHead.size() + size / 2, total = 0;
            if (f == CamFault::kHang && cfg_.faultArgSet)
                keep = static_cast<size_t>(std::max<long long>(0, cfg_.faultArg));
            int m = 0;
            while (m < n && total + iov[m].iov_len <= keep)
                total += iov[m++].iov_len;
            if (m < n)
                iov[m++].iov_len = keep - total;
            n = m;
        }
        const IoResult r = SendAllV(fd, iov, n, cfg_.sendTimeoutMs, stop_);
        if (r != IoResult::kOk) {
            why = std::string("send failed: ") + IoResultName(r);
            break;
        }
        if (f == CamFault::kTruncate || f == CamFault::kReset || f == CamFault::kHang) {
            // The kept bytes must reach the client before the close, the reset
            // or the silence: a reset throws away whatever is still queued.
            FlushSendQueue(fd, kFlushTimeoutMs, stop_);
        }
        if (f == CamFault::kTruncate) {
            why = "part " + std::to_string(part) + " truncated";
            break;
        }
        if (f == CamFault::kReset) {
            why = "part " + std::to_string(part) + " cut by reset";
            reset = true;
            break;
        }
        if (f == CamFault::kHang) {
            log("connection " + std::to_string(connNo) + " hangs inside part " + std::to_string(part));
            hold_open(fd, stop_);
            why = "hung";
            break;
        }
        ++sent;
        frames_sent_.fetch_add(1, std::memory_order_relaxed);
    }
    log("connection " + std::to_string(connNo) + " closed after " + std::to_string(sent) + " frames: " + why);
    if (reset) {
        CloseWithReset(fd);
    } else {
        ::close(fd);
    }
}

}  // namespace otools
