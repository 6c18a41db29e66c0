#ifndef OSTREL_TOOLS_TOOL_HTTP_H
#define OSTREL_TOOLS_TOOL_HTTP_H

// Minimal HTTP/1.x pieces for the viewer and the simulators: head parsing,
// query splitting and standard Base64 (their option helpers are in
// tool_options.h). Written independently of the daemon's own
// parser so that the tools can catch its faults. Pure functions, thread-safe.

#include <string>
#include <utility>
#include <vector>

namespace otools {

struct HttpHead {
    // Request: method, target, version ("HTTP/1.0"). Response: version,
    // status code, reason.
    std::string method, target, version, reason;
    int status = 0;
    std::vector<std::pair<std::string, std::string>> headers;  // name without ':'

    // First header of that name (case-insensitive), or null.
    const std::string* Find(const std::string& name) const;
};

// Parse a complete head (as ReadHttpHead returns it). Lines may end in
// CR LF or LF. False when the first line or a header line is malformed.
bool ParseRequestHead(const std::string& head, HttpHead* out);
bool ParseResponseHead(const std::string& head, HttpHead* out);

// Splits a target into path and query ("/a.cgi?x=1" -> "/a.cgi", "x=1").
void SplitTarget(const std::string& target, std::string* path, std::string* query);

// Splits "a=1&b=&c" into pairs (no percent-decoding; "c" has an empty value).
std::vector<std::pair<std::string, std::string>> SplitQuery(const std::string& query);

// Value of `name` in pairs, or null.
const std::string* FindParam(const std::vector<std::pair<std::string, std::string>>& params, const std::string& name);

// Standard Base64 (RFC 4648, '+' and '/', '=' padding).
std::string Base64Encode(const std::string& in);

}  // namespace otools

#endif  // OSTREL_TOOLS_TOOL_HTTP_H
