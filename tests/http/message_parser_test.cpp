#include "http/message_parser.h"

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"
#include "parse_test_util.h"

namespace {

std::string header(const HTTPMessageParser_Class& p, const char* name)
{
    OneToken_Class* val = nullptr;
    if (p.m_HeaderLines.Search_NameToVal(name, &val) != SUCCESS) {
        return "<none>";
    }
    return span(*val);
}

// Accepted heads (no error text): the header lines stored, Connection:
// close seen (keep-alive 0) and a Host line seen; each is consumed whole,
// and every strict prefix of one lacks its blank line and is refused without
// reading beyond its end. Refused heads: status 400 and the scanner's text.
TEST(HeaderLines, Table)
{
    const struct {
        const char* input;
        const char* error;  // null: accepted
        int lines = 0;
        int keepAlive = 1;
        int host = 0;
    } rows[] = {
        {"\r\n", nullptr},  // blank line only
        {"\n", nullptr},    // bare LF ends the head
        {"Host: a\r\nAccept: */*\r\n\r\n", nullptr, 2, 1, 1},
        {"Host: a\nAccept: */*\n\n", nullptr, 2, 1, 1},
        {"hOsT:x\r\n\r\n", nullptr, 1, 1, 1},  // any case, no blank before value
        {"Hostname: x\r\n\r\n", nullptr, 1},   // the colon is part of the name
        {"Connection: close\r\n\r\n", nullptr, 1, 0},
        {"CONNECTION:   CLOSE\r\n\r\n", nullptr, 1, 0},    // capitals after blanks
        {"Connection: close, TE\r\n\r\n", nullptr, 1, 1},  // among other tokens
        {"Connection: close \r\n\r\n", nullptr, 1, 1},     // not exactly five bytes
        {"Connection: keep-alive\r\nConnection: close\r\n\r\n", nullptr, 2, 0},
        {"X-A: 1\r\n two\r\n\r\n", nullptr, 1},  // folded value stays one header
        {"X-A:\r\n\r\n", nullptr, 1},            // empty value
        {"Content Length: 5\r\n\r\n", "[Offset 7]:Found illigal character. [0x20]"},
        {"X-A: 1\r\n", "[Offset 7]:Syntax error. Illigal header end."},
        {"X-A: 1\r\n\r", "[Offset 8]:Syntax error. Illigal header end."},
        {"X-A: 1", "[Offset 6]:Syntax error. Illigal header end."},
        {"X-A:   ", "[Offset 7]:Syntax error. Illigal header end."},
        {"X-A:", "[Offset 4]:Syntax error. Illigal header end."},
        {"X-A\r\n\r\n", "[Offset 3]:Found illigal character. [0x0d]"},
        {"X-A 1", "[Offset 3]:Found illigal character. [0x20]"},
        {"X-A", "[Offset 3]:Syntax error. Not found charactor [0x3a] , Start[offset 0] to hedder end."},
        {" X-A: 1\r\n\r\n", "[Offset 0]:Syntax error."},  // continuation first
        {"\rX: 1\r\n\r\n", "[Offset 0]:Found illigal character. [0x0d]"},
        {"X`: 1\r\n\r\n", "[Offset 1]:Found illigal character. [0x60]"},
        {"X\xc3: 1\r\n\r\n", "[Offset 1]:Found illigal character. [0xc3]"},
    };
    for (const auto& row : rows) {
        const std::string full(row.input);
        for (size_t cut = row.error ? full.size() : 0; cut <= full.size(); cut++) {
            SCOPED_TRACE(full + " cut at " + std::to_string(cut));
            Bytes in(full.substr(0, cut));
            HTTPMessageParser_Class p;
            p.SetBuffer(in.data(), in.size());
            const bool accepted = row.error == nullptr && cut == full.size();
            EXPECT_EQ(accepted ? SUCCESS : HTTP_INVALID_SYNTAX, p.Parsing_HedderLine());
            EXPECT_EQ(accepted ? 0 : 400, p.m_nStatus);
            if (row.error != nullptr) {
                EXPECT_STREQ(row.error, p.m_strError);
            } else if (accepted) {
                EXPECT_STREQ("", p.m_strError);
                EXPECT_EQ(in.size(), p.m_nPos);
                EXPECT_EQ(row.lines, p.m_HeaderLines.GetCount());
                EXPECT_EQ(row.keepAlive, p.m_nKeepAlive);
                EXPECT_EQ(row.host, p.Flag_HOST);
            }
        }
    }
}

TEST(HeaderLines, NamesKeepTheirColonAndValuesTheirFolding)
{
    Bytes in("Content-Length: 12\r\nX-Fold: a\r\n\tb\r\nX-Fold: second\r\n\r\nBODY");
    HTTPMessageParser_Class p;
    p.SetBuffer(in.data(), in.size());
    ASSERT_EQ(SUCCESS, p.Parsing_HedderLine());
    int n = 0;
    EXPECT_EQ(SUCCESS, p.m_HeaderLines.Search_NameToVal_RtnInt("Content-Length:", &n));
    EXPECT_EQ(12, n);
    EXPECT_EQ("<none>", header(p, "Content-Length"));
    EXPECT_EQ("a\r\n\tb", header(p, "X-Fold:")) << "the first of two repeats, folding kept raw";
    EXPECT_EQ("second", span(p.m_HeaderLines.Get(2)->m_Val));
    EXPECT_EQ('B', in.v[p.m_nPos]) << "the position stops right after the blank line";
}

TEST(HeaderLines, AcceptsAtMost127Lines)
{
    std::string head;
    for (int i = 0; i < 127; i++) {
        head += "X-" + std::to_string(i) + ": v\r\n";
    }
    {
        Bytes in(head + "\r\n");
        HTTPMessageParser_Class p;
        p.SetBuffer(in.data(), in.size());
        EXPECT_EQ(SUCCESS, p.Parsing_HedderLine());
        EXPECT_EQ(127, p.m_HeaderLines.GetCount());
    }
    {
        Bytes in(head + "X-last: v\r\n\r\n");
        HTTPMessageParser_Class p;
        p.SetBuffer(in.data(), in.size());
        EXPECT_EQ(HTTP_INVALID_SYNTAX, p.Parsing_HedderLine());
        EXPECT_EQ(413, p.m_nStatus);
        EXPECT_STREQ("HTTP hedder Lines Over 128.", p.m_strError);
    }
}

struct VersionRow {
    const char* input;
    int code;
    int major;
    int minor;
    const char* protocol;
    const char* note;
};

const VersionRow kVersionRows[] = {
    {"HTTP/1.1 ", SUCCESS, 1, 1, "HTTP", "usual"},
    {"HTTP/1.0\r\n", SUCCESS, 1, 0, "HTTP", "ends at CR"},
    {"PiPP/12.345 ", SUCCESS, 12, 345, "PiPP", "any protocol name, several digits"},
    {"HTTP/1 x", NOTFOUND_PROTOCOLINFO, 1, -1, "HTTP", "no minor version"},
    {"HTTP/.1 ", NOTFOUND_PROTOCOLINFO, -1, -1, "HTTP", "no major digits"},
    {"HTTP/1. ", NOTFOUND_PROTOCOLINFO, 1, -1, "HTTP", "no minor digits"},
    {"HTTP/1.", NOTFOUND_PROTOCOLINFO, 1, -1, "HTTP", "ends after the dot"},
    {"HTTP/", NOTFOUND_PROTOCOLINFO, -1, -1, "HTTP", "ends after the slash"},
    {"HTTP/99999999999999999999.1 ", NOTFOUND_PROTOCOLINFO, -1, -1, "HTTP", "20-digit major overflows"},
    {"HTTP/1.99999999999999999999 ", NOTFOUND_PROTOCOLINFO, 1, -1, "HTTP", "20-digit minor overflows"},
    {"HTTP/1.1", HTTP_INVALID_SYNTAX, 1, -1, "HTTP", "digits run to the end of the buffer"},
    {"HT TP/1.1 ", NOTFOUND_PROTOCOLINFO, -1, -1, "", "blank in the name"},
    {"HTTP1.1 ", NOTFOUND_PROTOCOLINFO, -1, -1, "", "no slash at all"},
};

TEST(ProtocolVersion, Table)
{
    for (const VersionRow& row : kVersionRows) {
        Bytes in(row.input);
        HTTPMessageParser_Class p;
        p.SetBuffer(in.data(), in.size());
        EXPECT_EQ(row.code, p.Get_ProtocolVersion()) << row.note;
        EXPECT_EQ(row.major, p.m_nMajorVersion) << row.note;
        EXPECT_EQ(row.minor, p.m_nMinorVersion) << row.note;
        EXPECT_EQ(row.protocol, span(p.m_Protocol)) << row.note;
    }
}

TEST(Scanner, NumberOverflowIsReportedButTheScanGoesOn)
{
    Bytes in("18446744073709551617;");
    HTTPMessageParser_Class p;
    p.SetBuffer(in.data(), in.size());
    long long v = 0;
    int overflow = 0;
    EXPECT_EQ(SUCCESS, p.GetNumber(&v, &overflow));
    EXPECT_EQ(1, overflow);
    EXPECT_EQ(';', in.v[p.m_nPos]);

    Bytes max("9223372036854775807;");
    p.SetBuffer(max.data(), max.size());
    EXPECT_EQ(SUCCESS, p.GetNumber(&v, &overflow));
    EXPECT_EQ(0, overflow);
    EXPECT_EQ(9223372036854775807LL, v);
}

TEST(Scanner, LeadingLineBreaksAndBlanks)
{
    Bytes crlf("\r\n\r\n\n");
    HTTPMessageParser_Class p;
    p.SetBuffer(crlf.data(), crlf.size());
    EXPECT_EQ(HTTP_INVALID_SYNTAX, p.SkipRead_BeforeHTTPHeader_ReturnCode());
    EXPECT_EQ(400, p.m_nStatus);
    EXPECT_STREQ("All receiving characters were return codes.", p.m_strError);

    Bytes blanks("ab \t ");
    p.Clear();
    p.SetBuffer(blanks.data(), blanks.size());
    p.m_nPos = 2;
    int count = -1;
    EXPECT_EQ(HTTP_INVALID_SYNTAX, p.SkipRead_BetweenSpace(&count));
    EXPECT_EQ(3, count);
    EXPECT_STREQ("[Offset 5]:Syntax error. Start[offset 2] to hedder end were Space[0x20].", p.m_strError);

    Bytes line("HTTP/1.1 x\r\n");
    p.Clear();
    p.SetBuffer(line.data(), line.size());
    p.m_nPos = 8;
    EXPECT_EQ(SUCCESS, p.SkipRead_toNextLine(&count));
    EXPECT_EQ(1, count) << "only the stray x counts";
    EXPECT_EQ(line.size(), p.m_nPos);
}

}  // namespace
