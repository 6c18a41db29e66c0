// Fuzz target: the number readers. The first byte selects:
//   bits 0-1  0: digit_check; 1: OneToken_Class::Atoi; 2, 3: Atoll
//   bits 2-7  digit_check's maximum length (1 to 64) and range
// Results are compared with an exact reading wherever the value fits the type.
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "common/string_utils.h"
#include "common/tokens.h"
#include "fuzz_support.h"

namespace {

// Leading blanks (space, HT, CR, LF), an optional '-', digits: the exact value, or false when
// it does not fit in [lo, hi] (lo <= 0 <= hi). The magnitude is gathered in unsigned 64 bits,
// which holds every long long's magnitude; 128-bit integers do not exist on 32-bit targets.
bool Exact(const std::vector<unsigned char>& s, long long lo, long long hi, long long* value)
{
    size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r' || s[i] == '\n')) {
        i++;
    }
    bool neg = i < s.size() && s[i] == '-';
    i += neg;
    const unsigned long long limit =
        neg ? 0ULL - static_cast<unsigned long long>(lo) : static_cast<unsigned long long>(hi);
    unsigned long long m = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; i++) {
        const unsigned d = s[i] - '0';
        if (d > limit || m > (limit - d) / 10) {
            return false;
        }
        m = m * 10 + d;
    }
    // m <= |LLONG_MIN| here, so the wrap-around negation is the exact value.
    *value = neg ? static_cast<long long>(0ULL - m) : static_cast<long long>(m);
    return true;
}

void CheckDigits(const uint8_t* data, size_t size, int maxlen, long long min, long long max)
{
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    int rc = digit_check(text.data(), maxlen, min, max, 1);
    const size_t len = strnlen(reinterpret_cast<const char*>(data), size);
    if (rc == OVER_CHAR) {
        FUZZ_CHECK(len >= static_cast<size_t>(maxlen) && text[static_cast<size_t>(maxlen) - 1] == '\0');
        return;
    }
    FUZZ_CHECK(len < static_cast<size_t>(maxlen));
    bool digits = true;
    for (size_t i = 0; i < len; i++) {
        digits = digits && (text[i] == '-' || (text[i] >= '0' && text[i] <= '9'));
    }
    if (!digits) {
        FUZZ_CHECK(rc == INVALID_CODE);
        return;
    }
    // A value of the text's first number (a '-' elsewhere ends it) within
    // the range is accepted, one outside is not.
    std::vector<unsigned char> s(text.begin(), text.begin() + static_cast<long>(len));
    long long v = 0;
    if (Exact(s, LLONG_MIN, LLONG_MAX, &v)) {
        FUZZ_CHECK((rc == SUCCESS) == (v >= min && v <= max));
    } else {
        FUZZ_CHECK(rc == SUCCESS || rc == OUT_OF_RANGE);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    uint8_t sel = 0;
    if (!fuzz::TakeSelector(&data, &size, 4096, &sel)) {
        return 0;
    }
    if ((sel & 3) == 0) {
        static const long long kRanges[4][2] = {{0, 65535}, {-1, 1}, {LLONG_MIN, LLONG_MAX}, {1, 0}};
        const long long* r = kRanges[(sel >> 6) & 3];
        CheckDigits(data, size, 1 + ((sel >> 2) & 15) * 4, r[0], r[1]);
        return 0;
    }
    if (size < 1 || size > static_cast<size_t>(ONETOKEN_MAXLEN)) {
        return 0;
    }
    std::vector<unsigned char> span(data, data + size);
    OneToken_Class token;
    FUZZ_CHECK(token.Copy_OnlyPointer(span.data(), static_cast<int>(span.size())) == SUCCESS);
    long long exact = 0;
    if ((sel & 3) == 1) {
        int v = 0;
        int rc = token.Atoi(&v);
        if (Exact(span, INT_MIN + 1, INT_MAX, &exact)) {
            FUZZ_CHECK(rc == SUCCESS && v == exact);
        }
    } else {
        long long v = 0;
        int rc = token.Atoll(&v);
        if (Exact(span, LLONG_MIN + 1, LLONG_MAX, &exact)) {
            FUZZ_CHECK(rc == SUCCESS && v == exact);
        }
    }
    return 0;
}
