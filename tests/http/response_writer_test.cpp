#include "http/response_writer.h"

#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {

// The Date line is the only part that changes between runs: check its form
// and replace its value with "<date>" so the rest can be compared exactly.
// Shape letters: A upper case, a lower case, 0 digit; others stand for
// themselves.
bool has_shape(const std::string& s, const char* shape)
{
    if (s.size() != strlen(shape)) {
        return false;
    }
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        const bool ok = shape[i] == 'A'   ? (c >= 'A' && c <= 'Z')
                        : shape[i] == 'a' ? (c >= 'a' && c <= 'z')
                        : shape[i] == '0' ? (c >= '0' && c <= '9')
                                          : c == shape[i];
        if (!ok) {
            return false;
        }
    }
    return true;
}

std::string mask_date(const std::string& head)
{
    const std::string key = "\r\nDate: ";
    const size_t at = head.find(key);
    const size_t end = at == std::string::npos ? at : head.find("\r\n", at + key.size());
    if (end == std::string::npos) {
        return "no date line in: " + head;
    }
    const std::string value = head.substr(at + key.size(), end - at - key.size());
    if (!has_shape(value, "Aaa, 00 Aaa 0000 00:00:00 GMT")) {
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
        ASSERT_EQ(SUCCESS, HttpResponse_MakeMessage_Header(&out, r.code, r.minor, r.keepAlive, r.type,
                                                           r.extra, r.length))
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
                  "text/htmlConnection: close\r\n\r\n" + body,
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

struct SocketPair {
    int a = -1, b = -1;
    SocketPair()
    {
        int sv[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
        a = sv[0];
        b = sv[1];
    }
    ~SocketPair()
    {
        close(a);
        if (b >= 0) {
            close(b);
        }
    }
    std::string drain()
    {
        std::string s;
        char buf[256];
        ssize_t r;
        while ((r = recv(b, buf, sizeof(buf), MSG_DONTWAIT)) > 0) {
            s.append(buf, static_cast<size_t>(r));
        }
        return s;
    }
};

TEST(ResponseSendTest, HeadThenBodyAndNothingAfterAFailure)
{
    {
        SocketPair p;
        ASSERT_EQ(SUCCESS, HttpResponse_SendMessage(p.a, "HEAD\r\n\r\n", 8, "body", 4, 5000, nullptr));
        EXPECT_EQ("HEAD\r\n\r\nbody", p.drain());
    }
    {
        SocketPair p;
        ASSERT_EQ(SUCCESS, HttpResponse_SendMessage(p.a, "HEAD\r\n\r\n", 8, nullptr, 0, 5000, nullptr));
        EXPECT_EQ("HEAD\r\n\r\n", p.drain());
    }
    {
        SocketPair p;
        SockExitFlag flag{-1};
        EXPECT_EQ(LOOP_INTERRUPTED, HttpResponse_SendMessage(p.a, "HEAD", 4, "body", 4, 5000, &flag));
        EXPECT_EQ("", p.drain());
    }
    {
        SocketPair p;
        close(p.b);
        p.b = -1;
        EXPECT_EQ(SOCK_SIGPIPE, HttpResponse_SendMessage(p.a, "HEAD", 4, "body", 4, 5000, nullptr));
    }
}

}  // namespace
