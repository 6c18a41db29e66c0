#include "http/response_writer.h"

#include <stdio.h>
#include <sys/time.h>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/string_buf.h"
#include "common/time_utils.h"

namespace {

struct StatusText {
    int code;
    const char* text;
};

// Row: {status code, the whole status text sent after "HTTP/1.x "}.
// "405 Method Not Allow" is the daemon's own wording and stays as it is.
constexpr StatusText kStatusTexts[] = {
    {100, "100 Continue"},
    {101, "101 Switching Protocols"},
    {200, "200 OK"},
    {201, "201 Created"},
    {202, "202 Accepted"},
    {203, "203 Non-Authoritative Information"},
    {204, "204 No Content"},
    {205, "205 Reset Content"},
    {206, "206 Partial Content"},
    {300, "300 Multiple Choices"},
    {301, "301 Moved Permanently"},
    {302, "302 Moved Temporarily"},
    {303, "303 See Other"},
    {304, "304 Not Modified"},
    {305, "305 Use Proxy"},
    {400, "400 Bad Request"},
    {401, "401 Unauthorized"},
    {402, "402 Payment Required"},
    {403, "403 Forbidden"},
    {404, "404 Not Found"},
    {405, "405 Method Not Allow"},
    {406, "406 Not Acceptable"},
    {407, "407 Proxy Authentication Required"},
    {408, "408 Request Time-out"},
    {409, "409 Conflict"},
    {410, "410 Gone"},
    {411, "411 Length Required"},
    {412, "412 Precondition Failed"},
    {413, "413 Request Entity Too Large"},
    {414, "414 Request-URI Too Large"},
    {415, "415 Unsupported Media Type"},
    {500, "500 Internal Server Error"},
    {501, "501 Not Implemented"},
    {502, "502 Bad Gateway"},
    {503, "503 Service Unavailable"},
    {504, "504 Gateway Time-out"},
    {505, "505 HTTP Version not supported"},
};

constexpr const char* kUnknownStatusText = "Unkown Error";

// A StringBuf cuts an append that does not fit at capacity - 1; a buffer that
// reached that length is taken as cut.
int buffer_result(const StringBuf_Class* out, int rc)
{
    if (rc != SUCCESS || out->length() >= out->capacity() - 1) {
        return DATA_LARGE_THEN_BUF;
    }
    return SUCCESS;
}

}  // namespace

int HttpResponse_GetStatesCode(const char** text, int code, DbPrintf_Class* /*pDB*/)
{
    for (const StatusText& row : kStatusTexts) {
        if (row.code == code) {
            if (text != nullptr) {
                *text = row.text;
            }
            return SUCCESS;
        }
    }
    if (text != nullptr) {
        *text = kUnknownStatusText;
    }
    return DEBUG_WARNING;
}

int HttpResponse_MakeMessage_Header(StringBuf_Class* out, int code, int minorVersion, int keepAlive,
                                    const char* contentType, const char* extraHeaders, int contentLength,
                                    DbPrintf_Class* pDB)
{
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    const char* status = nullptr;
    HttpResponse_GetStatesCode(&status, code, pDB);

    timeval now;
    gettimeofday(&now, nullptr);
    char date[256] = {};
    GetTimeStr_Http(date, sizeof(date), &now, pDB);

    // The error responses pass no content type; peers have always seen the
    // C library's "(null)" there, so it is written out explicitly.
    int rc = out->add("HTTP/1.%d %s\r\nDate: %s\r\nServer: %s\r\nContent-Type: %s\r\nPragma: no-cache\r\n",
                      minorVersion, status, date, HTTP_SERVER_NAME, contentType != nullptr ? contentType : "(null)");
    if (rc == SUCCESS && contentLength > 0) {
        rc = out->add("Content-Length: %d\r\n", contentLength);
    }
    if (rc == SUCCESS && extraHeaders != nullptr) {
        rc = out->add("%s", extraHeaders);
    }
    if (rc == SUCCESS) {
        if (minorVersion >= 1 && keepAlive == 1) {
            rc = out->add("\r\n");
        } else {
            rc = out->add("Connection: close\r\n\r\n");
        }
    }
    return buffer_result(out, rc);
}

int HttpResponse_MakeMessage_WithStatesCodeBody(StringBuf_Class* out, int code, int minorVersion, int keepAlive,
                                                DbPrintf_Class* pDB)
{
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    const char* status = nullptr;
    HttpResponse_GetStatesCode(&status, code, pDB);

    char body[512];
    int bodyLength = snprintf(body, sizeof(body), "<HTML><BODY><H1>%s</H1></BODY></HTML>", status);
    if (bodyLength > static_cast<int>(sizeof(body)) - 1) {
        bodyLength = static_cast<int>(sizeof(body)) - 1;
    }
    // "text/html" goes in the extra-header place, not as the content type:
    // the head thus reads "Content-Type: (null)" followed later by a bare
    // "text/html". Peers expect exactly these bytes.
    int rc = HttpResponse_MakeMessage_Header(out, code, minorVersion, keepAlive, nullptr, "text/html", bodyLength, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    rc = out->add_FromPtr(reinterpret_cast<const unsigned char*>(body), bodyLength);
    return buffer_result(out, rc);
}

int HttpResponse_SendMessage(int fd, const char* head, int headLength, const char* body, int bodyLength, int timeout_ms,
                             SockExitFlag* exitFlag, DbPrintf_Class* pDB)
{
    int sent = 0;
    // A body follows the head at once: both leave in one segment.
    int rc = bodyLength >= 1 ? Sock_SendMore(fd, head, headLength, &sent, timeout_ms, exitFlag, pDB)
                             : Sock_Send(fd, head, headLength, &sent, timeout_ms, exitFlag, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    if (bodyLength >= 1) {
        rc = Sock_Send(fd, body, bodyLength, &sent, timeout_ms, exitFlag, pDB);
    }
    return rc;
}

int HttpResponse_SendMessage_WhileIntact(int fd, const char* head, int headLength, const char* body, int bodyLength,
                                         int timeout_ms, SockExitFlag* exitFlag, const std::function<bool()>& intact,
                                         DbPrintf_Class* pDB)
{
    if (bodyLength < 1) {
        return HttpResponse_SendMessage(fd, head, headLength, body, bodyLength, timeout_ms, exitFlag, pDB);
    }
    int sent = 0;
    int rc = Sock_SendMore(fd, head, headLength, &sent, timeout_ms, exitFlag, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    timeval start;
    GetMonotonicTime(&start);
    int done = 0;
    for (;;) {
        if (!intact()) {
            TimePrint(pDB, 1,
                      "[HttpResponse_SendMessage_WhileIntact] body overwritten while sent: cut off after %d of %d "
                      "bytes\n",
                      done, bodyLength);
            return CHANNEL_NO_DATA;
        }
        timeval now;
        GetMonotonicTime(&now);
        const long long leftMs = timeout_ms - GetDifftime64(&start, &now) / 1000;
        if (leftMs <= 0) {
            return SOCK_TIMEOUT;
        }
        if (done == bodyLength - 1) {
            // Read before the question above answered: whole.
            const char last = body[done];
            if (!intact()) {
                continue;  // logged and ended at the top
            }
            return Sock_Send(fd, &last, 1, &sent, static_cast<int>(leftMs), exitFlag, pDB);
        }
        int n = bodyLength - 1 - done;
        if (n > kSendIntactChunk) {
            n = kSendIntactChunk;
        }
        rc = Sock_SendMore(fd, body + done, n, &sent, static_cast<int>(leftMs), exitFlag, pDB);
        if (rc != SUCCESS) {
            return rc;
        }
        done += n;
    }
}
