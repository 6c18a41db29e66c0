#include "http/response_parser.h"

#include <stdio.h>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/string_buf.h"

HTTPResponseParser_Class::HTTPResponseParser_Class(DbPrintf_Class* pDB) : HTTPMessageParser_Class(pDB)
{
}

HTTPResponseParser_Class::~HTTPResponseParser_Class() = default;

int HTTPResponseParser_Class::Clear(DbPrintf_Class* pDB)
{
    HTTPMessageParser_Class::Clear(pDB);
    m_nStatusCode = 0;
    m_Text.Clear();
    m_nErrorHeadPos = -1;
    return SUCCESS;
}

int HTTPResponseParser_Class::OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB)
{
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    out->add("--- HTTP Parser ---\n");
    out->add("Protocol[ ");
    m_Protocol.OutputBuffer(out, pDB);
    out->add(" ] : Version %d . %d \n", m_nMajorVersion, m_nMinorVersion);
    out->add("StatesCode [%d] : string [", m_nStatusCode);
    m_Text.OutputBuffer(out, pDB);
    out->add("]\n");
    return OutputHeaderLines(out, pDB);
}

int HTTPResponseParser_Class::ParseStatusLine(DbPrintf_Class* pDB)
{
    static const char kFunc[] = "HTTPResponseParser_Class::ParseStatusLine";
    int rc = Get_ProtocolVersion(pDB);
    if (rc == NOTFOUND_PROTOCOLINFO) {
        return Fault(400, pDB, kFunc, "[Offset %d]:Syntax error. in Protocol information.", m_nPos);
    }
    if (rc != SUCCESS) {
        return rc;
    }
    int blanks = 0;
    if (SkipRead_BetweenSpace(&blanks, pDB) != SUCCESS) {
        return Fault(400, pDB, kFunc, "[Offset %d]:Syntax error. in Response first line.", m_nPos);
    }

    long long code = 0;
    int overflow = 0;
    if (GetNumber(&code, &overflow, pDB) != SUCCESS) {
        Fault(400, pDB, kFunc, "[Offset %d]:Syntax error. Not found status code.", m_nPos);
        return NOTFOUND_PROTOCOLINFO;
    }
    if (overflow != 0) {
        return Fault(400, pDB, kFunc, "[Offset %d]:Syntax error. Illigal status code.", m_nPos);
    }
    m_nStatusCode = static_cast<int>(code);
    if (code != 200) {
        Fault(400, pDB, kFunc, "[Offset %d]:HTTP error status. code[%lld].", m_nPos, code);
        m_nErrorHeadPos = m_nPos;
        return HTTP_ACCESS_FAILD;
    }

    return ReadLineText(pDB);
}

int HTTPResponseParser_Class::ReadLineText(DbPrintf_Class* pDB)
{
    int start = 0;
    int length = 0;
    int rc = SkipRead_toOneHedderLineEnd(&start, &length, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    m_Text.Clear();
    if (length > 0) {
        m_Text.Copy_OnlyPointer(m_pBuf + start, length);
    }
    return SUCCESS;
}

int HTTPResponseParser_Class::Parsing(unsigned char* buf, int size, DbPrintf_Class* pDB)
{
    SetBuffer(buf, size);
    m_nErrorHeadPos = -1;
    int rc = SkipRead_BeforeHTTPHeader_ReturnCode(pDB);
    if (rc != SUCCESS) {
        return FailedStep(rc, pDB, "HTTPResponseParser_Class::Parsing", "Syntax error before HTTP Header.");
    }
    rc = ParseStatusLine(pDB);
    if (rc != SUCCESS) {
        // The fallback text is shared with the request reader on purpose.
        return FailedStep(rc, pDB, "HTTPResponseParser_Class::Parsing", "Syntax error in HTTP Request Line.");
    }
    rc = Parsing_HedderLine(pDB);
    if (rc != SUCCESS) {
        return FailedStep(rc, pDB, "HTTPResponseParser_Class::Parsing", "Syntax error in HTTP header.");
    }
    return SUCCESS;
}

int HTTPResponseParser_Class::ParsingErrorHead(DbPrintf_Class* pDB)
{
    if (m_nErrorHeadPos < 0 || m_nErrorHeadPos != m_nPos) {
        return NOT_INITIALIZE;
    }
    m_nErrorHeadPos = -1;
    int rc = ReadLineText(pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    return Parsing_HedderLine(pDB);
}
