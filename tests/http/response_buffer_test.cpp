#include "http/response_buffer.h"
#include "http/request_buffer.h"

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"
#include "piece_source.h"
#include "parse_test_util.h"

namespace {

constexpr int kTimeoutMs = 5000;

// The response, the reader's code and status, and the body when it succeeds,
// else its error text. A refused response always closes the connection.
struct ResponseRow {
    const char* input;
    int code;
    int status;
    const char* text;
    int keepAlive = HTTP_CONNECTIONCLOSE;  // Is_KeepAlive afterwards
    bool closeAfter = false;               // the peer closes once everything is sent
};

const ResponseRow kResponseRows[] = {
    {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", SUCCESS, 200, "hello", SUCCESS},
    {"HTTP/1.0 200 OK\nContent-Length: 3\n\nabc", SUCCESS, 200, "abc"},  // bare LF; 1.0 is never kept
    {"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 1\r\n\r\nx", SUCCESS, 200, "x"},
    {"\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", SUCCESS, 200, "ok", SUCCESS},
    {"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n\r\n\r\n", SUCCESS, 200, "\r\n\r\n", SUCCESS},
    {"HTTP/1.1 200 OK\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length:' Not found."},
    {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length' Illigal value."},
    {"HTTP/1.1 200 OK\r\nContent-Length: -4\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length' Illigal value."},
    // Larger than the room after the head.
    {"HTTP/1.1 200 OK\r\nContent-Length: 4000\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length:' too large."},
    {"HTTP/1.1 401 Unauthorized\r\nContent-Length: 1\r\n\r\nx", HTTP_INVALID_SYNTAX, 400,
     "[Offset 12]:HTTP error status. code[401]."},
    {"HTTP/1.1 OK\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "[Offset 9]:Syntax error. Not found status code."},
    {"HTTP/1.1 200 OK\r\nBad Header: 1\r\n\r\n", HTTP_INVALID_SYNTAX, 400,
     "[Offset 20]:Found illigal character. [0x20]"},
    // The peer closes before the blank line.
    {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", HTTP_HEADER_READ_FAILD, 400, "HTTP header read faild.",
     HTTP_CONNECTIONCLOSE, true},
};

void CheckRow(const ResponseRow& row, const std::vector<std::string>& pieces)
{
    HTTPResponseBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(256));
    int rc = 0;
    FeedInPieces(buf, pieces, row.closeAfter, [&](int fd) { rc = buf.HttpRead(fd, kTimeoutMs, nullptr); });
    EXPECT_EQ(row.code, rc);
    EXPECT_EQ(row.status, buf.m_nStatus);
    EXPECT_STREQ(rc == SUCCESS ? "" : row.text, buf.m_strError);
    EXPECT_EQ(row.keepAlive, buf.Is_KeepAlive());
    if (rc == SUCCESS) {
        EXPECT_EQ(row.text, std::string(reinterpret_cast<char*>(buf.m_pBuffer + buf.m_nBodyStart), buf.m_nBodyLength));
    }
}

// Byte by byte, a CR LF CR LF terminator arrives over four receives; the
// head search must look back far enough to find it (a search that resumed
// at the newest byte only never found it and ran into the time-out).
TEST(ResponseBuffer, TableWholeSplitAndTrickled)
{
    for (const ResponseRow& row : kResponseRows) {
        std::string in(row.input);
        {
            SCOPED_TRACE(in + ", whole");
            CheckRow(row, {in});
        }
        for (size_t cut = 1; cut < in.size(); cut++) {
            SCOPED_TRACE(in + ", split at " + std::to_string(cut));
            CheckRow(row, SplitAt(in, cut));
        }
        {
            SCOPED_TRACE(in + ", byte by byte");
            CheckRow(row, Bytewise(in));
        }
    }
}

TEST(ResponseBuffer, StatusCodeOfARefusedResponseStaysReadable)
{
    HTTPResponseBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(256));
    FeedInPieces(buf, {"HTTP/1.1 401 Unauthorized\r\n\r\n"}, false,
                 [&](int fd) { EXPECT_EQ(HTTP_INVALID_SYNTAX, buf.HttpRead(fd, kTimeoutMs, nullptr)); });
    EXPECT_EQ(401, buf.Parser.m_nStatusCode);
}

// Two responses in one write: the second is served from the read-ahead. The
// peer has closed by then, so a receive before the search would fail.
TEST(ResponseBuffer, SecondResponseComesFromReadAhead)
{
    const std::string first = "HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\none";
    const std::string second = "HTTP/1.1 200 Fine\nContent-Length: 6\n\nsecond";
    const std::string all = first + second;
    for (size_t cut = first.size(); cut <= all.size(); cut++) {
        SCOPED_TRACE("second response starts after " + std::to_string(cut - first.size()) + " read-ahead bytes");
        HTTPResponseBuffer_Class buf;
        ASSERT_EQ(SUCCESS, buf.Init(256));
        std::string body1;
        std::string body2;
        std::string reason2;
        int rc1 = 0;
        int rc2 = 0;
        int rc3 = 0;
        FeedInPieces(buf, SplitAt(all, cut), true, [&](int fd) {
            rc1 = buf.HttpRead(fd, kTimeoutMs, nullptr);
            body1.assign(reinterpret_cast<char*>(buf.m_pBuffer + buf.m_nBodyStart), buf.m_nBodyLength);
            rc2 = buf.HttpRead(fd, kTimeoutMs, nullptr);
            body2.assign(reinterpret_cast<char*>(buf.m_pBuffer + buf.m_nBodyStart), buf.m_nBodyLength);
            reason2 = span(buf.Parser.m_Text);
            rc3 = buf.HttpRead(fd, kTimeoutMs, nullptr);
        });
        EXPECT_EQ(SUCCESS, rc1);
        EXPECT_EQ("one", body1);
        EXPECT_EQ(SUCCESS, rc2);
        EXPECT_EQ("second", body2);
        EXPECT_EQ("Fine", reason2);
        EXPECT_EQ(HTTP_HEADER_READ_FAILD, rc3) << "nothing left: the peer's close is seen";
    }
}

template <typename Buffer>
void ExpectHeadReadFails(int size, const std::vector<std::string>& pieces, int code, int status)
{
    Buffer buf;
    ASSERT_EQ(SUCCESS, buf.Init(size));
    EXPECT_EQ(NOT_INITIALIZE, buf.Is_KeepAlive()) << "no verdict before a read";
    FeedInPieces(buf, pieces, false, [&](int fd) { EXPECT_EQ(code, buf.HttpRead(fd, kTimeoutMs, nullptr)); });
    EXPECT_EQ(status, buf.m_nStatus);
    EXPECT_STREQ("HTTP header read faild.", buf.m_strError);
}

// A peer silent before the blank line is 408 to both readers; a head larger
// than the buffer is 413.
TEST(HttpBuffers, HeadReadFailures)
{
    ExpectHeadReadFails<HTTPRequestBuffer_Class>(1024, {"GET / HTTP/1.1\r\n"}, SOCK_TIMEOUT, 408);
    ExpectHeadReadFails<HTTPResponseBuffer_Class>(256, {}, SOCK_TIMEOUT, 408);
    ExpectHeadReadFails<HTTPResponseBuffer_Class>(
        64, {"HTTP/1.1 200 OK\r\nX-Long: " + std::string(100, 'a') + "\r\n\r\n"}, HTTP_HEADER_READ_FAILD, 413);
}

TEST(ResponseBuffer, ExitFlagStopsAHeadReadAndSilenceABodyRead)
{
    HTTPResponseBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(256));
    SockExitFlag stop{-1};
    FeedInPieces(buf, {"HTTP/1.1 200 OK\r\n\r\n"}, false,
                 [&](int fd) { EXPECT_EQ(HTTP_HEADER_READ_FAILD, buf.HttpRead(fd, kTimeoutMs, &stop)); });
    EXPECT_EQ(400, buf.m_nStatus);
    // The head arrives, the body stops after three bytes: one silent wait of
    // the time-out ends the body read (a camera or schedule server that
    // hangs mid-answer must not hold its client).
    stop.store(0);
    FeedInPieces(buf, {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabc"}, false,
                 [&](int fd) { EXPECT_EQ(HTTP_BODY_READ_FAILD, buf.HttpRead(fd, kTimeoutMs, &stop)); });
    EXPECT_EQ(400, buf.m_nStatus);
    EXPECT_STREQ("HTTP body read faild.", buf.m_strError);
}

}  // namespace
