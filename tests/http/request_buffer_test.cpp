#include "http/request_buffer.h"

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"
#include "piece_source.h"
#include "parse_test_util.h"

namespace {

constexpr int kTimeoutMs = 5000;

// The request, the reader's code and status, and its parameters as
// "name=value;..." when it succeeds, else its error text. A refused request
// always closes the connection.
struct RequestRow {
    std::string input;
    int code;
    int status;
    const char* text;
    int keepAlive = HTTP_CONNECTIONCLOSE;
};

std::string Post(const std::string& extraHeaders, const std::string& body, const std::string& target = "/trcom.cgi")
{
    return "POST " + target + " HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + extraHeaders +
           "\r\n" + body;
}

std::string ManyHeaders(int n)
{
    std::string head = "GET / HTTP/1.1\r\n";
    for (int i = 0; i < n; i++) {
        head += "X: v\r\n";
    }
    return head + "\r\n";
}

// 100 bytes that are no valid parameters, then a 20-byte part that is.
const std::string kPiPPBody = std::string(100, '<') + "img_login=1&ab=12345";
const std::string kPiPPHeaders = "NumOfPart: 1\r\nPart_0_Offset: 100\r\nPart_0_Length: 20\r\n";

const RequestRow kRequestRows[] = {
    {"GET /ptippreimg.cgi?get_image=1 HTTP/1.0\r\n\r\n", SUCCESS, 200, "get_image=1"},  // 1.0 is not kept
    {"GET /ptippreimg.cgi HTTP/1.1\r\nHost: x\r\n\r\n", SUCCESS, 200, "", SUCCESS},
    {"HEAD /x?a=&b=2 HTTP/1.1\r\nConnection: close\r\n\r\n", SUCCESS, 200, "a=\\0;b=2"},
    {"GET /a/../b HTTP/1.1\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "Syntax error in URI"},
    {"DELETE / HTTP/1.1\r\n\r\n", HTTP_UNSUPPORT_METHOD, 415, "Unkown Method."},
    {"GET /x?a=1& HTTP/1.1\r\n\r\n", CGIPARAMS_SYNTAX_ERR, 400, "Syntax error in CGI query string."},
    {"GET / HTTP/1.1\r\nBad Header: 1\r\n\r\n", HTTP_INVALID_SYNTAX, 400, ""},  // a header fault has no text
    {ManyHeaders(127), SUCCESS, 200, "", SUCCESS},
    {ManyHeaders(128), HTTP_INVALID_SYNTAX, 413, ""},
    {Post("", "a=1&b=2"), SUCCESS, 200, "a=1;b=2", SUCCESS},
    {Post("", "a=1", "/trcom.cgi?zz=9"), SUCCESS, 200, "a=1", SUCCESS},  // a POST's query is not parsed
    {Post("", "a=1\r\n"), SUCCESS, 200, "a=1", SUCCESS},                 // a line end closes the body
    {Post("", "a&"), CGIPARAMS_SYNTAX_ERR, 400, "Syntax error in CGI query string."},
    {"POST / HTTP/1.1\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length:' Not found."},
    {"POST / HTTP/1.1\r\nContent-Length: 0\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length' Illigal value."},
    // A body larger than the room after the head.
    {"POST / HTTP/1.1\r\nContent-Length: 2000\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length:' too large."},
    {Post(kPiPPHeaders, kPiPPBody), SUCCESS, 200, "img_login=1;ab=12345", SUCCESS},  // part 0 only
    {Post(kPiPPHeaders, kPiPPBody.substr(0, 119)), PIPP_SYNTAX_ERROR, 400,
     "PiPP Syntax error. Illigal value 'Part_0_Length:'"},  // the part runs past the body
    {Post("NumOfPart: 1\r\nPart_0_Length: 3\r\n", "a=1"), PIPP_SYNTAX_ERROR, 400,
     "PiPP Syntax error. found 'NumOfPart' but not found 'Part_0_Offset:'"},
    {Post("NumOfPart: 1\r\nPart_0_Offset: 0\r\n", "a=1"), PIPP_SYNTAX_ERROR, 400,
     "PiPP Syntax error. found 'NumOfPart' but not found 'Part_0_Length:'"},
    {Post("NumOfPart: 1\r\nPart_0_Offset: 3\r\nPart_0_Length: 1\r\n", "a=1"), PIPP_SYNTAX_ERROR, 400,
     "PiPP Syntax error. Illigal value 'Part_0_Offset:'"},  // offset at the body's end
    {Post("NumOfPart: 1\r\nPart_0_Offset: 0\r\nPart_0_Length: 0\r\n", "a=1"), PIPP_SYNTAX_ERROR, 400,
     "PiPP Syntax error. Illigal value 'Part_0_Length:'"},
    {Post("NumOfPart: 0\r\nPart_0_Offset: 2\r\n", "a=1"), SUCCESS, 200, "a=1", SUCCESS},  // no parts: whole body
};

void CheckRow(const RequestRow& row, const std::vector<std::string>& pieces)
{
    HTTPRequestBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(1024));
    int rc = 0;
    FeedInPieces(buf, pieces, false, [&](int fd) { rc = buf.HttpRead(fd, kTimeoutMs, nullptr); });
    EXPECT_EQ(row.code, rc);
    EXPECT_EQ(row.status, buf.m_nStatus);
    EXPECT_STREQ(rc == SUCCESS ? "" : row.text, buf.m_strError);
    EXPECT_EQ(row.keepAlive, buf.Is_KeepAlive());
    if (rc == SUCCESS) {
        EXPECT_EQ(row.text, pairs(buf.CGIParam.m_Params));
    }
}

TEST(RequestBuffer, TableWholeAndSplit)
{
    for (const RequestRow& row : kRequestRows) {
        {
            SCOPED_TRACE(row.input.substr(0, 60) + ", whole");
            CheckRow(row, {row.input});
        }
        // Splits at every offset of the short requests; the long ones at a
        // few offsets around the blank line and inside the body.
        size_t n = row.input.size();
        size_t blank = row.input.find("\r\n\r\n");
        for (size_t cut = 1; cut < n; cut++) {
            bool near = blank != std::string::npos && cut + 4 >= blank && cut <= blank + 6;
            if (n > 120 && !near && cut % 37 != 0) {
                continue;
            }
            SCOPED_TRACE(row.input.substr(0, 60) + ", split at " + std::to_string(cut));
            CheckRow(row, SplitAt(row.input, cut));
        }
    }
}

// A client that closes in the middle of its body: the request is read, but
// the missing bytes must not be taken from the previous request that used
// the same buffer (here they would have completed a valid parameter).
TEST(RequestBuffer, CutShortBodyDoesNotReuseAnEarlierRequest)
{
    HTTPRequestBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(1024));
    const std::string head = "POST /trcom.cgi HTTP/1.1\r\nContent-Length: 10\r\n\r\n";
    FeedInPieces(buf, {head + "a=12345678"}, true,
                 [&](int fd) { EXPECT_EQ(SUCCESS, buf.HttpRead(fd, kTimeoutMs, nullptr)); });
    buf.ClearBuf();
    int rc = 0;
    FeedInPieces(buf, {head + "a=1"}, true, [&](int fd) { rc = buf.HttpRead(fd, kTimeoutMs, nullptr); });
    EXPECT_EQ(CGIPARAMS_SYNTAX_ERR, rc);
    EXPECT_EQ(3, buf.m_nFilled - buf.m_nBodyStart) << "only three body bytes arrived";
}

// Two requests in one write on a kept connection: the second one's
// parameters must not be mixed up with the first one's, and it is read from
// the read-ahead.
TEST(RequestBuffer, PipelinedRequestsKeepTheirOwnParameters)
{
    HTTPRequestBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(1024));
    std::string first = Post("", "a=1&b=2");
    std::string second = "GET /ptippreimg.cgi?img_logout=7 HTTP/1.1\r\n\r\n";
    std::string params1;
    std::string params2;
    FeedInPieces(buf, {first + second}, true, [&](int fd) {
        ASSERT_EQ(SUCCESS, buf.HttpRead(fd, kTimeoutMs, nullptr));
        params1 = pairs(buf.CGIParam.m_Params);
        ASSERT_EQ(SUCCESS, buf.HttpRead(fd, kTimeoutMs, nullptr));
        params2 = pairs(buf.CGIParam.m_Params);
    });
    EXPECT_EQ("a=1;b=2", params1);
    EXPECT_EQ("img_logout=7", params2);
    EXPECT_EQ("/ptippreimg.cgi", span(buf.Parser.URIParser.FileName));
}

}  // namespace
