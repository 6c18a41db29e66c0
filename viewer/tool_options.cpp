#include "viewer/tool_options.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <getopt.h>

#include "viewer/tool_net.h"

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

std::function<bool(const std::string&)> NumberOption(double lo, double hi, double* to)
{
    return [=](const std::string& a) {
        char* end = nullptr;
        const double v = std::strtod(a.c_str(), &end);
        if (a.empty() || *end || !(v >= lo && v <= hi))
            return false;
        *to = v;
        return true;
    };
}

std::function<bool(const std::string&)> HostPortOption(int defaultPort, std::string* host, int* port)
{
    return [=](const std::string& a) { return ParseHostPort(a, defaultPort, host, port); };
}

std::function<bool(const std::string&)> TextOption(std::string* to)
{
    return [=](const std::string& a) {
        *to = a;
        return true;
    };
}

std::function<bool(const std::string&)> FlagOption(bool* to, bool value)
{
    return [=](const std::string&) {
        *to = value;
        return true;
    };
}

int ParseToolOptions(const char* tool, const char* usage, int argc, char** argv, const std::vector<ToolOption>& table)
{
    std::vector<option> longs;
    for (size_t i = 0; i < table.size(); ++i)
        longs.push_back({table[i].name, table[i].hasArg ? required_argument : no_argument, nullptr,
                         static_cast<int>(i) + 1});
    const int help = static_cast<int>(table.size()) + 1;
    longs.push_back({"help", no_argument, nullptr, help});
    longs.push_back({nullptr, 0, nullptr, 0});
    optind = 1;
    int c;
    while ((c = getopt_long(argc, argv, "", longs.data(), nullptr)) != -1) {
        if (c == help) {
            std::fputs(usage, stdout);
            return 0;
        }
        if (c < 1 || c > static_cast<int>(table.size()))
            return UsageError(tool, "unknown option");
        const ToolOption& o = table[static_cast<size_t>(c) - 1];
        const std::string arg = optarg ? optarg : "";
        if (!o.take(arg))
            return UsageError(tool, std::string("bad --") + o.name + (o.hasArg ? " " + arg : "") + o.hint);
    }
    if (optind < argc)
        return UsageError(tool, std::string("unexpected argument ") + argv[optind]);
    return -1;
}

}  // namespace otools
