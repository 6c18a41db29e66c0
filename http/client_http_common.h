#ifndef OSTREL_HTTP_CLIENT_HTTP_COMMON_H
#define OSTREL_HTTP_CLIENT_HTTP_COMMON_H

#include "http/digest_auth.h"
#include "net/socket_io.h"

class DbPrintf_Class;
class HTTPBaseBuffer_Class;
class StaticArr_NameValToken_Class;

// What CClient_HTTP and CClient_HTTP_MultiPart share: the connection
// settings, the extra header lines ("tags"), the Basic authorisation line,
// building and sending the request text, and the socket. The derived classes
// add the response reader and Get.
//
// Setters copy their texts (addresses at most 15 characters, the path at most
// 127); nothing passed in is kept. Required before a request: SetMyself,
// SetTargetIp, SetTargetPort, SetTargetPath and SetSocketExitFlag, plus
// SetProxyIp and SetProxyPort when the proxy is switched on; a request
// without them fails with CLIENT_INCOMPLETE_SETUP before any connection is
// tried. Settings survive failures and reconnections.
//
// Failures are logged with TimePrint at the level given to SetLog, in the
// form "[<class>::<operation>()] ...". Null text arguments give
// INVALID_ARGUMENT.
//
// Not thread-safe: an object belongs to one thread. The exit flag belongs to
// the caller, must outlive the object's use, and may be set to -1 by another
// thread to end a blocked wait (see net/socket_io.h).
class CClient_HTTP_Common {
public:
    // Returned when the settings are incomplete or no socket is open. It has
    // no name in the return-code table.
    static constexpr int CLIENT_INCOMPLETE_SETUP = 9994;

    static constexpr int ADDRESS_SIZE = 16;
    static constexpr int PATH_SIZE = 128;
    static constexpr int REQUEST_SIZE = 1024;
    // A request with a Digest line may be longer: the challenge's realm,
    // nonce and opaque are echoed (up to 200 characters each).
    static constexpr int DIGEST_REQUEST_SIZE = 2048;
    static constexpr int DIGEST_LINE_SIZE = 1024;
    static constexpr int TAG_BLOCK_SIZE = 768;
    static constexpr int AUTH_LINE_SIZE = 128;
    static constexpr int DEFAULT_TIMEOUT_MS = 2000;

    virtual ~CClient_HTTP_Common();

    CClient_HTTP_Common(const CClient_HTTP_Common&) = delete;
    CClient_HTTP_Common& operator=(const CClient_HTTP_Common&) = delete;

    // Sets the initial values (the log is kept) and sizes the reader for
    // nHTTPBodySize + 1024 bytes. ALREADY_INITIALIZE on a second call,
    // INVALID_ARGUMENT for a negative size, the reader's code when its buffer
    // cannot be made, else SUCCESS.
    int Initialize(int nHTTPBodySize);
    // Closes the socket; Initialize may be called again. SUCCESS.
    int Release();
    // Log and level for this object's messages (level 0: none). SUCCESS.
    int SetLog(DbPrintf_Class* pDB, int nLevel);

    int SetMyself(const char* pMyselfIp);
    int SetTargetIp(const char* pTargetIp);
    // 1..65535, else INVALID_ARGUMENT.
    int SetTargetPort(int nPort);
    // 0 or 1, else INVALID_ARGUMENT.
    int SetProxy(int nProxy);
    int SetProxyIp(const char* pProxyIp);
    int SetProxyPort(int nPort);
    // Path with query, sent as it stands.
    int SetTargetPath(const char* pTargetPath);
    // 0 or 1, else INVALID_ARGUMENT.
    int SetAuth(int nAuth);
    // Prepares "Authorization: Basic <base64 of user:password>" only when
    // SetAuth(1) came first; otherwise does nothing and returns SUCCESS.
    // The credentials are also kept for Digest answers, and any Digest
    // challenge taken before is dropped.
    int SetAuthString(const char* pUserName, const char* pPassword);

    // Digest: from now on requests carry an "Authorization: Digest" line
    // answering ch (in place of the Basic line; only while SetAuth(1) holds),
    // with the nonce count starting again at 1. SUCCESS.
    int SetDigestChallenge(const DigestChallenge& ch);
    // Back to the Basic line. SUCCESS.
    int ClearDigestChallenge();
    // The challenge being answered, or null when none.
    const DigestChallenge* GetDigestChallenge() const { return m_nDigest == 1 ? &m_Digest : nullptr; }
    // Milliseconds per socket wait; negative values are refused.
    int SetSocketTimeout(int nTimeoutMsec);
    int SetSocketExitFlag(SockExitFlag* pExitFlag);

    // Appends the line "<name>: <value>\r\n" to the extra header lines sent
    // after the request line (and the authorisation line). A line that does
    // not fit whole in the 768-byte block is not added: DATA_LARGE_THEN_BUF.
    int AddTag(const char* pName, const char* pValue);
    int ClearAllTag();

    // Copies the value of the header line named pName (with its colon, e.g.
    // "Content-Type:") of the last response into pValue, which is zeroed for
    // nSize bytes first and stays terminated. NOTFOUND_ITEM when there is no
    // such line, DATASIZE_LARGE when the value does not fit (pValue stays
    // zeroed), else SUCCESS.
    int GetHeaderItemValue(const char* pName, char* pValue, int nSize);

    // *ok = 1 when every required setting is present, else 0. Always SUCCESS.
    int CheckProperty(int* ok);
    // Opens the connection (through the proxy when switched on), bound to the
    // myself address. CLIENT_INCOMPLETE_SETUP, or the code of
    // Sock_OpenConnect_String (then no socket is open).
    int CreateSock();
    // Closes the connection if open. SUCCESS.
    int DestroySock();

    // The request text last built (for diagnostics).
    const char* GetRequestText() const { return m_strRequest; }
    int GetSockfd() const { return m_nSockfd; }

protected:
    CClient_HTTP_Common(const char* className, HTTPBaseBuffer_Class* reader,
                        const StaticArr_NameValToken_Class* responseHeaders);

    // Builds "<method> <uri> <version>\r\n[auth\r\n]<tags>\r\n" and sends it.
    // CLIENT_INCOMPLETE_SETUP without settings or socket;
    // DATA_LARGE_THEN_BUF when the text exceeds 1024 bytes (nothing sent);
    // a Sock_Send failure closes the socket and returns its code.
    int SendRequest(const char* method, const char* version);

    const char* m_pClassName;
    HTTPBaseBuffer_Class* m_pReader;                         // owned by the derived class
    const StaticArr_NameValToken_Class* m_pResponseHeaders;  // of the reader's parser

    int m_nInitializeDone = 0;
    int m_nSockfd = -1;
    char m_strRequest[DIGEST_REQUEST_SIZE];
    char m_strTag[TAG_BLOCK_SIZE];
    int m_nTagLength = 0;
    DbPrintf_Class* m_pDB = nullptr;
    int m_nLogLevel = 0;
    char m_pMyselfIp[ADDRESS_SIZE];
    char m_pTargetIp[ADDRESS_SIZE];
    int m_nTargetPort = -1;
    char m_strTargetPath[PATH_SIZE];
    int m_nSocketTimeout = DEFAULT_TIMEOUT_MS;
    SockExitFlag* m_pExitFlag = nullptr;
    char m_pProxyIp[ADDRESS_SIZE];
    int m_nProxyPort = -1;
    int m_nProxy = 0;
    int m_nAuth = 0;
    char m_strAuth[AUTH_LINE_SIZE];
    char m_strUser[AUTH_LINE_SIZE];
    char m_strPassword[AUTH_LINE_SIZE];
    int m_nDigest = 0;                // 1: answer m_Digest instead of sending Basic
    DigestChallenge m_Digest;
    unsigned long m_ulDigestCount = 0;  // requests sent with m_Digest's nonce
    char m_strDigestAuth[DIGEST_LINE_SIZE];

private:
    void SetInitialValues();
    // False, with "[<class>::<op>()] <arg> == NULL" logged, when given is
    // false (a null argument).
    bool Given(bool given, const char* op, const char* arg);
    // What the text setters share: a null text is logged as Given does and
    // refused (INVALID_ARGUMENT); otherwise it is copied (cut to the field).
    // SUCCESS.
    int SetText(char* field, int size, const char* text, const char* setter, const char* arg);
    // What the number setters share: a value that is not valid is logged as
    // "[<class>::<setter>()] <arg>(<value>) invalid" and refused; otherwise
    // it is stored. SUCCESS.
    int SetNumber(int* field, int value, bool valid, const char* setter, const char* arg);
    // The "Authorization: Digest" line for the next request, with the next
    // nonce count and a fresh client nonce. SUCCESS or the builder's code.
    int BuildDigestLine(const char* method);
};

#endif
