// The figures file: rates over the last writings, the text and the
// whole-file write. The writer thread that keeps the file while the daemon
// runs, and removes it at the stop, is the fleet's end-to-end test.
#include "daemon/figures_writer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "common/figures.h"
#include "common/return_codes.h"
#include "common/test_files.h"

namespace {

using test_files::ReadFile;

TEST(FigureRates, RatesOverTheSamplesKept)
{
    struct Sample {
        long long sec;
        unsigned long long pictures, bytes;
    };
    struct Row {
        std::vector<Sample> samples;
        double pps, bps;
        const char* note;
    } rows[] = {
        {{}, 0, 0, "nothing yet"},
        {{{1, 5, 500}}, 0, 0, "one sample is no rate"},
        {{{1, 0, 0}, {2, 10, 1000}}, 10, 1000, ""},
        {{{1, 0, 0}, {3, 10, 1000}, {5, 20, 2000}}, 5, 500, "oldest to newest"},
        {{{0, 999, 0}, {1, 0, 0}, {2, 10, 0}, {3, 20, 0}, {4, 30, 0}, {5, 40, 0}, {6, 50, 0}},
         10,
         0,
         "the seventh sample pushes the first out"},
        {{{1, 10, 10}, {1, 20, 20}}, 0, 0, "no time between"},
        {{{1, 20, 20}, {2, 10, 10}}, 0, 0, "counters going back give no rate"},
    };
    for (const Row& r : rows) {
        FigureRates rates;
        for (const Sample& s : r.samples)
            rates.Add(s.sec * 1000000LL, s.pictures, s.bytes);
        EXPECT_DOUBLE_EQ(rates.PicturesPerSecond(), r.pps) << r.note;
        EXPECT_DOUBLE_EQ(rates.BytesPerSecond(), r.bps) << r.note;
    }
}

std::map<std::string, std::string> Lines(const std::string& text)
{
    std::map<std::string, std::string> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        const auto eq = line.find('=');
        EXPECT_NE(eq, std::string::npos) << line;
        EXPECT_TRUE(out.emplace(line.substr(0, eq), line.substr(eq + 1)).second) << "twice: " << line;
    }
    return out;
}

TEST(FormatFigures, NameValueLinesWithAgesAndTheLastFailure)
{
    Figures_Class f;
    const long long now = FiguresNowMono();
    f.Picture(1000);
    f.Picture(234);
    f.CameraFailed(PHASE_START, HTTP_INVALID_SYNTAX, 401);
    f.lastPictureMono.store(now - 2500000);
    f.lastErrorMono.store(now - 500);
    FiguresContext c{4321, 7, 1700000000123456LL, now, 1, 0, 12.5, 250000.4};
    char buf[4096];
    const int n = FormatFigures(f, c, buf, sizeof buf);
    ASSERT_GT(n, 0);
    EXPECT_EQ(buf[n - 1], '\n');
    auto lines = Lines(std::string(buf, static_cast<size_t>(n)));
    const std::map<std::string, std::string> expected = {
        {"pid", "4321"},
        {"channel", "7"},
        {"time", "1700000000.123"},
        {"viewer", "1"},
        {"camera_delivering", "0"},
        {"camera_streaming", "0"},
        {"pictures", "2"},
        {"picture_bytes", "1234"},
        {"pictures_per_second", "12.50"},
        {"bytes_per_second", "250000"},
        {"last_picture_age", "2.500"},
        {"last_login_age", ""},
        {"camera_start_failures_refused_credentials", "1"},
        {"camera_stream_failures_refused_credentials", "0"},
        {"last_error", "start: refused credentials, HTTP 401 ([2042]HTTP_INVALID_SYNTAX)"},
        {"last_error_kind", "refused_credentials"},
        {"last_error_age", "0.000"},
    };
    for (const auto& [name, value] : expected)
        EXPECT_EQ(lines[name], value) << name;

    Figures_Class fresh;
    ASSERT_GT(FormatFigures(fresh, c, buf, sizeof buf), 0);
    lines = Lines(buf);
    EXPECT_EQ(lines["last_error"], "");
    EXPECT_EQ(lines["last_error_age"], "");
    EXPECT_EQ(lines["last_picture_age"], "");

    EXPECT_EQ(FormatFigures(f, c, buf, n), -1) << "one byte short";
    EXPECT_EQ(FormatFigures(f, c, buf, n + 1), n);
}

class FiguresFile : public test_files::ScratchDir {};

TEST_F(FiguresFile, WrittenWholeAndReplaced)
{
    const std::string path = dir_ + "/Ostrel_01.figures";
    ASSERT_EQ(WriteFileWhole(path.c_str(), "a=1\n", 4), SUCCESS);
    ASSERT_EQ(WriteFileWhole(path.c_str(), "b=22\n", 5), SUCCESS);
    EXPECT_EQ(ReadFile(path), "b=22\n");
    EXPECT_NE(access((path + ".tmp").c_str(), F_OK), 0) << "no temporary file is left";
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);

    const std::string missing = dir_ + "/no-such-dir/Ostrel_01.figures";
    EXPECT_EQ(WriteFileWhole(missing.c_str(), "a=1\n", 4), CANNOT_FILEOPEN);
    EXPECT_EQ(WriteFileWhole(nullptr, "a=1\n", 4), DEBUG_WARNING);
}

}  // namespace
