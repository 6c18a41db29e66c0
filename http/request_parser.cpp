#include "http/request_parser.h"

#include <stdarg.h>
#include <stdio.h>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/string_buf.h"
#include "http/char_tables.h"

HTTPRequestParser_Class::HTTPRequestParser_Class(DbPrintf_Class* pDB) : HTTPMessageParser_Class(pDB)
{
    m_strRequestError[0] = '\0';
}

HTTPRequestParser_Class::~HTTPRequestParser_Class() = default;

int HTTPRequestParser_Class::Clear(DbPrintf_Class* pDB)
{
    ResetParseState();
    m_strRequestError[0] = '\0';
    Method.Clear();
    Flag_Num = METHOD_OTHER;
    URI.Clear();
    URIParser.Clear(pDB);
    return SUCCESS;
}

int HTTPRequestParser_Class::OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB)
{
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    OutputProtocol(out, pDB);
    out->add("Method[ ");
    Method.OutputBuffer(out, pDB);
    out->add(" ] Flag_Num[%d]\n", Flag_Num);
    out->add("URI[ ");
    URI.OutputBuffer(out, pDB);
    out->add(" ]\n");
    URIParser.OutputBuffer(out, pDB);
    return OutputHeaderLines(out, pDB);
}

int HTTPRequestParser_Class::RequestFault(DbPrintf_Class* pDB, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(m_strRequestError, sizeof m_strRequestError, fmt, ap);
    va_end(ap);
    m_nStatus = 400;
    TimePrint(pDB, 1, "[HTTPRequestParser_Class::Parsing()] %s ::%d\n", m_strRequestError, HTTP_INVALID_SYNTAX);
    return HTTP_INVALID_SYNTAX;
}

int HTTPRequestParser_Class::ParseRequestLine(DbPrintf_Class* pDB)
{
    if (GetToken_toNextChar(' ', HTTP_TokenChar, &Method, pDB) != SUCCESS) {
        return RequestFault(pDB, "[Offset %d]:Syntax error. in Request method.", m_nPos);
    }
    int blanks = 0;
    if (SkipRead_BetweenSpace(&blanks, pDB) != SUCCESS) {
        return RequestFault(pDB, "[Offset %d]:Syntax error. in Request method.", m_nPos);
    }
    if (GetToken_toNextChar(' ', HTTP_URI, &URI, pDB) != SUCCESS) {
        if (m_nPos < m_nSize && (m_pBuf[m_nPos] == '\n' || m_pBuf[m_nPos] == '\r')) {
            // "GET /x" and the line ends: a request line without a version.
            return RequestFault(pDB, "[Offset %d]:Syntax error. Not found protocol information.", m_nPos);
        }
        return RequestFault(pDB, "[Offset %d]:Syntax error. in URI", m_nPos);
    }
    if (SkipRead_BetweenSpace(&blanks, pDB) != SUCCESS) {
        return RequestFault(pDB, "[Offset %d]:Syntax error. in URI", m_nPos);
    }
    int rc = Get_ProtocolVersion(pDB);
    if (rc == NOTFOUND_PROTOCOLINFO) {
        return RequestFault(pDB, "[Offset %d]:Syntax error. in Protocol information.", m_nPos);
    }
    if (rc != SUCCESS) {
        return rc;
    }
    int stray = 0;
    if (SkipRead_toNextLine(&stray, pDB) != SUCCESS || stray != 0) {
        return RequestFault(pDB, "[Offset %d]:Syntax error. in protocol string.", m_nPos);
    }

    if (Method.Case_Compear("POST") == SUCCESS) {
        Flag_Num = METHOD_POST;
    } else if (Method.Case_Compear("GET") == SUCCESS) {
        Flag_Num = METHOD_GET;
    } else if (Method.Case_Compear("HEAD") == SUCCESS) {
        Flag_Num = METHOD_HEAD;
    } else {
        Flag_Num = METHOD_OTHER;
    }
    return SUCCESS;
}

int HTTPRequestParser_Class::Parsing(unsigned char* buf, int size, DbPrintf_Class* pDB)
{
    SetBuffer(buf, size);
    const char* fallback = nullptr;
    int rc = SkipRead_BeforeHTTPHeader_ReturnCode(pDB);
    if (rc != SUCCESS) {
        fallback = "Syntax error before HTTP Header.";
    } else if ((rc = ParseRequestLine(pDB)) != SUCCESS) {
        fallback = "Syntax error in HTTP Request Line.";
    } else if ((rc = URIParser.Parsing(&URI, pDB)) != SUCCESS) {
        fallback = "Syntax error in URI";
    } else if ((rc = Parsing_HedderLine(pDB)) != SUCCESS) {
        fallback = "Syntax error in HTTP header.";
    }
    // A step that already set a status keeps its own text (or, for the
    // scanner's faults, the empty request text).
    if (rc != SUCCESS && m_nStatus == 0) {
        m_nStatus = 400;
        snprintf(m_strRequestError, sizeof m_strRequestError, "%s", fallback);
        TimePrint(pDB, 1, "[HTTPRequestParser_Class::Parsing()] %s ::%d\n", fallback, rc);
    }
    return rc;
}
