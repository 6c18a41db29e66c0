#ifndef OSTREL_COMMON_BYTE_CLASS_H
#define OSTREL_COMMON_BYTE_CLASS_H

// Builds a 256-entry character class (1 = member, 0 = not) from a constexpr
// predicate over the byte value, so each table is written as the ranges it
// holds rather than as 256 hand-typed digits:
//
//   constexpr bool is_digit(int c) { return c >= '0' && c <= '9'; }
//   const unsigned char Digit_Char[256] = {OSTREL_BYTE_CLASS(is_digit)};
//
// The table stays a plain constant-initialised array: no start-up code, no
// indirection when it is read.

#define OSTREL_BYTE_CLASS_4(pred, b)                                                                                   \
    (pred(b) ? 1 : 0), (pred((b) + 1) ? 1 : 0), (pred((b) + 2) ? 1 : 0), (pred((b) + 3) ? 1 : 0)
#define OSTREL_BYTE_CLASS_16(pred, b)                                                                                  \
    OSTREL_BYTE_CLASS_4(pred, b), OSTREL_BYTE_CLASS_4(pred, (b) + 4), OSTREL_BYTE_CLASS_4(pred, (b) + 8),              \
        OSTREL_BYTE_CLASS_4(pred, (b) + 12)
#define OSTREL_BYTE_CLASS_64(pred, b)                                                                                  \
    OSTREL_BYTE_CLASS_16(pred, b), OSTREL_BYTE_CLASS_16(pred, (b) + 16), OSTREL_BYTE_CLASS_16(pred, (b) + 32),         \
        OSTREL_BYTE_CLASS_16(pred, (b) + 48)
#define OSTREL_BYTE_CLASS(pred)                                                                                        \
    OSTREL_BYTE_CLASS_64(pred, 0), OSTREL_BYTE_CLASS_64(pred, 64), OSTREL_BYTE_CLASS_64(pred, 128),                    \
        OSTREL_BYTE_CLASS_64(pred, 192)

namespace byte_class {

constexpr bool in(int c, int first, int last)
{
    return c >= first && c <= last;
}
constexpr bool letter(int c)
{
    return in(c, 'A', 'Z') || in(c, 'a', 'z');
}
constexpr bool digit(int c)
{
    return in(c, '0', '9');
}

}  // namespace byte_class

#endif
