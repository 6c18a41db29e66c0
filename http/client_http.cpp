#include "http/client_http.h"

#include <string.h>

#include "common/debug_log.h"
#include "common/return_codes.h"

CClient_HTTP::CClient_HTTP()
    : CClient_HTTP_Common("CClient_HTTP", &m_obHTTPResponseBuffer, &m_obHTTPResponseBuffer.Parser.m_HeaderLines)
{
}

CClient_HTTP::~CClient_HTTP() = default;

int CClient_HTTP::SendCommand(int keepAlive, const char* method)
{
    if (method == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP::SendCommand()] pMethod == NULL\n");
        return INVALID_ARGUMENT;
    }
    return SendRequest(method, keepAlive != 0 ? "HTTP/1.1" : "HTTP/1.0");
}

int CClient_HTTP::Get(int keepAlive, char* pBuf, int nSize, int* pReceived)
{
    if (pBuf == nullptr || pReceived == nullptr || nSize < 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP::Get()] pBuf == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (m_nInitializeDone == 0) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP::Get()] m_nInitializeDone == 0\n");
        return NOT_INITIALIZE;
    }
    m_obHTTPResponseBuffer.ClearBuf(m_pDB);

    int ret;
    if (m_nSockfd == -1) {
        ret = CreateSock();
        if (ret != SUCCESS) {
            TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP::Get()] CreateSock failed ::%d\n", ret);
            return ret;
        }
    }
    ret = SendCommand(keepAlive, "GET");
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP::Get()] SendCommand failed ::%d\n", ret);
        if (keepAlive != 1) {
            DestroySock();
        }
        return ret;
    }
    ret = m_obHTTPResponseBuffer.HttpRead(m_nSockfd, m_nSocketTimeout, m_pExitFlag, m_pDB);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_HTTP::Get()] m_obHTTPResponseBuffer.HttpRead(m_nSockfd %d) failed ::%d\n", m_nSockfd, ret);
        // Also with keep-alive: after a failed read the connection's state is
        // unknown, and the next Get must start afresh.
        DestroySock();
        return ret;
    }
    const int bodyLength = m_obHTTPResponseBuffer.m_nBodyLength;
    if (bodyLength > nSize) {
        ret = DATASIZE_LARGE;
    } else {
        memcpy(pBuf, m_obHTTPResponseBuffer.m_pBuffer + m_obHTTPResponseBuffer.m_nBodyStart,
               static_cast<size_t>(bodyLength));
        *pReceived = bodyLength;
    }
    if (keepAlive != 1 || m_obHTTPResponseBuffer.Is_KeepAlive(m_pDB) != SUCCESS) {
        DestroySock();
    }
    return ret;
}
