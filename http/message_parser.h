#ifndef OSTREL_HTTP_MESSAGE_PARSER_H
#define OSTREL_HTTP_MESSAGE_PARSER_H

#include "common/tokens.h"

class DbPrintf_Class;
class StringBuf_Class;

// HTTPMessageParser_Class: the scanner every HTTP head is read with (request
// heads, response heads and the part heads of a multipart stream).
//
// It works in place over a byte buffer that belongs to a reader object and is
// never copied or freed here. All tokens it produces (the protocol name and
// the header lines) borrow spans of that buffer: they stay valid only while
// the reader keeps the bytes where they are (until its next reset).
//
// Header lines are stored in order, repeats included, as (name, value) pairs
// whose name INCLUDES its closing colon, so lookups use keys such as
// "Content-Length:". A value keeps folded continuation lines as they stand
// (line break and leading blank included); a line ends at LF or CR LF. At most
// 127 header lines are accepted: the blank line that ends the head counts as
// the 128th.
//
// Results: every scan returns a code of common/return_codes.h. A syntax fault
// sets m_nStatus (400, or 413 for too many header lines), writes a one-line
// English explanation into m_strError and returns HTTP_INVALID_SYNTAX; the
// read position is left where the fault was found. Get_ProtocolVersion and
// GetNumber also return NOTFOUND_PROTOCOLINFO / NOTFOUND_VALUE without a text
// of their own; null arguments give DEBUG_WARNING.
//
// Not thread-safe: one parser belongs to one reader and one thread.
class HTTPMessageParser_Class {
public:
    static constexpr int ERROR_TEXT_SIZE = 512;
    // Capacity of the header table; the head may carry one line less.
    static constexpr int HEADER_LINES_MAX = 128;

    explicit HTTPMessageParser_Class(DbPrintf_Class* pDB = nullptr);
    virtual ~HTTPMessageParser_Class();

    HTTPMessageParser_Class(const HTTPMessageParser_Class&) = delete;
    HTTPMessageParser_Class& operator=(const HTTPMessageParser_Class&) = delete;

    // Error text empty, status 0, protocol token cleared, versions -1,
    // Flag_HOST 0, keep-alive 1, header lines cleared. The buffer, size and
    // position are left alone. SUCCESS.
    virtual int Clear(DbPrintf_Class* pDB = nullptr);
    // Appends a debug dump of the parsed head to out.
    virtual int OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB = nullptr);

    // Points the scanner at size bytes of buf (borrowed) and sets the
    // position to 0. The derived parsers' Parsing members call it first.
    void SetBuffer(unsigned char* buf, int size);

    // Skips CR and LF bytes. Fault when only such bytes remain.
    int SkipRead_BeforeHTTPHeader_ReturnCode(DbPrintf_Class* pDB = nullptr);
    // Scans for stop; every byte before it must be allowed by codeMap (the
    // stop byte itself need not be). SUCCESS leaves the position ON the stop
    // byte and delivers the span before it (an empty span leaves the token
    // empty). Faults: an illegal byte, or the end of the buffer first.
    int GetToken_toNextChar(unsigned char stop, const unsigned char* codeMap, OneToken_Class* token,
                            DbPrintf_Class* pDB = nullptr);
    int SkipRead_toNextChar(unsigned char stop, const unsigned char* codeMap, int* start, int* length,
                            DbPrintf_Class* pDB = nullptr);
    // Skips spaces and HTs, counting them (zero is fine). Fault when the
    // buffer ends in them.
    int SkipRead_BetweenSpace(int* count, DbPrintf_Class* pDB = nullptr);
    // Reads decimal digits into *value (signed 64-bit; *overflow = 1 when the
    // value wrapped, the scan goes on). NOTFOUND_VALUE when no digit stands
    // at the position. Fault when the buffer ends inside the digits: a number
    // must be followed by some other byte. The position ends on that byte.
    int GetNumber(long long* value, int* overflow, DbPrintf_Class* pDB = nullptr);
    // "<token>/<major>.<minor>" into the protocol token and the versions.
    // NOTFOUND_PROTOCOLINFO for any malformation it detects itself; a fault
    // of a scan it calls is returned as it is.
    int Get_ProtocolVersion(DbPrintf_Class* pDB = nullptr);
    // Moves past the next LF, counting the bytes other than CR, SP and HT on
    // the way. Fault when there is no LF.
    int SkipRead_toNextLine(int* count, DbPrintf_Class* pDB = nullptr);
    // From just after a colon: skips blanks and delimits the value up to the
    // LF that is not followed by a blank (CR before it excluded); moves past
    // that LF. Fault when the buffer ends first or the LF is its last byte.
    int SkipRead_toOneHedderLineEnd(int* start, int* length, DbPrintf_Class* pDB = nullptr);
    // One header line, or the blank line (*endOfHeader = 1).
    int Parsing_OneHeaderLine(int* endOfHeader, DbPrintf_Class* pDB = nullptr);
    // All header lines up to and including the blank line.
    int Parsing_HedderLine(DbPrintf_Class* pDB = nullptr);

    // Parse results; read them, do not write them.
    char m_strError[ERROR_TEXT_SIZE];  // "" when no fault
    int m_nStatus = 0;                 // 0, 400 or 413
    OneToken_Class m_Protocol;         // "HTTP" of "HTTP/1.1"
    int m_nMajorVersion = -1;
    int m_nMinorVersion = -1;
    int Flag_HOST = 0;  // 1 once a Host line was parsed
    StaticArr_NameValToken_Class m_HeaderLines;
    int m_nKeepAlive = 1;  // 0 once "Connection: close" was parsed

    // Scanner state: next byte to examine, valid bytes, borrowed buffer.
    int m_nPos = 0;
    int m_nSize = 0;
    unsigned char* m_pBuf = nullptr;

protected:
    // The pieces of OutputBuffer the derived parsers reuse: the title,
    // protocol and version lines, and the header-line section.
    void OutputProtocol(StringBuf_Class* out, DbPrintf_Class* pDB);
    int OutputHeaderLines(StringBuf_Class* out, DbPrintf_Class* pDB);
    // Clear() without touching the error text (the request parser keeps the
    // scanner's text as it was and reports through a text of its own).
    void ResetParseState();
    // Sets the status, formats the text (cut to 512 bytes), logs it under
    // function name given (qualified) and returns HTTP_INVALID_SYNTAX.
    int Fault(int status, DbPrintf_Class* pDB, const char* func, const char* fmt, ...)
        __attribute__((format(printf, 5, 6)));
    // The end of a failed parsing step (rc): a step that set a status keeps
    // its own text; one that did not gets status 400 and text (as Fault).
    // Returns rc.
    int FailedStep(int rc, DbPrintf_Class* pDB, const char* func, const char* text);
};

#endif
