#include "fifo/frame_fifo.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <algorithm>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "common/return_codes.h"

namespace {

constexpr int kVideo = 4096;
constexpr int kOption = 128;

// Frame k's picture and option record: sizes and bytes differ from frame to
// frame, so that a slot overwritten by another frame is noticed.
std::string Picture(long long k)
{
    std::string p(1 + static_cast<size_t>((k * 7919) % (kVideo - 1)), '\0');
    for (size_t j = 0; j < p.size(); j++) {
        p[j] = static_cast<char>((k * 31 + static_cast<long long>(j)) & 0xff);
    }
    return p;
}

std::string OptionFor(long long k)
{
    char buf[kOption] = {};
    snprintf(buf, sizeof buf, "frame=%lld", k);
    return std::string(buf, sizeof buf);
}

bool PictureIs(long long k, const char* p, int size)
{
    return std::string(p, size) == Picture(k);
}

// Writes frame k the way the camera thread does: in place into the slot
// that was started, then commit.
void WriteFrameBody(CMFifo& fifo, long long k)
{
    char* buf = nullptr;
    int cap = 0, have = -1;
    ASSERT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
    ASSERT_EQ(0, have);
    const std::string pic = Picture(k);
    memcpy(buf, pic.data(), pic.size());
    ASSERT_EQ(SUCCESS, fifo.InputData(buf, static_cast<int>(pic.size())));
    std::string opt = OptionFor(k);
    ASSERT_EQ(SUCCESS, fifo.InputDataFinish(&opt[0], kOption));
}

// The same, then start the next slot.
void WriteFrame(CMFifo& fifo, long long k)
{
    WriteFrameBody(fifo, k);
    ASSERT_EQ(SUCCESS, fifo.InputDataStart());
}

// What a reader got: the return code, the description and the bytes.
struct Got {
    int rc;
    _StrOutInfo info;
    std::string video;
    std::string option;
};

Got Read(CMFifo& fifo, long long want, bool borrow = false)
{
    Got g{0, {}, {}, {}};
    static char video[kVideo];
    char option[kOption];
    char* pic = video;
    int cap = 0;
    g.rc = borrow ? fifo.GetData2(want, &pic, &cap, option, kOption, &g.info)
                  : fifo.GetData(want, video, kVideo, option, kOption, &g.info);
    if (g.rc == SUCCESS) {
        EXPECT_EQ(borrow ? kVideo : 0, cap) << "GetData2 gives the slot's capacity";
        g.video.assign(pic, g.info.nDataSize_Video);
        g.option.assign(option, g.info.nDataSize_Option);
    }
    return g;
}

class FrameFifoTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(SUCCESS, fifo.Setup(2, 4, kVideo, kOption, 0));
        ASSERT_EQ(SUCCESS, fifo.InputDataStart());
        ASSERT_EQ(SUCCESS, fifo.InputDataGet(&slot, &cap, &have));
    }

    void WriteFrames(long long from, long long to)
    {
        for (long long k = from; k < to; k++) {
            WriteFrame(fifo, k);
        }
        ASSERT_EQ(SUCCESS, fifo.InputDataGet(&slot, &cap, &have));
    }

    std::pair<long long, long long> TopTail()
    {
        long long top = -99, tail = -99;
        EXPECT_EQ(SUCCESS, fifo.GetTopTailDataNo(&top, &tail));
        return {top, tail};
    }

    int PictureSoFar()
    {
        EXPECT_EQ(SUCCESS, fifo.InputDataGet(&slot, &cap, &have));
        return have;
    }

    CMFifo fifo;
    char* slot = nullptr;  // the writer's slot, as InputDataGet lends it
    int cap = 0, have = 0;
};

// ---------------------------------------------------------------------------
// Data numbers and the choice of frame

TEST_F(FrameFifoTest, ReaderGetsTheNearestHeldFrame)
{
    long long top = -5, tail = -5;
    EXPECT_EQ(CHANNEL_NO_DATA, fifo.GetTopTailDataNo(&top, &tail));
    EXPECT_EQ(CHANNEL_NO_DATA, Read(fifo, 0).rc);
    EXPECT_EQ(CHANNEL_NO_DATA, Read(fifo, 0, true).rc);
    const std::pair<long long, long long> expected[] = {{0, 0}, {0, 1}, {1, 2}};
    for (long long k = 0; k < 3; k++) {
        WriteFrame(fifo, k);
        EXPECT_EQ(expected[k], TopTail()) << "after commit " << k;
    }

    WriteFrames(3, 9);  // Top 7, Tail 8
    struct Row {
        long long want, got;
        const char* note;
    } rows[] = {
        {0, 7, "oldest held for 0"},
        {5, 7, "below the range"},
        {8, 8, "tail"},
        {9, 8, "the frame being written is never given"},
        {100, 8, "far above"},
        {LLONG_MIN, 7, "smallest"},
    };
    for (const Row& r : rows) {
        for (bool borrow : {false, true}) {
            Got g = Read(fifo, r.want, borrow);
            ASSERT_EQ(SUCCESS, g.rc) << r.note;
            EXPECT_EQ(r.got, g.info.lnDataNo) << r.note;
            EXPECT_EQ(7, g.info.lnDataNo_PublicTop) << r.note;
            EXPECT_EQ(8, g.info.lnDataNo_PublicTail) << r.note;
            EXPECT_TRUE(PictureIs(r.got, g.video.data(), g.info.nDataSize_Video)) << r.note;
            EXPECT_EQ(OptionFor(r.got), g.option) << r.note;
        }
    }
}

TEST_F(FrameFifoTest, ReaderBuffersTooSmallAreRefused)
{
    WriteFrame(fifo, 1);  // number 0 holding frame 1's picture
    const int size = static_cast<int>(Picture(1).size());
    char video[kVideo], option[kOption], *p = nullptr;
    int pcap = 0;
    _StrOutInfo info{};
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.GetData(0, video, size - 1, option, kOption, &info));
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.GetData(0, video, size, option, kOption - 1, &info));
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.GetData2(0, &p, &pcap, option, kOption - 1, &info));
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(SUCCESS, fifo.GetData(0, video, size, option, kOption, &info)) << "exact fit";
}

// ---------------------------------------------------------------------------
// Writer side

TEST_F(FrameFifoTest, PictureMayFillTheSlotExactlyButNotOneByteMore)
{
    ASSERT_EQ(kVideo, cap);
    EXPECT_EQ(SUCCESS, fifo.InputData(slot, kVideo - 1));
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.InputData(slot + kVideo - 1, 2));
    EXPECT_EQ(kVideo - 1, PictureSoFar()) << "a refused piece must not be counted";
    EXPECT_EQ(SUCCESS, fifo.InputData(slot + kVideo - 1, 1));
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.InputData(slot, INT_MAX)) << "size sum overflows int";
    EXPECT_EQ(kVideo, PictureSoFar());
}

// The in-place test compares against the end of the picture, not its start:
// a second in-place piece must land after the first without being moved.
TEST_F(FrameFifoTest, InPlacePiecesAndCopiedPiecesBuildOnePicture)
{
    memcpy(slot, "abc", 3);
    ASSERT_EQ(SUCCESS, fifo.InputData(slot, 3));
    memcpy(slot + 3, "def", 3);
    ASSERT_EQ(SUCCESS, fifo.InputData(slot + 3, 3));
    char outside[] = "ghi";
    ASSERT_EQ(SUCCESS, fifo.InputData(outside, 3));
    // A source inside the slot that is not the end is copied, overlap and all.
    ASSERT_EQ(SUCCESS, fifo.InputData(slot, 9));
    char opt[] = "o";
    ASSERT_EQ(SUCCESS, fifo.InputDataFinish(opt, 1));
    EXPECT_EQ("abcdefghiabcdefghi", Read(fifo, 0).video);
}

TEST_F(FrameFifoTest, FailedFinishAndCancelLeaveTheNumbersAlone)
{
    WriteFrames(0, 3);
    const auto before = TopTail();
    ASSERT_EQ(SUCCESS, fifo.InputData(slot, 10));
    char opt[kOption + 1] = {};
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.InputDataFinish(opt, kOption + 1));
    EXPECT_EQ(before, TopTail());

    ASSERT_EQ(SUCCESS, fifo.InputDataCancel());
    EXPECT_EQ(0, PictureSoFar());
    ASSERT_EQ(SUCCESS, fifo.InputDataStart());
    EXPECT_EQ(0, PictureSoFar());
    EXPECT_EQ(before, TopTail());
    WriteFrame(fifo, 50);
    EXPECT_EQ(before.second + 1, TopTail().second) << "numbering goes on where it was";
    Got g = Read(fifo, LLONG_MAX);
    EXPECT_TRUE(PictureIs(50, g.video.data(), g.info.nDataSize_Video));
}

// ---------------------------------------------------------------------------
// Waiting for a frame

// A reader that is already waiting for frame k is woken by the commit of k,
// long before its deadline. Each round the reader announces the number it
// is about to wait for and the writer commits it; in most rounds the reader
// is inside the wait by then, so a commit that does not notify leaves it
// asleep until its deadline and the round fails.
TEST_F(FrameFifoTest, CommitWakesAReaderWaitingForIt)
{
    using Clock = std::chrono::steady_clock;
    EXPECT_FALSE(fifo.WaitForDataNo(0, Clock::now() + std::chrono::milliseconds(20)))
        << "no commit: the wait ends at its deadline";

    constexpr long long kRounds = 40;
    std::mutex m;
    std::condition_variable cv;
    long long announced = -1;
    long long lateRound = -1;  // guarded by m, as is announced
    std::thread reader([&] {
        for (long long k = 0; k < kRounds; k++) {
            {
                std::lock_guard<std::mutex> lock(m);
                announced = k;
            }
            cv.notify_all();
            // Generous: a woken reader returns at once; only a missed
            // notification runs into it.
            const Clock::time_point deadline = Clock::now() + std::chrono::seconds(30);
            if (!fifo.WaitForDataNo(k, deadline) || Clock::now() >= deadline) {
                {
                    std::lock_guard<std::mutex> lock(m);
                    lateRound = k;
                }
                cv.notify_all();
                break;
            }
        }
    });
    for (long long k = 0; k < kRounds; k++) {
        {
            std::unique_lock<std::mutex> lock(m);
            cv.wait(lock, [&] { return announced == k || lateRound >= 0; });
            if (lateRound >= 0) {
                break;
            }
        }
        WriteFrames(k, k + 1);
    }
    reader.join();
    EXPECT_EQ(-1, lateRound) << "a waiting reader slept through the commit";
    // Already stored: no wait at all, even with a deadline in the past.
    EXPECT_TRUE(fifo.WaitForDataNo(kRounds - 1, Clock::now() - std::chrono::seconds(1)));
}

// ---------------------------------------------------------------------------
// One writer, several readers

// Readers announce the oldest number they may be holding before they borrow,
// and the writer does not start (clear) frame k while some reader may still
// hold a frame h with k >= h + L + W. That is exactly the window the FIFO promises,
// so a ring that reused a slot sooner would hand out damaged pictures.
struct Window {
    static constexpr long long kNone = LLONG_MAX;
    explicit Window(int readers) : hold(readers, kNone), seen(readers, -1) {}
    long long Oldest() const { return *std::min_element(hold.begin(), hold.end()); }
    long long Slowest() const { return *std::min_element(seen.begin(), seen.end()); }
    // Changes a shared value and wakes whoever waits for it.
    void Set(long long& v, long long to)
    {
        {
            std::lock_guard<std::mutex> lock(m);
            v = to;
        }
        cv.notify_all();
    }
    void WaitFor(const std::function<bool()>& cond)
    {
        std::unique_lock<std::mutex> lock(m);
        cv.wait(lock, cond);
    }
    std::mutex m;
    std::condition_variable cv;
    std::vector<long long> hold;  // guarded by m, as are the ones below
    std::vector<long long> seen;  // newest number each reader has had
    long long committed = -1;
    long long done = 0;
};

void RunWriterAndReaders(int l, int w, long long frames, int readers)
{
    CMFifo fifo;
    ASSERT_EQ(SUCCESS, fifo.Setup(l, w, kVideo, kOption, 0));
    ASSERT_EQ(SUCCESS, fifo.InputDataStart());
    Window win(readers);
    std::atomic<int> failures{0};

    std::thread writer([&] {
        for (long long k = 0; k < frames; k++) {
            WriteFrameBody(fifo, k);
            win.Set(win.committed, k);
            // Readers fall behind and get overtaken, but not by so much
            // that they would only ever see the newest frame.
            win.WaitFor([&] {
                const long long h = win.Oldest();
                return (h == Window::kNone || k + 1 < h + l + w) && win.Slowest() >= k - 2 * (l + w);
            });
            if (fifo.InputDataStart() != SUCCESS) {
                failures++;
                break;
            }
        }
        win.Set(win.done, 1);
    });

    std::vector<std::thread> pool;
    for (int r = 0; r < readers; r++) {
        pool.emplace_back([&, r] {
            const bool borrow = r % 2 == 0;
            std::vector<char> copy(kVideo);
            long long last = -1, lastTop = 0, lastTail = 0;
            win.WaitFor([&] { return win.committed >= 0; });
            for (;;) {
                {
                    std::lock_guard<std::mutex> lock(win.m);
                    if (win.done && last == win.committed) {
                        break;
                    }
                }
                long long top = 0, tail = 0;
                if (fifo.GetTopTailDataNo(&top, &tail) != SUCCESS) {
                    failures++;
                    break;
                }
                win.Set(win.hold[r], top);
                char option[kOption];
                char* pic = copy.data();
                int cap = 0;
                _StrOutInfo info{};
                int rc = borrow ? fifo.GetData2(last + 1, &pic, &cap, option, kOption, &info)
                                : fifo.GetData(last + 1, pic, kVideo, option, kOption, &info);
                const long long n = info.lnDataNo;
                bool ok = rc == SUCCESS && n >= last && n >= top && info.lnDataNo_PublicTop >= lastTop &&
                          info.lnDataNo_PublicTail >= lastTail && n >= info.lnDataNo_PublicTop &&
                          n <= info.lnDataNo_PublicTail && info.lnDataNo_PublicTail - info.lnDataNo_PublicTop + 1 <= l;
                win.Set(win.seen[r], n);
                // Hold a borrowed picture until the writer has gone as far as
                // the window allows, then check it is still intact.
                if (ok && borrow && n % 3 == 0) {
                    win.WaitFor([&] { return win.done || win.committed >= top + l + w - 1; });
                }
                ok = ok && PictureIs(n, pic, info.nDataSize_Video) &&
                     std::string(option, info.nDataSize_Option) == OptionFor(n);
                win.Set(win.hold[r], Window::kNone);
                if (!ok) {
                    failures++;
                    break;
                }
                if (n == last) {
                    win.WaitFor([&] { return win.done || win.committed > last; });
                }
                last = n;
                lastTop = info.lnDataNo_PublicTop;
                lastTail = info.lnDataNo_PublicTail;
            }
            win.Set(win.seen[r], Window::kNone);  // a reader that gave up holds nobody
        });
    }
    writer.join();
    for (auto& t : pool) {
        t.join();
    }
    EXPECT_EQ(0, failures.load());
}

TEST(FrameFifoConcurrency, BorrowedAndCopiedFramesStayIntactWithinTheWindow)
{
    RunWriterAndReaders(2, 4, 3000, 4);
}

TEST(FrameFifoConcurrency, NarrowestWriteOnlyZone)
{
    RunWriterAndReaders(3, 2, 2000, 3);
}

}  // namespace
