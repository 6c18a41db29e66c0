#ifndef OSTREL_HTTP_BYTE_SOURCE_H
#define OSTREL_HTTP_BYTE_SOURCE_H

#include "net/socket_io.h"

class DbPrintf_Class;

// HttpByteSource: where the HTTP readers (HTTPBaseBuffer_Class and the
// buffers derived from it) take their bytes from. Every byte a reader
// receives passes through one of these two calls, so tests and fuzz targets
// can hand a reader prepared bytes (whole, cut into pieces, then a close or
// a silent peer) without a socket or a thread. The readers' own loops (the
// exit flag, the time accounting, the head search) run unchanged on top.
//
// The socket source is the default: a reader without a source set receives
// from the descriptor it is given.
//
// A source belongs to the reader's thread; it is not shared.
class HttpByteSource {
public:
    virtual ~HttpByteSource() = default;

    // One receive, with the codes of Sock_Recv_OneBlock: SUCCESS with *got
    // bytes (0: the peer closed), SOCK_TIMEOUT (nothing came within
    // timeout_ms), SOCK_INTERRUPT, or a failure. flags are the socket
    // flags; with MSG_PEEK the bytes stay to be received again.
    virtual int RecvOnce(void* buf, int len, int* got, int timeout_ms, int flags, DbPrintf_Class* pDB) = 0;

    // Fills buf with len bytes, with the codes and time-out meaning of
    // Sock_Recv with the fixed flags: SUCCESS with *got = len, or fewer when
    // the peer closed; SOCK_TIMEOUT or LOOP_INTERRUPTED with the count so far.
    virtual int RecvFill(void* buf, int len, int* got, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB) = 0;
};

// The socket source: Sock_Recv_OneBlock and Sock_Recv on one descriptor,
// which the caller owns.
class HttpSocketSource final : public HttpByteSource {
public:
    explicit HttpSocketSource(int fd) : m_nFd(fd) {}

    int RecvOnce(void* buf, int len, int* got, int timeout_ms, int flags, DbPrintf_Class* pDB) override;
    int RecvFill(void* buf, int len, int* got, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB) override;

private:
    int m_nFd;
};

#endif
