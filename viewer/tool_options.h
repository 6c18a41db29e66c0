#ifndef OSTREL_VIEWER_TOOL_OPTIONS_H
#define OSTREL_VIEWER_TOOL_OPTIONS_H

// Command-line helpers of the viewer and the simulators: one integer parser
// (also used for numbers in protocol text), one answer to a bad option and
// one parser of a command line by an option table. Pure functions apart
// from the lines on standard output and standard error named below.

#include <functional>
#include <string>
#include <vector>

namespace otools {

// Decimal integer that fills the whole text (optional leading '-'); false on
// anything else or overflow of long long.
bool ParseInteger(const std::string& text, long long* value);

// ParseInteger, and the value within lo..hi; *value is written only then.
bool ParseIntegerIn(const std::string& text, long long lo, long long hi, long long* value);
bool ParseIntegerIn(const std::string& text, long long lo, long long hi, int* value);

// The tools' answer to a bad command line: "TOOL: MESSAGE (see --help)" on
// standard error; returns 2, their exit status for bad options.
int UsageError(const char* tool, const std::string& msg);

// One row of a tool's option table: the long option --name, whether it takes
// an argument, and what it does with it. take returns false for an argument
// it refuses; the parse then ends with "bad --name ARG" and hint after it.
struct ToolOption {
    const char* name;
    bool hasArg;
    std::function<bool(const std::string& arg)> take;
    const char* hint = "";
};

// Setters for table rows: an integer within lo..hi, a number within lo..hi
// (a decimal fraction, strtod's form), "a.b.c.d:port" or "a.b.c.d" (the
// port then defaultPort; see ParseHostPort in tool_net.h), a text as it
// stands, a flag set to value.
template <class T>
std::function<bool(const std::string&)> IntegerOption(long long lo, long long hi, T* to)
{
    return [=](const std::string& a) {
        long long v = 0;
        if (!ParseIntegerIn(a, lo, hi, &v))
            return false;
        *to = static_cast<T>(v);
        return true;
    };
}
std::function<bool(const std::string&)> NumberOption(double lo, double hi, double* to);
std::function<bool(const std::string&)> HostPortOption(int defaultPort, std::string* host, int* port);
std::function<bool(const std::string&)> TextOption(std::string* to);
std::function<bool(const std::string&)> FlagOption(bool* to, bool value = true);

// Parses argv (long options only) by table, which gains --help (usage on
// standard output). Returns -1 when the tool goes on, otherwise the exit
// status to end with: 0 after --help, 2 after a bad command line (an
// unknown option, a refused argument, an argument that is no option; the
// line from UsageError).
int ParseToolOptions(const char* tool, const char* usage, int argc, char** argv,
                     const std::vector<ToolOption>& table);

}  // namespace otools

#endif  // OSTREL_VIEWER_TOOL_OPTIONS_H
