#include "tests/sim/jpeg_encoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>

namespace otools {
namespace {

// Zig-zag order: kZigzag[i] is the natural (row-major) index of the i-th
// coefficient in the order the entropy coder and DQT use.
constexpr int kZigzag[64] = {0,  1,  8,  16, 9,  2,  3,  10, 17, 24, 32, 25, 18, 11, 4,  5,  12, 19, 26, 33, 40, 48,
                             41, 34, 27, 20, 13, 6,  7,  14, 21, 28, 35, 42, 49, 56, 57, 50, 43, 36, 29, 22, 15, 23,
                             30, 37, 44, 51, 58, 59, 52, 45, 38, 31, 39, 46, 53, 60, 61, 54, 47, 55, 62, 63};

// Example quantisation tables (natural order), luminance then chrominance.
constexpr int kLumaQuant[64] = {16, 11, 10, 16, 24,  40,  51,  61,  12, 12, 14, 19, 26,  58,  60,  55,
                                14, 13, 16, 24, 40,  57,  69,  56,  14, 17, 22, 29, 51,  87,  80,  62,
                                18, 22, 37, 56, 68,  109, 103, 77,  24, 35, 55, 64, 81,  104, 113, 92,
                                49, 64, 78, 87, 103, 121, 120, 101, 72, 92, 95, 98, 112, 100, 103, 99};
constexpr int kChromaQuant[64] = {17, 18, 24, 47, 99, 99, 99, 99, 18, 21, 26, 66, 99, 99, 99, 99,
                                  24, 26, 56, 99, 99, 99, 99, 99, 47, 66, 99, 99, 99, 99, 99, 99,
                                  99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
                                  99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};

// Example Huffman tables: 16 code-length counts, then the symbols.
// Both DC tables code the categories 0..11.
constexpr uint8_t kDcLumaBits[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
constexpr uint8_t kDcChromaBits[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};
constexpr uint8_t kDcVals[12] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr uint8_t kAcLumaBits[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7d};
constexpr uint8_t kAcLumaVals[162] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07, 0x22, 0x71,
    0x14, 0x32, 0x81, 0x91, 0xa1, 0x08, 0x23, 0x42, 0xb1, 0xc1, 0x15, 0x52, 0xd1, 0xf0, 0x24, 0x33, 0x62, 0x72,
    0x82, 0x09, 0x0a, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x34, 0x35, 0x36, 0x37,
    0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59,
    0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a, 0xa2, 0xa3,
    0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba, 0xc2, 0xc3,
    0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda, 0xe1, 0xe2,
    0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf1, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};
constexpr uint8_t kAcChromaBits[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
constexpr uint8_t kAcChromaVals[162] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71, 0x13, 0x22,
    0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xa1, 0xb1, 0xc1, 0x09, 0x23, 0x33, 0x52, 0xf0, 0x15, 0x62, 0x72, 0xd1,
    0x0a, 0x16, 0x24, 0x34, 0xe1, 0x25, 0xf1, 0x17, 0x18, 0x19, 0x1a, 0x26, 0x27, 0x28, 0x29, 0x2a, 0x35, 0x36,
    0x37, 0x38, 0x39, 0x3a, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4a, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58,
    0x59, 0x5a, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6a, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7a,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8a, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9a,
    0xa2, 0xa3, 0xa4, 0xa5, 0xa6, 0xa7, 0xa8, 0xa9, 0xaa, 0xb2, 0xb3, 0xb4, 0xb5, 0xb6, 0xb7, 0xb8, 0xb9, 0xba,
    0xc2, 0xc3, 0xc4, 0xc5, 0xc6, 0xc7, 0xc8, 0xc9, 0xca, 0xd2, 0xd3, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8, 0xd9, 0xda,
    0xe2, 0xe3, 0xe4, 0xe5, 0xe6, 0xe7, 0xe8, 0xe9, 0xea, 0xf2, 0xf3, 0xf4, 0xf5, 0xf6, 0xf7, 0xf8, 0xf9, 0xfa};

struct HuffCode {
    uint16_t code = 0;
    uint8_t length = 0;
};
using HuffTable = std::array<HuffCode, 256>;

// Canonical code assignment from the count-per-length list (JPEG Annex C).
HuffTable build_huffman(const uint8_t* bits, const uint8_t* vals)
{
    HuffTable table{};
    uint16_t code = 0;
    int k = 0;
    for (int len = 1; len <= 16; ++len) {
        for (int i = 0; i < bits[len - 1]; ++i) {
            table[vals[k++]] = HuffCode{code, static_cast<uint8_t>(len)};
            ++code;
        }
        code <<= 1;
    }
    return table;
}

void scale_quant(const int* base, int quality, uint8_t* out)
{
    quality = std::clamp(quality, 1, 100);
    const int scale = quality < 50 ? 5000 / quality : 200 - quality * 2;
    for (int i = 0; i < 64; ++i) {
        out[i] = static_cast<uint8_t>(std::clamp((base[i] * scale + 50) / 100, 1, 255));
    }
}

// Appends bits MSB first; a 0xFF byte in the entropy-coded data is followed
// by a stuffed 0x00 so that no decoder mistakes it for a marker.
class BitWriter {
public:
    explicit BitWriter(std::vector<uint8_t>* out) : out_(out) {}

    void put(uint32_t bits, int count)
    {
        acc_ = (acc_ << count) | (bits & ((1u << count) - 1));
        nbits_ += count;
        while (nbits_ >= 8) {
            const uint8_t byte = static_cast<uint8_t>(acc_ >> (nbits_ - 8));
            out_->push_back(byte);
            if (byte == 0xFF)
                out_->push_back(0x00);
            nbits_ -= 8;
        }
        acc_ &= (1u << nbits_) - 1;
    }

    // Pads the last byte with one-bits, as the standard asks.
    void flush()
    {
        if (nbits_ > 0)
            put(0x7F, 8 - nbits_);
    }

private:
    std::vector<uint8_t>* out_;
    uint32_t acc_ = 0;
    int nbits_ = 0;
};

struct Component {
    const uint8_t* quant;  // zig-zag order
    const HuffTable* dc;
    const HuffTable* ac;
    int last_dc = 0;
};

class DctTable {
public:
    DctTable()
    {
        for (int u = 0; u < 8; ++u) {
            const double cu = u == 0 ? std::sqrt(0.125) : 0.5;
            for (int x = 0; x < 8; ++x) {
                c_[u][x] = cu * std::cos((2 * x + 1) * u * M_PI / 16.0);
            }
        }
    }
    // Forward 2-D DCT of level-shifted samples, separable: rows then columns.
    void forward(const float* in, float* out) const
    {
        float tmp[64];
        for (int y = 0; y < 8; ++y) {
            for (int u = 0; u < 8; ++u) {
                double s = 0;
                for (int x = 0; x < 8; ++x)
                    s += c_[u][x] * in[y * 8 + x];
                tmp[y * 8 + u] = static_cast<float>(s);
            }
        }
        for (int u = 0; u < 8; ++u) {
            for (int v = 0; v < 8; ++v) {
                double s = 0;
                for (int y = 0; y < 8; ++y)
                    s += c_[v][y] * tmp[y * 8 + u];
                out[v * 8 + u] = static_cast<float>(s);
            }
        }
    }

private:
    double c_[8][8];
};

const DctTable& dct_table()
{
    static const DctTable table;
    return table;
}

// Magnitude category and the value bits of a coefficient (JPEG F.1.2.1).
inline int category(int v)
{
    int a = v < 0 ? -v : v;
    int n = 0;
    while (a) {
        ++n;
        a >>= 1;
    }
    return n;
}
inline uint32_t value_bits(int v, int cat)
{
    return static_cast<uint32_t>(v < 0 ? v + (1 << cat) - 1 : v);
}

void encode_block(const float* samples, Component* comp, BitWriter* bw)
{
    float coef[64];
    dct_table().forward(samples, coef);
    int zz[64];
    for (int i = 0; i < 64; ++i) {
        const int n = kZigzag[i];
        zz[i] = static_cast<int>(std::lround(coef[n] / comp->quant[i]));
    }
    const int diff = zz[0] - comp->last_dc;
    comp->last_dc = zz[0];
    const int dcat = category(diff);
    bw->put((*comp->dc)[dcat].code, (*comp->dc)[dcat].length);
    if (dcat)
        bw->put(value_bits(diff, dcat), dcat);

    int run = 0;
    for (int i = 1; i < 64; ++i) {
        if (zz[i] == 0) {
            ++run;
            continue;
        }
        while (run > 15) {  // ZRL: sixteen zeros
            bw->put((*comp->ac)[0xF0].code, (*comp->ac)[0xF0].length);
            run -= 16;
        }
        const int cat = category(zz[i]);
        const int sym = (run << 4) | cat;
        bw->put((*comp->ac)[sym].code, (*comp->ac)[sym].length);
        bw->put(value_bits(zz[i], cat), cat);
        run = 0;
    }
    if (run)
        bw->put((*comp->ac)[0x00].code, (*comp->ac)[0x00].length);  // EOB
}

// A marker segment: FF, the marker, its length and the bytes.
void put_segment(std::vector<uint8_t>* out, uint8_t marker, std::initializer_list<std::vector<uint8_t>> parts)
{
    size_t n = 2;
    for (const auto& p : parts)
        n += p.size();
    out->insert(out->end(), {0xFF, marker, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)});
    for (const auto& p : parts)
        out->insert(out->end(), p.begin(), p.end());
}

std::vector<uint8_t> huffman_spec(uint8_t clsId, const uint8_t* bits, const uint8_t* vals)
{
    std::vector<uint8_t> v{clsId};
    v.insert(v.end(), bits, bits + 16);
    int n = 0;
    for (int i = 0; i < 16; ++i)
        n += bits[i];
    v.insert(v.end(), vals, vals + n);
    return v;
}

std::vector<uint8_t> quant_spec(uint8_t id, const int* base, int quality)
{
    uint8_t natural[64];
    scale_quant(base, quality, natural);
    std::vector<uint8_t> v{id};
    for (int i = 0; i < 64; ++i)
        v.push_back(natural[kZigzag[i]]);
    return v;
}

std::vector<uint8_t> be16(int v)
{
    return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

}  // namespace

std::vector<uint8_t> EncodeJpeg(const uint8_t* rgb, int width, int height, int quality)
{
    std::vector<uint8_t> out;
    if (!rgb || width < 1 || height < 1 || width > 65535 || height > 65535)
        return out;
    out.reserve(static_cast<size_t>(width) * height / 4 + 1024);
    out.insert(out.end(), {0xFF, 0xD8});  // SOI
    put_segment(&out, 0xE0, {{'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0}});
    const std::vector<uint8_t> qluma = quant_spec(0, kLumaQuant, quality);
    const std::vector<uint8_t> qchroma = quant_spec(1, kChromaQuant, quality);
    put_segment(&out, 0xDB, {qluma, qchroma});
    // Three components: Y sampled 2x2 with table 0, Cb and Cr 1x1 with table 1.
    put_segment(&out, 0xC0, {{8}, be16(height), be16(width), {3, 1, 0x22, 0, 2, 0x11, 1, 3, 0x11, 1}});
    put_segment(&out, 0xC4,
                {huffman_spec(0x00, kDcLumaBits, kDcVals), huffman_spec(0x10, kAcLumaBits, kAcLumaVals),
                 huffman_spec(0x01, kDcChromaBits, kDcVals), huffman_spec(0x11, kAcChromaBits, kAcChromaVals)});
    put_segment(&out, 0xDA, {{3, 1, 0x00, 2, 0x11, 3, 0x11, 0, 63, 0}});

    static const HuffTable dc_luma = build_huffman(kDcLumaBits, kDcVals);
    static const HuffTable ac_luma = build_huffman(kAcLumaBits, kAcLumaVals);
    static const HuffTable dc_chroma = build_huffman(kDcChromaBits, kDcVals);
    static const HuffTable ac_chroma = build_huffman(kAcChromaBits, kAcChromaVals);
    Component y{qluma.data() + 1, &dc_luma, &ac_luma};
    Component cb{qchroma.data() + 1, &dc_chroma, &ac_chroma};
    Component cr{qchroma.data() + 1, &dc_chroma, &ac_chroma};

    BitWriter bw(&out);
    // Samples beyond the right or bottom edge repeat the last column or row.
    auto pixel = [&](int x, int y) {
        return rgb + (static_cast<size_t>(std::min(y, height - 1)) * width + std::min(x, width - 1)) * 3;
    };
    // One 8x8 block whose sample (i, j) is sample(i, j) - shift.
    float block[64];
    auto encode = [&](Component* comp, float shift, auto sample) {
        for (int j = 0; j < 8; ++j)
            for (int i = 0; i < 8; ++i)
                block[j * 8 + i] = sample(i, j) - shift;
        encode_block(block, comp, &bw);
    };
    for (int my = 0; my < height; my += 16) {
        for (int mx = 0; mx < width; mx += 16) {
            for (int sub = 0; sub < 4; ++sub) {
                const int bx = mx + (sub & 1) * 8, by = my + (sub >> 1) * 8;
                encode(&y, 128.0f, [&](int i, int j) {
                    const uint8_t* p = pixel(bx + i, by + j);
                    return 0.299f * p[0] + 0.587f * p[1] + 0.114f * p[2];
                });
            }
            // Chroma: each sample is the mean of a 2x2 group of pixels.
            const float kCb[3] = {-0.168736f, -0.331264f, 0.5f}, kCr[3] = {0.5f, -0.418688f, -0.081312f};
            for (const auto& [comp, k] : {std::make_pair(&cb, kCb), std::make_pair(&cr, kCr)}) {
                encode(comp, 0.0f, [&, k = k](int i, int j) {
                    float sum = 0;
                    for (int d = 0; d < 4; ++d) {
                        const uint8_t* p = pixel(mx + i * 2 + (d & 1), my + j * 2 + (d >> 1));
                        sum += k[0] * p[0] + k[1] * p[1] + k[2] * p[2];
                    }
                    return sum / 4;
                });
            }
        }
    }
    bw.flush();
    out.insert(out.end(), {0xFF, 0xD9});  // EOI
    return out;
}

namespace {

// 5x7 digit glyphs, one byte per row, bit 4 is the leftmost column.
constexpr uint8_t kDigits[10][7] = {
    {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}, {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E},
    {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}, {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E},
    {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}, {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E},
    {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}, {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08},
    {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}, {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}};

inline uint32_t xorshift(uint32_t* s)
{
    uint32_t x = *s;
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return *s = x;
}

}  // namespace

std::vector<uint8_t> MakeTestPattern(int width, int height, uint64_t frameNo, int detail)
{
    if (width < 1 || height < 1)
        return {};
    detail = std::clamp(detail, 0, 255);
    std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
    const int shift = static_cast<int>(frameNo % 256) * 4;
    uint32_t seed = 0x9E3779B9u ^ static_cast<uint32_t>(frameNo * 2654435761u);
    if (seed == 0)
        seed = 1;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
            const int d = x + y + shift;
            int r = (d * 255 / (width + height)) & 0xFF;
            int g = ((x * 255) / width + shift) & 0xFF;
            int b = (((d / 32) & 1) ? 200 : 60);
            if (detail) {
                const int n = static_cast<int>(xorshift(&seed) % (2 * detail + 1)) - detail;
                r = std::clamp(r + n, 0, 255);
                g = std::clamp(g - n, 0, 255);
                b = std::clamp(b + n / 2, 0, 255);
            }
            p[0] = static_cast<uint8_t>(r);
            p[1] = static_cast<uint8_t>(g);
            p[2] = static_cast<uint8_t>(b);
        }
    }
    // A square that travels along the width.
    const int side = std::max(4, std::min(width, height) / 6);
    const int sx = static_cast<int>((frameNo * 8) % static_cast<uint64_t>(std::max(1, width - side)));
    const int sy = height / 2 - side / 2;
    for (int y = std::max(0, sy); y < std::min(height, sy + side); ++y)
        for (int x = sx; x < std::min(width, sx + side); ++x) {
            uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
            p[0] = p[1] = p[2] = 250;
        }
    // The frame number in digits of 5x7 cells, top left, black on white.
    const std::string text = std::to_string(frameNo);
    const int cell = std::max(1, height / 40);
    const int tw = static_cast<int>(text.size()) * 6 * cell + cell;
    for (int y = 0; y < std::min(height, 9 * cell); ++y)
        for (int x = 0; x < std::min(width, tw); ++x) {
            uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
            p[0] = p[1] = p[2] = 255;
        }
    for (size_t c = 0; c < text.size(); ++c) {
        const uint8_t* glyph = kDigits[text[c] - '0'];
        for (int gy = 0; gy < 7; ++gy)
            for (int gx = 0; gx < 5; ++gx) {
                if (!(glyph[gy] & (0x10 >> gx)))
                    continue;
                for (int yy = 0; yy < cell; ++yy)
                    for (int xx = 0; xx < cell; ++xx) {
                        const int x = cell + static_cast<int>(c) * 6 * cell + gx * cell + xx;
                        const int y = cell + gy * cell + yy;
                        if (x >= width || y >= height)
                            continue;
                        uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
                        p[0] = p[1] = p[2] = 0;
                    }
            }
    }
    return rgb;
}

std::vector<uint8_t> MakeTestJpeg(int width, int height, uint64_t frameNo, int quality, int detail)
{
    const std::vector<uint8_t> rgb = MakeTestPattern(width, height, frameNo, detail);
    if (rgb.empty())
        return {};
    return EncodeJpeg(rgb.data(), width, height, quality);
}

}  // namespace otools
