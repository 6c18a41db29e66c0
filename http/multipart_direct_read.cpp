#include "http/multipart_buffer.h"

#include <string.h>
#include <sys/time.h>

#include "common/debug_log.h"
#include "common/time_utils.h"
#include "common/return_codes.h"

// The part reader that receives a part's data straight into the caller's
// memory. The part head is found by peeking at the socket, and only the head
// is taken into this buffer, so no data byte is received here and copied
// again; only bytes that an earlier read had already taken in as read-ahead
// are copied out.

namespace {

// Completes the part head in b's buffer. Read-ahead is searched first; then
// each pass peeks at what the socket holds and takes exactly the bytes up to
// the head's end (all of them while the head is still incomplete). Codes
// and time accounting as HTTPBaseBuffer_Class::HttpRead_Header.
int read_part_head_exact(HTTPMultiPartResponseBuffer_Class& b, int fd, int timeout_ms, SockExitFlag* exitFlag,
                         DbPrintf_Class* pDB)
{
    long long countedUsec = 0;
    b.m_nHeaderStart = b.m_nConsumed;
    http_head::Scan scan{b.m_nConsumed, true};

    int end = scan.Next(b.m_pBuffer, b.m_nFilled);
    while (end < 0) {
        timeval before{};
        const int start = http_head::PassStart(b.m_nFilled, b.m_nCapacity, exitFlag, &before);
        if (start != SUCCESS) {
            return start;
        }

        int peeked = 0;
        int rc = b.RecvOnce(fd, b.m_pBuffer + b.m_nFilled, b.m_nCapacity - b.m_nFilled, &peeked, timeout_ms,
                            SOCK_FIXED_FLAGS | MSG_PEEK, pDB);
        rc = http_head::PassReceived(rc, &peeked, exitFlag);
        if (rc != SUCCESS) {
            return rc;
        }

        if (peeked > 0) {
            // Scan the peeked bytes where they lie, then take off the socket
            // exactly the part that belongs to the head. The bytes received
            // are the ones just peeked, landing on themselves.
            http_head::Scan peekScan = scan;
            int found = peekScan.Next(b.m_pBuffer, b.m_nFilled + peeked);
            int take = found >= 0 ? found - b.m_nFilled : peeked;
            int got = 0;
            rc = b.RecvOnce(fd, b.m_pBuffer + b.m_nFilled, take, &got, timeout_ms, SOCK_FIXED_FLAGS, pDB);
            if (rc != SUCCESS) {
                return rc;
            }
            if (got == 0) {
                return SOCK_CLOSE;
            }
            b.m_nFilled += got;
            if (got == take) {
                scan = peekScan;
                end = found;
            } else {
                // Fewer bytes than peeked (not expected on a stream socket):
                // search again over what was really taken.
                end = scan.Next(b.m_pBuffer, b.m_nFilled);
            }
            if (end >= 0) {
                break;
            }
        }

        if (http_head::TimeUp(before, timeout_ms, &countedUsec)) {
            return SOCK_TIMEOUT;
        }
    }
    b.m_nHeaderLength = end - b.m_nHeaderStart;
    b.m_nBodyStart = end;
    b.m_nConsumed = end;
    return SUCCESS;
}

}  // namespace

int HTTPMultiPartResponseBuffer_Class::HttpReadMultiInto(int fd, int timeout_ms, SockExitFlag* exitFlag, char* pDst,
                                                         int nDstSize, int* pReceived, DbPrintf_Class* pDB)
{
    if (pDst == nullptr || pReceived == nullptr) {
        TimePrint(pDB, 1, "[HTTPMultiPartResponseBuffer_Class::HttpReadMultiInto()] pDst == NULL ::%d\n",
                  INVALID_ARGUMENT);
        return INVALID_ARGUMENT;
    }
    PrepareNextMessage(pDB);

    // The same head step as HttpReadMulti, so both readers accept the same
    // parts: the part and its CR LF must fit after the head.
    int rc = CheckPartHead(fd, read_part_head_exact(*this, fd, timeout_ms, exitFlag, pDB), pDB);
    if (rc != SUCCESS) {
        return rc;
    }

    const int length = m_nContentLength;
    m_nBodyLength = length + 2;
    if (length > nDstSize) {
        // Nothing of the part is read; the owner closes the connection.
        m_nConsumed = m_nFilled;
        m_nStatus = 200;
        return DATASIZE_LARGE;
    }

    // Data already taken in as read-ahead are copied; the rest is received
    // in place.
    const int readAhead = m_nFilled - m_nBodyStart;
    const int fromBuffer = readAhead < length ? readAhead : length;
    memcpy(pDst, m_pBuffer + m_nBodyStart, static_cast<size_t>(fromBuffer));
    int trailerInBuffer = readAhead - length;
    trailerInBuffer = trailerInBuffer < 0 ? 0 : (trailerInBuffer > 2 ? 2 : trailerInBuffer);
    m_nConsumed = m_nBodyStart + fromBuffer + trailerInBuffer;

    if (fromBuffer < length) {
        int got = 0;
        rc = RecvFill(fd, pDst + fromBuffer, length - fromBuffer, &got, timeout_ms, exitFlag, pDB);
        if (rc == SUCCESS && got < length - fromBuffer) {
            // The camera closed inside the picture: the bytes it announced
            // never came, so there is no picture to hand out (the buffered
            // body read would succeed short; a picture must be the camera's
            // own bytes, whole).
            rc = SOCK_CLOSE;
        }
    }
    if (rc == SUCCESS && trailerInBuffer < 2) {
        // The line end after the data; its bytes are not kept.
        char trailer[2];
        int got = 0;
        rc = RecvFill(fd, trailer, 2 - trailerInBuffer, &got, timeout_ms, exitFlag, pDB);
    }
    if (rc != SUCCESS) {
        // The same two lines as the buffered body read: the receive's own
        // code (SOCK_TIMEOUT for a camera gone silent inside a part), then
        // the part read's. That read reports every receive failure, a
        // time-out included, as HTTP_BODY_READ_FAILD, so its status is 400;
        // the direct read answers the same way.
        TimePrint(pDB, 1, "[HTTPBaseBuffer_Class::HttpRead_Body()] Sock_Recv(sockfd %d) failed ::%d\n", fd, rc);
        TimePrint(
            pDB, 1,
            "[HTTPMultiPartResponseBuffer_Class::HttpReadMulti()] HttpRead_Body(sockfd %d,ContentLength %d) failed ::%d\n",
            fd, m_nContentLength, HTTP_BODY_READ_FAILD);
        SetFailure(400, "HTTP body read faild.");
        return HTTP_BODY_READ_FAILD;
    }
    *pReceived = length;
    m_nStatus = 200;
    return SUCCESS;
}
