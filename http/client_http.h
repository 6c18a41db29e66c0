#ifndef OSTREL_HTTP_CLIENT_HTTP_H
#define OSTREL_HTTP_CLIENT_HTTP_H

#include "http/client_http_common.h"
#include "http/response_buffer.h"

// CClient_HTTP: sends one GET and reads one whole response with a body
// (HTTPResponseBuffer_Class rules: status 200 and a Content-Length of at
// least 1 are required). With keep-alive the connection stays open for the
// next Get. Settings, contract and threading: see CClient_HTTP_Common.
class CClient_HTTP : public CClient_HTTP_Common {
public:
    CClient_HTTP();
    ~CClient_HTTP() override;

    // Opens a connection if none is open, sends GET ("HTTP/1.1" when
    // keepAlive is non-zero, else "HTTP/1.0"), reads the response and copies
    // its body into pBuf (*pReceived = its length).
    // Without keep-alive (keepAlive != 1) the connection is closed in every
    // case. With keep-alive it stays open for the next Get unless the read
    // failed or the server does not keep it (HTTP/1.0 or "Connection: close").
    // Codes: NOT_INITIALIZE, INVALID_ARGUMENT, CLIENT_INCOMPLETE_SETUP, those
    // of CreateSock, SendCommand and HTTPResponseBuffer_Class::HttpRead, and
    // DATASIZE_LARGE when the body is longer than nSize (nothing copied).
    int Get(int keepAlive, char* pBuf, int nSize, int* pReceived);

    // Sends the request text for method on the open socket (see
    // CClient_HTTP_Common::SendRequest).
    int SendCommand(int keepAlive, const char* method);

    // The response of the last Get: status, headers and body in place.
    const HTTPResponseBuffer_Class& Response() const { return m_obHTTPResponseBuffer; }

private:
    HTTPResponseBuffer_Class m_obHTTPResponseBuffer;
};

#endif
