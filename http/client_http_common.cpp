#include "http/client_http_common.h"

#include <stdio.h>
#include <string.h>

#include <random>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/tokens.h"
#include "http/base64.h"
#include "http/base_buffer.h"

namespace {

// Copies at most size - 1 characters and always terminates: a 16-byte
// address field keeps 15 characters.
void copy_text(char* dst, int size, const char* src)
{
    snprintf(dst, static_cast<size_t>(size), "%s", src);
}

bool valid_port(int port)
{
    return port >= 1 && port <= 65535;
}

}  // namespace

CClient_HTTP_Common::CClient_HTTP_Common(const char* className, HTTPBaseBuffer_Class* reader,
                                         const StaticArr_NameValToken_Class* responseHeaders)
    : m_pClassName(className), m_pReader(reader), m_pResponseHeaders(responseHeaders)
{
    SetInitialValues();
}

CClient_HTTP_Common::~CClient_HTTP_Common()
{
    DestroySock();
}

void CClient_HTTP_Common::SetInitialValues()
{
    m_nSockfd = -1;
    memset(m_strRequest, 0, sizeof(m_strRequest));
    memset(m_strTag, 0, sizeof(m_strTag));
    m_nTagLength = 0;
    memset(m_pMyselfIp, 0, sizeof(m_pMyselfIp));
    memset(m_pTargetIp, 0, sizeof(m_pTargetIp));
    m_nTargetPort = -1;
    memset(m_strTargetPath, 0, sizeof(m_strTargetPath));
    m_nSocketTimeout = DEFAULT_TIMEOUT_MS;
    m_pExitFlag = nullptr;
    memset(m_pProxyIp, 0, sizeof(m_pProxyIp));
    m_nProxyPort = -1;
    m_nProxy = 0;
    m_nAuth = 0;
    memset(m_strAuth, 0, sizeof(m_strAuth));
    memset(m_strUser, 0, sizeof(m_strUser));
    memset(m_strPassword, 0, sizeof(m_strPassword));
    ClearDigestChallenge();
}

int CClient_HTTP_Common::Initialize(int nHTTPBodySize)
{
    if (m_nInitializeDone != 0) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::Initialize()] m_nInitializeDone != 0\n", m_pClassName);
        return ALREADY_INITIALIZE;
    }
    if (nHTTPBodySize < 0) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::Initialize()] nHTTPBodySize(%d) < 0\n", m_pClassName, nHTTPBodySize);
        return INVALID_ARGUMENT;
    }
    DestroySock();
    SetInitialValues();
    // A reader that already has a buffer of this size (after Release) keeps it.
    const int ret = m_pReader->Init(nHTTPBodySize + 1024, m_pDB);
    if (ret != SUCCESS && ret != ALREADY_INITIALIZE) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::Initialize()] Init(%d) failed ::%d\n", m_pClassName, nHTTPBodySize + 1024,
                  ret);
        return ret;
    }
    m_nInitializeDone = 1;
    return SUCCESS;
}

int CClient_HTTP_Common::Release()
{
    DestroySock();
    m_pReader->ClearBuf(m_pDB);
    m_nInitializeDone = 0;
    return SUCCESS;
}

int CClient_HTTP_Common::SetLog(DbPrintf_Class* pDB, int nLevel)
{
    m_pDB = pDB;
    m_nLogLevel = nLevel;
    return SUCCESS;
}

bool CClient_HTTP_Common::Given(bool given, const char* op, const char* arg)
{
    if (!given) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::%s()] %s == NULL\n", m_pClassName, op, arg);
    }
    return given;
}

int CClient_HTTP_Common::SetText(char* field, int size, const char* text, const char* setter, const char* arg)
{
    if (!Given(text != nullptr, setter, arg)) {
        return INVALID_ARGUMENT;
    }
    copy_text(field, size, text);
    return SUCCESS;
}

int CClient_HTTP_Common::SetNumber(int* field, int value, bool valid, const char* setter, const char* arg)
{
    if (!valid) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::%s()] %s(%d) invalid\n", m_pClassName, setter, arg, value);
        return INVALID_ARGUMENT;
    }
    *field = value;
    return SUCCESS;
}

int CClient_HTTP_Common::SetMyself(const char* pMyselfIp)
{
    return SetText(m_pMyselfIp, sizeof(m_pMyselfIp), pMyselfIp, "SetMyself", "pMyselfIp");
}

int CClient_HTTP_Common::SetTargetIp(const char* pTargetIp)
{
    return SetText(m_pTargetIp, sizeof(m_pTargetIp), pTargetIp, "SetTargetIp", "pTargetIp");
}

int CClient_HTTP_Common::SetTargetPort(int nPort)
{
    return SetNumber(&m_nTargetPort, nPort, valid_port(nPort), "SetTargetPort", "nTargetPort");
}

int CClient_HTTP_Common::SetProxy(int nProxy)
{
    return SetNumber(&m_nProxy, nProxy, nProxy == 0 || nProxy == 1, "SetProxy", "nProxy");
}

int CClient_HTTP_Common::SetProxyIp(const char* pProxyIp)
{
    return SetText(m_pProxyIp, sizeof(m_pProxyIp), pProxyIp, "SetProxyIp", "pProxyIp");
}

int CClient_HTTP_Common::SetProxyPort(int nPort)
{
    return SetNumber(&m_nProxyPort, nPort, valid_port(nPort), "SetProxyPort", "nProxyPort");
}

int CClient_HTTP_Common::SetTargetPath(const char* pTargetPath)
{
    return SetText(m_strTargetPath, sizeof(m_strTargetPath), pTargetPath, "SetTargetPath", "pTargetPath");
}

int CClient_HTTP_Common::SetAuth(int nAuth)
{
    return SetNumber(&m_nAuth, nAuth, nAuth == 0 || nAuth == 1, "SetAuth", "nAuth");
}

int CClient_HTTP_Common::SetAuthString(const char* pUserName, const char* pPassword)
{
    if (!Given(pUserName != nullptr, "SetAuthString", "pUserName") ||
        !Given(pPassword != nullptr, "SetAuthString", "pPassword")) {
        return INVALID_ARGUMENT;
    }
    if (m_nAuth != 1) {
        return SUCCESS;
    }
    copy_text(m_strUser, sizeof(m_strUser), pUserName);
    copy_text(m_strPassword, sizeof(m_strPassword), pPassword);
    ClearDigestChallenge();
    // Each step cuts its text to its limit, as every text of the system is
    // cut: "user:password" to 127 characters, and the finished line to 127
    // characters. The encoded text is not cut by its own area: that area
    // holds the encoding of the longest "user:password" whole, and the
    // line's limit then decides what is sent.
    char plain[AUTH_LINE_SIZE];
    int plainLen = snprintf(plain, sizeof(plain), "%s:%s", pUserName, pPassword);
    if (plainLen < 0) {
        plainLen = 0;
        plain[0] = '\0';
    } else if (plainLen >= static_cast<int>(sizeof(plain))) {
        plainLen = static_cast<int>(sizeof(plain)) - 1;
    }
    char encoded[(AUTH_LINE_SIZE + 2) / 3 * 4 + 1];
    const int ret = Base64Encode(plain, plainLen, encoded, sizeof(encoded), nullptr);
    if (ret != SUCCESS) {
        memset(m_strAuth, 0, sizeof(m_strAuth));
        TimePrint(m_pDB, m_nLogLevel, "[%s::SetAuthString()] Base64Encode failed ::%d\n", m_pClassName, ret);
        return ret;
    }
    const int lineLen = snprintf(m_strAuth, sizeof(m_strAuth), "Authorization: Basic %s", encoded);
    if (lineLen >= static_cast<int>(sizeof(m_strAuth))) {
        // Cut to the line's limit; the camera judges the credentials.
        m_strAuth[sizeof(m_strAuth) - 1] = '\0';
    }
    return SUCCESS;
}

int CClient_HTTP_Common::SetDigestChallenge(const DigestChallenge& ch)
{
    m_Digest = ch;
    m_nDigest = 1;
    m_ulDigestCount = 0;
    return SUCCESS;
}

int CClient_HTTP_Common::ClearDigestChallenge()
{
    m_nDigest = 0;
    m_Digest = DigestChallenge();
    m_ulDigestCount = 0;
    memset(m_strDigestAuth, 0, sizeof(m_strDigestAuth));
    return SUCCESS;
}

int CClient_HTTP_Common::BuildDigestLine(const char* method)
{
    // A fresh client nonce per request: 128 random bits as hexadecimal.
    // random_device reads the kernel's random source; should it fail, the
    // nonce count and the address of this object still vary it.
    char cnonce[33];
    unsigned int words[4] = {0, 0, 0, 0};
    try {
        std::random_device rd;
        for (unsigned int& w : words) {
            w = rd();
        }
    } catch (...) {
        words[0] = static_cast<unsigned int>(reinterpret_cast<unsigned long>(this));
        words[1] = static_cast<unsigned int>(m_ulDigestCount);
    }
    snprintf(cnonce, sizeof(cnonce), "%08x%08x%08x%08x", words[0], words[1], words[2], words[3]);
    const unsigned long nc = m_ulDigestCount + 1;
    const char prefix[] = "Authorization: ";
    memcpy(m_strDigestAuth, prefix, sizeof(prefix));
    const int ret = DigestBuildAuthorization(m_Digest, m_strUser, m_strPassword, method, m_strTargetPath, nc, cnonce,
                                             m_strDigestAuth + sizeof(prefix) - 1,
                                             static_cast<int>(sizeof(m_strDigestAuth) - sizeof(prefix) + 1));
    if (ret != SUCCESS) {
        m_strDigestAuth[0] = '\0';
        return ret;
    }
    m_ulDigestCount = nc;
    return SUCCESS;
}

int CClient_HTTP_Common::SetSocketTimeout(int nTimeoutMsec)
{
    if (nTimeoutMsec < 0) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::SetSocketTimeout()] nTimeoutMsec(%d) < 0\n", m_pClassName, nTimeoutMsec);
        return INVALID_ARGUMENT;
    }
    m_nSocketTimeout = nTimeoutMsec;
    return SUCCESS;
}

int CClient_HTTP_Common::SetSocketExitFlag(SockExitFlag* pExitFlag)
{
    if (!Given(pExitFlag != nullptr, "SetSocketExitFlag", "pExitFlag")) {
        return INVALID_ARGUMENT;
    }
    m_pExitFlag = pExitFlag;
    return SUCCESS;
}

int CClient_HTTP_Common::AddTag(const char* pName, const char* pValue)
{
    if (!Given(pName != nullptr, "AddTag", "pName") || !Given(pValue != nullptr, "AddTag", "pValue")) {
        return INVALID_ARGUMENT;
    }
    // Only whole lines go in: a cut line would end the request head early.
    const size_t need = strlen(pName) + strlen(pValue) + 4;
    if (need >= static_cast<size_t>(TAG_BLOCK_SIZE - m_nTagLength)) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::AddTag()] tag(%s) does not fit (%d + %d)\n", m_pClassName, pName,
                  m_nTagLength, static_cast<int>(need));
        return DATA_LARGE_THEN_BUF;
    }
    snprintf(m_strTag + m_nTagLength, static_cast<size_t>(TAG_BLOCK_SIZE - m_nTagLength), "%s: %s\r\n", pName, pValue);
    m_nTagLength += static_cast<int>(need);
    return SUCCESS;
}

int CClient_HTTP_Common::ClearAllTag()
{
    memset(m_strTag, 0, sizeof(m_strTag));
    m_nTagLength = 0;
    return SUCCESS;
}

int CClient_HTTP_Common::GetHeaderItemValue(const char* pName, char* pValue, int nSize)
{
    if (!Given(pName != nullptr, "GetHeaderItemValue", "pName") ||
        !Given(pValue != nullptr && nSize >= 1, "GetHeaderItemValue", "pValue")) {
        return INVALID_ARGUMENT;
    }
    memset(pValue, 0, static_cast<size_t>(nSize));
    OneToken_Class* val = nullptr;
    const int ret = m_pResponseHeaders->Search_NameToVal(pName, &val, m_pDB);
    if (ret != SUCCESS) {
        return ret;
    }
    const int len = val != nullptr ? val->GetLength() : 0;
    if (len > nSize - 1) {
        return DATASIZE_LARGE;
    }
    if (len > 0) {
        memcpy(pValue, val->GetPtr(), static_cast<size_t>(len));
    }
    return SUCCESS;
}

int CClient_HTTP_Common::CheckProperty(int* ok)
{
    int result = 1;
    if (m_pMyselfIp[0] == '\0' || m_pTargetIp[0] == '\0' || m_nTargetPort == -1) {
        result = 0;
    }
    if (m_strTargetPath[0] == '\0' || m_pExitFlag == nullptr) {
        result = 0;
    }
    if (m_nProxy == 1 && (m_pProxyIp[0] == '\0' || m_nProxyPort == -1)) {
        result = 0;
    }
    if (ok != nullptr) {
        *ok = result;
    }
    return SUCCESS;
}

int CClient_HTTP_Common::CreateSock()
{
    int nResultOK = 0;
    CheckProperty(&nResultOK);
    if (nResultOK != 1) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::CreateSock()] nResultOK != 1\n", m_pClassName);
        return CLIENT_INCOMPLETE_SETUP;
    }
    DestroySock();
    // Through the proxy when it is switched on, else straight to the target.
    const bool proxy = m_nProxy == 1;
    const char* ip = proxy ? m_pProxyIp : m_pTargetIp;
    const int port = proxy ? m_nProxyPort : m_nTargetPort;
    const int ret = Sock_OpenConnect_String(m_pMyselfIp, ip, static_cast<unsigned short>(port), &m_nSockfd,
                                            m_nSocketTimeout, m_pDB);
    if (ret != SUCCESS) {
        DestroySock();
        TimePrint(m_pDB, m_nLogLevel,
                  "[%s::CreateSock()] Sock_OpenConnect_String(m_pMyselfIp %s,%s %s,%s %d) failed ::%d\n", m_pClassName,
                  m_pMyselfIp, proxy ? "m_pProxyIp" : "m_pTargetIp", ip, proxy ? "m_nProxyPort" : "m_nTargetPort", port,
                  ret);
    }
    return ret;
}

int CClient_HTTP_Common::DestroySock()
{
    if (m_nSockfd != -1) {
        Sock_Close(m_nSockfd, m_pDB);
    }
    m_nSockfd = -1;
    return SUCCESS;
}

int CClient_HTTP_Common::SendRequest(const char* method, const char* version)
{
    int nResultOK = 0;
    CheckProperty(&nResultOK);
    if (nResultOK != 1) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::SendCommand()] nResultOK != 1\n", m_pClassName);
        return CLIENT_INCOMPLETE_SETUP;
    }
    if (m_nSockfd == -1) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::SendCommand()] m_nSockfd == -1\n", m_pClassName);
        return CLIENT_INCOMPLETE_SETUP;
    }
    // Request line, the authorisation line when switched on, the tag lines
    // (each with its own CR LF), the blank line. Through a proxy the request
    // names the target server in an absolute URI. With the switch on but no
    // credentials prepared (SetAuthString came before SetAuth(1)) there is no
    // authorisation line: an empty one would end the head early.
    const bool digest = m_nAuth == 1 && m_nDigest == 1;
    if (digest) {
        const int ret = BuildDigestLine(method);
        if (ret != SUCCESS) {
            TimePrint(m_pDB, m_nLogLevel, "[%s::SendCommand()] Digest answer not built ::%d\n", m_pClassName, ret);
            return ret;
        }
    }
    const char* authLine = digest ? m_strDigestAuth : m_strAuth;
    const bool auth = m_nAuth == 1 && authLine[0] != '\0';
    const int limit = digest ? DIGEST_REQUEST_SIZE : REQUEST_SIZE;
    int len;
    if (m_nProxy == 1) {
        if (auth) {
            len = snprintf(m_strRequest, sizeof(m_strRequest), "%s http://%s:%d%s %s\r\n%s\r\n%s\r\n", method,
                           m_pTargetIp, m_nTargetPort, m_strTargetPath, version, authLine, m_strTag);
        } else {
            len = snprintf(m_strRequest, sizeof(m_strRequest), "%s http://%s:%d%s %s\r\n%s\r\n", method, m_pTargetIp,
                           m_nTargetPort, m_strTargetPath, version, m_strTag);
        }
    } else {
        if (auth) {
            len = snprintf(m_strRequest, sizeof(m_strRequest), "%s %s %s\r\n%s\r\n%s\r\n", method, m_strTargetPath,
                           version, authLine, m_strTag);
        } else {
            len = snprintf(m_strRequest, sizeof(m_strRequest), "%s %s %s\r\n%s\r\n", method, m_strTargetPath, version,
                           m_strTag);
        }
    }
    if (len < 0 || len >= limit) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::SendCommand()] request text too large (%d)\n", m_pClassName, len);
        return DATA_LARGE_THEN_BUF;
    }
    int sent = 0;
    const int ret = Sock_Send(m_nSockfd, m_strRequest, len, &sent, m_nSocketTimeout, m_pExitFlag, m_pDB);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[%s::SendCommand()] Sock_Send(m_nSockfd %d) failed ::%d\n", m_pClassName,
                  m_nSockfd, ret);
        DestroySock();
        return ret;
    }
    return SUCCESS;
}
