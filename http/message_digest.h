#ifndef OSTREL_HTTP_MESSAGE_DIGEST_H
#define OSTREL_HTTP_MESSAGE_DIGEST_H

#include <stddef.h>

// The two hash functions of Digest authentication: MD5 (RFC 1321) and
// SHA-256 (FIPS 180-4), each over one whole byte string, written as
// lowercase hexadecimal text with its terminating NUL.
//
// Pure functions: no state, no allocation, safe from any thread. data may be
// null only when len is 0.

constexpr int MD5_HEX_SIZE = 33;     // 32 digits and the NUL
constexpr int SHA256_HEX_SIZE = 65;  // 64 digits and the NUL

void Md5Hex(const void* data, size_t len, char (&out)[MD5_HEX_SIZE]);
void Sha256Hex(const void* data, size_t len, char (&out)[SHA256_HEX_SIZE]);
// SHA-256 when sha256 is true, else MD5 (32 digits, out then has room to spare).
void DigestHashHex(bool sha256, const void* data, size_t len, char (&out)[SHA256_HEX_SIZE]);

#endif
