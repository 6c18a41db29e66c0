#ifndef OSTREL_HTTP_RESPONSE_WRITER_H
#define OSTREL_HTTP_RESPONSE_WRITER_H

#include <functional>

#include "net/socket_io.h"

class DbPrintf_Class;
class StringBuf_Class;

// HTTP response writer: builds response heads and small error responses into
// a StringBuf_Class and sends a head and a body over a socket. Stateless free
// functions; any thread may call them on its own buffer and socket.

// The name sent in the Server header.
constexpr const char* HTTP_SERVER_NAME = "Ostrel Relay";

// Sets *text to the status text of code, code included ("404 Not Found"),
// a constant string that lives for the whole program. A code outside the
// table gives "Unkown Error" and DEBUG_WARNING; else SUCCESS.
int HttpResponse_GetStatesCode(const char** text, int code, DbPrintf_Class* pDB = nullptr);

// Appends a response head to out:
//   "HTTP/1.<minor> <status text>", Date (now, HTTP format), Server,
//   "Content-Type: <contentType>" (a null type prints as "(null)"), Pragma,
//   "Content-Length: <n>" only when contentLength > 0, extraHeaders as given
//   (complete lines ending in CR LF; null: none), then "Connection: close"
//   unless minorVersion >= 1 and keepAlive == 1, and the blank line.
// SUCCESS, or DATA_LARGE_THEN_BUF when out was too small and the head was cut
// (a buffer filled exactly to capacity - 1 counts as too small); a cut head
// must not be sent.
int HttpResponse_MakeMessage_Header(StringBuf_Class* out, int code, int minorVersion, int keepAlive,
                                    const char* contentType, const char* extraHeaders, int contentLength,
                                    DbPrintf_Class* pDB = nullptr);

// Appends a complete error response to out: a head as above and the body
// "<HTML><BODY><H1><status text></H1></BODY></HTML>". The head is built with a
// null content type and "text/html" in the extra-header place, so it carries
// the line "Content-Type: (null)" and the bare text "text/html" right before
// the Connection line (or the blank line); peers read only the status line of
// these replies. Return codes as HttpResponse_MakeMessage_Header.
int HttpResponse_MakeMessage_WithStatesCodeBody(StringBuf_Class* out, int code, int minorVersion, int keepAlive,
                                                DbPrintf_Class* pDB = nullptr);

// Sends headLength bytes of head, then, if bodyLength >= 1, bodyLength bytes
// of body, each with Sock_Send (timeout_ms, exitFlag). The body is never sent
// after a failed head. SUCCESS or the first failing code of Sock_Send
// (SOCK_TIMEOUT, SOCK_SIGPIPE, LOOP_INTERRUPTED, SYS_FUNC_ERROR, ...). The
// buffers are only read; the body is sent from where it lies (no copy).
int HttpResponse_SendMessage(int fd, const char* head, int headLength, const char* body, int bodyLength, int timeout_ms,
                             SockExitFlag* exitFlag, DbPrintf_Class* pDB = nullptr);

// HttpResponse_SendMessage for a body that lies where a writer may overwrite
// it, such as a picture borrowed from the frame ring, which stays whole only
// for as long as the camera has not come round to its slot again. intact()
// tells whether it is still whole; a body read before a call that answers
// true was read whole. The body goes out in passes of at most
// kSendIntactChunk bytes with that question after each, and its last byte is
// copied and asked about before it is sent, so a peer never receives all
// the bytes of a body that changed under the send: once intact() answers
// false, nothing more is sent, the line "[HttpResponse_SendMessage_WhileIntact]
// body overwritten while sent: cut off after %d of %d bytes" is logged, and
// CHANNEL_NO_DATA is returned; the caller closes the connection and the peer
// sees fewer bytes than the Content-Length it was told. timeout_ms bounds
// the whole body, as in Sock_Send. Other codes as HttpResponse_SendMessage.
constexpr int kSendIntactChunk = 32768;
int HttpResponse_SendMessage_WhileIntact(int fd, const char* head, int headLength, const char* body, int bodyLength,
                                         int timeout_ms, SockExitFlag* exitFlag, const std::function<bool()>& intact,
                                         DbPrintf_Class* pDB = nullptr);

#endif
