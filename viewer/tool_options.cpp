#include "viewer/tool_options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace otools {

bool ParseInteger(const std::string& text, long long* value)
{
    if (text.empty() || text.size() > 20)
        return false;
    const size_t start = text[0] == '-' ? 1 : 0;
    if (start == text.size() || text.find_first_not_of("0123456789", start) != std::string::npos)
        return false;
    errno = 0;
    const long long v = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE)
        return false;
    *value = v;
    return true;
}

bool ParseIntegerIn(const std::string& text, long long lo, long long hi, long long* value)
{
    long long v = 0;
    if (!ParseInteger(text, &v) || v < lo || v > hi)
        return false;
    *value = v;
    return true;
}

bool ParseIntegerIn(const std::string& text, long long lo, long long hi, int* value)
{
    long long v = 0;
    if (!ParseIntegerIn(text, lo, hi, &v))
        return false;
    *value = static_cast<int>(v);
    return true;
}

int UsageError(const char* tool, const std::string& msg)
{
    std::fprintf(stderr, "%s: %s (see --help)\n", tool, msg.c_str());
    return 2;
}

}  // namespace otools
