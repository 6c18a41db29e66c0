#include "xml/char_tables.h"

#include "common/byte_class.h"

namespace {

using byte_class::digit;
using byte_class::in;
using byte_class::letter;

// Tab, LF, CR and 0x20..0xFF.
constexpr bool text_file(int c)
{
    return c == 0x09 || c == 0x0A || c == 0x0D || c >= 0x20;
}
// ':', 'A'..'Z', '_', 'a'..'z' and 0x80..0xFF.
constexpr bool name_first(int c)
{
    return c == ':' || c == '_' || letter(c) || in(c, 0x80, 0xFF);
}
// As name_first, plus '-', '.' and '0'..'9'.
constexpr bool name_next(int c)
{
    return name_first(c) || c == '-' || c == '.' || digit(c);
}

}  // namespace

const unsigned char TextFileChar[256] = {OSTREL_BYTE_CLASS(text_file)};
const unsigned char NameTokenChar1[256] = {OSTREL_BYTE_CLASS(name_first)};
const unsigned char NameTokenChar2[256] = {OSTREL_BYTE_CLASS(name_next)};
