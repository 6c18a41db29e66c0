#ifndef OSTREL_TESTS_HTTP_PARSE_TEST_UTIL_H
#define OSTREL_TESTS_HTTP_PARSE_TEST_UTIL_H

#include <string>
#include <vector>

#include "common/return_codes.h"
#include "common/tokens.h"
#include "http/message_digest.h"

// Parsers borrow their bytes: each run gets an exactly sized heap copy so
// that AddressSanitizer reports any read past the end.
struct Bytes {
    explicit Bytes(const std::string& s) : v(s.begin(), s.end()) {}
    unsigned char* data() { return v.empty() ? nullptr : v.data(); }
    int size() const { return static_cast<int>(v.size()); }
    std::vector<unsigned char> v;
};

inline std::string span(const OneToken_Class& t)
{
    return t.GetPtr() == nullptr ? std::string()
                                 : std::string(reinterpret_cast<const char*>(t.GetPtr()), t.GetLength());
}

// "name=value;name=value" of a table, in order, for comparing whole results.
inline std::string pairs(const StaticArr_NameValToken_Class& table)
{
    std::string out;
    for (int i = 0; i < table.GetCount(); i++) {
        if (i > 0) {
            out += ";";
        }
        std::string val = span(table.Get(i)->m_Val);
        out += span(table.Get(i)->m_Name) + (val == std::string(1, '\0') ? std::string("\\0") : val);
    }
    return out;
}

// The digests in lower-case hex, as the Digest answers carry them.
template <size_t N> std::string HexDigest(void (*digest)(const void*, size_t, char (&)[N]), const std::string& s)
{
    char out[N];
    digest(s.data(), s.size(), out);
    return out;
}
inline std::string md5(const std::string& s)
{
    return HexDigest(Md5Hex, s);
}
inline std::string sha256(const std::string& s)
{
    return HexDigest(Sha256Hex, s);
}

#endif
