#ifndef OSTREL_HTTP_CLIENT_HTTP_MULTIPART_H
#define OSTREL_HTTP_CLIENT_HTTP_MULTIPART_H

#include "http/client_http_common.h"
#include "http/multipart_buffer.h"

// CClient_HTTP_MultiPart: sends one HTTP/1.0 GET for an endless multipart
// response (a camera's motion-JPEG stream) and hands out one part per Read.
// Settings, contract and threading: see CClient_HTTP_Common.
//
// Every failure of Get or Read closes the connection; the next Get opens a
// new one with the same settings.
class CClient_HTTP_MultiPart : public CClient_HTTP_Common {
public:
    CClient_HTTP_MultiPart();
    ~CClient_HTTP_MultiPart() override;

    // Empties the reader, closes any open connection, connects, sends GET and
    // reads the response head with its boundary. SUCCESS, NOT_INITIALIZE,
    // CLIENT_INCOMPLETE_SETUP, or the code of CreateSock, SendCommand or
    // HTTPMultiPartResponseBuffer_Class::HttpReadFirst.
    //
    // With SetAuth(1), a 401 whose "WWW-Authenticate:" offers a usable
    // Digest challenge is answered at once on a new connection with a
    // Digest line in place of the Basic one, and later Gets reuse that
    // challenge with the next nonce count. A 401 to an answer built on an
    // earlier nonce takes the new challenge and retries once more; a 401 to
    // an answer built on the challenge just received logs that the camera
    // refused the credentials (realm and algorithm) and gives
    // CAMERA_LOGIN_FAIL. A challenge that cannot be answered or parsed is
    // logged and gives the parser's code (UNSUPPORTED_PROTOCOL,
    // HTTP_INVALID_SYNTAX, DATASIZE_LARGE, OVER_PARAM). Without a Digest
    // challenge a 401 fails as any other status does.
    int Get();

    // Reads the next part's data (without the CR LF that ends them) straight
    // into pBuf (HttpReadMultiInto), *pReceived = its length. A part longer than nSize closes
    // the connection and gives DATASIZE_LARGE. CLIENT_INCOMPLETE_SETUP when no
    // connection is open; HttpReadMulti's codes otherwise.
    int Read(char* pBuf, int nSize, int* pReceived);

    // Closes the connection. SUCCESS.
    int Close();

    // Sends the HTTP/1.0 request text for method on the open socket (see
    // CClient_HTTP_Common::SendRequest).
    int SendCommand(const char* method);

    const HTTPMultiPartResponseBuffer_Class& Response() const { return m_obHTTPMultiPartResponseBuffer; }

private:
    // One connection, request and response head.
    int GetOnce();
    // The usable Digest challenge of the 401 just read: SUCCESS,
    // NOTFOUND_ITEM when it offers none, or the parser's code (logged).
    int TakeDigestChallenge(DigestChallenge* ch);

    HTTPMultiPartResponseBuffer_Class m_obHTTPMultiPartResponseBuffer;
};

#endif
