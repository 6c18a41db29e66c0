#include "viewer/tool_http.h"

#include <cctype>
#include <strings.h>

#include "viewer/tool_options.h"

namespace otools {
namespace {

// Splits the head into lines without their CR LF / LF; stops at the blank
// line that ends the head.
std::vector<std::string> head_lines(const std::string& head)
{
    std::vector<std::string> lines;
    size_t pos = 0;
    while (pos < head.size()) {
        size_t nl = head.find('\n', pos);
        if (nl == std::string::npos)
            nl = head.size();
        std::string line = head.substr(pos, nl - pos);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        pos = nl + 1;
        if (line.empty())
            break;
        lines.push_back(line);
    }
    return lines;
}

bool parse_headers(const std::vector<std::string>& lines, HttpHead* out)
{
    for (size_t i = 1; i < lines.size(); ++i) {
        const std::string& l = lines[i];
        if ((l[0] == ' ' || l[0] == '\t') && !out->headers.empty()) {  // folded line
            out->headers.back().second += " " + l.substr(l.find_first_not_of(" \t"));
            continue;
        }
        const size_t colon = l.find(':');
        if (colon == std::string::npos || colon == 0)
            return false;
        std::string value = l.substr(colon + 1);
        value.erase(0, value.find_first_not_of(" \t"));
        while (!value.empty() && (value.back() == ' ' || value.back() == '\t'))
            value.pop_back();
        out->headers.emplace_back(l.substr(0, colon), value);
    }
    return true;
}

bool is_version(const std::string& v)
{
    return v.size() == 8 && v.compare(0, 5, "HTTP/") == 0 && isdigit(static_cast<unsigned char>(v[5])) && v[6] == '.' &&
           isdigit(static_cast<unsigned char>(v[7]));
}

}  // namespace

const std::string* HttpHead::Find(const std::string& name) const
{
    for (const auto& h : headers)
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0)
            return &h.second;
    return nullptr;
}

bool ParseRequestHead(const std::string& head, HttpHead* out)
{
    *out = HttpHead();
    const std::vector<std::string> lines = head_lines(head);
    if (lines.empty())
        return false;
    const std::string& first = lines[0];
    const size_t sp1 = first.find(' ');
    const size_t sp2 = sp1 == std::string::npos ? sp1 : first.find(' ', sp1 + 1);
    if (sp1 == 0 || sp2 == std::string::npos || sp2 == sp1 + 1)
        return false;
    out->method = first.substr(0, sp1);
    out->target = first.substr(sp1 + 1, sp2 - sp1 - 1);
    out->version = first.substr(sp2 + 1);
    if (!is_version(out->version))
        return false;
    return parse_headers(lines, out);
}

bool ParseResponseHead(const std::string& head, HttpHead* out)
{
    *out = HttpHead();
    const std::vector<std::string> lines = head_lines(head);
    if (lines.empty())
        return false;
    const std::string& first = lines[0];
    const size_t sp1 = first.find(' ');
    if (sp1 == std::string::npos)
        return false;
    out->version = first.substr(0, sp1);
    if (!is_version(out->version))
        return false;
    const size_t sp2 = first.find(' ', sp1 + 1);
    long long code = 0;
    if (!ParseInteger(first.substr(sp1 + 1, sp2 == std::string::npos ? std::string::npos : sp2 - sp1 - 1), &code) ||
        code < 100 || code > 999)
        return false;
    out->status = static_cast<int>(code);
    if (sp2 != std::string::npos)
        out->reason = first.substr(sp2 + 1);
    return parse_headers(lines, out);
}

void SplitTarget(const std::string& target, std::string* path, std::string* query)
{
    const size_t q = target.find('?');
    *path = target.substr(0, q);
    *query = q == std::string::npos ? std::string() : target.substr(q + 1);
}

std::vector<std::pair<std::string, std::string>> SplitQuery(const std::string& query)
{
    std::vector<std::pair<std::string, std::string>> out;
    size_t pos = 0;
    while (pos <= query.size() && !query.empty()) {
        size_t amp = query.find('&', pos);
        if (amp == std::string::npos)
            amp = query.size();
        const std::string item = query.substr(pos, amp - pos);
        const size_t eq = item.find('=');
        if (!item.empty())
            out.emplace_back(item.substr(0, eq), eq == std::string::npos ? "" : item.substr(eq + 1));
        pos = amp + 1;
    }
    return out;
}

const std::string* FindParam(const std::vector<std::pair<std::string, std::string>>& params, const std::string& name)
{
    for (const auto& p : params)
        if (p.first == name)
            return &p.second;
    return nullptr;
}

std::string Base64Encode(const std::string& in)
{
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < in.size(); i += 3) {
        const unsigned v = (static_cast<unsigned char>(in[i]) << 16) | (static_cast<unsigned char>(in[i + 1]) << 8) |
                           static_cast<unsigned char>(in[i + 2]);
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (i < in.size()) {
        unsigned v = static_cast<unsigned char>(in[i]) << 16;
        if (i + 1 < in.size())
            v |= static_cast<unsigned char>(in[i + 1]) << 8;
        out += kAlphabet[v >> 18];
        out += kAlphabet[(v >> 12) & 63];
        out += i + 1 < in.size() ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

}  // namespace otools
