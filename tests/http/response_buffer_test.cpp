#include "http/response_buffer.h"

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"
#include "piece_source.h"
#include "parse_test_util.h"

namespace {

constexpr int kTimeoutMs = 5000;

struct ResponseRow {
    const char* input;
    bool closeAfter;  // the peer closes once everything is sent
    int code;
    int status;
    const char* error;
    const char* body;
    int keepAlive;  // Is_KeepAlive afterwards
    const char* note;
};

const ResponseRow kResponseRows[] = {
    {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", false, SUCCESS, 200, "", "hello", SUCCESS, "usual"},
    {"HTTP/1.0 200 OK\nContent-Length: 3\n\nabc", false, SUCCESS, 200, "", "abc", HTTP_CONNECTIONCLOSE,
     "bare LF, version 1.0 never kept"},
    {"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 1\r\n\r\nx", false, SUCCESS, 200, "", "x",
     HTTP_CONNECTIONCLOSE, "Connection: close"},
    {"\r\nHTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok", false, SUCCESS, 200, "", "ok", SUCCESS,
     "line end before the status line"},
    {"HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n\r\n\r\n", false, SUCCESS, 200, "", "\r\n\r\n", SUCCESS,
     "body that looks like blank lines"},
    {"HTTP/1.1 200 OK\r\n\r\n", false, HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length:' Not found.", "",
     HTTP_CONNECTIONCLOSE, "no Content-Length"},
    {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", false, HTTP_ERR_CONTENTLENGTH, 411,
     "'Content-Length' Illigal value.", "", HTTP_CONNECTIONCLOSE, "empty body refused"},
    {"HTTP/1.1 200 OK\r\nContent-Length: -4\r\n\r\n", false, HTTP_ERR_CONTENTLENGTH, 411,
     "'Content-Length' Illigal value.", "", HTTP_CONNECTIONCLOSE, "negative"},
    {"HTTP/1.1 200 OK\r\nContent-Length: 4000\r\n\r\n", false, HTTP_ERR_CONTENTLENGTH, 411,
     "'Content-Length:' too large.", "", HTTP_CONNECTIONCLOSE, "larger than the room after the head"},
    {"HTTP/1.1 401 Unauthorized\r\nContent-Length: 1\r\n\r\nx", false, HTTP_INVALID_SYNTAX, 400,
     "[Offset 12]:HTTP error status. code[401].", "", HTTP_CONNECTIONCLOSE, "status other than 200"},
    {"HTTP/1.1 OK\r\n\r\n", false, HTTP_INVALID_SYNTAX, 400, "[Offset 9]:Syntax error. Not found status code.", "",
     HTTP_CONNECTIONCLOSE, "no status code"},
    {"HTTP/1.1 200 OK\r\nBad Header: 1\r\n\r\n", false, HTTP_INVALID_SYNTAX, 400,
     "[Offset 20]:Found illigal character. [0x20]", "", HTTP_CONNECTIONCLOSE, "the scanner's text is reported"},
    {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", true, HTTP_HEADER_READ_FAILD, 400, "HTTP header read faild.", "",
     HTTP_CONNECTIONCLOSE, "peer closes before the blank line"},
};

void CheckRow(const ResponseRow& row, const std::vector<std::string>& pieces)
{
    HTTPResponseBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(256));
    int rc = 0;
    FeedInPieces(buf, pieces, row.closeAfter, [&](int fd) { rc = buf.HttpRead(fd, kTimeoutMs, nullptr); });
    EXPECT_EQ(row.code, rc);
    EXPECT_EQ(row.status, buf.m_nStatus);
    EXPECT_STREQ(row.error, buf.m_strError);
    EXPECT_EQ(row.keepAlive, buf.Is_KeepAlive());
    if (rc == SUCCESS) {
        EXPECT_EQ(row.body, std::string(reinterpret_cast<char*>(buf.m_pBuffer + buf.m_nBodyStart), buf.m_nBodyLength));
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
            SCOPED_TRACE(std::string(row.note) + ", whole");
            CheckRow(row, {in});
        }
        for (size_t cut = 1; cut < in.size(); cut++) {
            SCOPED_TRACE(std::string(row.note) + ", split at " + std::to_string(cut));
            CheckRow(row, SplitAt(in, cut));
        }
        {
            SCOPED_TRACE(std::string(row.note) + ", byte by byte");
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

TEST(ResponseBuffer, HeadLargerThanTheBufferIs413)
{
    HTTPResponseBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(64));
    std::string head = "HTTP/1.1 200 OK\r\nX-Long: " + std::string(100, 'a') + "\r\n\r\n";
    FeedInPieces(buf, {head}, false,
                 [&](int fd) { EXPECT_EQ(HTTP_HEADER_READ_FAILD, buf.HttpRead(fd, kTimeoutMs, nullptr)); });
    EXPECT_EQ(413, buf.m_nStatus);
    EXPECT_STREQ("HTTP header read faild.", buf.m_strError);
}

TEST(ResponseBuffer, SilentPeerTimesOutWith408)
{
    HTTPResponseBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(256));
    EXPECT_EQ(NOT_INITIALIZE, buf.Is_KeepAlive());
    FeedInPieces(buf, {}, false, [&](int fd) { EXPECT_EQ(SOCK_TIMEOUT, buf.HttpRead(fd, kTimeoutMs, nullptr)); });
    EXPECT_EQ(408, buf.m_nStatus);
    EXPECT_STREQ("HTTP header read faild.", buf.m_strError);
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
