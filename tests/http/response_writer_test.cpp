#include "http/response_writer.h"

#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {

// The Date line is the only part that changes between runs: check its form
// and replace its value with "<date>" so the rest can be compared exactly.
std::string mask_date(const std::string& head)
{
    const std::string key = "\r\nDate: ";
    const size_t at = head.find(key);
    const size_t end = at == std::string::npos ? at : head.find("\r\n", at + key.size());
    if (end == std::string::npos) {
        return "no date line in: " + head;
    }
    const std::string value = head.substr(at + key.size(), end - at - key.size());
    tm t{};
    const char* rest = strptime(value.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &t);
    if (rest == nullptr || *rest != '\0' || value.size() != 29) {
        return "bad date '" + value + "' in: " + head;
    }
    return head.substr(0, at) + key + "<date>" + head.substr(end);
}

const char* kHeadStart = "Date: <date>\r\nServer: Ostrel Relay\r\n";

TEST(ResponseHeadTest, HeadBytes)
{
    struct Row {
        int code, minor, keepAlive;
        const char* type;
        const char* extra;
        int length;
        std::string expected;
        const char* note;
    } rows[] = {
        {404, 1, 1, "image/jpeg", nullptr, 1234,
         std::string("HTTP/1.1 404 Not Found\r\n") + kHeadStart +
             "Content-Type: image/jpeg\r\nPragma: no-cache\r\nContent-Length: 1234\r\n\r\n",
         "1.1 keep-alive: no Connection line"},
        {200, 0, 1, "text/xml", nullptr, 5,
         std::string("HTTP/1.0 200 OK\r\n") + kHeadStart +
             "Content-Type: text/xml\r\nPragma: no-cache\r\nContent-Length: 5\r\nConnection: close\r\n\r\n",
         "1.0 peer is always told to close"},
        {299, 1, 0, "text/plain", nullptr, 0,
         std::string("HTTP/1.1 Unkown Error\r\n") + kHeadStart +
             "Content-Type: text/plain\r\nPragma: no-cache\r\nConnection: close\r\n\r\n",
         "unknown code, no length line for 0"},
        {405, 1, 2, "text/plain", "X-One: 1\r\nX-Two: 2\r\n", -3,
         std::string("HTTP/1.1 405 Method Not Allow\r\n") + kHeadStart +
             "Content-Type: text/plain\r\nPragma: no-cache\r\nX-One: 1\r\nX-Two: 2\r\nConnection: close\r\n\r\n",
         "extra lines as given; keep-alive must be exactly 1"},
    };
    for (const Row& r : rows) {
        StringBuf_Class out(4096);
        ASSERT_EQ(SUCCESS,
                  HttpResponse_MakeMessage_Header(&out, r.code, r.minor, r.keepAlive, r.type, r.extra, r.length))
            << r.note;
        EXPECT_EQ(r.expected, mask_date(out.c_str())) << r.note;
    }
}

TEST(ResponseHeadTest, ErrorResponseKeepsTheNullContentTypeQuirk)
{
    StringBuf_Class out(4096);
    ASSERT_EQ(SUCCESS, HttpResponse_MakeMessage_WithStatesCodeBody(&out, 400, 1, 0));
    const std::string body = "<HTML><BODY><H1>400 Bad Request</H1></BODY></HTML>";
    ASSERT_EQ(50u, body.size());
    EXPECT_EQ(std::string("HTTP/1.1 400 Bad Request\r\n") + kHeadStart +
                  "Content-Type: (null)\r\nPragma: no-cache\r\nContent-Length: 50\r\n"
                  "text/htmlConnection: close\r\n\r\n" +
                  body,
              mask_date(out.c_str()));

    // Kept connection: the bare type runs into the blank line instead.
    StringBuf_Class kept(4096);
    ASSERT_EQ(SUCCESS, HttpResponse_MakeMessage_WithStatesCodeBody(&kept, 299, 1, 1));
    EXPECT_EQ(std::string("HTTP/1.1 Unkown Error\r\n") + kHeadStart +
                  "Content-Type: (null)\r\nPragma: no-cache\r\nContent-Length: 47\r\n"
                  "text/html\r\n<HTML><BODY><H1>Unkown Error</H1></BODY></HTML>",
              mask_date(kept.c_str()));
}

TEST(ResponseHeadTest, StatusTextLookupAndTooSmallBuffer)
{
    const char* text = nullptr;
    EXPECT_EQ(SUCCESS, HttpResponse_GetStatesCode(&text, 408));
    EXPECT_STREQ("408 Request Time-out", text);
    EXPECT_EQ(DEBUG_WARNING, HttpResponse_GetStatesCode(&text, 0));
    EXPECT_STREQ("Unkown Error", text);
    EXPECT_EQ(DEBUG_WARNING, HttpResponse_GetStatesCode(&text, 600));

    // A cut head must never look like a finished one.
    StringBuf_Class small(64);
    EXPECT_EQ(DATA_LARGE_THEN_BUF, HttpResponse_MakeMessage_Header(&small, 200, 1, 1, "image/jpeg", nullptr, 10));
    StringBuf_Class noBody(200);
    EXPECT_EQ(DATA_LARGE_THEN_BUF, HttpResponse_MakeMessage_WithStatesCodeBody(&noBody, 404, 1, 0));
}

TEST(ResponseSendTest, HeadThenBodyAndNothingAfterAFailure)
{
    struct Row {
        int flag;
        bool peerGone;
        const char* body;
        int bodyLength;
        int rc;
        const char* wire;
    } rows[] = {
        {0, false, "body", 4, SUCCESS, "HEAD\r\n\r\nbody"},
        {0, false, "body", 0, SUCCESS, "HEAD\r\n\r\n"},
        {-1, false, "body", 4, LOOP_INTERRUPTED, ""},
        {0, true, "body", 4, SOCK_SIGPIPE, ""},
    };
    for (const Row& r : rows) {
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        if (r.peerGone) {
            close(sv[1]);
        }
        SockExitFlag flag{r.flag};
        EXPECT_EQ(r.rc, HttpResponse_SendMessage(sv[0], "HEAD\r\n\r\n", 8, r.body, r.bodyLength, 5000, &flag));
        if (!r.peerGone) {
            char buf[64];
            const ssize_t n = recv(sv[1], buf, sizeof(buf), MSG_DONTWAIT);
            EXPECT_EQ(r.wire, std::string(buf, n > 0 ? static_cast<size_t>(n) : 0));
            close(sv[1]);
        }
        close(sv[0]);
    }
}

}  // namespace

namespace {

// A body that may be overwritten while sent goes out whole only when it
// stayed whole to the end: once the question says no, nothing more goes
// out, not even the last byte, so the peer holds fewer bytes than announced.
TEST(ResponseSendTest, BodyOverwrittenWhileSentIsCutOffBeforeItsEnd)
{
    const std::string body(3 * kSendIntactChunk + 10, 'p');
    struct Row {
        int intactAnswers;  // answers "whole" this many times, then "changed"
        int rc;
        size_t bodyBytes;  // of the body the peer receives
    } rows[] = {
        {1000, SUCCESS, body.size()},
        {0, CHANNEL_NO_DATA, 0},
        {2, CHANNEL_NO_DATA, static_cast<size_t>(2 * kSendIntactChunk)},
        {4, CHANNEL_NO_DATA, body.size() - 1},  // all but the last byte
    };
    for (const Row& r : rows) {
        int sv[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        int buf = 1 << 20;
        setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
        setsockopt(sv[1], SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
        int answers = 0;
        SockExitFlag flag{0};
        EXPECT_EQ(r.rc, HttpResponse_SendMessage_WhileIntact(sv[0], "HEAD\r\n\r\n", 8, body.data(),
                                                             static_cast<int>(body.size()), 5000, &flag,
                                                             [&] { return answers++ < r.intactAnswers; }))
            << r.intactAnswers;
        close(sv[0]);
        std::string wire;
        char chunk[65536];
        for (ssize_t n; (n = recv(sv[1], chunk, sizeof chunk, 0)) > 0;) {
            wire.append(chunk, static_cast<size_t>(n));
        }
        close(sv[1]);
        EXPECT_EQ("HEAD\r\n\r\n" + body.substr(0, r.bodyBytes), wire) << r.intactAnswers;
    }
}

}  // namespace
