#include "net/socket_listen.h"

#include <errno.h>
#include <sys/socket.h>

#include "common/return_codes.h"

int Sock_Listen(const sockaddr_in* local, int backlog, int* fd)
{
    *fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (*fd < 0) {
        *fd = -1;
        return SOCK_OPEN_FAIL;
    }
    int on = 1;
    if (setsockopt(*fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return SOCK_OPEN_FAIL;
    }
    if (bind(*fd, reinterpret_cast<const sockaddr*>(local), sizeof *local) != 0) {
        return SOCK_BIND_FAIL;
    }
    if (listen(*fd, backlog) != 0) {
        return SOCK_LISTEN_FAIL;
    }
    return SUCCESS;
}

int Sock_Accept(int listenFd, int* fd, sockaddr_in* peer)
{
    socklen_t peerLen = sizeof *peer;
    errno = 0;
    *fd = accept(listenFd, reinterpret_cast<sockaddr*>(peer), &peerLen);
    if (*fd >= 0) {
        return SUCCESS;
    }
    *fd = -1;
    // A client that gave up between its connect and this accept is not a
    // fault of the listening socket: the next connection can be taken now.
    return errno == EINTR || errno == ECONNABORTED ? SOCK_INTERRUPT : SYS_FUNC_ERROR;
}

int Sock_OpenDatagram(int* fd)
{
    *fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (*fd < 0) {
        *fd = -1;
        return SOCK_OPEN_FAIL;
    }
    return SUCCESS;
}
