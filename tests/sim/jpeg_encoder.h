#ifndef OSTREL_TOOLS_JPEG_ENCODER_H
#define OSTREL_TOOLS_JPEG_ENCODER_H

// A small baseline JPEG encoder for the simulator tools: sequential DCT,
// 8-bit samples, the example quantisation and Huffman tables of the JPEG
// standard scaled by a quality factor the way the IJG library does. Pictures
// are written as YCbCr with 4:2:0 subsampling. The output is a JFIF file (SOI, APP0, DQT, SOF0, DHT,
// SOS, entropy-coded data, EOI) that any decoder reads.
//
// Stateless and thread-safe: every call works on its own buffers.

#include <cstdint>
#include <vector>

namespace otools {

// Encodes a width x height picture. `rgb` holds width*height*3 bytes of
// interleaved RGB, row by row. quality is clamped to 1..100. Returns an
// empty vector when the size is outside 1..65535 or rgb is null.
std::vector<uint8_t> EncodeJpeg(const uint8_t* rgb, int width, int height, int quality);

// Draws the simulator's test picture as interleaved RGB: diagonal colour
// bands and a bright square that move with frameNo, and frameNo written in
// large digits. `detail` (0..255) adds that much pseudo-random texture,
// which makes the compressed picture larger; the texture is the same for
// the same frameNo, so pictures are reproducible.
std::vector<uint8_t> MakeTestPattern(int width, int height, uint64_t frameNo, int detail);

// Convenience: MakeTestPattern followed by EncodeJpeg.
std::vector<uint8_t> MakeTestJpeg(int width, int height, uint64_t frameNo, int quality, int detail);

}  // namespace otools

#endif  // OSTREL_TOOLS_JPEG_ENCODER_H
