#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "common/return_codes.h"
#include "common/string_utils.h"
#include "common/time_utils.h"
#include "wait_until.h"

namespace {

TEST(DigitCheck, Table)
{
    struct Row {
        const char* in;
        int maxlen;
        long long min, max;
        int emptyOk;
        int rc;
        const char* after;  // the caller's text afterwards
        const char* note;
    } rows[] = {
        {"7", 3, 0, 99, 0, SUCCESS, "7", ""},
        {"99", 3, 0, 99, 0, SUCCESS, "99", "upper bound is inclusive"},
        {"100", 3, 0, 99, 0, OVER_CHAR, "10", "cut in place"},
        {"-1", 3, 0, 99, 0, OUT_OF_RANGE, "-1", ""},
        {"1a", 3, 0, 99, 0, INVALID_CODE, "1a", ""},
        {" 1", 3, 0, 99, 0, INVALID_CODE, " 1", "no blanks"},
        {"1-", 3, 0, 99, 0, SUCCESS, "1-", "a '-' anywhere passes, atoll stops there"},
        {"", 3, 0, 99, 0, SHORTAGE_VALUE, "", ""},
        {"", 3, 0, 99, 2, SHORTAGE_VALUE, "", "only 1 allows empty"},
        {"", 3, 1, 5, 1, OUT_OF_RANGE, "", "empty counts as 0"},
        {"", 3, -5, 5, 1, SUCCESS, "", ""},
        {"", 3, -5, -1, 1, OUT_OF_RANGE, "", ""},
        {"-9223372036854775808", 32, -9223372036854775807LL - 1, 0, 0, SUCCESS, "-9223372036854775808", ""},
        {"4294967296", 32, 0, 4294967295LL, 0, OUT_OF_RANGE, "4294967296", "compared in 64 bits"},
    };
    for (const Row& r : rows) {
        char text[40];
        snprintf(text, sizeof text, "%s", r.in);
        EXPECT_EQ(digit_check(text, r.maxlen, r.min, r.max, r.emptyOk), r.rc) << "'" << r.in << "' " << r.note;
        EXPECT_STREQ(text, r.after) << "'" << r.in << "' " << r.note;
    }
}

TEST(FileNamePtr, Table)
{
    struct Row {
        const char* path;
        int rc;
        const char* name;
    } rows[] = {
        {"a/b/prog", SUCCESS, "prog"},   {"prog", SUCCESS, "prog"},       {"/abc", SUCCESS, "/abc"},
        {"./Ostrel", SUCCESS, "Ostrel"}, {"dir/", NOTFOUND_ITEM, "dir/"}, {"/", SUCCESS, "/"},
    };
    for (const Row& r : rows) {
        char path[32];
        snprintf(path, sizeof path, "%s", r.path);
        char* name = nullptr;
        int len = -1;
        EXPECT_EQ(GetFileNamePtr(path, &name, &len), r.rc) << r.path;
        ASSERT_NE(name, nullptr) << r.path;
        EXPECT_GE(name, path);
        EXPECT_EQ(std::string(name, static_cast<size_t>(len)), r.name) << r.path;
    }
}

TEST(TimeText, HttpDateAndCut)
{
    setenv("TZ", "UTC", 1);
    tzset();
    timeval tv{1700000000, 123456};  // 2023-11-14 22:13:20 UTC, a Tuesday
    char buf[128];
    GetTimeStr_Http(buf, sizeof buf, &tv);
    EXPECT_STREQ(buf, "Tue, 14 Nov 2023 22:13:20 GMT");

    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(GetTimeStr_Http(buf, 4, &tv), SUCCESS);
    EXPECT_STREQ(buf, "Tue");
    EXPECT_EQ(buf[4], 'x');
}

TEST(TimeDiff, SignedMicroseconds)
{
    struct Row {
        timeval a, b;
        long long diff;
    } rows[] = {
        {{10, 900000}, {11, 100000}, 200000},
        {{11, 100000}, {10, 900000}, -200000},
        {{0, 0}, {3000000000LL, 1}, 3000000000000001LL},  // past 32-bit seconds
    };
    for (const Row& r : rows) {
        EXPECT_EQ(GetDifftime64(&r.a, &r.b), r.diff);
    }
}

TEST(Sleep, SplitsSecondsFromMicroseconds)
{
    // 1,050,000 us must become 1 s + 50,000 us: a tv_usec of a million or
    // more makes select fail at once.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(UsecSleep(1050000), SUCCESS);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::microseconds(1050000));
}

void on_signal(int)
{
}

TEST(Sleep, SignalEndsTheWait)
{
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;  // no SA_RESTART
    struct sigaction old;
    ASSERT_EQ(sigaction(SIGUSR1, &sa, &old), 0);

    std::atomic<bool> done{false};
    std::atomic<int> rc{0};
    std::thread sleeper([&] {
        rc = SleepExponentSec(9);  // 64 s unless woken
        done = true;
    });
    // The signal may land before the thread is in select, so keep sending
    // until the sleeper reports back, for at most half the sleep.
    EXPECT_TRUE(WaitUntil(
        [&] {
            pthread_kill(sleeper.native_handle(), SIGUSR1);
            return done.load();
        },
        32000))
        << "the signal did not end the 64 s sleep";
    sleeper.join();
    EXPECT_EQ(rc.load(), SUCCESS);
    sigaction(SIGUSR1, &old, nullptr);
}

}  // namespace
