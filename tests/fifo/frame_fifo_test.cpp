#include "fifo/frame_fifo.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <atomic>
#include <climits>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/return_codes.h"

namespace {

constexpr int kVideo = 4096;
constexpr int kOption = 128;

// Frame k's picture: a size and byte pattern that differ from frame to frame,
// so that a slot overwritten by another frame is noticed.
int PictureSize(long long k)
{
    return 1 + static_cast<int>((k * 7919) % (kVideo - 1));
}

char PictureByte(long long k, int j)
{
    return static_cast<char>((k * 31 + j) & 0xff);
}

std::string OptionFor(long long k)
{
    char buf[kOption] = {};
    snprintf(buf, sizeof buf, "frame=%lld", k);
    return std::string(buf, sizeof buf);
}

bool PictureIs(long long k, const char* p, int size)
{
    if (size != PictureSize(k)) {
        return false;
    }
    for (int j = 0; j < size; j++) {
        if (p[j] != PictureByte(k, j)) {
            return false;
        }
    }
    return true;
}

// Writes frame k the way the camera thread does: in place into the slot
// that was started, then commit.
void WriteFrameBody(CMFifo& fifo, long long k)
{
    char* buf = nullptr;
    int cap = 0, have = -1;
    ASSERT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
    ASSERT_EQ(0, have);
    const int size = PictureSize(k);
    ASSERT_LE(size, cap);
    for (int j = 0; j < size; j++) {
        buf[j] = PictureByte(k, j);
    }
    ASSERT_EQ(SUCCESS, fifo.InputData(buf, size));
    std::string opt = OptionFor(k);
    ASSERT_EQ(SUCCESS, fifo.InputDataFinish(&opt[0], kOption));
}

// The same, then start the next slot.
void WriteFrame(CMFifo& fifo, long long k)
{
    WriteFrameBody(fifo, k);
    ASSERT_EQ(SUCCESS, fifo.InputDataStart());
}

class FrameFifoTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(SUCCESS, fifo.Setup(2, 4, kVideo, kOption, 0));
        ASSERT_EQ(SUCCESS, fifo.InputDataStart());
    }

    void WriteFrames(long long n)
    {
        for (long long k = 0; k < n; k++) {
            WriteFrame(fifo, k);
        }
    }

    std::pair<long long, long long> TopTail()
    {
        long long top = -99, tail = -99;
        EXPECT_EQ(SUCCESS, fifo.GetTopTailDataNo(&top, &tail));
        return {top, tail};
    }

    int CurrentPictureSize()
    {
        char* buf = nullptr;
        int cap = 0, have = -1;
        EXPECT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
        return have;
    }

    CMFifo fifo;
};

// ---------------------------------------------------------------------------
// Life cycle

TEST(FrameFifoLifecycle, SetupRejectsBadGeometry)
{
    struct Row {
        int l, w, video, option, code;
        const char* note;
    } rows[] = {
        {0, 4, 10, 10, INVALID_ARGUMENT, "no readable frame"},
        {2, 1, 10, 10, INVALID_ARGUMENT, "write-only zone of one slot"},
        {2, 4, 0, 10, INVALID_ARGUMENT, "empty video buffer"},
        {2, 4, 10, 0, INVALID_ARGUMENT, "empty option buffer"},
        {1, 2, 1, 1, SUCCESS, "smallest ring"},
        {2, 4, 819200, 128, SUCCESS, "the daemon's ring"},
    };
    for (const Row& r : rows) {
        CMFifo fifo;
        EXPECT_EQ(r.code, fifo.Setup(r.l, r.w, r.video, r.option, 7)) << r.note;
    }
}

TEST(FrameFifoLifecycle, OperationsBeforeSetupAndAfterCleanupAreRefused)
{
    CMFifo fifo;
    char c = 'x';
    char* p = nullptr;
    int n = 0, m = 0;
    _StrOutInfo info{};
    const std::vector<std::pair<const char*, std::function<int()>>> ops = {
        {"InputDataStart", [&] { return fifo.InputDataStart(); }},
        {"InputDataGet", [&] { return fifo.InputDataGet(&p, &n, &m); }},
        {"InputData", [&] { return fifo.InputData(&c, 1); }},
        {"InputDataDelete", [&] { return fifo.InputDataDelete(1); }},
        {"InputDataFinish", [&] { return fifo.InputDataFinish(&c, 1); }},
        {"InputDataCancel", [&] { return fifo.InputDataCancel(); }},
        {"GetData", [&] { return fifo.GetData(0, &c, 1, &c, 1, &info); }},
        {"GetData2", [&] { return fifo.GetData2(0, &p, &n, &c, 1, &info); }},
        {"ChangeFifoLength", [&] { return fifo.ChangeFifoLength(3); }},
    };
    for (const auto& op : ops) {
        EXPECT_EQ(NOT_INITIALIZE, op.second()) << op.first << " before Setup";
    }
    ASSERT_EQ(SUCCESS, fifo.Setup(2, 4, 16, 16, 0));
    EXPECT_EQ(ALREADY_INITIALIZE, fifo.Setup(2, 4, 16, 16, 0));
    EXPECT_EQ(SUCCESS, fifo.Cleanup());
    EXPECT_EQ(SUCCESS, fifo.Cleanup()) << "Cleanup twice";
    for (const auto& op : ops) {
        EXPECT_EQ(NOT_INITIALIZE, op.second()) << op.first << " after Cleanup";
    }
    // Set up again after Cleanup: numbering starts afresh.
    ASSERT_EQ(SUCCESS, fifo.Setup(2, 4, 16, 16, 0));
    long long top = 0, tail = 0;
    EXPECT_EQ(CHANNEL_NO_DATA, fifo.GetTopTailDataNo(&top, &tail));
}

// ---------------------------------------------------------------------------
// Data numbers and the choice of frame

TEST_F(FrameFifoTest, NothingToReadBeforeTheFirstCommit)
{
    long long top = -5, tail = -5;
    char video[kVideo], option[kOption];
    char* p = nullptr;
    int cap = 0;
    _StrOutInfo info{};
    EXPECT_EQ(CHANNEL_NO_DATA, fifo.GetTopTailDataNo(&top, &tail));
    EXPECT_EQ(-5, top);
    EXPECT_EQ(CHANNEL_NO_DATA, fifo.GetData(0, video, kVideo, option, kOption, &info));
    EXPECT_EQ(CHANNEL_NO_DATA, fifo.GetData2(0, &p, &cap, option, kOption, &info));
    EXPECT_EQ(nullptr, p);
}

TEST_F(FrameFifoTest, TopAndTailFollowTheCommitsWithinTheReadableLength)
{
    const std::pair<long long, long long> expected[] = {{0, 0}, {0, 1}, {1, 2}, {2, 3}, {3, 4}};
    for (long long k = 0; k < 5; k++) {
        WriteFrame(fifo, k);
        EXPECT_EQ(expected[k], TopTail()) << "after commit " << k;
    }
}

TEST_F(FrameFifoTest, ReaderGetsTheNearestHeldFrame)
{
    WriteFrames(9);  // Top 7, Tail 8
    struct Row {
        long long want, got;
        const char* note;
    } rows[] = {
        {0, 7, "oldest held for 0"},
        {5, 7, "below the range"},
        {7, 7, "top"},
        {8, 8, "tail"},
        {9, 8, "the frame being written is never given"},
        {100, 8, "far above"},
        {-1, 7, "negative"},
        {LLONG_MAX, 8, "largest"},
    };
    for (const Row& r : rows) {
        char video[kVideo], option[kOption];
        _StrOutInfo info{};
        ASSERT_EQ(SUCCESS, fifo.GetData(r.want, video, kVideo, option, kOption, &info)) << r.note;
        EXPECT_EQ(r.got, info.lnDataNo) << r.note;
        EXPECT_EQ(7, info.lnDataNo_PublicTop) << r.note;
        EXPECT_EQ(8, info.lnDataNo_PublicTail) << r.note;
        EXPECT_TRUE(PictureIs(r.got, video, info.nDataSize_Video)) << r.note;
        EXPECT_EQ(OptionFor(r.got), std::string(option, info.nDataSize_Option)) << r.note;

        char* p = nullptr;
        int cap = 0;
        _StrOutInfo info2{};
        ASSERT_EQ(SUCCESS, fifo.GetData2(r.want, &p, &cap, option, kOption, &info2)) << r.note;
        EXPECT_EQ(r.got, info2.lnDataNo) << r.note;
        EXPECT_EQ(kVideo, cap) << "GetData2 gives the capacity, not the picture's length";
        EXPECT_TRUE(PictureIs(r.got, p, info2.nDataSize_Video)) << r.note;
        EXPECT_EQ(OptionFor(r.got), std::string(option, info2.nDataSize_Option)) << r.note;
    }
}

TEST_F(FrameFifoTest, FramesSurviveManyTripsRoundTheRing)
{
    for (long long k = 0; k < 1000; k++) {
        WriteFrame(fifo, k);
        for (long long want : {k - 1, k}) {
            char video[kVideo], option[kOption];
            _StrOutInfo info{};
            ASSERT_EQ(SUCCESS, fifo.GetData(want, video, kVideo, option, kOption, &info));
            const long long got = want < 0 ? 0 : want;
            ASSERT_EQ(got, info.lnDataNo);
            ASSERT_TRUE(PictureIs(got, video, info.nDataSize_Video)) << "frame " << got;
        }
    }
}

TEST_F(FrameFifoTest, ReaderBuffersTooSmallAreRefused)
{
    WriteFrame(fifo, 1);  // frame number 0 with frame 1's picture
    char video[kVideo], option[kOption];
    char* p = nullptr;
    int cap = 0;
    _StrOutInfo info{};
    const int size = PictureSize(1);
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.GetData(0, video, size - 1, option, kOption, &info));
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.GetData(0, video, size, option, kOption - 1, &info));
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.GetData2(0, &p, &cap, option, kOption - 1, &info));
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(SUCCESS, fifo.GetData(0, video, size, option, kOption, &info)) << "exact fit";
    EXPECT_EQ(size, info.nDataSize_Video);

    struct Row {
        std::function<int()> call;
        const char* note;
    } rows[] = {
        {[&] { return fifo.GetData(0, nullptr, 1, option, kOption, &info); }, "no video"},
        {[&] { return fifo.GetData(0, video, 0, option, kOption, &info); }, "video size 0"},
        {[&] { return fifo.GetData(0, video, kVideo, nullptr, 1, &info); }, "no option"},
        {[&] { return fifo.GetData(0, video, kVideo, option, 0, &info); }, "option size 0"},
        {[&] { return fifo.GetData(0, video, kVideo, option, 1, nullptr); }, "no info"},
        {[&] { return fifo.GetData2(0, nullptr, &cap, option, 1, &info); }, "2: no pointer"},
        {[&] { return fifo.GetData2(0, &p, nullptr, option, 1, &info); }, "2: no size"},
        {[&] { return fifo.GetData2(0, &p, &cap, nullptr, 1, &info); }, "2: no option"},
        {[&] { return fifo.GetData2(0, &p, &cap, option, -1, &info); }, "2: option size"},
        {[&] { return fifo.GetData2(0, &p, &cap, option, 1, nullptr); }, "2: no info"},
        {[&] { return fifo.GetTopTailDataNo(nullptr, nullptr); }, "no top/tail"},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(INVALID_ARGUMENT, r.call()) << r.note;
    }
}

// ---------------------------------------------------------------------------
// Writer side

TEST_F(FrameFifoTest, PictureMayFillTheSlotExactlyButNotOneByteMore)
{
    char* buf = nullptr;
    int cap = 0, have = 0;
    ASSERT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
    ASSERT_EQ(kVideo, cap);
    EXPECT_EQ(SUCCESS, fifo.InputData(buf, kVideo - 1));
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.InputData(buf + kVideo - 1, 2));
    EXPECT_EQ(kVideo - 1, CurrentPictureSize()) << "a refused piece must not be counted";
    EXPECT_EQ(SUCCESS, fifo.InputData(buf + kVideo - 1, 1));
    EXPECT_EQ(kVideo, CurrentPictureSize());
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.InputData(buf, INT_MAX)) << "size sum overflows int";

    char zero = 0;
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputData(nullptr, 1));
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputData(&zero, 0));
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputData(&zero, -1));
}

// The in-place test compares against the end of the picture, not its start:
// a second in-place piece must land after the first without being moved.
TEST_F(FrameFifoTest, InPlacePiecesAndCopiedPiecesBuildOnePicture)
{
    char* buf = nullptr;
    int cap = 0, have = 0;
    ASSERT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
    memcpy(buf, "abc", 3);
    ASSERT_EQ(SUCCESS, fifo.InputData(buf, 3));
    memcpy(buf + 3, "def", 3);
    ASSERT_EQ(SUCCESS, fifo.InputData(buf + 3, 3));
    char outside[] = "ghi";
    ASSERT_EQ(SUCCESS, fifo.InputData(outside, 3));
    // A source inside the slot that is not the end is copied, overlap and all.
    ASSERT_EQ(SUCCESS, fifo.InputData(buf, 9));
    ASSERT_EQ(18, CurrentPictureSize());

    char opt[kOption] = "o";
    ASSERT_EQ(SUCCESS, fifo.InputDataFinish(opt, 1));
    char video[kVideo], option[kOption];
    _StrOutInfo info{};
    ASSERT_EQ(SUCCESS, fifo.GetData(0, video, kVideo, option, kOption, &info));
    EXPECT_EQ("abcdefghiabcdefghi", std::string(video, info.nDataSize_Video));
    EXPECT_EQ(1, info.nDataSize_Option);
}

TEST_F(FrameFifoTest, DeleteTrimsTheEndButNeverEmptiesThePicture)
{
    char* buf = nullptr;
    int cap = 0, have = 0;
    ASSERT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
    memcpy(buf, "abcdef", 6);
    ASSERT_EQ(SUCCESS, fifo.InputData(buf, 6));
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputDataDelete(0));
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputDataDelete(6)) << "whole picture";
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputDataDelete(7));
    EXPECT_EQ(6, CurrentPictureSize());
    EXPECT_EQ(SUCCESS, fifo.InputDataDelete(2));
    EXPECT_EQ(4, CurrentPictureSize());
    // The next piece goes after the trimmed end.
    ASSERT_EQ(SUCCESS, fifo.InputData(buf + 4, 1));
    EXPECT_EQ(5, CurrentPictureSize());
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputDataDelete(5));
}

TEST_F(FrameFifoTest, FailedFinishCommitsNothing)
{
    WriteFrames(3);
    const auto before = TopTail();
    char* buf = nullptr;
    int cap = 0, have = 0;
    ASSERT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
    ASSERT_EQ(SUCCESS, fifo.InputData(buf, 10));
    char opt[kOption + 1] = {};
    EXPECT_EQ(DATA_LARGE_THEN_BUF, fifo.InputDataFinish(opt, kOption + 1));
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputDataFinish(nullptr, 1));
    EXPECT_EQ(INVALID_ARGUMENT, fifo.InputDataFinish(opt, 0));
    EXPECT_EQ(before, TopTail());
    // The frame can still be finished, and only once.
    ASSERT_EQ(SUCCESS, fifo.InputDataFinish(opt, kOption));
    EXPECT_EQ(before.second + 1, TopTail().second);
    char video[kVideo], option[kOption];
    _StrOutInfo info{};
    ASSERT_EQ(SUCCESS, fifo.GetData(LLONG_MAX, video, kVideo, option, kOption, &info));
    EXPECT_EQ(10, info.nDataSize_Video);
    EXPECT_EQ(kOption, info.nDataSize_Option);
}

TEST_F(FrameFifoTest, CancelAbandonsTheFrameWithoutMovingTheNumbers)
{
    WriteFrames(4);
    const auto before = TopTail();
    char* buf = nullptr;
    int cap = 0, have = 0;
    ASSERT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
    ASSERT_EQ(SUCCESS, fifo.InputData(buf, 100));
    ASSERT_EQ(SUCCESS, fifo.InputDataCancel());
    EXPECT_EQ(0, CurrentPictureSize());
    ASSERT_EQ(SUCCESS, fifo.InputDataStart());
    EXPECT_EQ(0, CurrentPictureSize());
    EXPECT_EQ(before, TopTail());
    // The numbering goes on where it was.
    WriteFrame(fifo, 50);
    EXPECT_EQ(before.second + 1, TopTail().second);
    char video[kVideo], option[kOption];
    _StrOutInfo info{};
    ASSERT_EQ(SUCCESS, fifo.GetData(LLONG_MAX, video, kVideo, option, kOption, &info));
    EXPECT_TRUE(PictureIs(50, video, info.nDataSize_Video));
}

// ---------------------------------------------------------------------------
// Changing the readable length

TEST_F(FrameFifoTest, ChangedLengthKeepsHeldFramesAndIsHonoured)
{
    WriteFrames(7);  // Top 5, Tail 6
    char* buf = nullptr;
    int cap = 0, have = 0;
    ASSERT_EQ(SUCCESS, fifo.InputDataGet(&buf, &cap, &have));
    memcpy(buf, "part", 4);  // in place, not yet passed to InputData

    EXPECT_EQ(INVALID_ARGUMENT, fifo.ChangeFifoLength(1));
    EXPECT_EQ(SUCCESS, fifo.ChangeFifoLength(2)) << "same length";
    ASSERT_EQ(SUCCESS, fifo.ChangeFifoLength(5));
    EXPECT_EQ(std::make_pair(5LL, 6LL), TopTail());

    // The writer's pointer survived the rebuild.
    ASSERT_EQ(SUCCESS, fifo.InputData(buf, 4));
    char opt[kOption] = "x";
    ASSERT_EQ(SUCCESS, fifo.InputDataFinish(opt, 1));
    ASSERT_EQ(SUCCESS, fifo.InputDataStart());
    for (long long k = 8; k < 20; k++) {
        WriteFrame(fifo, k);
    }
    EXPECT_EQ(std::make_pair(15LL, 19LL), TopTail()) << "five readable frames";
    for (long long k = 15; k < 20; k++) {
        char video[kVideo], option[kOption];
        _StrOutInfo info{};
        ASSERT_EQ(SUCCESS, fifo.GetData(k, video, kVideo, option, kOption, &info));
        EXPECT_TRUE(PictureIs(k, video, info.nDataSize_Video)) << k;
    }

    ASSERT_EQ(SUCCESS, fifo.ChangeFifoLength(3));
    EXPECT_EQ(std::make_pair(17LL, 19LL), TopTail()) << "shrinking moves Top up";
    for (long long k = 20; k < 40; k++) {
        WriteFrame(fifo, k);
        for (long long want = k - 2; want <= k; want++) {
            char video[kVideo], option[kOption];
            _StrOutInfo info{};
            ASSERT_EQ(SUCCESS, fifo.GetData(want, video, kVideo, option, kOption, &info));
            ASSERT_EQ(want, info.lnDataNo);
            ASSERT_TRUE(PictureIs(want, video, info.nDataSize_Video)) << want;
        }
    }
}

// ---------------------------------------------------------------------------
// One writer, several readers

// Readers announce the oldest number they may be holding before they borrow,
// and the writer does not start (clear) frame k while some reader may still
// hold a frame h with k >= h + L + W. That is exactly the window the FIFO promises,
// so a ring that reused a slot sooner would hand out damaged pictures.
struct Window {
    static constexpr long long kNone = LLONG_MAX;
    explicit Window(int readers) : hold(readers) {
        for (auto& h : hold) {
            h.store(kNone);
        }
    }
    long long Oldest() const
    {
        long long m = kNone;
        for (const auto& h : hold) {
            m = std::min(m, h.load());
        }
        return m;
    }
    std::vector<std::atomic<long long>> hold;
    std::atomic<long long> committed{-1};
    std::atomic<bool> done{false};
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
            win.committed.store(k);
            for (long long h = win.Oldest(); h != Window::kNone && k + 1 >= h + l + w;
                 h = win.Oldest()) {
                std::this_thread::yield();
            }
            ASSERT_EQ(SUCCESS, fifo.InputDataStart());
        }
        win.done.store(true);
    });

    std::vector<std::thread> pool;
    for (int r = 0; r < readers; r++) {
        pool.emplace_back([&, r] {
            const bool borrow = r % 2 == 0;
            std::vector<char> copy(kVideo);
            long long last = -1, lastTop = 0, lastTail = 0;
            while (win.committed.load() < 0) {
                std::this_thread::yield();
            }
            while (!(win.done.load() && last == frames - 1)) {
                long long top = 0, tail = 0;
                if (fifo.GetTopTailDataNo(&top, &tail) != SUCCESS) {
                    failures++;
                    return;
                }
                win.hold[r].store(top);
                char option[kOption];
                char* pic = nullptr;
                int cap = 0;
                _StrOutInfo info{};
                int rc = borrow ? fifo.GetData2(last + 1, &pic, &cap, option, kOption, &info)
                                : fifo.GetData(last + 1, copy.data(), kVideo, option, kOption,
                                               &info);
                if (rc != SUCCESS) {
                    failures++;
                    return;
                }
                if (!borrow) {
                    pic = copy.data();
                }
                const long long n = info.lnDataNo;
                bool ok = n >= last && n >= top && info.lnDataNo_PublicTop >= lastTop &&
                          info.lnDataNo_PublicTail >= lastTail && n >= info.lnDataNo_PublicTop &&
                          n <= info.lnDataNo_PublicTail &&
                          info.lnDataNo_PublicTail - info.lnDataNo_PublicTop + 1 <= l;
                // Hold a borrowed picture until the writer has gone as far as
                // the window allows, then check it is still intact.
                if (borrow && n % 3 == 0) {
                    while (!win.done.load() && win.committed.load() < top + l + w - 1) {
                        std::this_thread::yield();
                    }
                }
                ok = ok && PictureIs(n, pic, info.nDataSize_Video) &&
                     std::string(option, info.nDataSize_Option) == OptionFor(n);
                win.hold[r].store(Window::kNone);
                if (!ok) {
                    failures++;
                    return;
                }
                last = n;
                lastTop = info.lnDataNo_PublicTop;
                lastTail = info.lnDataNo_PublicTail;
            }
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

// Length changes while readers run and the writer goes on between changes:
// every read either works or is told the ring is changing, and nothing is
// read from a freed slot.
TEST(FrameFifoConcurrency, LengthChangesDrainTheOperationsInside)
{
    CMFifo fifo;
    ASSERT_EQ(SUCCESS, fifo.Setup(2, 4, kVideo, kOption, 0));
    ASSERT_EQ(SUCCESS, fifo.InputDataStart());
    WriteFrame(fifo, 0);
    std::atomic<bool> stop{false};
    std::atomic<int> failures{0};
    std::atomic<int> readsDone{0};

    std::vector<std::thread> readers;
    for (int r = 0; r < 2; r++) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                char video[kVideo], option[kOption];
                _StrOutInfo info{};
                int rc = fifo.GetData(LLONG_MAX, video, kVideo, option, kOption, &info);
                if (rc == SUCCESS) {
                    if (!PictureIs(info.lnDataNo, video, info.nDataSize_Video)) {
                        failures++;
                    }
                } else if (rc != CMFifo::kFifoChanging) {
                    failures++;
                }
                readsDone++;
            }
        });
    }
    for (int round = 0; round < 40; round++) {
        const int before = readsDone.load();
        while (readsDone.load() < before + 4) {
            std::this_thread::yield();
        }
        EXPECT_EQ(SUCCESS, fifo.ChangeFifoLength(2 + round % 3));
        WriteFrame(fifo, round + 1);
    }
    stop.store(true);
    for (auto& t : readers) {
        t.join();
    }
    EXPECT_EQ(0, failures.load());
}

}  // namespace
