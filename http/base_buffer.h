#ifndef OSTREL_HTTP_BASE_BUFFER_H
#define OSTREL_HTTP_BASE_BUFFER_H

#include <sys/time.h>

#include "common/return_codes.h"
#include "http/byte_source.h"
#include "net/socket_io.h"

class DbPrintf_Class;
class HTTPMessageParser_Class;
class StaticArr_NameValToken_Class;

// HTTPBaseBuffer_Class: the read buffer for all HTTP traffic. It takes a
// message off a connection in two steps, the head up to its blank line
// (HttpRead_Header) and then a body of known length (HttpRead_Body), and
// keeps whatever arrived beyond the message as read-ahead for the next one.
// The request, response and multipart buffers derive from it and add a
// parser and the policy for their kind of message.
//
// Layout of the buffer while a message is being read:
//
//   0 .. m_nHeaderStart .. m_nBodyStart .. m_nBodyStart+m_nBodyLength .. m_nFilled .. m_nCapacity
//        |--- head ----|    |---- body ---------------|   read-ahead  |   free
//
// m_nConsumed is where the current message ends (and where the next head
// search starts); the bytes from m_nConsumed to m_nFilled belong to the next
// message. ResetBuf (in the derived classes) moves them to the front.
//
// Every read step reports, besides its return code, m_nStatus (the HTTP
// status that best describes the outcome: 200 after success; 400, 408, 411,
// 413 or a parser's status after a failure) and m_strError (an English text a
// server can send back, "" when nothing failed).
//
// Ownership and lifetime: the buffer is allocated by Init and freed by the
// destructor. Pointers into it (parsed tokens, Buffer + body start) stay
// valid until the next ResetBuf/HttpRead*, which may move the bytes.
// Not thread-safe: one buffer belongs to one connection and one thread. The
// exit flag may be set by another thread (it is atomic); a read ends with
// LOOP_INTERRUPTED when it holds -1.
//
// Library: the readers (this class, the request, response and multipart
// buffers, the response writer and the clients) form ostrel_http, which
// receives through the socket layer (net/). The parsers they hand the bytes
// to form ostrel_http_parse, in this folder as well, and depend only on
// common/; see http/CMakeLists.txt.
// The pieces both head readers share (HTTPBaseBuffer_Class's, which
// receives, and the multipart direct read's, which peeks first), so that
// they find the same heads and count time alike.
namespace http_head {

// Where the head being read ends. The state is carried between receives:
// from is where the search resumes, leading whether CR and LF bytes before
// the head are still being passed over (set it false to take them as the
// head's blank line). Next returns the index just past the blank line (LF LF
// or LF CR LF) within buf[from, filled), or -1 when it is not complete yet.
struct Scan {
    int from;
    bool leading;
    int Next(const unsigned char* buf, int filled);
};

// The start of a head-read pass over a buffer holding filled of capacity
// bytes: DATA_LARGE_THEN_BUF when it is full, LOOP_INTERRUPTED when the exit
// flag asks to stop; else SUCCESS with *before set to the pass's start.
int PassStart(int filled, int capacity, const SockExitFlag* exitFlag, timeval* before);

// What a pass's receive (rc, *got bytes) means for the head read: SUCCESS
// to go on (a signal that is not the stop request counts as a pass without
// data: *got becomes 0), LOOP_INTERRUPTED for the stop request, SOCK_CLOSE
// for a peer that closed, or rc itself for a failed receive.
int PassReceived(int rc, int* got, const SockExitFlag* exitFlag);

// The socket layer's receive-pass accounting (Sock_RecvPassTimeUp) for a
// head-read pass that began at before and was not silent (a silent wait
// ends a head read with its own SOCK_TIMEOUT). True when the time is up.
bool TimeUp(const timeval& before, int timeout_ms, long long* countedUsec);

}  // namespace http_head

class HTTPBaseBuffer_Class {
public:
    static constexpr int ERROR_TEXT_SIZE = 512;

    HTTPBaseBuffer_Class();
    virtual ~HTTPBaseBuffer_Class();

    HTTPBaseBuffer_Class(const HTTPBaseBuffer_Class&) = delete;
    HTTPBaseBuffer_Class& operator=(const HTTPBaseBuffer_Class&) = delete;

    // Allocates a zeroed buffer of size bytes and clears everything (the
    // virtual ClearBuf, so a derived parser is cleared too). SUCCESS.
    // The same size as the existing buffer: ClearBuf, zero it,
    // ALREADY_INITIALIZE. Size 0 or below: DEBUG_WARNING. MALLOC_ERROR keeps
    // the old buffer.
    int Init(int size, DbPrintf_Class* pDB = nullptr);

    // Drops everything, read-ahead included: consumed, filled, the offsets,
    // content length, status and error text. The buffer and its capacity
    // stay. Derived classes also clear their parsers. SUCCESS.
    virtual int ClearBuf(DbPrintf_Class* pDB = nullptr);

    // Prepares for the next message on the same connection: the read-ahead
    // (m_nConsumed .. m_nFilled) moves to the front, everything else is
    // cleared as by ClearBuf. DEBUG_WARNING when the counters are
    // inconsistent (nothing is changed then). SUCCESS.
    int ResetBuf(DbPrintf_Class* pDB = nullptr);

    // Receives until the buffer holds a complete head: the first LF LF or
    // LF CR LF at or after m_nConsumed (so CR LF CR LF is found too). Read-
    // ahead is searched before anything is received. On SUCCESS:
    // m_nHeaderLength counts the head with its blank line, m_nBodyStart =
    // m_nConsumed = the end of the head.
    // Failures: DATA_LARGE_THEN_BUF (the buffer filled up first), SOCK_CLOSE
    // (the peer closed first), SOCK_TIMEOUT (a silent wait of timeout_ms, or
    // the time spent receiving a trickle reached timeout_ms), LOOP_INTERRUPTED
    // (exit flag -1), or another RecvOnce code. Status and error
    // text are left to the caller.
    int HttpRead_Header(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB = nullptr);

    // Makes sure the length bytes after the head are in the buffer, receiving
    // what is missing (RecvFill). Then m_nBodyLength = length and
    // m_nConsumed = m_nBodyStart + length; bytes beyond stay as read-ahead.
    // A peer that closes early leaves the body short and still gives SUCCESS
    // (m_nFilled tells how much arrived); the missing bytes are zeroed, so
    // they never show an earlier message. DEBUG_WARNING for inconsistent
    // counters or a negative length, DATA_LARGE_THEN_BUF when the body cannot
    // fit, HTTP_BODY_READ_FAILD for any receive failure (a time-out, silent
    // wait or trickle, included).
    int HttpRead_Body(int fd, int length, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB = nullptr);

    // The byte-source seam: every receive of this reader goes to source
    // (borrowed: it must outlive the reads) instead of the descriptor the
    // read functions are given; the descriptor then only appears in log
    // lines. Null, the default, receives from that descriptor.
    void SetByteSource(HttpByteSource* source) { m_pSource = source; }

    // The readers' one receive point: the byte source if one is set, else
    // the socket fd (HttpByteSource::RecvOnce / RecvFill).
    int RecvOnce(int fd, void* buf, int len, int* got, int timeout_ms, int flags, DbPrintf_Class* pDB);
    int RecvFill(int fd, void* buf, int len, int* got, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB);

    // Read results and counters; callers read them, only this class and its
    // derived classes write them.
    int m_nHeaderStart = 0;
    int m_nHeaderLength = 0;
    int m_nBodyStart = 0;
    int m_nBodyLength = 0;
    char m_strError[ERROR_TEXT_SIZE];
    int m_nStatus = 0;
    unsigned char* m_pBuffer = nullptr;  // owned
    int m_nContentLength = 0;
    int m_nCapacity = 0;
    int m_nFilled = 0;
    int m_nConsumed = 0;

protected:
    // HttpRead_Header; with skipLeadingLineEnds, CR and LF bytes before the
    // head are passed over before the search starts (a part's data may be
    // followed by more line ends than the one pair the reader consumes).
    int ReadHead(int fd, int timeout_ms, SockExitFlag* exitFlag, bool skipLeadingLineEnds, DbPrintf_Class* pDB);
    // Status and error text of a failed step, for the derived readers.
    void SetFailure(int status, const char* text);
    // A failed head read (rc from HttpRead_Header or ReadHead) as the readers
    // report it: SOCK_TIMEOUT stays (status 408); anything else becomes
    // HTTP_HEADER_READ_FAILD (413 when the head did not fit, else 400).
    int HeadReadFailed(int rc);
    // The same, logged first as "[who] HttpRead_Header(sockfd %d) failed ::%d".
    int HeadReadFailed(const char* who, int fd, int rc, DbPrintf_Class* pDB);
    // A failed head parse: logged as "[who] step failed ::%d", the parser's
    // status and text taken over (SetFailure); HTTP_INVALID_SYNTAX.
    int HeadParseFailed(const char* who, const char* step, int rc, int status, const char* text, DbPrintf_Class* pDB);
    // The body of "Content-Length:" bytes (CheckContentLength against the
    // room after the head, then HttpRead_Body), each failure logged under who
    // ("[who] <the check's text> ::%d", "[who] HttpRead_Body(sockfd
    // %d,ContentLength %d) failed ::%d") and reported as those steps do
    // (a failed read through BodyReadFailed). SUCCESS.
    int ReadCountedBody(int fd, int timeout_ms, SockExitFlag* exitFlag, const StaticArr_NameValToken_Class& headers,
                        const char* who, DbPrintf_Class* pDB);
    // How HttpRead (and the multipart HttpReadFirst) begin: PrepareNextMessage,
    // the head read, then parser->Parsing over the head, each failure as
    // above. errorText is the parser's text to report (the request parser
    // keeps its own apart from the shared scanner's). SUCCESS.
    template <typename Parser>
    int ReadParsedHead(int fd, int timeout_ms, SockExitFlag* exitFlag, Parser* parser, const char* errorText,
                       const char* who, DbPrintf_Class* pDB)
    {
        PrepareNextMessage(pDB);
        int rc = HttpRead_Header(fd, timeout_ms, exitFlag, pDB);
        if (rc != SUCCESS) {
            return HeadReadFailed(who, fd, rc, pDB);
        }
        rc = parser->Parsing(m_pBuffer + m_nHeaderStart, m_nHeaderLength, pDB);
        if (rc != SUCCESS) {
            return HeadParseFailed(who, "Parser.Parsing", rc, parser->m_nStatus, errorText, pDB);
        }
        return SUCCESS;
    }
    // A failed body read: HTTP_BODY_READ_FAILD, status 408 for SOCK_TIMEOUT
    // (HttpRead_Body never passes one through, so 400 in practice).
    int BodyReadFailed(int rc);
    // Is_KeepAlive of the derived readers, given their parser:
    // NOT_INITIALIZE before any read; SUCCESS when the last message was read
    // whole (status 200), is not HTTP/1.0 and did not ask to close; else
    // HTTP_CONNECTIONCLOSE.
    int KeepAliveVerdict(const HTTPMessageParser_Class& parser) const;
    // ResetBuf, falling back to ClearBuf when the counters were left
    // inconsistent (a body cut short by the peer): the buffer never stays
    // stuck.
    void PrepareNextMessage(DbPrintf_Class* pDB);
    // "Content-Length:" of the parsed head, checked as the readers need it:
    // a missing header, a value below 1 (or not a number) and a value above
    // maxLength each set status 411 and their text and return
    // HTTP_ERR_CONTENTLENGTH. SUCCESS (and a value too large) stores the
    // value in m_nContentLength.
    int CheckContentLength(const StaticArr_NameValToken_Class& headers, int maxLength);

private:
    HttpByteSource* m_pSource = nullptr;
};

#endif
