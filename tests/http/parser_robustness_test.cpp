#include <gtest/gtest.h>

#include <random>
#include <string>

#include "common/return_codes.h"
#include "http/cgi_param_parser.h"
#include "http/multipart_parser.h"
#include "http/request_parser.h"
#include "http/response_parser.h"
#include "parse_test_util.h"

namespace {

// Mutated copies of valid heads (bytes replaced, inserted, dropped, and the
// input cut short) run through every parser. Under AddressSanitizer each
// input sits in an exactly sized buffer, so any read past its end fails the
// run; the checks below hold for every outcome.
std::string Mutate(const std::string& seed, std::mt19937& rng)
{
    static const std::string kInteresting = "\r\n \t:/?=&.%0123456789\x7f\x80\xff";
    std::string s = seed;
    int edits = 1 + static_cast<int>(rng() % 4);
    for (int e = 0; e < edits && !s.empty(); e++) {
        size_t at = rng() % s.size();
        char c = (rng() % 2) ? kInteresting[rng() % kInteresting.size()] : static_cast<char>(rng() % 256);
        switch (rng() % 4) {
        case 0:
            s[at] = c;
            break;
        case 1:
            s.insert(s.begin() + static_cast<long>(at), c);
            break;
        case 2:
            s.erase(at, 1);
            break;
        default:
            s.resize(at);
            break;
        }
    }
    return s;
}

bool Inside(const OneToken_Class& t, const Bytes& in)
{
    return t.GetPtr() == nullptr ||
           (t.GetPtr() >= in.v.data() && t.GetPtr() + t.GetLength() <= in.v.data() + in.v.size());
}

void CheckHeaders(const HTTPMessageParser_Class& p, const Bytes& in)
{
    for (int i = 0; i < p.m_HeaderLines.GetCount(); i++) {
        const NameValToken_Class* h = p.m_HeaderLines.Get(i);
        ASSERT_TRUE(Inside(h->m_Name, in) && Inside(h->m_Val, in));
        ASSERT_EQ(':', h->m_Name.GetPtr()[h->m_Name.GetLength() - 1]);
    }
}

void CheckOutcome(int rc, const HTTPMessageParser_Class& p)
{
    if (rc == SUCCESS) {
        EXPECT_EQ(0, p.m_nStatus);
    } else {
        EXPECT_TRUE(p.m_nStatus == 400 || p.m_nStatus == 413) << p.m_nStatus;
    }
}

TEST(ParserRobustness, MutatedHeadsNeverEscapeTheirBuffer)
{
    const std::string seeds[] = {
        "GET /ptippreimg.cgi?img_login=1&get_image=22 HTTP/1.1\r\nHost: a\r\nX: 1\r\n two\r\n\r\n",
        "POST http://h:80/trcom.cgi HTTP/1.0\nContent-Length: 5\nConnection: close\n\n",
        "HTTP/1.1 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=b\r\n\r\n",
        "\r\n--myboundary\r\nContent-Type: image/jpeg\r\nContent-Length: 12\r\n\r\n",
    };
    std::mt19937 rng(20240607);
    for (int round = 0; round < 3000; round++) {
        Bytes in(Mutate(seeds[round % 4], rng));
        SCOPED_TRACE(std::string(in.v.begin(), in.v.end()));

        HTTPRequestParser_Class request;
        int rc = request.Parsing(in.data(), in.size());
        CheckOutcome(rc, request);
        CheckHeaders(request, in);
        if (rc == SUCCESS) {
            EXPECT_TRUE(Inside(request.URIParser.FileName, in) && Inside(request.URIParser.CGIParam, in));
            EXPECT_EQ('/', request.URIParser.FileName.GetPtr()[0]);
        }

        HTTPResponseParser_Class response;
        CheckOutcome(response.Parsing(in.data(), in.size()), response);
        CheckHeaders(response, in);

        HTTPMultiPartResponseParser_Class part;
        CheckOutcome(part.ParsingMulti(in.data(), in.size()), part);
        CheckHeaders(part, in);
        EXPECT_TRUE(Inside(part.m_Text, in));
    }
}

TEST(ParserRobustness, MutatedParametersKeepTheirShape)
{
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; round++) {
        Bytes in(Mutate("img_login=1&get_image=&x=%41+b", rng));
        CGIParamParser_Class p;
        if (p.Parsing(in.data(), in.size()) != SUCCESS) {
            continue;
        }
        for (int i = 0; i < p.m_Params.GetCount(); i++) {
            const NameValToken_Class* kv = p.m_Params.Get(i);
            ASSERT_TRUE(Inside(kv->m_Name, in));
            ASSERT_GE(kv->m_Name.GetLength(), 2);
            ASSERT_EQ('=', kv->m_Name.GetPtr()[kv->m_Name.GetLength() - 1]);
            ASSERT_GE(kv->m_Val.GetLength(), 1) << "an empty value is one NUL byte";
        }
    }
}

} // namespace
