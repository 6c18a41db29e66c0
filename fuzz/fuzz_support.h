#ifndef OSTREL_FUZZ_FUZZ_SUPPORT_H
#define OSTREL_FUZZ_FUZZ_SUPPORT_H

// Helpers shared by the fuzz targets: feeding bytes to the HTTP readers
// through their byte source (tests/support's PieceSource: whole, or cut in
// pieces, then closed), and checking invariants.
//
// A check that fails aborts the process (libFuzzer and the standalone runner
// both report it with the input that caused it).

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "common/tokens.h"
#include "net/socket_io.h"
#include "piece_source.h"

#define FUZZ_CHECK(cond)                                                                                               \
    do {                                                                                                               \
        if (!(cond)) {                                                                                                 \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);                                   \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (0)

namespace fuzz {

// The token is empty or lies wholly inside [base, base + size).
inline bool Inside(const OneToken_Class& t, const unsigned char* base, size_t size)
{
    if (t.GetPtr() == nullptr) {
        return t.GetLength() == 0;
    }
    return t.GetLength() >= 1 && t.GetPtr() >= base && t.GetPtr() + t.GetLength() <= base + size;
}

inline std::string Str(const OneToken_Class& t)
{
    return t.GetPtr() == nullptr
               ? std::string()
               : std::string(reinterpret_cast<const char*>(t.GetPtr()), static_cast<size_t>(t.GetLength()));
}

// Every pair of the table as "name|value\n".
inline std::string Pairs(const StaticArr_NameValToken_Class& table)
{
    std::string out;
    for (int i = 0; i < table.GetCount(); i++) {
        out += Str(table.Get(i)->m_Name) + "|" + Str(table.Get(i)->m_Val) + "\n";
    }
    return out;
}

// Up to three cut offsets inside (0, size) taken from the input's own bytes,
// in ascending order.
inline std::vector<size_t> Cuts(const uint8_t* data, size_t size, int count)
{
    std::vector<size_t> cuts;
    if (size < 2) {
        return cuts;
    }
    size_t last = 0;
    for (int i = 0; i < count && i < static_cast<int>(size); i++) {
        size_t at = 1 + (static_cast<size_t>(data[i]) * 131 + static_cast<size_t>(data[size - 1 - i])) % (size - 1);
        if (at > last) {
            cuts.push_back(at);
            last = at;
        }
    }
    return cuts;
}

// What every response or part-head parse leaves, whatever its outcome: a
// terminated error text, a position inside the input, and the protocol, the
// first line's text and every header token inside [buf, buf + size).
template <class Parser> void CheckHead(const Parser& p, const unsigned char* buf, size_t size)
{
    FUZZ_CHECK(strnlen(p.m_strError, sizeof p.m_strError) < sizeof p.m_strError);
    FUZZ_CHECK(p.m_nPos >= 0 && p.m_nPos <= p.m_nSize);
    FUZZ_CHECK(Inside(p.m_Protocol, buf, size));
    FUZZ_CHECK(Inside(p.m_Text, buf, size));
    FUZZ_CHECK(p.m_HeaderLines.GetCount() < Parser::HEADER_LINES_MAX);
    for (int i = 0; i < p.m_HeaderLines.GetCount(); i++) {
        FUZZ_CHECK(Inside(p.m_HeaderLines.Get(i)->m_Name, buf, size));
        FUZZ_CHECK(Inside(p.m_HeaderLines.Get(i)->m_Val, buf, size));
    }
}

// Takes the leading selector byte off the input. False (nothing to run)
// for an empty input or one longer than max.
inline bool TakeSelector(const uint8_t** data, size_t* size, size_t max, uint8_t* sel)
{
    if (*size < 1 || *size > max) {
        return false;
    }
    *sel = (*data)[0];
    (*data)++;
    (*size)--;
    return true;
}

// The reader's buffer size that bits 2-3 of the selector choose: 256, 1024,
// 4096 or 16384 bytes.
inline int Capacity(uint8_t sel)
{
    return 256 << (2 * ((sel >> 2) & 3));
}

// Two readings of one input that must agree; both are printed when not.
inline void Same(const std::string& a, const std::string& b)
{
    if (a != b) {
        fprintf(stderr, "first:\n%s\nsecond:\n%s\n", a.c_str(), b.c_str());
    }
    FUZZ_CHECK(a == b);
}

// read(data, size, capacity, cuts) with the input fed whole and again cut
// in up to three pieces where its own bytes say: where the cuts fall must
// not change the result. A reader meets each piece in a receive of its own.
template <class Read> void SameWholeAndSplit(const uint8_t* data, size_t size, int capacity, Read read)
{
    Same(read(data, size, capacity, std::vector<size_t>{}), read(data, size, capacity, Cuts(data, size, 3)));
}

// The entry of the HTTP targets: inputs of up to 64 KiB after the selector
// byte, which run(sel, data, size, capacity) gets with the buffer size its
// bits 2-3 choose. Always 0, as libFuzzer wants.
template <class Run> int RunHttpTarget(const uint8_t* data, size_t size, Run run)
{
    uint8_t sel = 0;
    if (TakeSelector(&data, &size, 65536, &sel)) {
        run(sel, data, size, Capacity(sel));
    }
    return 0;
}

// Parses a copy of the input with parser.parse (the copy ends where the
// input does, so that an over-read is caught), checks what the head parse
// leaves (CheckHead) and returns parse's code.
template <class Parser, class Parse> int ParseCopy(const uint8_t* data, size_t size, Parser* parser, Parse parse)
{
    std::vector<unsigned char> buf(data, data + size);
    const int rc = (parser->*parse)(buf.data(), static_cast<int>(buf.size()), nullptr);
    CheckHead(*parser, buf.data(), buf.size());
    return rc;
}

// After every read of a reader (b): its counters stay inside the buffer (a
// body cut short by the peer ends past the bytes that arrived, never past
// the buffer), and the log line of the read: code, status, error text.
template <class Buffer> std::string ReadOutcome(const Buffer& b, int rc)
{
    FUZZ_CHECK(b.m_nFilled >= 0 && b.m_nFilled <= b.m_nCapacity);
    FUZZ_CHECK(b.m_nConsumed >= 0 && b.m_nConsumed <= b.m_nCapacity);
    return std::to_string(rc) + " " + std::to_string(b.m_nStatus) + " " + b.m_strError + "\n";
}

// Reads messages with a Buffer's HttpRead (the request and response readers)
// until the first failure, at most 16, from the input fed whole or cut at
// cuts (PieceSource). The
// counters are checked after every read; the log gets each read's code,
// status and text, then what describe(buffer, rc) adds (it also checks the
// outcome).
template <class Buffer, class Describe>
std::string ReadMessages(const uint8_t* data, size_t size, int capacity, const std::vector<size_t>& cuts,
                         Describe describe)
{
    PieceSource feed(data, size, cuts);
    Buffer b;
    FUZZ_CHECK(b.Init(capacity) == SUCCESS);
    b.SetByteSource(&feed);
    SockExitFlag exitFlag{0};
    std::string log;
    for (int n = 0; n < 16; n++) {
        int rc = b.HttpRead(-1, 5000, &exitFlag);
        log += ReadOutcome(b, rc);
        if (rc == SUCCESS) {
            FUZZ_CHECK(b.m_nBodyStart + b.m_nBodyLength <= b.m_nCapacity);
        }
        log += describe(b, rc);
        if (rc != SUCCESS) {
            break;
        }
    }
    return log;
}

}  // namespace fuzz

#endif
