#include "common/time_utils.h"

#include <stdio.h>
#include <sys/select.h>
#include <time.h>

#include "common/return_codes.h"

namespace {

// A null time means "now", so callers stamping the current moment need not
// fetch it themselves.
timeval time_or_now(const timeval* tv)
{
    timeval now;
    if (tv != nullptr) {
        return *tv;
    }
    gettimeofday(&now, nullptr);
    return now;
}

// strftime leaves its output undefined when the text does not fit, so the
// text is made in a roomy buffer and then cut into the caller's.
void format_tm(char* out, size_t size, const char* fmt, const struct tm& tmv)
{
    if (strftime(out, size, fmt, &tmv) == 0) {
        out[0] = '\0';
    }
}

// What follows the calendar text: nothing, "(ms)" or " [us (us)]".
enum class Suffix { none, msec, usec };

// The common body of the GetTimeStr_* family: the time (or now) broken down
// in local time or UTC, formatted, then cut into the caller's buffer.
int format_time(char* buf, int size, const timeval* tv, bool utc, const char* fmt, Suffix suffix)
{
    if (buf == nullptr || size <= 0) {
        return DEBUG_WARNING;
    }
    timeval t = time_or_now(tv);
    struct tm tmv;
    if (utc) {
        gmtime_r(&t.tv_sec, &tmv);
    } else {
        localtime_r(&t.tv_sec, &tmv);
    }
    char text[512];
    format_tm(text, sizeof text, fmt, tmv);
    size_t n = static_cast<size_t>(size);
    switch (suffix) {
    case Suffix::none: snprintf(buf, n, "%s", text); break;
    case Suffix::msec: snprintf(buf, n, "%s(%ld)", text, static_cast<long>(t.tv_usec / 1000)); break;
    case Suffix::usec: snprintf(buf, n, "%s [%ld (us)]", text, static_cast<long>(t.tv_usec)); break;
    }
    return SUCCESS;
}

}  // namespace

int GetTimeStr_Easy(char* buf, int size, const timeval* tv, DbPrintf_Class* /*pDB*/)
{
    return format_time(buf, size, tv, false, "%Y/%m/%d %H:%M:%S", Suffix::none);
}

int GetTimeStr_DumpLog(char* buf, int size, const timeval* tv, DbPrintf_Class* /*pDB*/)
{
    return format_time(buf, size, tv, false, "%Y/%m/%d %H:%M:%S", Suffix::msec);
}

int GetTimeStr_Log(char* buf, int size, const timeval* tv, DbPrintf_Class* /*pDB*/)
{
    return format_time(buf, size, tv, false, "%Y/%m/%d (%a) %H:%M:%S", Suffix::usec);
}

int GetTimeStr_Http(char* buf, int size, const timeval* tv, DbPrintf_Class* /*pDB*/)
{
    return format_time(buf, size, tv, true, "%a, %d %b %Y %H:%M:%S GMT", Suffix::none);
}

int UsecSleep(long long usec, DbPrintf_Class* /*pDB*/)
{
    if (usec < 0) {
        usec = 0;
    }
    timeval tv;
    tv.tv_sec = static_cast<time_t>(usec / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(usec % 1000000);
    // No descriptors: select only waits. EINTR (a signal such as the
    // worker's SIGUSR1) ends the wait early on purpose.
    select(0, nullptr, nullptr, nullptr, &tv);
    return SUCCESS;
}

void GetMonotonicTime(timeval* tv)
{
    if (tv == nullptr) {
        return;
    }
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    tv->tv_sec = ts.tv_sec;
    tv->tv_usec = static_cast<suseconds_t>(ts.tv_nsec / 1000);
}

long long GetDifftime64(const timeval* earlier, const timeval* later, DbPrintf_Class* /*pDB*/)
{
    if (earlier == nullptr || later == nullptr) {
        return 0;
    }
    long long a = static_cast<long long>(earlier->tv_sec) * 1000000LL + earlier->tv_usec;
    long long b = static_cast<long long>(later->tv_sec) * 1000000LL + later->tv_usec;
    return b - a;
}

int SleepExponentSec(int attempt, DbPrintf_Class* pDB)
{
    int exponent = attempt < 0 ? 0 : (attempt > 6 ? 6 : attempt);
    UsecSleep((1LL << exponent) * 1000000LL, pDB);
    return SUCCESS;
}
