#include "net/tcp_endpoint.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kFailurePauseMs = 10;

// A failure of accept() that passes at once: nothing to pause for.
bool passes_at_once(int err)
{
    return err == EINTR || err == ECONNABORTED || err == EAGAIN;
}

// poll() for one descriptor, going on after a signal. As poll() returns.
int poll_one(int fd, short events, int waitMs)
{
    pollfd p{fd, events, 0};
    int n;
    do {
        n = poll(&p, 1, waitMs);
    } while (n < 0 && errno == EINTR);
    return n;
}

}  // namespace

bool Tcp_Address(const char* host, int port, sockaddr_in* sa)
{
    memset(sa, 0, sizeof *sa);
    sa->sin_family = AF_INET;
    sa->sin_port = htons(static_cast<uint16_t>(port));
    return inet_pton(AF_INET, host, &sa->sin_addr) == 1;
}

int Tcp_Listen(const sockaddr_in* local, int backlog)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return -1;
    }
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(fd, reinterpret_cast<const sockaddr*>(local), sizeof *local) != 0 || listen(fd, backlog) != 0) {
        const int err = errno;
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

int Tcp_BoundPort(int fd)
{
    sockaddr_in sa;
    socklen_t len = sizeof sa;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len) != 0) {
        return -1;
    }
    return ntohs(sa.sin_port);
}

int Tcp_Accept(int listenFd, int waitMs, sockaddr_in* peer)
{
    if (waitMs >= 0 && poll_one(listenFd, POLLIN, waitMs) == 0) {
        errno = EAGAIN;
        return -1;
    }
    sockaddr_in sa;
    socklen_t len = sizeof sa;
    const int fd = accept4(listenFd, reinterpret_cast<sockaddr*>(&sa), &len, SOCK_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        if (!passes_at_once(err)) {
            poll(nullptr, 0, kFailurePauseMs);
        }
        errno = err;
        return -1;
    }
    if (peer != nullptr) {
        *peer = sa;
    }
    return fd;
}

int Tcp_Connect(const sockaddr_in* remote, const sockaddr_in* local, int timeoutMs)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -1;
    }
    int err = 0;
    if (local != nullptr && bind(fd, reinterpret_cast<const sockaddr*>(local), sizeof *local) != 0) {
        err = errno;
    } else if (connect(fd, reinterpret_cast<const sockaddr*>(remote), sizeof *remote) != 0 && errno != EINPROGRESS) {
        err = errno;
    } else {
        // A non-blocking connect answers EINPROGRESS; the outcome is known
        // once the socket becomes writable, in SO_ERROR.
        const int n = poll_one(fd, POLLOUT, timeoutMs);
        socklen_t len = sizeof err;
        if (n == 0) {
            err = ETIMEDOUT;
        } else if (n < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) {
            err = errno;
        }
    }
    if (err == 0 && fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0) {
        err = errno;
    }
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

int Tcp_UnackedBytes(int fd)
{
    int unacked = 0;
    return ioctl(fd, SIOCOUTQ, &unacked) == 0 ? unacked : -1;
}
