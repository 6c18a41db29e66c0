// Frame ring: the writer's commit (start, lend the slot, in-place append,
// finish), alone and with the figures kept per picture, and a reader's borrow
// (top/tail, GetData2), and the commit while other threads ask for the
// readable range; the daemon's layout of 2 readable + 4 write-only slots.
#include <benchmark/benchmark.h>

#include <cstring>

#include "common/figures.h"
#include "common/return_codes.h"
#include "fifo/frame_fifo.h"

namespace {

constexpr int kVideoSize = 512 * 1024;
constexpr int kOptionSize = 128;
constexpr int kPicture = 18 * 1024;

// Writes the first bytes of a picture in place and commits it; the picture's
// bytes themselves are not the ring's cost, so only its head is touched.
bool commit_one(CMFifo& fifo, char* option)
{
    char* slot = nullptr;
    int cap = 0;
    int have = 0;
    if (fifo.InputDataStart() != SUCCESS || fifo.InputDataGet(&slot, &cap, &have) != SUCCESS) {
        return false;
    }
    slot[0] = static_cast<char>(0xFF);
    slot[1] = static_cast<char>(0xD8);
    return fifo.InputData(slot, kPicture) == SUCCESS && fifo.InputDataFinish(option, kOptionSize) == SUCCESS;
}

bool borrow_newest(CMFifo& fifo, char* option)
{
    long long top = 0;
    long long tail = 0;
    if (fifo.GetTopTailDataNo(&top, &tail) != SUCCESS) {
        return false;
    }
    char* pic = nullptr;
    int cap = 0;
    _StrOutInfo info{};
    if (fifo.GetData2(tail, &pic, &cap, option, kOptionSize, &info) != SUCCESS) {
        return false;
    }
    benchmark::DoNotOptimize(pic[0]);
    return true;
}

// Commits pictures one after another; withFigures adds what the camera
// thread keeps per picture for the operator (two relaxed counter updates and
// a coarse monotonic clock read).
void commit_loop(benchmark::State& state, bool withFigures)
{
    CMFifo fifo;
    fifo.Setup(2, 4, kVideoSize, kOptionSize, 1);
    char option[kOptionSize] = "IMAGE_ID0000";
    for (auto _ : state) {
        if (!commit_one(fifo, option)) {
            state.SkipWithError("commit failed");
            break;
        }
        if (withFigures)
            g_Figures.Picture(kPicture);
    }
    fifo.Cleanup();
}

void BM_FifoCommit(benchmark::State& state)
{
    commit_loop(state, false);
}

// The figures' cost on the picture path, against BM_FifoCommit.
void BM_FifoCommitWithFigures(benchmark::State& state)
{
    commit_loop(state, true);
}

void BM_FifoBorrow(benchmark::State& state)
{
    CMFifo fifo;
    fifo.Setup(2, 4, kVideoSize, kOptionSize, 1);
    char option[kOptionSize] = "IMAGE_ID0000";
    for (int i = 0; i < 3; ++i) {
        commit_one(fifo, option);
    }
    for (auto _ : state) {
        if (!borrow_newest(fifo, option)) {
            state.SkipWithError("borrow failed");
            break;
        }
    }
    fifo.Cleanup();
}

// Thread 0 commits while the others ask for the readable range, as the
// control-port threads do before every borrow: the cost of the ring's mutex
// under contention. The readers do not borrow here: at this pace the writer
// laps the four write-only slots within nanoseconds, far outside the window
// a borrowed picture is guaranteed for.
CMFifo g_shared;

void BM_FifoCommitWhileReadersPoll(benchmark::State& state)
{
    char option[kOptionSize] = "IMAGE_ID0000";
    if (state.thread_index() == 0) {
        g_shared.Setup(2, 4, kVideoSize, kOptionSize, 1);
        commit_one(g_shared, option);
    }
    long long top = 0;
    long long tail = 0;
    for (auto _ : state) {  // the framework's barrier orders Setup before this
        bool ok = state.thread_index() == 0 ? commit_one(g_shared, option)
                                            : g_shared.GetTopTailDataNo(&top, &tail) == SUCCESS;
        if (!ok) {
            state.SkipWithError("ring operation failed");
            break;
        }
        benchmark::DoNotOptimize(tail);
    }
    if (state.thread_index() == 0) {
        g_shared.Cleanup();
    }
}

}  // namespace

BENCHMARK(BM_FifoCommit);
BENCHMARK(BM_FifoCommitWithFigures);
BENCHMARK(BM_FifoBorrow);
BENCHMARK(BM_FifoCommitWhileReadersPoll)->Threads(2)->Threads(4)->UseRealTime();
