// Fuzz target: a camera's multipart picture stream. The first byte selects:
//   bits 0-1  0: the part head parser
//             1: the stream reader fed the input whole: the response
//                head, then parts read into the reader's buffer and, from a
//                second connection, straight into the caller's memory; both
//                ways must deliver the same parts and failures
//             2,3: the buffered reader, whole and again cut in up to three
//                pieces; both runs must give the same results
//   bits 2-3  the reader's buffer size (256, 1024, 4096, 16384 bytes)
#include <cstring>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "fuzz_support.h"
#include "http/multipart_buffer.h"
#include "http/multipart_parser.h"

namespace {

using fuzz::CheckHead;

void ParsePartHead(const uint8_t* data, size_t size)
{
    HTTPMultiPartResponseParser_Class parser;
    if (fuzz::ParseCopy(data, size, &parser, &HTTPMultiPartResponseParser_Class::ParsingMulti) != SUCCESS) {
        FUZZ_CHECK(parser.m_nStatus == 400 || parser.m_nStatus == 413);
    }
}

// The stream head, then up to 16 parts until the first failure. direct:
// parts are received into the caller's memory (HttpReadMultiInto).
std::string ReadStream(const uint8_t* data, size_t size, int capacity, const std::vector<size_t>& cuts, bool direct)
{
    PieceSource feed(data, size, cuts);
    HTTPMultiPartResponseBuffer_Class mp;
    FUZZ_CHECK(mp.Init(capacity) == SUCCESS);
    mp.SetByteSource(&feed);
    SockExitFlag exitFlag{0};
    int rc = mp.HttpReadFirst(-1, 5000, &exitFlag);
    std::string log = fuzz::ReadOutcome(mp, rc);
    if (rc == SUCCESS) {
        FUZZ_CHECK(mp.m_nBoundaryLength >= 1 &&
                   mp.m_nBoundaryLength <= HTTPMultiPartResponseBuffer_Class::BOUNDARY_SIZE);
        log += std::string(mp.GetBoundary(), static_cast<size_t>(mp.m_nBoundaryLength)) + "\n";
    }
    std::vector<char> dst(static_cast<size_t>(capacity));
    for (int n = 0; rc == SUCCESS && n < 16; n++) {
        int got = -1;
        rc = direct ? mp.HttpReadMultiInto(-1, 5000, &exitFlag, dst.data(), capacity, &got)
                    : mp.HttpReadMulti(-1, 5000, &exitFlag);
        log += fuzz::ReadOutcome(mp, rc);
        if (rc != SUCCESS) {
            break;
        }
        FUZZ_CHECK(mp.m_nStatus == 200 && mp.m_nContentLength >= 1);
        FUZZ_CHECK(mp.m_nBodyLength == mp.m_nContentLength + 2);
        const char* part = reinterpret_cast<const char*>(mp.m_pBuffer + mp.m_nBodyStart);
        if (direct) {
            FUZZ_CHECK(got == mp.m_nContentLength);
            part = dst.data();
        } else {
            CheckHead(mp.Parser, mp.m_pBuffer, static_cast<size_t>(mp.m_nCapacity));
            FUZZ_CHECK(mp.m_nBodyStart + mp.m_nBodyLength <= mp.m_nCapacity);
        }
        log += fuzz::Str(mp.Parser.m_Text) + "\n" + std::string(part, static_cast<size_t>(mp.m_nContentLength)) + "\n";
    }
    return log;
}

std::string ReadBuffered(const uint8_t* data, size_t size, int capacity, const std::vector<size_t>& cuts)
{
    return ReadStream(data, size, capacity, cuts, false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return fuzz::RunHttpTarget(data, size, [](uint8_t sel, const uint8_t* data, size_t size, int capacity) {
        switch (sel & 3) {
        case 0: ParsePartHead(data, size); break;
        case 1: {
            // The direct read into a ring slot refuses a part that the peer's close cut short, where the
            // buffered read keeps what came; up to that part both read the same.
            const std::string buffered = ReadStream(data, size, capacity, {}, false);
            std::string direct = ReadStream(data, size, capacity, {}, true);
            if (direct != buffered) {
                // Leave out the direct read's last line, its failure on the cut part.
                const size_t last = direct.size() >= 2 ? direct.rfind('\n', direct.size() - 2) : std::string::npos;
                direct.resize(last == std::string::npos ? 0 : last + 1);
                FUZZ_CHECK(buffered.compare(0, direct.size(), direct) == 0);
            }
            break;
        }
        default: fuzz::SameWholeAndSplit(data, size, capacity, ReadBuffered); break;
        }
    });
}
