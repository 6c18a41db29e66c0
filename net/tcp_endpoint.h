#ifndef OSTREL_NET_TCP_ENDPOINT_H
#define OSTREL_NET_TCP_ENDPOINT_H

#include <netinet/in.h>

// The socket set-up of the programs around the daemon (the viewer, the
// simulators, the benchmarks' reference servers): plain IPv4 TCP endpoints
// with blocking, close-on-exec descriptors that belong to the caller. The
// daemon itself does not use them (its endpoints are in net/socket_io.h and
// net/socket_listen.h). Failures return -1 with errno as the failing call
// left it; nothing is logged. Stateless: any thread may call.

// Fills *sa with the dotted IPv4 address host and the port (host order).
// False when host is not a dotted IPv4 address.
bool Tcp_Address(const char* host, int port, sockaddr_in* sa);

// A listening socket bound to local (port 0: any free one) with
// SO_REUSEADDR and the given backlog. The descriptor, or -1 (nothing left
// open).
int Tcp_Listen(const sockaddr_in* local, int backlog);

// The port a socket is bound to (host order), or -1.
int Tcp_BoundPort(int fd);

// Waits up to waitMs (-1: without end) for a connection on listenFd and
// takes it: the new descriptor, with *peer (may be null) its address; -1
// when none came in time (errno EAGAIN) or taking it failed. A peer that
// went between the wait and the take, or a signal, is no fault: -1 at once.
// Any other failure tends to repeat (out of descriptors or memory: EMFILE,
// ENFILE, ENOBUFS, ENOMEM, and the connection stays queued), so the call
// pauses 10 ms before it returns -1 and a caller that loops does not spin.
int Tcp_Accept(int listenFd, int waitMs, sockaddr_in* peer);

// Connects to remote within timeoutMs, first binding local when it is not
// null. The connected descriptor (blocking mode), or -1 with errno
// (ETIMEDOUT when the time ran out).
int Tcp_Connect(const sockaddr_in* remote, const sockaddr_in* local, int timeoutMs);

// Bytes sent on fd that the peer has not acknowledged yet (SIOCOUTQ), or -1.
int Tcp_UnackedBytes(int fd);

#endif
