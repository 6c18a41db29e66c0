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
    HTTPMultiPartResponseBuffer_Class m_obHTTPMultiPartResponseBuffer;
};

#endif
