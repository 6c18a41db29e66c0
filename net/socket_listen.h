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

class DbPrintf_Class;

// One accept() on the blocking listening socket listenFd. SUCCESS with *fd
// the new connection (the caller owns it) and *peer its address.
// SOCK_INTERRUPT when nothing was taken for a reason that passes at once (a
// signal broke the wait, EINTR, or the connection was aborted before it was
// taken, ECONNABORTED): the caller may call again straight away.
// SYS_FUNC_ERROR for any other failure: such a failure tends to repeat, so
// the caller pauses before calling again rather than spin. *fd is -1 on
// failure.
//
// Out of descriptors (EMFILE, ENFILE) or kernel memory (ENOBUFS, ENOMEM):
// the waiting connection stays queued, and accept() would fail again at
// once for as long as the shortage lasts. Sock_Accept then pauses
// (kAcceptShortagePauseUsec; a signal, such as a worker's stop, cuts the
// pause short) before it returns SYS_FUNC_ERROR, and the queued connection
// is taken as soon as a descriptor is free. The process's first such failure
// of an episode logs "[Sock_Accept] accept failed (errno %d: %s), out of
// descriptors; trying again every 100 ms", and the first accept that works
// again with a descriptor to spare logs "[Sock_Accept] accept works again
// after %lld failures in %lld ms" (each a line). The log opens its file for each line, so Sock_Accept
// keeps one descriptor in reserve (on /dev/null, opened at its first call)
// and gives it up for the first line (an accept in another thread may take
// it first: the line is then tried again at the next failure, and the
// episode's end line still counts its failures). These are the socket
// layer's only log lines; pDB may be null.
int Sock_Accept(int listenFd, int* fd, sockaddr_in* peer, DbPrintf_Class* pDB = nullptr);

// The pause after an accept failed for a shortage of descriptors or memory.
constexpr long long kAcceptShortagePauseUsec = 100000;

// An IPv4 datagram socket, never bound or connected, to ask the kernel
// about network devices through (ioctl). SUCCESS with *fd, or
// SOCK_OPEN_FAIL with *fd == -1 and errno as socket() left it.
int Sock_OpenDatagram(int* fd);

#endif
