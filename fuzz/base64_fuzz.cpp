// Fuzz target: Base64 of the authorisation line. The first byte selects:
//   bit 0     0: decode the rest as text; 1: encode the rest as bytes
//   bits 1-7  the output size, from 0 to 127 bytes beyond what is needed
// A decoded ASCII result must encode back to a text that decodes to the
// same bytes; an encoded ASCII text must decode back to its input. Outputs sit in
// exactly sized buffers, so a write past them is caught.
#include <cstring>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "fuzz_support.h"
#include "http/base64.h"

namespace {

bool IsAscii(const std::vector<char>& bytes)
{
    for (char c : bytes) {
        if (static_cast<unsigned char>(c) >= 0x80) {
            return false;
        }
    }
    return true;
}

std::vector<char> Decode(const char* in, int len, int room, int* rc)
{
    std::vector<char> out(static_cast<size_t>(room > 0 ? room : 1));
    int got = -1;
    *rc = Base64Decode(in, len, out.data(), room, &got);
    if (*rc == SUCCESS) {
        FUZZ_CHECK(got >= 0 && got <= room);
        for (int i = got; i < room; i++) {
            FUZZ_CHECK(out[static_cast<size_t>(i)] == '\0');
        }
        out.resize(static_cast<size_t>(got));
    }
    return out;
}

std::vector<char> Encode(const char* in, int len, int room, int* rc)
{
    std::vector<char> out(static_cast<size_t>(room > 0 ? room : 1));
    int got = -1;
    *rc = Base64Encode(in, len, out.data(), room, &got);
    if (*rc == SUCCESS) {
        FUZZ_CHECK(got >= 0 && got < room && got % 4 == 0);
        FUZZ_CHECK(strnlen(out.data(), static_cast<size_t>(room)) == static_cast<size_t>(got));
        out.resize(static_cast<size_t>(got));
    }
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 4096) {
        return 0;
    }
    const int extra = data[0] >> 1;
    std::vector<char> in(data + 1, data + size);
    const int len = static_cast<int>(in.size());
    in.reserve(1);  // an empty input is still a valid (non-null) pointer
    int rc = 0;
    if ((data[0] & 1) == 0) {
        std::vector<char> bytes = Decode(in.data(), len, len * 3 / 4 - 64 + extra, &rc);
        if (rc != SUCCESS) {
            return 0;
        }
        const int n = static_cast<int>(bytes.size());
        std::vector<char> text = Encode(bytes.data(), n, (n + 2) / 3 * 4 + 1, &rc);
        FUZZ_CHECK(rc == SUCCESS);
        std::vector<char> again = Decode(text.data(), static_cast<int>(text.size()), n, &rc);
        FUZZ_CHECK(rc == SUCCESS);
        // Bytes of 0x80 and above encode as signed chars, so only ASCII is
        // sure to come back unchanged.
        FUZZ_CHECK(!IsAscii(bytes) || again == bytes);
        return 0;
    }
    std::vector<char> text = Encode(in.data(), len, (len + 2) / 3 * 4 + 1 - 64 + extra, &rc);
    if (rc != SUCCESS) {
        FUZZ_CHECK(rc == DATA_LARGE_THEN_BUF);
        return 0;
    }
    std::vector<char> back = Decode(text.data(), static_cast<int>(text.size()), len, &rc);
    FUZZ_CHECK(rc == SUCCESS);
    FUZZ_CHECK(!IsAscii(in) || back == in);
    return 0;
}
