#include <gtest/gtest.h>

#include <ctype.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/test_files.h"
#include "wait_until.h"

namespace {

namespace fs = std::filesystem;

constexpr int kFunc = 0x1000;
constexpr long kLimit = 0x100000;

class DebugLogTest : public test_files::ScratchDir {
protected:
    std::string Path(const std::string& name) const { return dir_ + "/" + name; }
    std::string Gen(int i) const { return Path("t_log" + std::to_string(i) + ".txt"); }

    static std::string Read(const std::string& path) { return test_files::ReadFile(path); }
    static void Fill(const std::string& path, long size, char c = 'x')
    {
        test_files::WriteFile(path, std::string(static_cast<size_t>(size), c));
    }
    // Changes the file's status (chmod) until its ctime is strictly later
    // than other's: waits for the clock to move, whatever its granularity.
    static void MakeNewer(const std::string& path, const std::string& other)
    {
        struct stat a, b;
        ASSERT_EQ(stat(other.c_str(), &b), 0);
        mode_t mode = 0600;
        ASSERT_TRUE(WaitUntil([&] {
            mode ^= 0060;
            return chmod(path.c_str(), mode) == 0 && stat(path.c_str(), &a) == 0 &&
                   (a.st_ctim.tv_sec > b.st_ctim.tv_sec ||
                    (a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec > b.st_ctim.tv_nsec));
        }));
    }
};

// Replaces each time stamp "[YYYY/MM/DD hh:mm:ss" with "[T" and the
// milliseconds of "(<ms>)" with "ms", so the rest compares exactly.
std::string MaskTime(std::string text)
{
    const std::string shape = "[9999/99/99 99:99:99";
    auto fits = [&](size_t i, const std::string& pattern) {
        for (size_t k = 0; k < pattern.size(); ++k) {
            char c = i + k < text.size() ? text[i + k] : '\0';
            if (pattern[k] == '9' ? !isdigit(static_cast<unsigned char>(c)) : c != pattern[k]) {
                return false;
            }
        }
        return true;
    };
    for (size_t i = 0; i < text.size(); ++i) {
        if (fits(i, shape)) {
            text.replace(i, shape.size(), "[T");
            for (const char* ms : {"(9)", "(99)", "(999)"}) {
                if (fits(i + 2, ms)) {
                    text.replace(i + 2, strlen(ms), "(ms)");
                }
            }
        }
    }
    return text;
}

TEST_F(DebugLogTest, UnopenedLogDropsEverything)
{
    DbPrintf_Class log;
    EXPECT_EQ(log.TimePrintf(1, "x"), CANNOT_FILEOPEN);
    EXPECT_EQ(log.TimePrintf(0, "x"), SUCCESS) << "level 0 is silent, not a failure";

    TimePrint(nullptr, 1, "x");  // a null log is accepted
}

TEST_F(DebugLogTest, OpeningRulesAndFileModes)
{
    const std::string file = Path("m1.txt");
    Fill(file, 100);
    DbPrintf_Class log;
    ASSERT_EQ(log.FileOpen(file.c_str(), 1), SUCCESS);
    EXPECT_EQ(Read(file), "") << "mode 1 truncates at opening";
    EXPECT_EQ(log.FileOpen(Path("other").c_str(), 1), DEBUG_WARNING);
    EXPECT_EQ(log.TimePrintf(1, "a"), SUCCESS);
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u) << "mode set explicitly, not left to the umask";

    DbPrintf_Class missing;
    EXPECT_EQ(missing.FileOpen(Path("no/such/dir").c_str(), 1), CANNOT_FILEOPEN);
    EXPECT_EQ(missing.FileOpen(Path("x").c_str(), 1), DEBUG_WARNING) << "name stays stored";

    const std::string m0 = Path("m0.txt");
    Fill(m0, 100);
    {
        DbPrintf_Class buffered(m0.c_str(), 0);
        EXPECT_EQ(Read(m0), "");
        EXPECT_EQ(buffered.DbPrintfNoTab(1, "kept %d", 7), SUCCESS);
    }
    EXPECT_EQ(Read(m0), "kept 7") << "mode 0 stream reaches the file when the log closes";
}

// The daemon writes every line through TimePrint: a stamp, then the text.
TEST_F(DebugLogTest, TimePrintLineForm)
{
    const std::string file = Path("fmt.txt");
    DbPrintf_Class log(file.c_str(), 1);
    log.TimePrintf(1, "stamped %s\n", "msg");
    EXPECT_EQ(MaskTime(Read(file)), "[T] stamped msg\n");
}

TEST_F(DebugLogTest, RotatesAcrossTheSizeLimit)
{
    Fill(Gen(0), kLimit + 1);
    DbPrintf_Class log(Path("t").c_str(), 3);
    EXPECT_EQ(log.GetGeneration(), 0);

    log.DbPrintfNoTab(1, "first\n");
    EXPECT_EQ(Read(Gen(1)), "first\n") << "an oversized generation moves the log on";
    log.DbPrintfNoTab(1, "second\n");
    EXPECT_EQ(Read(Gen(1)), "first\nsecond\n");
    EXPECT_EQ(fs::file_size(Gen(0)), static_cast<uintmax_t>(kLimit + 1));

    Fill(Gen(1), kLimit);  // exactly at the limit: not yet over it
    log.DbPrintfNoTab(1, "third\n");
    EXPECT_EQ(fs::file_size(Gen(1)), static_cast<uintmax_t>(kLimit + 6));
    log.DbPrintfNoTab(1, "fourth\n");
    EXPECT_EQ(Read(Gen(0)), "fourth\n") << "wrapped round to generation 0, truncated";
    EXPECT_EQ(log.GetGeneration() % 2, 0);

    // Another process may delete the files at any time.
    fs::remove(Gen(0));
    log.DbPrintfNoTab(1, "fifth\n");
    EXPECT_EQ(Read(Gen(0)), "fifth\n");
}

TEST_F(DebugLogTest, ContinuesInTheNewestGeneration)
{
    Fill(Gen(0), 10, '0');
    Fill(Gen(1), 10, '1');
    MakeNewer(Gen(1), Gen(0));
    {
        DbPrintf_Class log(Path("t").c_str(), 3);
        log.DbPrintfNoTab(1, "+");
    }
    EXPECT_EQ(Read(Gen(1)), "1111111111+");

    MakeNewer(Gen(0), Gen(1));
    {
        DbPrintf_Class log(Path("t").c_str(), 3);
        log.DbPrintfNoTab(1, "+");
    }
    EXPECT_EQ(Read(Gen(0)), "0000000000+");

    // Mode 2 starts afresh.
    DbPrintf_Class fresh(Path("t").c_str(), 2);
    EXPECT_FALSE(fs::exists(Gen(0)));
    EXPECT_FALSE(fs::exists(Gen(1)));
    fresh.DbPrintfNoTab(1, "new");
    EXPECT_EQ(Read(Gen(0)), "new");
}

// Each line is longer than stdio's buffer and than the log's first format
// buffer: a line written in more than one piece lets the unlocked error
// return's lines land inside it, and a badly grown format buffer cuts it.
TEST_F(DebugLogTest, ConcurrentWritersKeepLinesWhole)
{
    DbPrintf_Class log(Path("t").c_str(), 3);
    constexpr int kThreads = 4;
    constexpr int kLines = 30;
    const std::string payload(6000, 'p');
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
            }
            for (int i = 0; i < kLines; ++i) {
                log.DbPrintfNoTab(1, "thread %d line %03d %s end\n", t, i, payload.c_str());
                // Depth is shared and the error return writes unlocked.
                log.DbPrintfFunc(kFunc, "f");
                log.DbPrintfErrRtn(kFunc, "e");
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    std::istringstream in(Read(Gen(0)));
    int count = 0;
    int traces = 0;
    for (std::string l; std::getline(in, l);) {
        int t = -1, i = -1;
        char again[64];
        if (sscanf(l.c_str(), "thread %d line %d", &t, &i) == 2) {
            snprintf(again, sizeof again, "thread %d line %03d ", t, i);
            EXPECT_EQ(l, again + payload + " end");
            ++count;
        } else {
            size_t p = l.find_first_not_of('\t');
            std::string bare = p == std::string::npos ? "" : l.substr(p);
            EXPECT_TRUE(bare == "--------" || bare == "f" || bare == "e -!Err!- ") << l;
            ++traces;
        }
    }
    EXPECT_EQ(count, kThreads * kLines);
    EXPECT_EQ(traces, 3 * kThreads * kLines);
    EXPECT_GE(log.GetDepth(), -1);
}

}  // namespace
