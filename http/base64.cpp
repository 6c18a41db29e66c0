#include "http/base64.h"

#include <stdint.h>
#include <string.h>

#include "common/return_codes.h"

namespace {

// Value -> character. The last one is '-' where standard Base64 has '/'.
constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-";

// A byte widened as the C char of the original platform (signed): bytes of
// 0x80 and above carry ones into every higher bit.
uint32_t widen_signed(unsigned char b)
{
    return static_cast<uint32_t>(static_cast<int32_t>(static_cast<signed char>(b)));
}

}  // namespace

int BinToAscii(int value)
{
    if (value < 0 || value > 63) {
        return -1;
    }
    return kAlphabet[value];
}

int AsciiToBin(int c)
{
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    if (c == '+') {
        return 62;
    }
    if (c == '-') {
        return 63;
    }
    return -1;
}

int Base64Encode(const char* in, int inLen, char* out, int outSize, int* outLen)
{
    if (in == nullptr || out == nullptr || inLen < 0) {
        return INVALID_ARGUMENT;
    }
    if (outSize > 0) {
        memset(out, 0, static_cast<size_t>(outSize));
    }
    const long long groups = (static_cast<long long>(inLen) + 2) / 3;
    const long long textLen = groups * 4;
    if (textLen + 1 > outSize) {
        return DATA_LARGE_THEN_BUF;
    }
    const unsigned char* src = reinterpret_cast<const unsigned char*>(in);
    char* dst = out;
    for (long long g = 0; g < groups; ++g) {
        const long long i = g * 3;
        uint32_t v = widen_signed(src[i]) << 16;
        if (i + 1 < inLen) {
            v |= widen_signed(src[i + 1]) << 8;
        }
        if (i + 2 < inLen) {
            v |= widen_signed(src[i + 2]);
        }
        *dst++ = kAlphabet[(v >> 18) & 63];
        *dst++ = kAlphabet[(v >> 12) & 63];
        *dst++ = kAlphabet[(v >> 6) & 63];
        *dst++ = kAlphabet[v & 63];
    }
    // Only the characters that carry input bits stay; the rest become '='.
    const long long significant = (8LL * inLen + 5) / 6;
    for (long long k = significant; k < textLen; ++k) {
        out[k] = '=';
    }
    out[textLen] = '\0';
    if (outLen != nullptr) {
        *outLen = static_cast<int>(textLen);
    }
    return SUCCESS;
}

int Base64Decode(const char* in, int inLen, char* out, int outSize, int* outLen)
{
    if (in == nullptr || out == nullptr || inLen < 0) {
        return INVALID_ARGUMENT;
    }
    if (outSize > 0) {
        memset(out, 0, static_cast<size_t>(outSize));
    }
    int chars = 0;
    while (chars < inLen && in[chars] != '=') {
        if (AsciiToBin(static_cast<unsigned char>(in[chars])) < 0) {
            return INVALID_ARGUMENT;
        }
        ++chars;
    }
    if (chars % 4 == 1) {
        return INVALID_ARGUMENT;
    }
    const long long bytes = (6LL * chars) / 8;
    if (bytes > outSize) {
        return DATA_LARGE_THEN_BUF;
    }
    uint32_t acc = 0;
    int bits = 0;
    int n = 0;
    for (int i = 0; i < chars; ++i) {
        acc = (acc << 6) | static_cast<uint32_t>(AsciiToBin(static_cast<unsigned char>(in[i])));
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out[n++] = static_cast<char>((acc >> bits) & 0xFF);
        }
    }
    if (outLen != nullptr) {
        *outLen = n;
    }
    return SUCCESS;
}
