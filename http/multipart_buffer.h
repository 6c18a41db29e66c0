#ifndef OSTREL_HTTP_MULTIPART_BUFFER_H
#define OSTREL_HTTP_MULTIPART_BUFFER_H

#include "http/base_buffer.h"
#include "http/multipart_parser.h"

// HTTPMultiPartResponseBuffer_Class: reads an endless multipart response
// (a camera's motion-JPEG stream) one part at a time over one connection.
//
// HttpReadFirst reads the response head and takes the boundary from its
// "Content-Type:" ("boundary=", case-sensitive). Each HttpReadMulti then reads
// one part head and exactly the part's "Content-Length:" bytes plus the two
// line-end bytes after them. Whatever arrived beyond the part stays as
// read-ahead and is the start of the next part, so several parts that came
// in one receive are served without receiving again.
//
// Parts are handed out in place, never copied: after HttpReadMulti returns
// SUCCESS the part's data are m_nContentLength bytes at
// m_pBuffer + m_nBodyStart (m_nBodyLength = m_nContentLength + 2 includes
// the CR LF). They stay there until the next HttpReadMulti/ResetBuf/ClearBuf.
// Size the buffer (Init) for the largest part plus its head.
//
// Lifecycle: Init once; per connection HttpReadFirst, then HttpReadMulti
// until a failure; the owner then closes the connection and starts again
// with ClearBuf and HttpReadFirst. Thread-safety: see HTTPBaseBuffer_Class.
class HTTPMultiPartResponseBuffer_Class : public HTTPBaseBuffer_Class {
public:
    static constexpr int BOUNDARY_SIZE = 64;

    HTTPMultiPartResponseBuffer_Class();
    ~HTTPMultiPartResponseBuffer_Class() override;

    // Clears the parser and the base fields; the boundary is kept.
    int ClearBuf(DbPrintf_Class* pDB = nullptr) override;

    // Reads the response head (no body) and the boundary. SUCCESS with
    // m_nStatus 200. Failures: SOCK_TIMEOUT (status 408),
    // HTTP_HEADER_READ_FAILD (413 when the head does not fit, else 400),
    // HTTP_INVALID_SYNTAX (status not 200 or a bad head; status and text from
    // the parser), NOTFOUND_ITEM (no "Content-Type:" or no boundary in it;
    // status stays 0).
    int HttpReadFirst(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB = nullptr);

    // Reads the next part. SUCCESS with m_nStatus 200 and the part in place
    // (see above). Line ends before the boundary line (a stream that puts
    // more than CR LF after a part's data) are skipped. Failures: SOCK_TIMEOUT (408), HTTP_HEADER_READ_FAILD (413
    // or 400), HTTP_INVALID_SYNTAX (bad part head), HTTP_ERR_CONTENTLENGTH
    // (411: missing, below 1, or the part and its CR LF do not fit after the
    // head; nothing of the body is read then), HTTP_BODY_READ_FAILD (400/408).
    int HttpReadMulti(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB = nullptr);

    // As HttpReadMulti (same codes, statuses, texts and size rule), but the
    // part's data are received straight into pDst, not into this buffer:
    // the part head is found by peeking, only the head is taken in here,
    // and only data bytes already held as read-ahead are copied. On SUCCESS
    // *pReceived = Content length and m_nBodyLength = Content length + 2;
    // the data are NOT at m_pBuffer + m_nBodyStart. A part longer than
    // nDstSize gives DATASIZE_LARGE before any data byte is read (the owner
    // closes the connection). INVALID_ARGUMENT for null pDst or pReceived.
    // Unlike HttpReadMulti, a connection closed before all Content length
    // bytes of the data came is a failed read (HTTP_BODY_READ_FAILD, status
    // 400, its receive logged with SOCK_CLOSE): the part is not handed on
    // with bytes the peer never sent.
    int HttpReadMultiInto(int fd, int timeout_ms, SockExitFlag* exitFlag, char* pDst, int nDstSize, int* pReceived,
                          DbPrintf_Class* pDB = nullptr);

    // As HTTPResponseBuffer_Class::Is_KeepAlive.
    int Is_KeepAlive(DbPrintf_Class* pDB = nullptr);

    // The boundary as found in the head (quotes, if any, kept). NOT
    // terminated when it fills all 64 bytes: use m_nBoundaryLength.
    const char* GetBoundary() const { return m_strBoundary; }

    HTTPMultiPartResponseParser_Class Parser;
    char m_strBoundary[BOUNDARY_SIZE];
    int m_nBoundaryLength = 0;

private:
    // The part-head step both part readers share, after their own head read
    // (readRc): a failed read as HeadReadFailed, then the part head parsed
    // and its Content-Length checked against the room after the head less
    // the CR LF that ends the data. SUCCESS leaves m_nContentLength set.
    // The codes, statuses and logged texts are HttpReadMulti's.
    int CheckPartHead(int fd, int readRc, DbPrintf_Class* pDB);
};

#endif
