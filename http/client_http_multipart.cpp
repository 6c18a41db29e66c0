#include "http/client_http_multipart.h"

#include "common/debug_log.h"
#include "common/return_codes.h"

CClient_HTTP_MultiPart::CClient_HTTP_MultiPart()
    : CClient_HTTP_Common("CClient_HTTP_MultiPart", &m_obHTTPMultiPartResponseBuffer,
                          &m_obHTTPMultiPartResponseBuffer.Parser.m_HeaderLines)
{
}

CClient_HTTP_MultiPart::~CClient_HTTP_MultiPart() = default;

int CClient_HTTP_MultiPart::SendCommand(const char* method)
{
    if (method == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::SendCommand()] pMethod == NULL\n");
        return INVALID_ARGUMENT;
    }
    return SendRequest(method, "HTTP/1.0");
}

int CClient_HTTP_MultiPart::Get()
{
    if (m_nInitializeDone == 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::Get()] m_nInitializeDone == 0\n");
        return NOT_INITIALIZE;
    }
    m_obHTTPMultiPartResponseBuffer.ClearBuf(m_pDB);
    DestroySock();

    int ret = CreateSock();
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::Get()] CreateSock failed ::%d\n", ret);
        return ret;
    }
    ret = SendCommand("GET");
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::Get()] SendCommand failed ::%d\n", ret);
        DestroySock();
        return ret;
    }
    ret = m_obHTTPMultiPartResponseBuffer.HttpReadFirst(m_nSockfd, m_nSocketTimeout, m_pExitFlag, m_pDB);
    if (ret != SUCCESS) {
        TimePrint(
            m_pDB, m_nLogLevel,
            "[CClient_HTTP_MultiPart::Get()] m_obHTTPMultiPartResponseBuffer.HttpRead(m_nSockfd %d) failed ::%d\n",
            m_nSockfd, ret);
        DestroySock();
        return ret;
    }
    return SUCCESS;
}

int CClient_HTTP_MultiPart::Read(char* pBuf, int nSize, int* pReceived)
{
    if (pBuf == nullptr || pReceived == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::Read()] pBuf == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (m_nSockfd == -1) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::Read()] m_nSockfd == -1\n");
        return CLIENT_INCOMPLETE_SETUP;
    }
    // The part's data (without the CR LF that follows them) are received
    // straight into the caller's buffer: the one place a frame's bytes land.
    const int ret = m_obHTTPMultiPartResponseBuffer.HttpReadMultiInto(m_nSockfd, m_nSocketTimeout, m_pExitFlag, pBuf,
                                                                      nSize, pReceived, m_pDB);
    if (ret == DATASIZE_LARGE) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::Read()] part(%d) > nSize(%d)\n",
                  m_obHTTPMultiPartResponseBuffer.m_nContentLength, nSize);
        DestroySock();
        return DATASIZE_LARGE;
    }
    if (ret != SUCCESS) {
        TimePrint(
            m_pDB, m_nLogLevel,
            "[CClient_HTTP_MultiPart::Read()] m_obHTTPMultiPartResponseBuffer.HttpReadMulti(m_nSockfd %d) failed ::%d\n",
            m_nSockfd, ret);
        DestroySock();
        return ret;
    }
    return SUCCESS;
}

int CClient_HTTP_MultiPart::Close()
{
    return DestroySock();
}
