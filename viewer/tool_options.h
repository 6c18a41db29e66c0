#ifndef OSTREL_VIEWER_TOOL_OPTIONS_H
#define OSTREL_VIEWER_TOOL_OPTIONS_H

// Command-line helpers of the viewer and the simulators: one integer parser
// (also used for numbers in protocol text) and one answer to a bad option.
// Pure functions apart from UsageError's line on standard error.

#include <string>

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

}  // namespace otools

#endif  // OSTREL_VIEWER_TOOL_OPTIONS_H
