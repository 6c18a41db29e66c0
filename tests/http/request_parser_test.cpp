#include "http/request_parser.h"

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"
#include "http/cgi_param_parser.h"
#include "http/uri_parser.h"
#include "parse_test_util.h"

namespace {

struct RequestRow {
    const char* input;
    int code;
    int status;
    const char* requestError;  // the text the reader reports
    int method;                // Flag_Num (checked on SUCCESS)
    const char* fileName;
    const char* query;
    const char* note;
};

const RequestRow kRequestRows[] = {
    {"GET /ptippreimg.cgi?get_image=1 HTTP/1.0\r\n\r\n", SUCCESS, 0, "", 1, "/ptippreimg.cgi", "get_image=1",
     "usual pre-image request"},
    {"\r\n\r\nHEAD / HTTP/1.1\r\nHost: x\r\n\r\n", SUCCESS, 0, "", 2, "/", "", "leading line ends skipped"},
    {"post /trcom.cgi HTTP/1.1\n\n", SUCCESS, 0, "", 3, "/trcom.cgi", "", "method in any case, LF only"},
    {"GET  \t /x HTTP/1.1 \r\n\r\n", SUCCESS, 0, "", 1, "/x", "", "several blanks, blank before the CR"},
    {"DELETE / HTTP/1.1\r\n\r\n", SUCCESS, 0, "", 0, "/", "", "unknown method parses; the reader refuses it"},
    {"GET http://cam:80/a/b.cgi?x=1 HTTP/1.1\r\n\r\n", SUCCESS, 0, "", 1, "/b.cgi", "x=1", "absolute URI"},
    {"GET /a/../b HTTP/1.1\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "Syntax error in URI", 0, "", "", "dot-dot"},
    {"GET x.cgi HTTP/1.1\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "Syntax error in URI", 0, "", "", "no slash"},
    {"GET /x.cgi HTTP/1.1 extra\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "[Offset 27]:Syntax error. in protocol string.", 0,
     "", "", "word after the version"},
    {"GET / HTTP/1.1x\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "[Offset 17]:Syntax error. in protocol string.", 0, "", "",
     "letter glued to the version"},
    {"GET /x.cgi\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "[Offset 10]:Syntax error. Not found protocol information.", 0, "",
     "", "request line without a version"},
    {"GET /x<y HTTP/1.1\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "[Offset 6]:Syntax error. in URI", 0, "", "",
     "character outside the URI set"},
    {"GE(T / HTTP/1.1\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "[Offset 2]:Syntax error. in Request method.", 0, "", "",
     "separator in the method"},
    {"GET /x y HTTP/1.1\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "[Offset 8]:Syntax error. in Protocol information.", 0, "",
     "", "two words where the version goes"},
    {"GET / HTTP/1\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "[Offset 12]:Syntax error. in Protocol information.", 0, "", "",
     "version without minor"},
    {"GET / HTTP/1.1\r\nBad Header: x\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "", 0, "", "",
     "header fault: status only, the text stays the scanner's"},
    {"\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "", 0, "", "", "only line ends"},
};

TEST(RequestParser, Table)
{
    for (const RequestRow& row : kRequestRows) {
        SCOPED_TRACE(row.note);
        Bytes in(row.input);
        HTTPRequestParser_Class p;
        EXPECT_EQ(row.code, p.Parsing(in.data(), in.size()));
        EXPECT_EQ(row.status, p.m_nStatus);
        EXPECT_STREQ(row.requestError, p.m_strRequestError);
        if (row.code == SUCCESS) {
            EXPECT_EQ(row.method, p.Flag_Num);
            EXPECT_EQ(row.fileName, span(p.URIParser.FileName));
            EXPECT_EQ(row.query, span(p.URIParser.CGIParam));
            EXPECT_EQ(in.size(), p.m_nPos);
        } else if (row.requestError[0] == '\0') {
            EXPECT_STRNE("", p.m_strError) << "the scanner explains the fault in its own text";
        }
    }
}

struct UriRow {
    const char* uri;
    int code;
    int states;
    int haveParam;
    const char* protocol;
    const char* path;
    const char* fileName;
    const char* param;
    const char* note;
};

const UriRow kUriRows[] = {
    {"/ptippreimg.cgi?img_login=1", SUCCESS, 2, 2, "", "/", "/ptippreimg.cgi", "img_login=1", "usual"},
    {"/cgi-bin/scheduleServer.cgi", SUCCESS, 2, 1, "", "/cgi-bin/", "/scheduleServer.cgi", "", "nested path"},
    {"/", SUCCESS, 2, 1, "", "/", "/", "", "root"},
    {"/dir/", SUCCESS, 2, 1, "", "/dir/", "/", "", "directory"},
    {"/a?", SUCCESS, 2, 2, "", "/", "/a", "", "empty query"},
    {"/a?b?c=/../", SUCCESS, 2, 2, "", "/", "/a", "b?c=/../", "everything after the first ? is the query"},
    {"//x", SUCCESS, 2, 1, "", "//", "/x", "", "double slash at the start"},
    {"http://host:8080/a/b.cgi?q", SUCCESS, 1, 2, "http", "/a/", "/b.cgi", "q", "absolute, host dropped"},
    {"a:b/c", SUCCESS, 2, 1, "", "/", "/c", "", "colon not followed by a slash"},
    {"/../x", HTTP_INVALID_SYNTAX, 0, 0, "", "", "", "", "dot-dot at the start"},
    {"/a/b/../c", HTTP_INVALID_SYNTAX, 0, 0, "", "", "", "", "dot-dot inside"},
    {"x.cgi", HTTP_INVALID_SYNTAX, 0, 0, "", "", "", "", "no slash at all"},
    {"x.cgi?a=/b", HTTP_INVALID_SYNTAX, 0, 0, "", "", "", "", "a slash only in the query"},
    {"http://host", HTTP_INVALID_SYNTAX, 0, 0, "", "", "", "", "absolute without a path"},
};

TEST(URIParser, Table)
{
    for (const UriRow& row : kUriRows) {
        SCOPED_TRACE(row.note);
        Bytes in(row.uri);
        OneToken_Class token;
        token.Copy_OnlyPointer(in.data(), in.size());
        HTTPURIParser_Class p;
        EXPECT_EQ(row.code, p.Parsing(&token));
        if (row.code != SUCCESS) {
            continue;
        }
        EXPECT_EQ(row.states, p.Flag_URI_States);
        EXPECT_EQ(row.haveParam, p.Flag_Have_CGIParam);
        EXPECT_EQ(row.protocol, span(p.Protocol));
        EXPECT_EQ(row.path, span(p.Path));
        EXPECT_EQ(row.fileName, span(p.FileName));
        EXPECT_EQ(row.param, span(p.CGIParam));
    }
}

struct CgiRow {
    const char* text;
    int code;
    const char* params;  // "name=value;..." with an empty value shown as \0
    const char* note;
};

const CgiRow kCgiRows[] = {
    {"img_login=1", SUCCESS, "img_login=1", "one"},
    {"a=&b=2", SUCCESS, "a=\\0;b=2", "empty value is one NUL byte"},
    {"a=1&a=2", SUCCESS, "a=1;a=2", "repeats kept in order"},
    {"a=%41+b", SUCCESS, "a=%41+b", "no decoding"},
    {"a=1\r\n", SUCCESS, "a=1", "a line end closes the text"},
    {"a=", SUCCESS, "a=\\0", "empty value at the end"},
    {"", CGIPARAMS_SYNTAX_ERR, "", "empty text"},
    {"a=1&", CGIPARAMS_SYNTAX_ERR, "", "trailing ampersand"},
    {"a", CGIPARAMS_SYNTAX_ERR, "", "no equals sign"},
    {"=1", CGIPARAMS_SYNTAX_ERR, "", "empty name"},
    {"a=1=2", CGIPARAMS_SYNTAX_ERR, "", "second equals sign in a value"},
    {"a=1&&b=2", CGIPARAMS_SYNTAX_ERR, "", "empty pair"},
    {"a&b=1", CGIPARAMS_SYNTAX_ERR, "", "ampersand inside a name"},
    {"a b=1", CGIPARAMS_SYNTAX_ERR, "", "blank in a name"},
    {"a=<", CGIPARAMS_SYNTAX_ERR, "", "character outside the URI set"},
};

TEST(CGIParamParser, Table)
{
    for (const CgiRow& row : kCgiRows) {
        SCOPED_TRACE(row.note);
        Bytes in(row.text);
        CGIParamParser_Class p;
        EXPECT_EQ(row.code, p.Parsing(in.data(), in.size()));
        if (row.code == SUCCESS) {
            EXPECT_EQ(row.params, pairs(p.m_Params));
        }
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
