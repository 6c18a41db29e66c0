#include "http/message_parser.h"

#include <stdarg.h>
#include <stdio.h>
#include <strings.h>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/string_buf.h"
#include "http/char_tables.h"

namespace {

bool is_blank(unsigned char c)
{
    return c == ' ' || c == '\t';
}

// Case-insensitive match of a span against a text of exactly its length.
bool span_equals_nocase(const unsigned char* p, int len, const char* text, int textLen)
{
    return len == textLen && strncasecmp(reinterpret_cast<const char*>(p), text, textLen) == 0;
}

}  // namespace

HTTPMessageParser_Class::HTTPMessageParser_Class(DbPrintf_Class* pDB)
{
    m_strError[0] = '\0';
    m_HeaderLines.Init(HEADER_LINES_MAX, pDB);
    HTTPMessageParser_Class::Clear(pDB);
}

HTTPMessageParser_Class::~HTTPMessageParser_Class() = default;

void HTTPMessageParser_Class::ResetParseState()
{
    m_nStatus = 0;
    m_Protocol.Clear();
    m_nMajorVersion = -1;
    m_nMinorVersion = -1;
    Flag_HOST = 0;
    m_nKeepAlive = 1;
    m_HeaderLines.Clear();
}

int HTTPMessageParser_Class::Clear(DbPrintf_Class*)
{
    m_strError[0] = '\0';
    ResetParseState();
    return SUCCESS;
}

int HTTPMessageParser_Class::OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB)
{
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    OutputProtocol(out, pDB);
    return OutputHeaderLines(out, pDB);
}

void HTTPMessageParser_Class::OutputProtocol(StringBuf_Class* out, DbPrintf_Class* pDB)
{
    out->add("--- HTTP Parser ---\n");
    out->add("Protocol[ ");
    m_Protocol.OutputBuffer(out, pDB);
    out->add(" ] : Version %d . %d , Flag_HOST %d \n", m_nMajorVersion, m_nMinorVersion, Flag_HOST);
}

int HTTPMessageParser_Class::OutputHeaderLines(StringBuf_Class* out, DbPrintf_Class* pDB)
{
    out->add("--- Header %d ---\n", m_HeaderLines.GetCount());
    return m_HeaderLines.OutputBuffer(out, pDB);
}

void HTTPMessageParser_Class::SetBuffer(unsigned char* buf, int size)
{
    m_pBuf = buf;
    m_nSize = (buf == nullptr || size < 0) ? 0 : size;
    m_nPos = 0;
}

int HTTPMessageParser_Class::Fault(int status, DbPrintf_Class* pDB, const char* func, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(m_strError, sizeof m_strError, fmt, ap);
    va_end(ap);
    m_nStatus = status;
    TimePrint(pDB, 1, "[%s()] %s ::%d\n", func, m_strError, HTTP_INVALID_SYNTAX);
    return HTTP_INVALID_SYNTAX;
}

int HTTPMessageParser_Class::FailedStep(int rc, DbPrintf_Class* pDB, const char* func, const char* text)
{
    if (m_nStatus == 0) {
        Fault(400, pDB, func, "%s", text);
    }
    return rc;
}

int HTTPMessageParser_Class::SkipRead_BeforeHTTPHeader_ReturnCode(DbPrintf_Class* pDB)
{
    while (m_nPos < m_nSize) {
        unsigned char c = m_pBuf[m_nPos];
        if (c != '\r' && c != '\n') {
            return SUCCESS;
        }
        m_nPos++;
    }
    return Fault(400, pDB, "HTTPMessageParser_Class::SkipRead_BeforeHTTPHeader_ReturnCode",
                 "All receiving characters were return codes.");
}

int HTTPMessageParser_Class::SkipRead_toNextChar(unsigned char stop, const unsigned char* codeMap, int* start,
                                                 int* length, DbPrintf_Class* pDB)
{
    if (start == nullptr || length == nullptr || codeMap == nullptr) {
        return DEBUG_WARNING;
    }
    int first = m_nPos;
    int len = 0;
    while (m_nPos < m_nSize) {
        unsigned char c = m_pBuf[m_nPos];
        // The stop byte is tested before the table: it need not be allowed.
        if (c == stop) {
            *start = first;
            *length = len;
            return SUCCESS;
        }
        if (codeMap[c] == 0) {
            return Fault(400, pDB, "HTTPMessageParser_Class::SkipRead_toNextChar",
                         "[Offset %d]:Found illigal character. [0x%02x]", m_nPos, c);
        }
        m_nPos++;
        len++;
    }
    return Fault(400, pDB, "HTTPMessageParser_Class::SkipRead_toNextChar",
                 "[Offset %d]:Syntax error. Not found charactor [0x%02x] , Start[offset %d] to hedder end.", m_nPos,
                 stop, first);
}

int HTTPMessageParser_Class::GetToken_toNextChar(unsigned char stop, const unsigned char* codeMap,
                                                 OneToken_Class* token, DbPrintf_Class* pDB)
{
    if (token == nullptr || codeMap == nullptr) {
        return DEBUG_WARNING;
    }
    int start = 0;
    int len = 0;
    int rc = SkipRead_toNextChar(stop, codeMap, &start, &len, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    token->Clear();
    if (len > 0) {
        token->Copy_OnlyPointer(m_pBuf + start, len);
    }
    return SUCCESS;
}

int HTTPMessageParser_Class::SkipRead_BetweenSpace(int* count, DbPrintf_Class* pDB)
{
    int first = m_nPos;
    int n = 0;
    while (m_nPos < m_nSize) {
        if (!is_blank(m_pBuf[m_nPos])) {
            if (count != nullptr) {
                *count = n;
            }
            return SUCCESS;
        }
        m_nPos++;
        n++;
    }
    if (count != nullptr) {
        *count = n;
    }
    return Fault(400, pDB, "HTTPMessageParser_Class::SkipRead_BetweenSpace",
                 "[Offset %d]:Syntax error. Start[offset %d] to hedder end were Space[0x20].", m_nPos, first);
}

int HTTPMessageParser_Class::GetNumber(long long* value, int* overflow, DbPrintf_Class* pDB)
{
    if (value == nullptr || overflow == nullptr) {
        return DEBUG_WARNING;
    }
    *value = 0;
    *overflow = 0;
    int first = m_nPos;
    for (;;) {
        if (m_nPos >= m_nSize) {
            return Fault(400, pDB, "HTTPMessageParser_Class::GetNumber",
                         "[Offset %d]:Syntax error. In Number character parsing.", m_nPos);
        }
        unsigned char c = m_pBuf[m_nPos];
        if (c < '0' || c > '9') {
            break;
        }
        // Wrapping arithmetic done unsigned (signed overflow is undefined);
        // a result below the previous value marks the overflow.
        long long next = static_cast<long long>(static_cast<unsigned long long>(*value) * 10u +
                                                static_cast<unsigned long long>(c - '0'));
        if (next < *value) {
            *overflow = 1;
        }
        *value = next;
        m_nPos++;
    }
    return m_nPos == first ? NOTFOUND_VALUE : SUCCESS;
}

int HTTPMessageParser_Class::Get_ProtocolVersion(DbPrintf_Class* pDB)
{
    if (GetToken_toNextChar('/', HTTP_TokenChar, &m_Protocol, pDB) != SUCCESS) {
        return NOTFOUND_PROTOCOLINFO;
    }
    m_nPos++;  // past "/"
    if (m_nPos >= m_nSize) {
        return NOTFOUND_PROTOCOLINFO;
    }

    long long number = 0;
    int overflow = 0;
    int rc = GetNumber(&number, &overflow, pDB);
    if (rc == NOTFOUND_VALUE || (rc == SUCCESS && overflow != 0)) {
        return NOTFOUND_PROTOCOLINFO;
    }
    if (rc != SUCCESS) {
        return rc;
    }
    m_nMajorVersion = static_cast<int>(number);

    if (m_pBuf[m_nPos] != '.') {
        return NOTFOUND_PROTOCOLINFO;
    }
    m_nPos++;
    if (m_nPos >= m_nSize) {
        return NOTFOUND_PROTOCOLINFO;
    }

    rc = GetNumber(&number, &overflow, pDB);
    if (rc == NOTFOUND_VALUE || (rc == SUCCESS && overflow != 0)) {
        return NOTFOUND_PROTOCOLINFO;
    }
    if (rc != SUCCESS) {
        return rc;
    }
    m_nMinorVersion = static_cast<int>(number);
    return SUCCESS;
}

int HTTPMessageParser_Class::SkipRead_toNextLine(int* count, DbPrintf_Class* pDB)
{
    int n = 0;
    while (m_nPos < m_nSize) {
        unsigned char c = m_pBuf[m_nPos];
        if (c == '\n') {
            m_nPos++;
            if (count != nullptr) {
                *count = n;
            }
            return SUCCESS;
        }
        if (c != '\r' && !is_blank(c)) {
            n++;
        }
        m_nPos++;
    }
    if (count != nullptr) {
        *count = n;
    }
    return Fault(400, pDB, "HTTPMessageParser_Class::SkipRead_toNextLine", "[Offset %d]:Syntax error.", m_nPos);
}

int HTTPMessageParser_Class::SkipRead_toOneHedderLineEnd(int* start, int* length, DbPrintf_Class* pDB)
{
    if (start == nullptr || length == nullptr) {
        return DEBUG_WARNING;
    }
    while (m_nPos < m_nSize && is_blank(m_pBuf[m_nPos])) {
        m_nPos++;
    }
    if (m_nPos >= m_nSize) {
        return Fault(400, pDB, "HTTPMessageParser_Class::SkipRead_toOneHedderLineEnd",
                     "[Offset %d]:Syntax error. Illigal header end.", m_nPos);
    }

    int first = m_nPos;
    while (m_nPos < m_nSize) {
        if (m_pBuf[m_nPos] != '\n') {
            m_nPos++;
            continue;
        }
        if (m_nPos + 1 >= m_nSize) {
            // A line end with nothing after it: the head's blank line is missing.
            break;
        }
        if (is_blank(m_pBuf[m_nPos + 1])) {
            // A folded line: the value goes on, kept as it stands.
            m_nPos += 2;
            continue;
        }
        int len = m_nPos - first;
        if (len >= 1 && m_pBuf[m_nPos - 1] == '\r') {
            len--;
        }
        *start = first;
        *length = len;
        m_nPos++;
        return SUCCESS;
    }
    return Fault(400, pDB, "HTTPMessageParser_Class::SkipRead_toOneHedderLineEnd",
                 "[Offset %d]:Syntax error. Illigal header end.", m_nPos);
}

int HTTPMessageParser_Class::Parsing_OneHeaderLine(int* endOfHeader, DbPrintf_Class* pDB)
{
    static const char kFunc[] = "HTTPMessageParser_Class::Parsing_OneHeaderLine";
    if (endOfHeader == nullptr) {
        return DEBUG_WARNING;
    }
    *endOfHeader = 0;
    if (m_nPos >= m_nSize) {
        return Fault(400, pDB, kFunc, "[Offset %d]:Syntax error. Illigal header end.", m_nPos);
    }

    unsigned char c = m_pBuf[m_nPos];
    if (c == '\n') {
        *endOfHeader = 1;
        m_nPos++;
        return SUCCESS;
    }
    if (c == '\r') {
        if (m_nPos + 1 >= m_nSize) {
            return Fault(400, pDB, kFunc, "[Offset %d]:Syntax error. Illigal header end.", m_nPos);
        }
        if (m_pBuf[m_nPos + 1] == '\n') {
            *endOfHeader = 1;
            m_nPos += 2;
            return SUCCESS;
        }
        // A lone CR falls through to the name scan, which refuses it.
    } else if (is_blank(c)) {
        // A continuation line where a header line should begin.
        return Fault(400, pDB, kFunc, "[Offset %d]:Syntax error.", m_nPos);
    }

    int nameStart = 0;
    int nameLen = 0;
    int rc = SkipRead_toNextChar(':', HTTP_TokenChar, &nameStart, &nameLen, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    nameLen++;  // the name keeps its colon
    m_nPos++;
    const unsigned char* name = m_pBuf + nameStart;

    if (Flag_HOST == 0 && span_equals_nocase(name, nameLen, "HOST:", 5)) {
        Flag_HOST = 1;
    }
    if (m_nPos >= m_nSize) {
        return Fault(400, pDB, kFunc, "[Offset %d]:Syntax error. Illigal header end.", m_nPos);
    }

    int valStart = 0;
    int valLen = 0;
    rc = SkipRead_toOneHedderLineEnd(&valStart, &valLen, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    const unsigned char* val = m_pBuf + valStart;

    if (m_HeaderLines.Set_NameValToken_OnlyPointer(name, nameLen, val, valLen, pDB) == NOT_FOUND_FREE_BUF) {
        return Fault(413, pDB, kFunc, "HTTP hedder Lines Over %d.", HEADER_LINES_MAX);
    }
    if (m_nKeepAlive == 1 && span_equals_nocase(name, nameLen, "CONNECTION:", 11) &&
        span_equals_nocase(val, valLen, "CLOSE", 5)) {
        m_nKeepAlive = 0;
    }
    return SUCCESS;
}

int HTTPMessageParser_Class::Parsing_HedderLine(DbPrintf_Class* pDB)
{
    for (int i = 0; i < HEADER_LINES_MAX; i++) {
        int end = 0;
        int rc = Parsing_OneHeaderLine(&end, pDB);
        if (rc != SUCCESS) {
            TimePrint(pDB, 1, "[HTTPMessageParser_Class::Parsing_HedderLine()] Parsing_OneHeaderLine failed ::%d\n",
                      rc);
            return rc;
        }
        if (end == 1) {
            return SUCCESS;
        }
    }
    return Fault(413, pDB, "HTTPMessageParser_Class::Parsing_HedderLine", "HTTP hedder Lines Over %d.",
                 HEADER_LINES_MAX);
}
