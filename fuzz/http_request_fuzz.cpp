// Fuzz target: what a control-port client sends. The first byte selects:
//   bits 0-1  0: the request head parser, then the query's parameters
//             1: the parameter parser alone (query or POST body text)
//             2: the request reader fed the input whole
//             3: the same, whole and again cut in up to three pieces; the
//                two runs must give the same answers
//   bits 2-3  the reader's buffer size (256, 1024, 4096, 16384 bytes)
//   bit 4     instead of all the above: the rest as parameters sent three
//             ways, in a GET query, as a POST body and as the part of a
//             POST body that the part headers point at (bits 5-7: bytes
//             before the part); all three must give the same answer
// The reader path covers POST bodies and their parameter part.
#include <cstring>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "fuzz_support.h"
#include "http/cgi_param_parser.h"
#include "http/request_buffer.h"
#include "http/request_parser.h"

namespace {

void CheckParams(const CGIParamParser_Class& p, const unsigned char* text, size_t size)
{
    FUZZ_CHECK(p.m_Params.GetCount() <= CGIParamParser_Class::PARAMS_MAX);
    for (int i = 0; i < p.m_Params.GetCount(); i++) {
        const NameValToken_Class* nv = p.m_Params.Get(i);
        FUZZ_CHECK(fuzz::Inside(nv->m_Name, text, size));
        FUZZ_CHECK(nv->m_Name.GetLength() >= 2);  // a name and its '='
        FUZZ_CHECK(nv->m_Name.GetPtr()[nv->m_Name.GetLength() - 1] == '=');
        FUZZ_CHECK(nv->m_Val.GetLength() >= 1);
        bool nulValue = nv->m_Val.GetLength() == 1 && nv->m_Val.GetPtr()[0] == '\0';
        FUZZ_CHECK(nulValue || fuzz::Inside(nv->m_Val, text, size));
        for (int k = 0; !nulValue && k < nv->m_Val.GetLength(); k++) {
            unsigned char c = nv->m_Val.GetPtr()[k];
            FUZZ_CHECK(c != '=' && c != '&' && c != '\r' && c != '\n');
        }
    }
}

void ParseHead(const uint8_t* data, size_t size)
{
    std::vector<unsigned char> buf(data, data + size);
    HTTPRequestParser_Class parser;
    int rc = parser.Parsing(buf.data(), static_cast<int>(buf.size()));
    FUZZ_CHECK(strnlen(parser.m_strRequestError, sizeof parser.m_strRequestError) < sizeof parser.m_strRequestError);
    FUZZ_CHECK(strnlen(parser.m_strError, sizeof parser.m_strError) < sizeof parser.m_strError);
    FUZZ_CHECK(parser.m_nPos >= 0 && parser.m_nPos <= parser.m_nSize);
    if (rc != SUCCESS) {
        FUZZ_CHECK(parser.m_nStatus == 400 || parser.m_nStatus == 413);
        return;
    }
    FUZZ_CHECK(parser.m_nStatus == 0);
    FUZZ_CHECK(parser.m_HeaderLines.GetCount() < HTTPMessageParser_Class::HEADER_LINES_MAX);
    FUZZ_CHECK(fuzz::Inside(parser.Method, buf.data(), buf.size()));
    FUZZ_CHECK(fuzz::Inside(parser.URI, buf.data(), buf.size()));
    FUZZ_CHECK(fuzz::Inside(parser.m_Protocol, buf.data(), buf.size()));
    const HTTPURIParser_Class& uri = parser.URIParser;
    FUZZ_CHECK(fuzz::Inside(uri.Path, buf.data(), buf.size()));
    FUZZ_CHECK(fuzz::Inside(uri.FileName, buf.data(), buf.size()));
    FUZZ_CHECK(fuzz::Inside(uri.CGIParam, buf.data(), buf.size()));
    FUZZ_CHECK(uri.FileName.GetLength() >= 1 && uri.FileName.GetPtr()[0] == '/');
    for (int i = 0; i < parser.m_HeaderLines.GetCount(); i++) {
        const NameValToken_Class* nv = parser.m_HeaderLines.Get(i);
        FUZZ_CHECK(fuzz::Inside(nv->m_Name, buf.data(), buf.size()));
        FUZZ_CHECK(fuzz::Inside(nv->m_Val, buf.data(), buf.size()));
        FUZZ_CHECK(nv->m_Name.GetPtr()[nv->m_Name.GetLength() - 1] == ':');
    }
    if (uri.Flag_Have_CGIParam == 2) {
        CGIParamParser_Class params;
        if (params.Parsing(uri.CGIParam.GetPtr(), uri.CGIParam.GetLength()) == SUCCESS) {
            CheckParams(params, buf.data(), buf.size());
        }
    }
}

void ParseParams(const uint8_t* data, size_t size)
{
    std::vector<unsigned char> buf(data, data + size);
    CGIParamParser_Class params;
    int rc = params.Parsing(buf.empty() ? nullptr : buf.data(), static_cast<int>(buf.size()));
    if (rc == SUCCESS) {
        CheckParams(params, buf.data(), buf.size());
    } else {
        FUZZ_CHECK(rc == CGIPARAMS_SYNTAX_ERR || (buf.empty() && rc == DEBUG_WARNING));
    }
}

// Reads requests until the first failure (at most 16) and describes each
// answer: code, status, text, and for a success what the server acts on.
std::string ReadAll(const uint8_t* data, size_t size, int capacity, const std::vector<size_t>& cuts)
{
    return fuzz::ReadMessages<HTTPRequestBuffer_Class>(
        data, size, capacity, cuts, [](HTTPRequestBuffer_Class& req, int rc) -> std::string {
            if (rc != SUCCESS) {
                FUZZ_CHECK(req.m_nStatus >= 400 && req.m_nStatus <= 415);
                return "";
            }
            FUZZ_CHECK(req.m_nStatus == 200);
            CheckParams(req.CGIParam, req.m_pBuffer, static_cast<size_t>(req.m_nCapacity));
            return std::to_string(req.Parser.Flag_Num) + " " + fuzz::Str(req.Parser.URIParser.FileName) + " " +
                   std::to_string(req.Is_KeepAlive()) + "\n" + fuzz::Pairs(req.CGIParam.m_Params);
        });
}

// One request through the reader: its code and, on success, the
// parameters.
std::string ReadOne(const std::string& request)
{
    PieceSource feed({request}, true);
    HTTPRequestBuffer_Class req;
    FUZZ_CHECK(req.Init(4096) == SUCCESS);
    req.SetByteSource(&feed);
    SockExitFlag exitFlag{0};
    int rc = req.HttpRead(-1, 5000, &exitFlag);
    return std::to_string(rc) + "\n" + (rc == SUCCESS ? fuzz::Pairs(req.CGIParam.m_Params) : "");
}

void CompareParamCarriers(const uint8_t* data, size_t size, int before)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    if (text.empty() || size > 1024) {
        return;
    }
    for (unsigned char c : text) {
        if (c <= ' ' || c >= 0x7f) {
            return;  // would end the request target (or the request line)
        }
    }
    const std::string get = ReadOne("GET /a.cgi?" + text + " HTTP/1.1\r\n\r\n");
    // Only texts that a request line can carry are compared.
    if (get.compare(0, get.find('\n'), std::to_string(SUCCESS)) != 0 &&
        get.compare(0, get.find('\n'), std::to_string(CGIPARAMS_SYNTAX_ERR)) != 0) {
        return;
    }
    const std::string post =
        ReadOne("POST /a.cgi HTTP/1.1\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n" + text);
    // Bytes around the part that would break the parameters if read.
    const std::string body = std::string("&=?=&&=\r\n").substr(0, static_cast<size_t>(before)) + text + "=&=";
    const std::string pipp = ReadOne("POST /a.cgi HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                                     "\r\nNumOfPart: 1\r\nPart_0_Offset: " + std::to_string(before) +
                                     "\r\nPart_0_Length: " + std::to_string(size) + "\r\n\r\n" + body);
    if (get != post || get != pipp) {
        fprintf(stderr, "get:\n%s\npost:\n%s\npart:\n%s\n", get.c_str(), post.c_str(), pipp.c_str());
    }
    FUZZ_CHECK(get == post && get == pipp);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::RunHttpTarget(data, size, [](uint8_t sel, const uint8_t* data, size_t size, int capacity) {
        if (sel & 0x10) {
            CompareParamCarriers(data, size, sel >> 5);
            return;
        }
        switch (sel & 3) {
        case 0: ParseHead(data, size); break;
        case 1: ParseParams(data, size); break;
        case 2: ReadAll(data, size, capacity, {}); break;
        default: fuzz::SameWholeAndSplit(data, size, capacity, ReadAll); break;
        }
    });
}
