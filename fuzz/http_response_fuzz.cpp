// Fuzz target: what a camera or the schedule server answers. The first byte
// selects:
//   bits 0-1  0: the response head parser
//             1: the response reader fed the input whole
//             2: the same, whole and again cut in up to three pieces; the
//                two runs must give the same results
//             3: the rest as the header lines of a request, a response and
//                a part head (first lines of equal length put them at the
//                same offsets); the shared scanner must read all three alike
//   bits 2-3  the reader's buffer size (256, 1024, 4096, 16384 bytes)
#include <cstring>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "fuzz_support.h"
#include "http/multipart_parser.h"
#include "http/request_parser.h"
#include "http/response_buffer.h"
#include "http/response_parser.h"

namespace {

using fuzz::CheckHead;

void ParseHead(const uint8_t* data, size_t size)
{
    HTTPResponseParser_Class parser;
    const int rc = fuzz::ParseCopy(data, size, &parser, &HTTPResponseParser_Class::Parsing);
    if (rc == SUCCESS) {
        FUZZ_CHECK(parser.m_nStatus == 0 && parser.m_nStatusCode == 200 && parser.m_strError[0] == '\0');
    } else {
        FUZZ_CHECK(parser.m_nStatus == 400 || parser.m_nStatus == 413);
        FUZZ_CHECK(parser.m_strError[0] != '\0');
    }
}

std::string ReadAll(const uint8_t* data, size_t size, int capacity, const std::vector<size_t>& cuts)
{
    return fuzz::ReadMessages<HTTPResponseBuffer_Class>(
        data, size, capacity, cuts, [](HTTPResponseBuffer_Class& res, int rc) -> std::string {
            if (rc != SUCCESS) {
                return "";
            }
            CheckHead(res.Parser, res.m_pBuffer, static_cast<size_t>(res.m_nCapacity));
            FUZZ_CHECK(res.m_nStatus == 200 && res.m_nBodyLength >= 1);
            return std::to_string(res.Is_KeepAlive()) + " " + fuzz::Str(res.Parser.m_Text) + "\n" +
                   std::string(reinterpret_cast<const char*>(res.m_pBuffer + res.m_nBodyStart),
                               static_cast<size_t>(res.m_nBodyLength)) +
                   "\n";
        });
}

// The header-line outcome of one parser: code, status, the scanner's text,
// the flags and every line.
std::string Lines(int rc, const HTTPMessageParser_Class& p)
{
    return std::to_string(rc) + " " + std::to_string(p.m_nStatus) + " " + p.m_strError + "\n" +
           std::to_string(p.Flag_HOST) + std::to_string(p.m_nKeepAlive) + "\n" + fuzz::Pairs(p.m_HeaderLines);
}

void CompareHeaderLines(const uint8_t* data, size_t size)
{
    // A blank at the start would fold the first header line into the
    // response's reason phrase and the part's boundary line (their first
    // lines may be folded; a request line may not), and with nothing after
    // the first line those two fault on its LF, the request line after it.
    if (size == 0 || data[0] == ' ' || data[0] == '\t') {
        return;
    }
    const std::string lines(reinterpret_cast<const char*>(data), size);
    std::string request = "GET /a HTTP/1.1\r\n" + lines;
    std::string response = "HTTP/1.1 200 OK\r\n" + lines;
    std::string part = "--myboundary123\r\n" + lines;
    auto bytes = [](std::string& s) { return reinterpret_cast<unsigned char*>(&s[0]); };
    HTTPRequestParser_Class req;
    HTTPResponseParser_Class res;
    HTTPMultiPartResponseParser_Class mp;
    std::string a = Lines(req.Parsing(bytes(request), static_cast<int>(request.size())), req);
    std::string b = Lines(res.Parsing(bytes(response), static_cast<int>(response.size())), res);
    std::string c = Lines(mp.ParsingMulti(bytes(part), static_cast<int>(part.size())), mp);
    fuzz::Same(a, b);
    fuzz::Same(a, c);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::RunHttpTarget(data, size, [](uint8_t sel, const uint8_t* data, size_t size, int capacity) {
        switch (sel & 3) {
        case 0: ParseHead(data, size); break;
        case 1: ReadAll(data, size, capacity, {}); break;
        case 3: CompareHeaderLines(data, size); break;
        default: fuzz::SameWholeAndSplit(data, size, capacity, ReadAll); break;
        }
    });
}
