#include "http/client_http_multipart.h"

#include <strings.h>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/tokens.h"

namespace {

// Whether any "WWW-Authenticate:" value names the Digest scheme anywhere.
bool mentions_digest(const StaticArr_NameValToken_Class& lines)
{
    for (int i = 0; i < lines.GetCount(); ++i) {
        const NameValToken_Class* line = lines.Get(i);
        if (line == nullptr || line->m_Name.Compare("WWW-Authenticate:") != SUCCESS) {
            continue;
        }
        const char* v = reinterpret_cast<const char*>(line->m_Val.GetPtr());
        for (int at = 0; at + 6 <= line->m_Val.GetLength(); ++at) {
            if (strncasecmp(v + at, "digest", 6) == 0) {
                return true;
            }
        }
    }
    return false;
}

}  // namespace

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
    // With authentication on, a 401 that carries a Digest challenge is
    // answered on a new connection: once after the Basic line or after an
    // answer built on an earlier connection's nonce (cameras may hold a
    // nonce stale on a new connection), and a 401 to the answer built on the
    // challenge just received is the camera refusing the credentials.
    bool answeredFresh = false;
    for (;;) {
        const bool digestSent = m_nAuth == 1 && m_nDigest == 1;
        const int ret = GetOnce();
        if (ret == SUCCESS || m_nAuth != 1 || ret != HTTP_INVALID_SYNTAX ||
            m_obHTTPMultiPartResponseBuffer.Parser.m_nStatusCode != 401) {
            return ret;
        }
        DigestChallenge ch;
        const int taken = TakeDigestChallenge(&ch);
        if (taken == NOTFOUND_ITEM) {
            ClearDigestChallenge();  // no Digest offered: Basic, as without one
            return ret;
        }
        if (taken != SUCCESS) {
            ClearDigestChallenge();
            return taken;
        }
        if (digestSent && answeredFresh) {
            TimePrint(m_pDB, m_nLogLevel,
                      "[CClient_HTTP_MultiPart::Get()] camera refused the credentials (Digest realm \"%s\" algorithm "
                      "%s) ::%d\n",
                      m_Digest.realm, DigestAlgorithmName(m_Digest.algorithm), CAMERA_LOGIN_FAIL);
            SetDigestChallenge(ch);  // the next start answers the newest nonce
            return CAMERA_LOGIN_FAIL;
        }
        SetDigestChallenge(ch);
        answeredFresh = true;
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_HTTP_MultiPart::Get()] Digest challenge (realm \"%s\" algorithm %s%s%s): answering on a "
                  "new connection\n",
                  ch.realm, DigestAlgorithmName(ch.algorithm), ch.hasQop ? " qop auth" : "",
                  ch.stale ? " stale" : "");
    }
}

int CClient_HTTP_MultiPart::TakeDigestChallenge(DigestChallenge* ch)
{
    // The 401's header lines were not read with its refused status line;
    // read them now, quietly: a malformed line there means no challenge.
    HTTPMultiPartResponseParser_Class& parser = m_obHTTPMultiPartResponseBuffer.Parser;
    if (parser.ParsingErrorHead(nullptr) != SUCCESS) {
        return NOTFOUND_ITEM;
    }
    AuthChallenges set;
    char reason[AUTH_REASON_SIZE];
    int ret = AuthParseHeaderLines(parser.m_HeaderLines, &set, reason);
    if (ret != SUCCESS && !mentions_digest(parser.m_HeaderLines)) {
        return NOTFOUND_ITEM;  // a Basic camera's odd header: a 401 as any other
    }
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::Get()] WWW-Authenticate refused: %s ::%d\n", reason,
                  ret);
        return ret;
    }
    ret = DigestPickChallenge(set, ch, reason);
    if (ret == UNSUPPORTED_PROTOCOL) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_HTTP_MultiPart::Get()] Digest challenge not answerable: %s ::%d\n",
                  reason, ret);
    }
    return ret;
}

int CClient_HTTP_MultiPart::GetOnce()
{
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
