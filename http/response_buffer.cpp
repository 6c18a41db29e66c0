#include "http/response_buffer.h"

#include "common/debug_log.h"
#include "common/return_codes.h"

HTTPResponseBuffer_Class::HTTPResponseBuffer_Class() = default;

HTTPResponseBuffer_Class::~HTTPResponseBuffer_Class() = default;

int HTTPResponseBuffer_Class::ClearBuf(DbPrintf_Class* pDB)
{
    Parser.Clear(pDB);
    return HTTPBaseBuffer_Class::ClearBuf(pDB);
}

int HTTPResponseBuffer_Class::HttpRead(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB)
{
    int rc = ReadParsedHead(fd, timeout_ms, exitFlag, &Parser, Parser.m_strError,
                            "HTTPResponseBuffer_Class::HttpRead()", pDB);
    if (rc != SUCCESS) {
        return rc;
    }

    rc = ReadCountedBody(fd, timeout_ms, exitFlag, Parser.m_HeaderLines, "HTTPResponseBuffer_Class::HttpRead()", pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    m_nStatus = 200;
    return SUCCESS;
}

int HTTPResponseBuffer_Class::Is_KeepAlive(DbPrintf_Class*)
{
    return KeepAliveVerdict(Parser);
}
