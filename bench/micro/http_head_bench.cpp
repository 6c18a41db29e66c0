// Head parsing: a viewer's request head as the control port reads it, and
// one part head of the camera's multipart stream. The parsers work in place,
// so each pass starts from a fresh copy of the head (a few hundred bytes;
// the copy is part of the figure and small beside the parse).
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "http/multipart_parser.h"
#include "http/request_parser.h"

namespace {

const char kGetImageHead[] = "GET /ptippreimg.cgi?get_image=1234567&time=1700000000 HTTP/1.1\r\n"
                             "Host: 192.0.2.1:8080\r\n"
                             "User-Agent: recorder/1.0\r\n"
                             "Accept: */*\r\n"
                             "Connection: close\r\n"
                             "\r\n";

const char kPartHead[] = "\r\n--myboundary\r\n"
                         "Content-Type: image/jpeg\r\n"
                         "Content-Length: 18342\r\n"
                         "\r\n";

std::string browser_head()
{
    std::string head = "GET /ptippreimg.cgi?img_login=1&a=b&c=d HTTP/1.1\r\nHost: 192.0.2.1\r\n";
    for (int i = 0; i < 20; ++i) {
        head += "X-Header-" + std::to_string(i) + ": some value of moderate length " + std::to_string(i) + "\r\n";
    }
    return head + "\r\n";
}

void run_request(benchmark::State& state, const std::string& head)
{
    HTTPRequestParser_Class parser;
    std::vector<unsigned char> buf(head.size());
    for (auto _ : state) {
        std::memcpy(buf.data(), head.data(), head.size());
        parser.Clear();
        int rc = parser.Parsing(buf.data(), static_cast<int>(buf.size()));
        if (rc != SUCCESS) {
            state.SkipWithError("request head did not parse");
            break;
        }
        benchmark::DoNotOptimize(parser.m_HeaderLines);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(head.size()));
}

void BM_RequestHead_GetImage(benchmark::State& state)
{
    run_request(state, kGetImageHead);
}
void BM_RequestHead_TwentyLines(benchmark::State& state)
{
    run_request(state, browser_head());
}

void BM_PartHead(benchmark::State& state)
{
    HTTPMultiPartResponseParser_Class parser;
    const size_t n = sizeof(kPartHead) - 1;
    std::vector<unsigned char> buf(n);
    for (auto _ : state) {
        std::memcpy(buf.data(), kPartHead, n);
        parser.Clear();
        int rc = parser.ParsingMulti(buf.data(), static_cast<int>(n));
        if (rc != SUCCESS) {
            state.SkipWithError("part head did not parse");
            break;
        }
        benchmark::DoNotOptimize(parser.m_HeaderLines);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(n));
}

}  // namespace

BENCHMARK(BM_RequestHead_GetImage);
BENCHMARK(BM_RequestHead_TwentyLines);
BENCHMARK(BM_PartHead);
