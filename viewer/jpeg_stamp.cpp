#include "viewer/jpeg_stamp.h"

#include <cstdio>
#include <cstring>

namespace otools {
namespace {

constexpr char kStampPrefix[] = "ostrel-stamp ";

inline size_t seg_len(const uint8_t* p)
{
    return (static_cast<size_t>(p[0]) << 8) | p[1];
}

// Markers without a length field: SOI, EOI, RSTn, TEM.
inline bool standalone(uint8_t m)
{
    return m == 0xD8 || m == 0xD9 || (m >= 0xD0 && m <= 0xD7) || m == 0x01;
}

// Walks the marker segments before the first SOS, calling fn(marker,
// payload, payloadLen) for each; stops when fn returns false.
template <typename Fn> void walk_header(const uint8_t* j, size_t len, Fn fn)
{
    if (len < 4 || j[0] != 0xFF || j[1] != 0xD8)
        return;
    size_t pos = 2;
    while (pos + 4 <= len && j[pos] == 0xFF) {
        const uint8_t m = j[pos + 1];
        if (m == 0xFF) {  // fill byte
            ++pos;
            continue;
        }
        if (standalone(m)) {
            pos += 2;
            continue;
        }
        const size_t l = seg_len(j + pos + 2);
        if (l < 2 || pos + 2 + l > len)
            return;
        if (!fn(m, j + pos + 4, l - 2) || m == 0xDA)
            return;
        pos += 2 + l;
    }
}

}  // namespace

size_t StampInsertOffset(const uint8_t* jpeg, size_t len)
{
    if (len < 2 || jpeg[0] != 0xFF || jpeg[1] != 0xD8)
        return 0;
    if (len >= 6 && jpeg[2] == 0xFF && jpeg[3] == 0xE0) {
        const size_t l = seg_len(jpeg + 4);
        if (l >= 2 && 4 + l <= len)
            return 4 + l;
    }
    return 2;
}

std::vector<uint8_t> MakeStampSegment(uint64_t seq, int64_t timeUs)
{
    char text[96];
    const int n = std::snprintf(text, sizeof text, "%sseq=%llu t_us=%lld", kStampPrefix,
                                static_cast<unsigned long long>(seq), static_cast<long long>(timeUs));
    std::vector<uint8_t> seg;
    seg.reserve(static_cast<size_t>(n) + 4);
    seg.push_back(0xFF);
    seg.push_back(0xFE);
    seg.push_back(static_cast<uint8_t>((n + 2) >> 8));
    seg.push_back(static_cast<uint8_t>(n + 2));
    seg.insert(seg.end(), text, text + n);
    return seg;
}

bool ReadStamp(const uint8_t* jpeg, size_t len, uint64_t* seq, int64_t* timeUs)
{
    bool found = false;
    walk_header(jpeg, len, [&](uint8_t m, const uint8_t* p, size_t n) {
        const size_t plen = sizeof kStampPrefix - 1;
        if (m != 0xFE || n <= plen || std::memcmp(p, kStampPrefix, plen) != 0)
            return true;
        const std::string text(reinterpret_cast<const char*>(p), n);
        unsigned long long s = 0;
        long long t = 0;
        if (std::sscanf(text.c_str() + plen, "seq=%llu t_us=%lld", &s, &t) == 2) {
            *seq = s;
            *timeUs = t;
            found = true;
            return false;
        }
        return true;
    });
    return found;
}

bool ReadJpegSize(const uint8_t* jpeg, size_t len, int* width, int* height)
{
    bool found = false;
    walk_header(jpeg, len, [&](uint8_t m, const uint8_t* p, size_t n) {
        const bool sof = m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC;
        if (!sof || n < 5)
            return true;
        *height = static_cast<int>(seg_len(p + 1));
        *width = static_cast<int>(seg_len(p + 3));
        found = true;
        return false;
    });
    return found;
}

std::string CheckJpegStructure(const uint8_t* j, size_t len)
{
    if (len < 4 || j[0] != 0xFF || j[1] != 0xD8)
        return "no SOI at the start";
    if (j[len - 2] != 0xFF || j[len - 1] != 0xD9)
        return "no EOI at the end";
    size_t pos = 2;
    bool seen_frame = false, seen_scan = false;
    while (pos < len) {
        if (j[pos] != 0xFF)
            return "marker expected at offset " + std::to_string(pos);
        while (pos + 1 < len && j[pos + 1] == 0xFF)
            ++pos;  // fill bytes
        if (pos + 1 >= len)
            return "truncated marker";
        const uint8_t m = j[pos + 1];
        if (m == 0xD9) {
            if (pos + 2 != len)
                return "data after EOI";
            if (!seen_frame || !seen_scan)
                return "EOI before frame and scan";
            return "";
        }
        if (m == 0x00 || m == 0xD8 || (m >= 0xD0 && m <= 0xD7))
            return "unexpected marker at offset " + std::to_string(pos);
        if (pos + 4 > len)
            return "truncated segment";
        const size_t l = seg_len(j + pos + 2);
        if (l < 2 || pos + 2 + l > len)
            return "segment length runs past the end";
        if (m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC)
            seen_frame = true;
        pos += 2 + l;
        if (m != 0xDA)
            continue;
        if (!seen_frame)
            return "scan before frame header";
        seen_scan = true;
        // Entropy-coded data run until a marker other than a stuffed zero or RSTn.
        while (pos + 1 < len) {
            if (j[pos] == 0xFF) {
                const uint8_t n = j[pos + 1];
                if (n == 0x00 || (n >= 0xD0 && n <= 0xD7)) {
                    pos += 2;
                    continue;
                }
                if (n == 0xFF) {
                    ++pos;
                    continue;
                }
                break;
            }
            ++pos;
        }
        if (pos + 1 >= len)
            return "scan data without EOI";
    }
    return "no EOI";
}

}  // namespace otools
