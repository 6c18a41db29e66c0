#ifndef OSTREL_HTTP_BASE64_H
#define OSTREL_HTTP_BASE64_H

// Base64 for the Basic authorisation line. The alphabet is A-Z, a-z, 0-9,
// '+' and, as the 64th character, '-' (not '/'); '=' pads. Stateless; any
// thread may call.

// Character of value 0..63, or -1 for any other value.
int BinToAscii(int value);
// Value of an alphabet character, or -1 for any other character.
int AsciiToBin(int c);

// Encodes inLen bytes of in into out as a NUL-terminated text and stores its
// length in *outLen (may be null). out is zeroed for outSize bytes first.
// Input bytes are taken as signed chars: a byte of 0x80 or above in the
// second or third place of a group also sets the group's higher bits (this
// only matters for non-ASCII input; credentials are ASCII).
// INVALID_ARGUMENT for null in/out or a negative length;
// DATA_LARGE_THEN_BUF when the text and its terminator do not fit in
// outSize (nothing but the zeroing is written then); else SUCCESS.
int Base64Encode(const char* in, int inLen, char* out, int outSize, int* outLen);

// The inverse: decodes inLen characters of in (ending early at the first
// '=') into out and stores the byte count in *outLen (may be null). out is
// zeroed for outSize bytes first, so a result shorter than outSize is also
// terminated. INVALID_ARGUMENT for null pointers, a negative length, a
// character outside the alphabet or a lone character at the end;
// DATA_LARGE_THEN_BUF when the bytes do not fit; else SUCCESS.
int Base64Decode(const char* in, int inLen, char* out, int outSize, int* outLen);

#endif
