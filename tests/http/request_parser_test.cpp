#include "http/request_parser.h"

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"
#include "http/cgi_param_parser.h"
#include "http/uri_parser.h"
#include "parse_test_util.h"

namespace {

// Accepted request lines (no error text) with the method's number, file
// name and query; refused ones with status 400 and the text the reader
// reports; where that is empty, the scanner explains the fault in its own.
TEST(RequestParser, Table)
{
    const struct {
        const char* input;
        const char* requestError;  // null: accepted
        int method = 0;            // Flag_Num
        const char* fileName = "";
        const char* query = "";
    } rows[] = {
        {"GET /ptippreimg.cgi?get_image=1 HTTP/1.0\r\n\r\n", nullptr, 1, "/ptippreimg.cgi", "get_image=1"},
        {"\r\n\r\nHEAD / HTTP/1.1\r\nHost: x\r\n\r\n", nullptr, 2, "/", ""},              // leading line ends skipped
        {"post /trcom.cgi HTTP/1.1\n\n", nullptr, 3, "/trcom.cgi", ""},                   // any case, LF only
        {"GET  \t /x HTTP/1.1 \r\n\r\n", nullptr, 1, "/x", ""},                           // blanks, blank before CR
        {"DELETE / HTTP/1.1\r\n\r\n", nullptr, 0, "/", ""},                               // the reader refuses it
        {"GET http://cam:80/a/b.cgi?x=1 HTTP/1.1\r\n\r\n", nullptr, 1, "/b.cgi", "x=1"},  // absolute URI
        {"GET /a/../b HTTP/1.1\r\n\r\n", "Syntax error in URI"},
        {"GET x.cgi HTTP/1.1\r\n\r\n", "Syntax error in URI"},
        {"GET /x.cgi HTTP/1.1 extra\r\n\r\n", "[Offset 27]:Syntax error. in protocol string."},
        {"GET / HTTP/1.1x\r\n\r\n", "[Offset 17]:Syntax error. in protocol string."},
        {"GET /x.cgi\r\n\r\n", "[Offset 10]:Syntax error. Not found protocol information."},
        {"GET /x<y HTTP/1.1\r\n\r\n", "[Offset 6]:Syntax error. in URI"},
        {"GE(T / HTTP/1.1\r\n\r\n", "[Offset 2]:Syntax error. in Request method."},
        {"GET /x y HTTP/1.1\r\n\r\n", "[Offset 8]:Syntax error. in Protocol information."},
        {"GET / HTTP/1\r\n\r\n", "[Offset 12]:Syntax error. in Protocol information."},
        {"GET / HTTP/1.1\r\nBad Header: x\r\n\r\n", ""},
        {"\r\n\r\n", ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.input);
        const bool accepted = row.requestError == nullptr;
        Bytes in(row.input);
        HTTPRequestParser_Class p;
        EXPECT_EQ(accepted ? SUCCESS : HTTP_INVALID_SYNTAX, p.Parsing(in.data(), in.size()));
        EXPECT_EQ(accepted ? 0 : 400, p.m_nStatus);
        EXPECT_STREQ(accepted ? "" : row.requestError, p.m_strRequestError);
        if (accepted) {
            EXPECT_EQ(row.method, p.Flag_Num);
            EXPECT_EQ(row.fileName, span(p.URIParser.FileName));
            EXPECT_EQ(row.query, span(p.URIParser.CGIParam));
            EXPECT_EQ(in.size(), p.m_nPos);
        } else if (row.requestError[0] == '\0') {
            EXPECT_STRNE("", p.m_strError);
        }
    }
}

struct UriRow {
    const char* uri;
    int states;
    int haveParam;
    const char* protocol;
    const char* path;
    const char* fileName;
    const char* param;
    const char* note;
};

const UriRow kUriRows[] = {
    {"/ptippreimg.cgi?img_login=1", 2, 2, "", "/", "/ptippreimg.cgi", "img_login=1", "usual"},
    {"/cgi-bin/scheduleServer.cgi", 2, 1, "", "/cgi-bin/", "/scheduleServer.cgi", "", "nested path"},
    {"/", 2, 1, "", "/", "/", "", "root"},
    {"/dir/", 2, 1, "", "/dir/", "/", "", "directory"},
    {"/a?", 2, 2, "", "/", "/a", "", "empty query"},
    {"/a?b?c=/../", 2, 2, "", "/", "/a", "b?c=/../", "everything after the first ? is the query"},
    {"//x", 2, 1, "", "//", "/x", "", "double slash at the start"},
    {"http://host:8080/a/b.cgi?q", 1, 2, "http", "/a/", "/b.cgi", "q", "absolute, host dropped"},
    {"a:b/c", 2, 1, "", "/", "/c", "", "colon not followed by a slash"},
};

// The parser borrows the URI's bytes: they live as long as its result.
struct ParsedUri {
    explicit ParsedUri(const char* uri) : bytes(uri)
    {
        token.Copy_OnlyPointer(bytes.data(), bytes.size());
        rc = parser.Parsing(&token);
    }
    Bytes bytes;
    OneToken_Class token;
    HTTPURIParser_Class parser;
    int rc;
};

// Accepted URIs, then refused ones: dot-dot anywhere in the path, no slash
// (or one only in the query), an absolute URI without a path.
TEST(URIParser, Table)
{
    for (const UriRow& row : kUriRows) {
        SCOPED_TRACE(row.note);
        ParsedUri u(row.uri);
        const HTTPURIParser_Class& p = u.parser;
        EXPECT_EQ(SUCCESS, u.rc);
        EXPECT_EQ(row.states, p.Flag_URI_States);
        EXPECT_EQ(row.haveParam, p.Flag_Have_CGIParam);
        EXPECT_EQ(row.protocol, span(p.Protocol));
        EXPECT_EQ(row.path, span(p.Path));
        EXPECT_EQ(row.fileName, span(p.FileName));
        EXPECT_EQ(row.param, span(p.CGIParam));
    }
    for (const char* uri : {"/../x", "/a/b/../c", "x.cgi", "x.cgi?a=/b", "http://host"}) {
        EXPECT_EQ(HTTP_INVALID_SYNTAX, ParsedUri(uri).rc) << uri;
    }
}

// Accepted texts as "name=value;..." (an empty value is one NUL byte, shown
// as \0; no decoding; a line end closes the text), then refused ones.
TEST(CGIParamParser, Table)
{
    const struct {
        const char* text;
        const char* params;
    } rows[] = {
        {"img_login=1", "img_login=1"}, {"a=&b=2", "a=\\0;b=2"}, {"a=1&a=2", "a=1;a=2"},
        {"a=%41+b", "a=%41+b"},         {"a=1\r\n", "a=1"},      {"a=", "a=\\0"},
    };
    for (const auto& row : rows) {
        Bytes in(row.text);
        CGIParamParser_Class p;
        EXPECT_EQ(SUCCESS, p.Parsing(in.data(), in.size())) << row.text;
        EXPECT_EQ(row.params, pairs(p.m_Params)) << row.text;
    }
    for (const char* text : {"", "a=1&", "a", "=1", "a=1=2", "a=1&&b=2", "a&b=1", "a b=1", "a=<"}) {
        Bytes in(text);
        CGIParamParser_Class p;
        EXPECT_EQ(CGIPARAMS_SYNTAX_ERR, p.Parsing(in.data(), in.size())) << text;
    }
}

TEST(CGIParamParser, KeepsTheFirstTwentyAndLooksUpWithTheEqualsSign)
{
    std::string text;
    for (int i = 0; i < 25; i++) {
        text += (i ? "&p" : "p") + std::to_string(i) + "=" + std::to_string(i * 10);
    }
    Bytes in(text);
    CGIParamParser_Class p;
    ASSERT_EQ(SUCCESS, p.Parsing(in.data(), in.size()));
    EXPECT_EQ(20, p.m_Params.GetCount());
    int v = 0;
    EXPECT_EQ(SUCCESS, p.m_Params.Search_NameToVal_RtnInt("p19=", &v));
    EXPECT_EQ(190, v);
    EXPECT_EQ(NOTFOUND_ITEM, p.m_Params.Search_NameToVal_RtnInt("p20=", &v));
    EXPECT_EQ(NOTFOUND_ITEM, p.m_Params.Search_NameToVal_RtnInt("p1", &v));

    // A second parse replaces the first.
    Bytes again("x=1");
    ASSERT_EQ(SUCCESS, p.Parsing(again.data(), again.size()));
    EXPECT_EQ("x=1", pairs(p.m_Params));
}

}  // namespace
