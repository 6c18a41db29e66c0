#ifndef OSTREL_NET_SOCKET_LISTEN_H
#define OSTREL_NET_SOCKET_LISTEN_H

#include <netinet/in.h>

// The server side of the socket layer: the listening socket, taking
// connections off it, and the datagram socket that device-address requests
// are asked through. The client side and all receiving and sending are in
// net/socket_io.h, whose common contract holds here too (codes of
// common/return_codes.h, SUCCESS the only success, nothing logged).

// Opens a blocking IPv4 stream socket (close-on-exec) with SO_REUSEADDR, so
// that a restarted daemon gets its port back while connections of the one
// before are still in TIME_WAIT, binds it to local and listens with the
// given backlog. *fd is written as soon as the socket exists:
// SOCK_OPEN_FAIL (socket failed: *fd == -1; or SO_REUSEADDR failed),
// SOCK_BIND_FAIL, SOCK_LISTEN_FAIL, SUCCESS. After socket creation the
// descriptor stays open in *fd whatever the result; the caller closes it.
int Sock_Listen(const sockaddr_in* local, int backlog, int* fd);

// One accept() on the blocking listening socket listenFd. SUCCESS with *fd
// the new connection (the caller owns it) and *peer its address.
// SOCK_INTERRUPT when nothing was taken for a reason that passes at once (a
// signal broke the wait, EINTR, or the connection was aborted before it was
// taken, ECONNABORTED): the caller may call again straight away.
// SYS_FUNC_ERROR for any other failure (out of descriptors, ...): such a
// failure tends to repeat, so the caller pauses before calling again rather
// than spin. *fd is -1 on failure.
int Sock_Accept(int listenFd, int* fd, sockaddr_in* peer);

// An IPv4 datagram socket, never bound or connected, to ask the kernel
// about network devices through (ioctl). SUCCESS with *fd, or
// SOCK_OPEN_FAIL with *fd == -1 and errno as socket() left it.
int Sock_OpenDatagram(int* fd);

#endif
