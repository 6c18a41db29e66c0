#include "viewer/tool_net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <time.h>
#include <unistd.h>

#include "net/tcp_endpoint.h"

namespace otools {

std::atomic<bool> g_stopRequested{false};

namespace {

constexpr int kPollStepMs = 100;

void on_stop_signal(int)
{
    g_stopRequested.store(true, std::memory_order_relaxed);
}

int64_t steady_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Waits for `events` on fd in steps so that a stop request is noticed.
// Returns kOk when ready, kTimeout when the deadline passed.
IoResult wait_fd(int fd, short events, int64_t deadlineMs, const std::atomic<bool>& stop)
{
    for (;;) {
        if (stop.load(std::memory_order_relaxed))
            return IoResult::kStopped;
        const int64_t left = deadlineMs - steady_ms();
        if (left <= 0)
            return IoResult::kTimeout;
        pollfd p{fd, events, 0};
        const int n = ::poll(&p, 1, static_cast<int>(left < kPollStepMs ? left : kPollStepMs));
        if (n > 0)
            return IoResult::kOk;
        if (n < 0 && errno != EINTR)
            return IoResult::kError;
    }
}

}  // namespace

void InstallStopSignals()
{
    struct sigaction sa;
    std::memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
}

int64_t RealtimeUs()
{
    timespec ts;
    ::clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

bool ParseHostPort(const std::string& text, int defaultPort, std::string* host, int* port)
{
    const size_t colon = text.find(':');
    std::string h = text.substr(0, colon);
    int p = defaultPort;
    if (colon != std::string::npos) {
        const std::string ps = text.substr(colon + 1);
        if (ps.empty() || ps.size() > 5 || ps.find_first_not_of("0123456789") != std::string::npos)
            return false;
        p = std::stoi(ps);
    }
    in_addr a;
    if (p < 0 || p > 65535 || ::inet_pton(AF_INET, h.c_str(), &a) != 1)
        return false;
    *host = h;
    *port = p;
    return true;
}

std::string FormatPeer(uint32_t addrNetworkOrder, uint16_t portHostOrder)
{
    char buf[INET_ADDRSTRLEN] = "";
    in_addr a;
    a.s_addr = addrNetworkOrder;
    ::inet_ntop(AF_INET, &a, buf, sizeof buf);
    return std::string(buf) + ":" + std::to_string(portHostOrder);
}

int ListenTcp(const std::string& host, int port, std::string* err)
{
    sockaddr_in sa;
    if (!Tcp_Address(host.c_str(), port, &sa)) {
        *err = "bad listen address " + host;
        return -1;
    }
    const int fd = Tcp_Listen(&sa, 64);
    if (fd < 0)
        *err = "listen on " + host + ":" + std::to_string(port) + " failed: " + std::strerror(errno);
    return fd;
}

int BoundPort(int fd)
{
    return Tcp_BoundPort(fd);
}

int AcceptOrStop(int listenFd, const std::atomic<bool>& stop, std::string* peer)
{
    while (!stop.load(std::memory_order_relaxed)) {
        sockaddr_in sa;
        const int fd = Tcp_Accept(listenFd, kPollStepMs, &sa);
        if (fd < 0)
            continue;
        if (peer)
            *peer = FormatPeer(sa.sin_addr.s_addr, ntohs(sa.sin_port));
        return fd;
    }
    return -1;
}

int ConnectTcp(const std::string& host, int port, const std::string& bindAddr, int timeoutMs, std::string* err,
               int bindPort)
{
    sockaddr_in sa, local;
    if (!Tcp_Address(host.c_str(), port, &sa)) {
        *err = "bad address " + host;
        return -1;
    }
    if (!bindAddr.empty() && !Tcp_Address(bindAddr.c_str(), bindPort, &local)) {
        *err = "bad bind address " + bindAddr;
        return -1;
    }
    const int fd = Tcp_Connect(&sa, bindAddr.empty() ? nullptr : &local, timeoutMs);
    if (fd < 0)
        *err = "connect to " + host + ":" + std::to_string(port) +
               " failed: " + (errno == ETIMEDOUT ? "timed out" : std::strerror(errno));
    return fd;
}

const char* IoResultName(IoResult r)
{
    switch (r) {
    case IoResult::kOk: return "ok";
    case IoResult::kTimeout: return "timeout";
    case IoResult::kClosed: return "closed by peer";
    case IoResult::kError: return "error";
    case IoResult::kStopped: return "stopped";
    }
    return "?";
}

IoResult SendAllV(int fd, iovec* iov, int iovcnt, int timeoutMs, const std::atomic<bool>& stop)
{
    const int64_t deadline = steady_ms() + timeoutMs;
    while (iovcnt > 0) {
        if (iov->iov_len == 0) {
            ++iov;
            --iovcnt;
            continue;
        }
        const IoResult w = wait_fd(fd, POLLOUT, deadline, stop);
        if (w != IoResult::kOk)
            return w;
        msghdr msg;
        std::memset(&msg, 0, sizeof msg);
        msg.msg_iov = iov;
        msg.msg_iovlen = static_cast<size_t>(iovcnt);
        ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN)
                continue;
            return IoResult::kError;
        }
        while (n > 0 && iovcnt > 0) {
            const size_t take = static_cast<size_t>(n) < iov->iov_len ? static_cast<size_t>(n) : iov->iov_len;
            iov->iov_base = static_cast<char*>(iov->iov_base) + take;
            iov->iov_len -= take;
            n -= static_cast<ssize_t>(take);
            if (iov->iov_len == 0) {
                ++iov;
                --iovcnt;
            }
        }
    }
    return IoResult::kOk;
}

IoResult SendAll(int fd, const void* data, size_t len, int timeoutMs, const std::atomic<bool>& stop)
{
    iovec v{const_cast<void*>(data), len};
    return SendAllV(fd, &v, 1, timeoutMs, stop);
}

namespace {

IoResult recv_some(int fd, int64_t deadline, const std::atomic<bool>& stop, std::string* out, size_t maxChunk)
{
    const IoResult w = wait_fd(fd, POLLIN, deadline, stop);
    if (w != IoResult::kOk)
        return w;
    char buf[65536];
    const size_t want = maxChunk < sizeof buf ? maxChunk : sizeof buf;
    const ssize_t n = ::recv(fd, buf, want, MSG_DONTWAIT);
    if (n == 0)
        return IoResult::kClosed;
    if (n < 0)
        return (errno == EINTR || errno == EAGAIN) ? IoResult::kOk : IoResult::kError;
    out->append(buf, static_cast<size_t>(n));
    return IoResult::kOk;
}

size_t find_head_end(const std::string& s)
{
    const size_t a = s.find("\r\n\r\n");
    const size_t b = s.find("\n\n");
    if (a == std::string::npos && b == std::string::npos)
        return std::string::npos;
    if (a != std::string::npos && (b == std::string::npos || a + 2 <= b))
        return a + 4;
    return b + 2;
}

}  // namespace

IoResult ReadHttpHead(int fd, size_t maxBytes, int timeoutMs, const std::atomic<bool>& stop, std::string* head,
                      std::string* rest)
{
    const int64_t deadline = steady_ms() + timeoutMs;
    std::string buf = std::move(*rest);
    rest->clear();
    for (;;) {
        const size_t end = find_head_end(buf);
        if (end != std::string::npos) {
            *head = buf.substr(0, end);
            *rest = buf.substr(end);
            return IoResult::kOk;
        }
        if (buf.size() >= maxBytes) {
            *head = buf;
            return IoResult::kError;
        }
        const IoResult r = recv_some(fd, deadline, stop, &buf, maxBytes - buf.size());
        if (r != IoResult::kOk) {
            *head = buf;
            return r;
        }
    }
}

IoResult ReadUntilClose(int fd, size_t maxBytes, int timeoutMs, const std::atomic<bool>& stop, std::string* out)
{
    const int64_t deadline = steady_ms() + timeoutMs;
    for (;;) {
        if (out->size() >= maxBytes)
            return IoResult::kError;
        const IoResult r = recv_some(fd, deadline, stop, out, maxBytes - out->size());
        if (r == IoResult::kClosed)
            return IoResult::kOk;
        if (r != IoResult::kOk)
            return r;
    }
}

IoResult ReadExact(int fd, size_t len, int timeoutMs, const std::atomic<bool>& stop, std::string* out)
{
    const int64_t deadline = steady_ms() + timeoutMs;
    const size_t target = out->size() + len;
    while (out->size() < target) {
        const IoResult r = recv_some(fd, deadline, stop, out, target - out->size());
        if (r != IoResult::kOk)
            return r;
    }
    return IoResult::kOk;
}

bool SleepUntil(std::chrono::steady_clock::time_point deadline, const std::atomic<bool>& stop)
{
    for (;;) {
        if (stop.load(std::memory_order_relaxed))
            return false;
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline)
            return true;
        const auto step = std::chrono::milliseconds(kPollStepMs);
        std::this_thread::sleep_for(deadline - now < step ? deadline - now : step);
    }
}

bool FlushSendQueue(int fd, int timeoutMs, const std::atomic<bool>& stop)
{
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (Tcp_UnackedBytes(fd) <= 0)
            return true;
        if (stop.load(std::memory_order_relaxed) || std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

void CloseWithReset(int fd)
{
    linger l{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    ::close(fd);
}

}  // namespace otools
