#include "http/multipart_buffer.h"

#include <string.h>

#include "common/debug_log.h"
#include "common/return_codes.h"

namespace {

// The boundary parameter of a Content-Type value: the text after
// "boundary=" (case-sensitive) in the first ';'-separated piece that begins
// with it once leading blanks are skipped. Values of 256 bytes or more are
// cut to 255. *boundary points into work, NUL-terminated. NOTFOUND_ITEM
// with *found = 0 when no piece names a boundary, with *found = 1 when the
// boundary is empty.
int find_boundary(const OneToken_Class& contentType, char (&work)[256], const char** boundary, int* found)
{
    memset(work, 0, sizeof work);
    int len = contentType.GetLength();
    if (len > static_cast<int>(sizeof work) - 1) {
        len = sizeof work - 1;
    }
    if (len > 0) {
        memcpy(work, contentType.GetPtr(), static_cast<size_t>(len));
    }
    *found = 0;
    char* save = nullptr;
    for (char* piece = strtok_r(work, ";", &save); piece != nullptr; piece = strtok_r(nullptr, ";", &save)) {
        while (*piece == ' ' || *piece == '\t') {
            piece++;
        }
        if (strncmp(piece, "boundary=", 9) == 0) {
            *found = 1;
            *boundary = piece + 9;
            return **boundary != '\0' ? SUCCESS : NOTFOUND_ITEM;
        }
    }
    return NOTFOUND_ITEM;
}

}  // namespace

HTTPMultiPartResponseBuffer_Class::HTTPMultiPartResponseBuffer_Class()
{
    memset(m_strBoundary, 0, sizeof m_strBoundary);
}

HTTPMultiPartResponseBuffer_Class::~HTTPMultiPartResponseBuffer_Class() = default;

int HTTPMultiPartResponseBuffer_Class::ClearBuf(DbPrintf_Class* pDB)
{
    Parser.Clear(pDB);
    return HTTPBaseBuffer_Class::ClearBuf(pDB);
}

int HTTPMultiPartResponseBuffer_Class::HttpReadFirst(int fd, int timeout_ms, SockExitFlag* exitFlag,
                                                     DbPrintf_Class* pDB)
{
    int rc = ReadParsedHead(fd, timeout_ms, exitFlag, &Parser, Parser.m_strError,
                            "HTTPMultiPartResponseBuffer_Class::HttpReadFirst()", pDB);
    if (rc != SUCCESS) {
        return rc;
    }

    OneToken_Class* contentType = nullptr;
    rc = Parser.m_HeaderLines.Search_NameToVal("Content-Type:", &contentType);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1,
                  "[HTTPMultiPartResponseBuffer_Class::HttpReadFirst()] Search_NameToVal(Content-Type:) failed ::%d\n",
                  rc);
        return rc;
    }
    char work[256];
    const char* boundary = nullptr;
    int found = 0;
    rc = find_boundary(*contentType, work, &boundary, &found);
    if (rc != SUCCESS) {
        if (found == 0) {
            TimePrint(pDB, 1, "[HTTPMultiPartResponseBuffer_Class::HttpReadFirst()] nFind == 0\n");
        } else {
            TimePrint(pDB, 1, "[HTTPMultiPartResponseBuffer_Class::HttpReadFirst()] not found\n");
        }
        return rc;
    }

    // At most 64 characters, unterminated when it fills the field.
    size_t len = strnlen(boundary, sizeof m_strBoundary);
    memset(m_strBoundary, 0, sizeof m_strBoundary);
    memcpy(m_strBoundary, boundary, len);
    m_nBoundaryLength = static_cast<int>(len);
    m_nStatus = 200;
    return SUCCESS;
}

int HTTPMultiPartResponseBuffer_Class::CheckPartHead(int fd, int readRc, DbPrintf_Class* pDB)
{
    static const char kWho[] = "HTTPMultiPartResponseBuffer_Class::HttpReadMulti()";
    if (readRc != SUCCESS) {
        return HeadReadFailed(kWho, fd, readRc, pDB);
    }

    int rc = Parser.ParsingMulti(m_pBuffer + m_nHeaderStart, m_nHeaderLength, pDB);
    if (rc != SUCCESS) {
        return HeadParseFailed(kWho, "Parser.ParsingMulti", rc, Parser.m_nStatus, Parser.m_strError, pDB);
    }

    // The part's data are followed by CR LF, read with them.
    int freeSize = m_nCapacity - m_nBodyStart;
    rc = CheckContentLength(Parser.m_HeaderLines, freeSize - 2);
    if (rc != SUCCESS) {
        if (m_nContentLength > freeSize - 2) {
            TimePrint(pDB, 1,
                      "[HTTPMultiPartResponseBuffer_Class::HttpReadMulti()] buf_freeSize(%d) < ContentLength(%d)+2\n",
                      freeSize, m_nContentLength);
        }
        TimePrint(pDB, 1, "[HTTPMultiPartResponseBuffer_Class::HttpReadMulti()] %s ::%d\n", m_strError, rc);
        return rc;
    }
    return SUCCESS;
}

int HTTPMultiPartResponseBuffer_Class::HttpReadMulti(int fd, int timeout_ms, SockExitFlag* exitFlag,
                                                     DbPrintf_Class* pDB)
{
    PrepareNextMessage(pDB);
    int rc = CheckPartHead(fd, ReadHead(fd, timeout_ms, exitFlag, true, pDB), pDB);
    if (rc != SUCCESS) {
        return rc;
    }

    rc = HttpRead_Body(fd, m_nContentLength + 2, timeout_ms, exitFlag, pDB);
    if (rc != SUCCESS) {
        TimePrint(
            pDB, 1,
            "[HTTPMultiPartResponseBuffer_Class::HttpReadMulti()] HttpRead_Body(sockfd %d,ContentLength %d) failed ::%d\n",
            fd, m_nContentLength, rc);
        return BodyReadFailed(rc);
    }
    m_nStatus = 200;
    return SUCCESS;
}

int HTTPMultiPartResponseBuffer_Class::Is_KeepAlive(DbPrintf_Class* pDB)
{
    if (m_nStatus == 0) {
        TimePrint(pDB, 1, "[HTTPMultiPartResponseBuffer_Class::Is_KeepAlive()] StatesCode == 0\n");
    }
    return KeepAliveVerdict(Parser);
}
