#include "test_sockets.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const char* what, const char* ip, int port)
{
    fprintf(stderr, "test sockets: %s %s:%d failed: %s\n", what, ip, port, strerror(errno));
    abort();
}

sockaddr_in inet_addr_of(const char* ip, int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, ip, &a.sin_addr) != 1) {
        fail("address", ip, port);
    }
    return a;
}

void set_nodelay(int fd)
{
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

}  // namespace

int ListenOn(const char* ip, int port, int backlog, int* boundPort)
{
    sockaddr_in a = inet_addr_of(ip, port);
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    socklen_t len = sizeof a;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, backlog) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        fail("listen on", ip, port);
    }
    if (boundPort != nullptr) {
        *boundPort = ntohs(a.sin_port);
    }
    return fd;
}

int ConnectTo(const char* ip, int port, const char* src, int rcvTimeoutSec)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        fail("socket for", ip, port);
    }
    timeval tv{rcvTimeoutSec, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if (src != nullptr) {
        sockaddr_in local = inet_addr_of(src, 0);
        if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
            fail("bind to", src, 0);
        }
    }
    sockaddr_in a = inet_addr_of(ip, port);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool SendAll(int fd, const std::string& bytes)
{
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        off += static_cast<size_t>(n);
    }
    return true;
}

std::string ReadToClose(int fd, bool* reset)
{
    std::string out;
    char buf[65536];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && reset != nullptr) {
            *reset = errno == ECONNRESET;
        }
        if (n <= 0) {
            return out;
        }
        out.append(buf, static_cast<size_t>(n));
    }
}

FakePeer::FakePeer(const char* ip, int port, Handler handler) : m_handler(std::move(handler))
{
    m_listen = ListenOn(ip, port, 8, &m_port);
    m_acceptor = std::thread([this] { AcceptLoop(); });
}

FakePeer::~FakePeer()
{
    shutdown(m_listen, SHUT_RDWR);
    m_acceptor.join();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (int fd : m_fds) {
            shutdown(fd, SHUT_RDWR);
        }
    }
    for (std::thread& t : m_threads) {
        t.join();
    }
    for (int fd : m_fds) {
        close(fd);
    }
    close(m_listen);
}

std::vector<std::string> FakePeer::Requests() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

void FakePeer::AcceptLoop()
{
    for (;;) {
        int fd = accept(m_listen, nullptr, nullptr);
        if (fd < 0) {
            return;
        }
        set_nodelay(fd);
        int connNo = ++m_connections;
        std::lock_guard<std::mutex> lock(m_mutex);
        m_fds.push_back(fd);
        m_threads.emplace_back([this, fd, connNo] { Serve(fd, connNo); });
    }
}

void FakePeer::Serve(int fd, int connNo)
{
    std::string head;
    char c;
    while (head.size() < 4 || head.compare(head.size() - 4, 4, "\r\n\r\n") != 0) {
        if (recv(fd, &c, 1, 0) != 1) {
            break;
        }
        head += c;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(head);
    }
    m_handler(fd, head, connNo);
    shutdown(fd, SHUT_RDWR);
    m_finished++;
}
