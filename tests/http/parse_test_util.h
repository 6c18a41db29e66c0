#ifndef OSTREL_TESTS_HTTP_PARSE_TEST_UTIL_H
#define OSTREL_TESTS_HTTP_PARSE_TEST_UTIL_H

#include <string>
#include <vector>

#include "common/return_codes.h"
#include "common/tokens.h"

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

#endif
