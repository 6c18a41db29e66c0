// The camera simulator seen from a client: the stream is read with plain
// sockets and taken apart by a small multipart parser written here, so the
// simulator's output is checked against the form a camera client expects,
// not against the simulator's own code. The plain stream's form, its
// numbering across connections and the request the daemon sends it are
// checked end to end; here: faults, stopping, concurrent clients.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/sim/camsim.h"
#include "viewer/jpeg_stamp.h"
#include "test_sockets.h"

namespace otools {
namespace {

constexpr char kStreamRequest[] =
    "GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=1 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n";

// Generous receive limit: only a hung simulator gets near it.
int connect_local(int port)
{
    return ConnectTo("127.0.0.1", port, nullptr, 10);
}
std::string fetch(int port, const std::string& request, bool* reset = nullptr)
{
    const int fd = connect_local(port);
    EXPECT_GE(fd, 0);
    if (fd < 0)
        return "";
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    std::string all = ReadToClose(fd, reset);
    ::close(fd);
    return all;
}

struct Part {
    std::map<std::string, std::string> headers;
    std::string data;
    bool complete = false;
};

struct Stream {
    int status = 0;
    std::string boundary;
    std::vector<Part> parts;
    bool lost = false;  // bytes where a boundary line belongs
};

// Multipart stream as a camera client reads it: head, then per part the
// boundary line, header lines, a blank line, Content-Length bytes of data
// and CR LF.
Stream parse_stream(const std::string& s)
{
    Stream st;
    const size_t headEnd = s.find("\r\n\r\n");
    if (headEnd == std::string::npos)
        return st;
    const std::string head = s.substr(0, headEnd + 4);
    if (std::sscanf(head.c_str(), "HTTP/1.%*d %d", &st.status) != 1)
        return st;
    const size_t b = head.find("boundary=");
    if (b == std::string::npos)
        return st;
    st.boundary = head.substr(b + 9, head.find("\r\n", b) - b - 9);
    const std::string delim = "--" + st.boundary + "\r\n";
    size_t pos = headEnd + 4;
    while (pos < s.size()) {
        while (pos < s.size() && (s[pos] == '\r' || s[pos] == '\n'))
            ++pos;
        if (pos >= s.size())
            break;
        Part p;
        if (s.compare(pos, delim.size(), delim) != 0) {
            st.lost = true;
            break;
        }
        pos += delim.size();
        const size_t hend = s.find("\r\n\r\n", pos - 2);
        if (hend == std::string::npos) {
            st.parts.push_back(p);
            break;
        }
        for (size_t l = pos; l < hend + 2;) {
            const size_t e = s.find("\r\n", l);
            const std::string line = s.substr(l, e - l);
            const size_t colon = line.find(": ");
            if (colon != std::string::npos)
                p.headers[line.substr(0, colon)] = line.substr(colon + 2);
            l = e + 2;
        }
        pos = hend + 4;
        if (!p.headers.count("Content-Length")) {
            st.lost = true;
            break;
        }
        const size_t len = std::stoul(p.headers["Content-Length"]);
        p.data = s.substr(pos, len);
        p.complete = pos + len + 2 <= s.size() && s.compare(pos + len, 2, "\r\n") == 0;
        pos += len + 2;
        st.parts.push_back(p);
    }
    return st;
}

CamSimConfig local_config()
{
    CamSimConfig cfg;
    cfg.port = 0;
    cfg.fps = 0;
    cfg.width = 64;
    cfg.height = 48;
    cfg.distinct = 3;
    cfg.quiet = true;
    cfg.frames = 4;
    return cfg;
}

// The faults whose form the daemon's reaction cannot tell from a plain
// close: each must hit the chosen part as described. The rest (a close
// between parts, an empty part, a part without a length, an oversized
// part, a garbage head, a 503) the reliability runs pin by how the daemon
// goes on: a new connection at once, the part skipped on the same
// connection, a back-off after a failed start, the largest part relayed whole.
TEST(CamSimTest, FaultsHitTheChosenPart)
{
    const auto cut_in_half = [](bool wantReset) {
        return [wantReset](const Stream& st, bool reset) {
            EXPECT_EQ(reset, wantReset);
            ASSERT_EQ(st.parts.size(), 3u);
            EXPECT_FALSE(st.parts[2].complete);
            EXPECT_EQ(st.parts[2].data.size(), std::stoul(st.parts[2].headers.at("Content-Length")) / 2);
        };
    };
    struct Row {
        CamFault fault;
        long long arg;
        bool argSet;
        const char* note;
        std::function<void(const Stream& st, bool reset)> check;
    } rows[] = {
        // Both cuts deliver exactly half of the third part's data before the
        // close or the reset (a reset must not throw queued bytes away).
        {CamFault::kTruncate, 0, false, "third part shorter than announced", cut_in_half(false)},
        {CamFault::kReset, 0, false, "third part cut by a reset", cut_in_half(true)},
        {CamFault::kWrongLength, -100, true, "third part announces 100 bytes too few",
         [](const Stream& st, bool) {
             ASSERT_GE(st.parts.size(), 3u);
             const std::string& d = st.parts[2].data;
             // The data were cut at the announced length, so no EOI in them.
             EXPECT_EQ(d.find("\xFF\xD9"), std::string::npos);
             EXPECT_EQ(std::stoul(st.parts[2].headers.at("Content-Length")), d.size());
             EXPECT_TRUE(st.lost);
         }},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.note);
        CamSimConfig cfg = local_config();
        cfg.fault = r.fault;
        cfg.faultAt = 3;
        cfg.faultArg = r.arg;
        cfg.faultArgSet = r.argSet;
        cfg.faultConnections = 1;
        CamSim sim(cfg);
        std::string err;
        ASSERT_TRUE(sim.Start(&err)) << err;
        bool reset = false;
        const std::string raw = fetch(sim.Port(), kStreamRequest, &reset);
        r.check(parse_stream(raw), reset);
        // Only the first connection was to get the fault.
        const Stream clean = parse_stream(fetch(sim.Port(), kStreamRequest));
        EXPECT_EQ(clean.parts.size(), 4u);
        EXPECT_FALSE(clean.lost);
    }
}

// Regression guard for shutdown while busy: a stalled connection must not
// keep Stop() from returning, and the client then sees the close.
TEST(CamSimTest, StopEndsAStalledConnection)
{
    CamSimConfig cfg = local_config();
    cfg.frames = 0;
    cfg.fault = CamFault::kStall;
    cfg.faultAt = 2;
    CamSim sim(cfg);
    std::string err;
    ASSERT_TRUE(sim.Start(&err)) << err;
    const int fd = connect_local(sim.Port());
    ::send(fd, kStreamRequest, sizeof kStreamRequest - 1, MSG_NOSIGNAL);
    std::string got;
    char buf[65536];
    // Wait for the whole first part: it ends with the picture's EOI and CR LF.
    while (got.find("\xFF\xD9\r\n") == std::string::npos) {
        const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
        ASSERT_GT(n, 0);
        got.append(buf, static_cast<size_t>(n));
    }
    // The count follows the send.
    EXPECT_TRUE(WaitUntil([&] { return sim.FramesSent() >= 1; }));
    sim.Stop();
    got += ReadToClose(fd);
    ::close(fd);
    EXPECT_EQ(parse_stream(got).parts.size(), 1u);
    EXPECT_EQ(sim.FramesSent(), 1u);
}

TEST(CamSimTest, ConcurrentConnectionsShareOneSequence)
{
    CamSimConfig cfg = local_config();
    cfg.frames = 20;
    CamSim sim(cfg);
    std::string err;
    ASSERT_TRUE(sim.Start(&err)) << err;
    std::vector<std::string> raws(4);
    std::vector<std::thread> clients;
    for (auto& raw : raws)
        clients.emplace_back([&] { raw = fetch(sim.Port(), kStreamRequest); });
    for (auto& c : clients)
        c.join();
    std::vector<uint64_t> all;
    for (const std::string& raw : raws) {
        const Stream st = parse_stream(raw);
        ASSERT_EQ(st.parts.size(), 20u);
        uint64_t last = 0;
        for (const Part& p : st.parts) {
            uint64_t seq = 0;
            int64_t t = 0;
            ASSERT_TRUE(ReadStamp(reinterpret_cast<const uint8_t*>(p.data.data()), p.data.size(), &seq, &t));
            EXPECT_GT(seq, last);
            last = seq;
            all.push_back(seq);
        }
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
    EXPECT_EQ(all.back(), 80u);
}

}  // namespace
}  // namespace otools
