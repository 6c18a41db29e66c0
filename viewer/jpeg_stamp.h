#ifndef OSTREL_TOOLS_JPEG_STAMP_H
#define OSTREL_TOOLS_JPEG_STAMP_H

// The picture stamp: the camera simulator puts a JPEG comment (COM) segment
// into every picture it sends, carrying the picture's sequence number and
// its send time, so that a viewer at the other end of the relay can check
// order and measure latency. Decoders ignore COM segments.
//
// Stamp text: "ostrel-stamp seq=<decimal> t_us=<decimal>", where t_us is
// CLOCK_REALTIME in microseconds when the picture was handed to the socket.
//
// Pure functions, thread-safe.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace otools {

// Where a stamp segment goes: after SOI and, if present, the JFIF APP0
// segment right behind it (JFIF wants APP0 first). 0 if the data do not
// start with SOI.
size_t StampInsertOffset(const uint8_t* jpeg, size_t len);

// The complete COM segment (marker, length, text) for a stamp.
std::vector<uint8_t> MakeStampSegment(uint64_t seq, int64_t timeUs);

// Looks for a stamp among the segments before the scan. False if none.
bool ReadStamp(const uint8_t* jpeg, size_t len, uint64_t* seq, int64_t* timeUs);

// Structure check of a baseline or progressive JPEG: SOI first, a chain of
// well-formed marker segments up to SOS, entropy data in which every 0xFF
// is followed by 0x00 or a restart marker, and EOI as the very last two
// bytes. Returns an empty string when well-formed, otherwise what is wrong.
std::string CheckJpegStructure(const uint8_t* jpeg, size_t len);

// Width and height from the SOFn segment; false if none is found.
bool ReadJpegSize(const uint8_t* jpeg, size_t len, int* width, int* height);

}  // namespace otools

#endif  // OSTREL_TOOLS_JPEG_STAMP_H
