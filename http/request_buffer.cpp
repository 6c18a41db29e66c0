#include "http/request_buffer.h"

#include "common/debug_log.h"
#include "common/return_codes.h"

HTTPRequestBuffer_Class::HTTPRequestBuffer_Class() = default;

HTTPRequestBuffer_Class::~HTTPRequestBuffer_Class() = default;

int HTTPRequestBuffer_Class::ClearBuf(DbPrintf_Class* pDB)
{
    Parser.Clear(pDB);
    CGIParam.Clear(pDB);
    return HTTPBaseBuffer_Class::ClearBuf(pDB);
}

int HTTPRequestBuffer_Class::HttpRead(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB)
{
    // Only the request parser's own text is reported: a fault inside the
    // header lines reaches the client with its status and an empty text.
    const int rc = ReadParsedHead(fd, timeout_ms, exitFlag, &Parser, Parser.m_strRequestError,
                                  "HTTPRequestBuffer_Class::HttpRead()", pDB);
    if (rc != SUCCESS) {
        return rc;
    }

    switch (Parser.Flag_Num) {
    case HTTPRequestParser_Class::METHOD_GET:
    case HTTPRequestParser_Class::METHOD_HEAD: {
        const HTTPURIParser_Class& uri = Parser.URIParser;
        if (uri.Flag_Have_CGIParam == 2) {
            return ParseParams(uri.CGIParam.GetPtr(), uri.CGIParam.GetLength(), pDB);
        }
        m_nStatus = 200;
        return SUCCESS;
    }
    case HTTPRequestParser_Class::METHOD_POST: return ReadPostParams(fd, timeout_ms, exitFlag, pDB);
    default:
        TimePrint(pDB, 1, "[HTTPRequestBuffer_Class::HttpRead()] Unkown Method ::%d\n", HTTP_UNSUPPORT_METHOD);
        SetFailure(415, "Unkown Method.");
        return HTTP_UNSUPPORT_METHOD;
    }
}

int HTTPRequestBuffer_Class::ReadPostParams(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB)
{
    const StaticArr_NameValToken_Class& headers = Parser.m_HeaderLines;
    int rc = ReadCountedBody(fd, timeout_ms, exitFlag, headers, "HTTPRequestBuffer_Class::HttpRead()", pDB);
    if (rc != SUCCESS) {
        return rc;
    }

    const unsigned char* body = m_pBuffer + m_nBodyStart;
    int paramOffset = 0;
    int paramLength = m_nContentLength;
    int parts = 0;
    if (headers.Search_NameToVal_RtnInt("NumOfPart:", &parts) == SUCCESS && parts >= 1) {
        int offset = 0;
        rc = headers.Search_NameToVal_RtnInt("Part_0_Offset:", &offset);
        if (rc == NOTFOUND_ITEM) {
            SetFailure(400, "PiPP Syntax error. found 'NumOfPart' but not found 'Part_0_Offset:'");
            return PIPP_SYNTAX_ERROR;
        }
        if (rc != SUCCESS || offset < 0 || offset > m_nContentLength - 1) {
            SetFailure(400, "PiPP Syntax error. Illigal value 'Part_0_Offset:'");
            return PIPP_SYNTAX_ERROR;
        }
        int length = 0;
        rc = headers.Search_NameToVal_RtnInt("Part_0_Length:", &length);
        if (rc == NOTFOUND_ITEM) {
            SetFailure(400, "PiPP Syntax error. found 'NumOfPart' but not found 'Part_0_Length:'");
            return PIPP_SYNTAX_ERROR;
        }
        if (rc != SUCCESS || length <= 0 || static_cast<long long>(offset) + length > m_nContentLength) {
            SetFailure(400, "PiPP Syntax error. Illigal value 'Part_0_Length:'");
            return PIPP_SYNTAX_ERROR;
        }
        paramOffset = offset;
        paramLength = length;
    }

    return ParseParams(body + paramOffset, paramLength, pDB);
}

int HTTPRequestBuffer_Class::ParseParams(const unsigned char* text, int length, DbPrintf_Class* pDB)
{
    int rc = CGIParam.Parsing(text, length, pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[HTTPRequestBuffer_Class::HttpRead()] CGIParam.Parsing failed ::%d\n", rc);
        SetFailure(400, "Syntax error in CGI query string.");
        return CGIPARAMS_SYNTAX_ERR;
    }
    m_nStatus = 200;
    return SUCCESS;
}

int HTTPRequestBuffer_Class::Is_KeepAlive(DbPrintf_Class*)
{
    return KeepAliveVerdict(Parser);
}
