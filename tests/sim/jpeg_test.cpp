// The encoder's pictures, the stamp segment and the structure check.
//
// The encoder is checked by decoding its entropy-coded data with a small
// Huffman decoder written here from the file's own DHT/DQT segments: every
// block must decode, the data must end exactly where the padding starts,
// and each block's DC value must match the mean of the pixels it covers.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <vector>

#include "tests/sim/jpeg_encoder.h"
#include "viewer/jpeg_stamp.h"

namespace otools {
namespace {

struct Huffman {
    std::map<std::pair<int, int>, int> codes;  // (length, code) -> symbol
};

struct ScanInfo {
    int width = 0, height = 0, ncomp = 0;
    int hsamp = 1, vsamp = 1;       // of the first component
    int quantDc[4] = {0, 0, 0, 0};  // per table
    int compTable[3] = {0, 0, 0};   // quant table per component
    int dcTab[3] = {0, 0, 0}, acTab[3] = {0, 0, 0};
    Huffman dc[4], ac[4];
    std::vector<uint8_t> data;  // entropy data, unstuffed
};

bool parse(const std::vector<uint8_t>& j, ScanInfo* s)
{
    size_t pos = 2;
    while (pos + 4 <= j.size()) {
        const int m = j[pos + 1];
        const size_t len = (j[pos + 2] << 8) | j[pos + 3];
        const uint8_t* p = &j[pos + 4];
        if (m == 0xDB) {
            for (size_t off = 0; off < len - 2; off += 65)
                s->quantDc[p[off] & 3] = p[off + 1];
        } else if (m == 0xC0) {
            s->height = (p[1] << 8) | p[2];
            s->width = (p[3] << 8) | p[4];
            s->ncomp = p[5];
            s->hsamp = p[7] >> 4;
            s->vsamp = p[7] & 15;
            for (int c = 0; c < s->ncomp; ++c)
                s->compTable[c] = p[8 + 3 * c];
        } else if (m == 0xC4) {
            size_t off = 0;
            while (off < len - 2) {
                const int cls = p[off] >> 4, id = p[off] & 3;
                Huffman& h = cls ? s->ac[id] : s->dc[id];
                int code = 0, k = 0;
                for (int l = 1; l <= 16; ++l) {
                    for (int i = 0; i < p[off + l]; ++i)
                        h.codes[{l, code++}] = p[off + 17 + k++];
                    code <<= 1;
                }
                off += 17 + k;
            }
        } else if (m == 0xDA) {
            for (int c = 0; c < p[0]; ++c) {
                s->dcTab[c] = p[2 + 2 * c] >> 4;
                s->acTab[c] = p[2 + 2 * c] & 15;
            }
            for (size_t i = pos + 2 + len; i + 2 < j.size(); ++i) {
                s->data.push_back(j[i]);
                if (j[i] == 0xFF) {
                    if (j[i + 1] != 0x00)
                        return false;
                    ++i;
                }
            }
            return true;
        }
        pos += 2 + len;
    }
    return false;
}

// Reads the entropy-coded bits MSB first; -1 past the end.
class BitReader {
public:
    explicit BitReader(const std::vector<uint8_t>& d) : d_(d) {}
    int bits(int n)
    {
        int v = 0;
        for (int i = 0; i < n; ++i, ++pos_) {
            if (pos_ >= d_.size() * 8)
                return -1;
            v = (v << 1) | ((d_[pos_ / 8] >> (7 - pos_ % 8)) & 1);
        }
        return v;
    }
    int symbol(const Huffman& h)
    {
        for (int l = 1, code = 0, b; l <= 16 && (b = bits(1)) >= 0; ++l) {
            code = (code << 1) | b;
            const auto it = h.codes.find({l, code});
            if (it != h.codes.end())
                return it->second;
        }
        return -1;
    }
    size_t pos() const { return pos_; }

private:
    const std::vector<uint8_t>& d_;
    size_t pos_ = 0;
};

int extend(int v, int cat)
{
    return cat && v < (1 << (cat - 1)) ? v - (1 << cat) + 1 : v;
}

// Decodes all blocks; returns per-component DC values (dequantised, /8 +
// 128 = the block's mean sample). Fails the test on any decoding fault.
std::vector<std::vector<double>> decode_dc(const std::vector<uint8_t>& jpeg, ScanInfo* s)
{
    std::vector<std::vector<double>> dcs;
    EXPECT_TRUE(parse(jpeg, s));
    BitReader br(s->data);
    dcs.resize(s->ncomp);
    int pred[3] = {0, 0, 0};
    const int mcuW = 8 * s->hsamp, mcuH = 8 * s->vsamp;
    const int mcus = ((s->width + mcuW - 1) / mcuW) * ((s->height + mcuH - 1) / mcuH);
    for (int mcu = 0; mcu < mcus; ++mcu) {
        for (int c = 0; c < s->ncomp; ++c) {
            const int blocks = c == 0 ? s->hsamp * s->vsamp : 1;
            for (int b = 0; b < blocks; ++b) {
                const int cat = br.symbol(s->dc[s->dcTab[c]]);
                if (cat < 0 || cat > 11) {
                    ADD_FAILURE() << "bad DC code in MCU " << mcu;
                    return dcs;
                }
                pred[c] += extend(br.bits(cat), cat);
                dcs[c].push_back(pred[c] * s->quantDc[s->compTable[c]] / 8.0 + 128);
                for (int k = 1; k < 64;) {
                    const int sym = br.symbol(s->ac[s->acTab[c]]);
                    if (sym < 0) {
                        ADD_FAILURE() << "bad AC code in MCU " << mcu;
                        return dcs;
                    }
                    if (sym == 0x00)
                        break;
                    k += (sym >> 4) + 1;
                    br.bits(sym & 15);
                    if (k > 64) {
                        ADD_FAILURE() << "AC run past the block in MCU " << mcu;
                        return dcs;
                    }
                }
            }
        }
    }
    // Only the one-bit padding of the last byte may remain.
    EXPECT_LT(s->data.size() * 8 - br.pos(), 8u);
    return dcs;
}

// Every picture decodes whole, and each luma block's DC value is the mean
// luma of the pixels it covers (the 2x2 MCU order of 4:2:0 sampling).
TEST(JpegEncoderTest, PicturesDecodeWholeToTheirBlockMeans)
{
    struct Row {
        int w, h, quality;
        const char* note;
    } rows[] = {
        {16, 16, 75, "one MCU"},
        {1, 1, 50, "one pixel, edge replicated"},
        {13, 7, 90, "partial blocks on both edges"},
        {64, 40, 100, "quality 100: quantiser 1"},
        {33, 17, 1, "quality 1: coarsest quantiser"},
        {17, 33, 35, "partial MCUs"},
        {640, 480, 35, "the simulator's default size"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.note);
        const std::vector<uint8_t> rgb = MakeTestPattern(r.w, r.h, 7, 30);
        const std::vector<uint8_t> jpeg = EncodeJpeg(rgb.data(), r.w, r.h, r.quality);
        ASSERT_EQ(CheckJpegStructure(jpeg.data(), jpeg.size()), "");
        ScanInfo s;
        const auto dcs = decode_dc(jpeg, &s);
        EXPECT_EQ(s.width, r.w);
        EXPECT_EQ(s.height, r.h);
        ASSERT_EQ(s.ncomp, 3);
        EXPECT_EQ(s.hsamp, 2);
        EXPECT_EQ(s.vsamp, 2);
        const int mcuW = (r.w + 15) / 16;
        const size_t mcus = static_cast<size_t>(mcuW) * ((r.h + 15) / 16);
        ASSERT_EQ(dcs[0].size(), 4 * mcus);
        EXPECT_EQ(dcs[1].size(), mcus);
        EXPECT_EQ(dcs[2].size(), mcus);
        for (size_t b = 0; b < dcs[0].size(); ++b) {
            const int mcu = static_cast<int>(b / 4), sub = static_cast<int>(b % 4);
            const int bx = (mcu % mcuW) * 16 + (sub & 1) * 8, by = (mcu / mcuW) * 16 + (sub >> 1) * 8;
            double sum = 0;
            for (int y = 0; y < 8; ++y)
                for (int x = 0; x < 8; ++x) {
                    const uint8_t* p = &rgb[(std::min(by + y, r.h - 1) * r.w + std::min(bx + x, r.w - 1)) * 3];
                    sum += 0.299 * p[0] + 0.587 * p[1] + 0.114 * p[2];
                }
            // The DC step is the quantiser; rounding may take half of it.
            EXPECT_NEAR(dcs[0][b], sum / 64, s.quantDc[0] / 16.0 + 0.5) << "block " << b;
        }
    }
}

// The simulator's --help promises these sizes; the daemon's tests size
// their frames by them.
TEST(JpegEncoderTest, PictureSizesReachTheAdvertisedRanges)
{
    const size_t vga = MakeTestJpeg(640, 480, 3, 40, 0).size();
    EXPECT_GT(vga, 10u * 1024);
    EXPECT_LT(vga, 26u * 1024);
    const size_t large = MakeTestJpeg(1920, 1080, 3, 85, 20).size();
    EXPECT_GT(large, 300u * 1024);
    EXPECT_LT(large, 500u * 1024);
    EXPECT_NE(MakeTestJpeg(64, 48, 1, 50, 0), MakeTestJpeg(64, 48, 2, 50, 0));
    EXPECT_EQ(MakeTestJpeg(64, 48, 2, 50, 9), MakeTestJpeg(64, 48, 2, 50, 9));
    EXPECT_TRUE(EncodeJpeg(nullptr, 8, 8, 50).empty());
}

std::vector<uint8_t> with_stamp(const std::vector<uint8_t>& jpeg, uint64_t seq, int64_t t)
{
    const size_t at = StampInsertOffset(jpeg.data(), jpeg.size());
    const std::vector<uint8_t> seg = MakeStampSegment(seq, t);
    std::vector<uint8_t> out(jpeg.begin(), jpeg.begin() + static_cast<long>(at));
    out.insert(out.end(), seg.begin(), seg.end());
    out.insert(out.end(), jpeg.begin() + static_cast<long>(at), jpeg.end());
    return out;
}

// Behind a JFIF APP0 (the end-to-end tests' pictures) the stamp is read
// back where the daemon relays it; a file without APP0, as many cameras
// write, gets it right after SOI.
TEST(JpegStampTest, StampGoesBehindSoiWithoutJfifAndReadsBack)
{
    const std::vector<uint8_t> jpeg = MakeTestJpeg(32, 32, 0, 50, 0);
    ASSERT_EQ(StampInsertOffset(jpeg.data(), jpeg.size()), 20u);  // SOI + APP0
    std::vector<uint8_t> bare(jpeg.begin(), jpeg.begin() + 2);
    bare.insert(bare.end(), jpeg.begin() + 20, jpeg.end());
    EXPECT_EQ(StampInsertOffset(bare.data(), bare.size()), 2u);
    const std::vector<uint8_t> stamped = with_stamp(bare, 18446744073709551615ull, 1795357257468466);
    EXPECT_EQ(CheckJpegStructure(stamped.data(), stamped.size()), "");
    uint64_t seq = 0;
    int64_t t = 0;
    EXPECT_FALSE(ReadStamp(bare.data(), bare.size(), &seq, &t));
    ASSERT_TRUE(ReadStamp(stamped.data(), stamped.size(), &seq, &t));
    EXPECT_EQ(seq, 18446744073709551615ull);
    EXPECT_EQ(t, 1795357257468466);
    int w = 0, h = 0;
    ASSERT_TRUE(ReadJpegSize(stamped.data(), stamped.size(), &w, &h));
    EXPECT_EQ(w, 32);
    EXPECT_EQ(h, 32);
}

TEST(JpegStampTest, StructureCheckRejectsDamagedPictures)
{
    const std::vector<uint8_t> good = MakeTestJpeg(48, 32, 1, 60, 0);
    ASSERT_EQ(CheckJpegStructure(good.data(), good.size()), "");
    // Every cut short of the whole picture is caught.
    for (size_t n = 0; n < good.size(); ++n)
        ASSERT_NE(CheckJpegStructure(good.data(), n), "") << "cut at " << n;

    auto damaged = [&](auto edit) {
        std::vector<uint8_t> j = good;
        edit(j);
        return CheckJpegStructure(j.data(), j.size());
    };
    EXPECT_NE(damaged([](auto& j) { j.push_back(0); }), "") << "byte after EOI";
    EXPECT_NE(damaged([](auto& j) { j[0] = 0; }), "") << "no SOI";
    EXPECT_NE(damaged([](auto& j) { j[4] = 0xFF; }), "") << "APP0 length past the end";
    EXPECT_NE(damaged([](auto& j) {
                  // An unstuffed 0xFF in the scan data followed by a non-marker.
                  std::vector<uint8_t> tail = {0xFF, 0xD9};
                  j.resize(j.size() - 2);
                  j.insert(j.end(), {0xFF, 0xD8});
                  j.insert(j.end(), tail.begin(), tail.end());
              }),
              "")
        << "SOI inside the scan";
}

}  // namespace
}  // namespace otools
