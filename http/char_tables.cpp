#include "http/char_tables.h"

#include "common/byte_class.h"

namespace {

using byte_class::digit;
using byte_class::in;
using byte_class::letter;

// The HTTP token set minus the backquote: ! # $ % & ' * + - . ^ _ | ~,
// digits and letters.
constexpr bool token(int c)
{
    return c == '!' || in(c, '#', '\'') || c == '*' || c == '+' || c == '-' || c == '.' || c == '^' || c == '_' ||
           c == '|' || c == '~' || digit(c) || letter(c);
}

// Request-target characters: # % & + - . / : = ? @ _, digits and letters.
// No percent-decoding is ever done.
constexpr bool uri(int c)
{
    return c == '#' || c == '%' || c == '&' || c == '+' || in(c, '-', ':') || c == '=' || in(c, '?', 'Z') || c == '_' ||
           in(c, 'a', 'z');
}

}  // namespace

const unsigned char HTTP_TokenChar[256] = {OSTREL_BYTE_CLASS(token)};
const unsigned char HTTP_URI[256] = {OSTREL_BYTE_CLASS(uri)};
