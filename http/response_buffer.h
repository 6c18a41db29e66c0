#ifndef OSTREL_HTTP_RESPONSE_BUFFER_H
#define OSTREL_HTTP_RESPONSE_BUFFER_H

#include "http/base_buffer.h"
#include "http/response_parser.h"

// HTTPResponseBuffer_Class: reads one whole response with a body of
// "Content-Length:" bytes (at least 1) from a connection, keeping read-ahead
// for the next response on the same connection.
//
// After HttpRead returns SUCCESS the caller reads the body at
// m_pBuffer + m_nBodyStart for m_nBodyLength bytes, and the status code,
// reason phrase and header lines through Parser. All of these stay valid
// until the next HttpRead, ResetBuf or ClearBuf.
// Lifecycle: Init once; HttpRead per response; ClearBuf to drop everything
// (a new connection). Thread-safety: see HTTPBaseBuffer_Class.
class HTTPResponseBuffer_Class : public HTTPBaseBuffer_Class {
public:
    HTTPResponseBuffer_Class();
    ~HTTPResponseBuffer_Class() override;

    // Clears the parser and all base fields but the buffer and capacity.
    int ClearBuf(DbPrintf_Class* pDB = nullptr) override;

    // Reads and parses one response. SUCCESS with m_nStatus 200. Failures:
    //   SOCK_TIMEOUT             head not complete in time; status 408
    //   HTTP_HEADER_READ_FAILD   other head read failures; status 413 when
    //                            the head does not fit the buffer, else 400
    //   HTTP_INVALID_SYNTAX      the head does not parse or its status code is
    //                            not 200; status and text from the parser
    //   HTTP_ERR_CONTENTLENGTH   "Content-Length:" missing, below 1 or larger
    //                            than the room after the head; status 411
    //   HTTP_BODY_READ_FAILD     the body did not arrive; status 400 or 408
    // LOOP_INTERRUPTED (exit flag -1) is reported as a failed head read.
    int HttpRead(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB = nullptr);

    // SUCCESS when the connection may carry another request: the last read
    // succeeded, the version was not exactly 1.0 and no "Connection: close"
    // was seen. HTTP_CONNECTIONCLOSE otherwise; NOT_INITIALIZE before any
    // read.
    int Is_KeepAlive(DbPrintf_Class* pDB = nullptr);

    HTTPResponseParser_Class Parser;
};

#endif
