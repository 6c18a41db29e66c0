#ifndef OSTREL_TESTS_CONTROL_CONTROL_TEST_SUPPORT_H
#define OSTREL_TESTS_CONTROL_CONTROL_TEST_SUPPORT_H

// Shared set-up of the control-port tests: a working directory with the
// channel's conf/Config.txt, the process's frame FIFO, a listening socket on
// every address and a pool of workers, plus a raw HTTP client that can
// speak from the channel's own address (eth0, 192.0.2.1 in the test
// namespace) or from a foreign one (127.0.0.1).

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "camera/channel_config.h"
#include "common/return_codes.h"
#include "control/control_port_pool.h"
#include "control/shared_state.h"
#include "fifo/frame_fifo.h"
#include "net/process_utils.h"

namespace control_test {

constexpr const char* kOwnIp = "192.0.2.1";      // eth0 in the test namespace
constexpr const char* kForeignIp = "127.0.0.1";
constexpr int kChannel = 1;

// The channel's settings, optionally with another data type.
inline std::string config_text(const char* dataType = "Ostrel")
{
    std::string t;
    t += std::string("translator_tarndatatype_0001=") + dataType + "\n";
    t += "encoder_ip_0001=192.0.2.50\n";
    t += "encoder_port_0001=80\n";
    t += "translator_connect_ip_0001=192.0.2.60\n";
    t += "translator_connect_port_0001=8080\n";
    t += "translator_connect_camerano_0001=1\n";
    t += "channel_authentic_switch_0001=0\n";
    t += "translator_calarm_rec_postterm_0001=30\n";
    return t;
}

inline void write_config(const std::string& text)
{
    std::ofstream out("conf/Config.txt", std::ios::trunc);
    out << text;
}

// Once per test program: a fresh working directory holding conf/Config.txt,
// the configuration read into memory (myip = eth0's address) and the FIFO
// set up as the daemon does (2 readable frames, 4 write-only slots).
inline void ensure_process_setup()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    // As in the daemon: SIGUSR1 (the pool's stop) and SIGPIPE only break
    // blocking calls.
    ASSERT_EQ(SIGUSER1_Ignores(), SUCCESS);
    ASSERT_EQ(SIGPIPE_Ignores(), SUCCESS);
    char tmpl[] = "/tmp/ostrel_control_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    ASSERT_EQ(chdir(tmpl), 0);
    ASSERT_EQ(mkdir("conf", 0777), 0);
    write_config(config_text());
    g_channelNum.store(kChannel);
    ASSERT_EQ(g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum(kChannel, nullptr), SUCCESS);
    ASSERT_EQ(g_Fifo.Setup(2, 4, 819200, 128, kChannel), SUCCESS);
}

// A listening socket on every address (so both the own and the foreign
// address reach it), port chosen by the system.
inline int open_listener(unsigned short* port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(fd, 128) != 0) {
        close(fd);
        return -1;
    }
    socklen_t len = sizeof(a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    *port = ntohs(a.sin_port);
    return fd;
}

// Opens a connection from srcIp to dstIp:port (blocking, generous receive
// time-out so a hung server fails the test instead of hanging it).
inline int connect_from(const char* srcIp, const char* dstIp, unsigned short port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        return -1;
    sockaddr_in src{};
    src.sin_family = AF_INET;
    inet_pton(AF_INET, srcIp, &src.sin_addr);
    sockaddr_in dst{};
    dst.sin_family = AF_INET;
    dst.sin_port = htons(port);
    inet_pton(AF_INET, dstIp, &dst.sin_addr);
    timeval tv{60, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (bind(fd, reinterpret_cast<sockaddr*>(&src), sizeof(src)) != 0 ||
        connect(fd, reinterpret_cast<sockaddr*>(&dst), sizeof(dst)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline bool send_all(int fd, const std::string& bytes)
{
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n <= 0)
            return false;
        off += static_cast<size_t>(n);
    }
    return true;
}

// Everything the server sends until it closes the connection.
inline std::string read_to_close(int fd)
{
    std::string out;
    char buf[65536];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0)
            break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

// One parsed answer. The Date line is the only one that varies; `head`
// holds the head with its value replaced by "*".
struct Reply {
    std::string raw;
    std::string statusLine;
    std::string head;
    std::map<std::string, std::string> fields;
    std::string body;
};

inline Reply parse_reply(const std::string& raw)
{
    Reply r;
    r.raw = raw;
    size_t end = raw.find("\r\n\r\n");
    if (end == std::string::npos)
        return r;
    std::string head = raw.substr(0, end + 4);
    r.body = raw.substr(end + 4);
    size_t pos = 0;
    bool first = true;
    while (pos < end) {
        size_t eol = head.find("\r\n", pos);
        std::string line = head.substr(pos, eol - pos);
        pos = eol + 2;
        if (first) {
            r.statusLine = line;
            r.head += line + "\r\n";
            first = false;
            continue;
        }
        size_t colon = line.find(':');
        std::string name = colon == std::string::npos ? line : line.substr(0, colon);
        std::string value;
        if (colon != std::string::npos) {
            value = line.substr(colon + 1);
            if (!value.empty() && value[0] == ' ')
                value.erase(0, 1);
        }
        r.fields[name] = value;
        r.head += (name == "Date") ? std::string("Date: *") : line;
        r.head += "\r\n";
    }
    r.head += "\r\n";
    return r;
}

// Sends one request (whole, or in two writes split at `split`) and reads
// the answer up to the server's close.
inline Reply exchange(unsigned short port, const std::string& request, const char* srcIp = kOwnIp,
                      size_t split = 0)
{
    const char* dst = (std::string(srcIp) == kForeignIp) ? kForeignIp : kOwnIp;
    int fd = connect_from(srcIp, dst, port);
    EXPECT_GE(fd, 0) << "connect failed";
    if (fd < 0)
        return Reply{};
    if (split > 0 && split < request.size()) {
        EXPECT_TRUE(send_all(fd, request.substr(0, split)));
        EXPECT_TRUE(send_all(fd, request.substr(split)));
    } else {
        EXPECT_TRUE(send_all(fd, request));
    }
    std::string raw = read_to_close(fd);
    close(fd);
    return parse_reply(raw);
}

inline std::string get(const std::string& uri, const char* method = "GET")
{
    return std::string(method) + " " + uri + " HTTP/1.1\r\nHost: relay\r\n\r\n";
}

// The expected head of a "text/plain" answer with a body of bodyLength
// bytes (the Date value masked as parse_reply does).
inline std::string text_head(const char* status, size_t bodyLength, const std::string& extra = "")
{
    std::string h = std::string("HTTP/1.1 ") + status + "\r\nDate: *\r\nServer: Ostrel Relay\r\n"
                    "Content-Type: text/plain\r\nPragma: no-cache\r\n";
    if (bodyLength > 0)
        h += "Content-Length: " + std::to_string(bodyLength) + "\r\n";
    h += extra;
    h += "Connection: close\r\n\r\n";
    return h;
}

// A pool of workers on its own listening socket, stopped and closed at the
// end of the test.
class ServerFixture : public ::testing::Test {
protected:
    static constexpr int kWorkers = 1;

    void SetUp() override
    {
        ensure_process_setup();
        listenFd_ = open_listener(&port_);
        ASSERT_GE(listenFd_, 0);
        pool_ = new ControlPort_ServerThread_ControlClass();
        ASSERT_EQ(pool_->Init_ListenFd(listenFd_), SUCCESS);
        for (int i = 0; i < workers(); ++i)
            ASSERT_EQ(pool_->Add_Thread(nullptr), SUCCESS);
    }

    void TearDown() override
    {
        EXPECT_EQ(pool_->All_ThreadDestruct(10000, nullptr), SUCCESS);
        delete pool_;
        close(listenFd_);
    }

    virtual int workers() const { return kWorkers; }

    Reply ask(const std::string& request, const char* srcIp = kOwnIp, size_t split = 0)
    {
        return exchange(port_, request, srcIp, split);
    }

    int listenFd_ = -1;
    unsigned short port_ = 0;
    ControlPort_ServerThread_ControlClass* pool_ = nullptr;
};

}  // namespace control_test

#endif
