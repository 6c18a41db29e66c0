#ifndef OSTREL_COMMON_TIME_UTILS_H
#define OSTREL_COMMON_TIME_UTILS_H

#include <sys/time.h>

class DbPrintf_Class;

// Time texts. Each writes into buf (cut to size, always terminated) and
// returns SUCCESS (DEBUG_WARNING for a null buf or a size below 1); a null
// tv means the current time. The log pointer is not used.
//   Easy     local  "%Y/%m/%d %H:%M:%S"
//   DumpLog  local  "%Y/%m/%d %H:%M:%S(<ms>)"
//   Log      local  "%Y/%m/%d (%a) %H:%M:%S [<us> (us)]"
//   Http     UTC    "%a, %d %b %Y %H:%M:%S GMT"
int GetTimeStr_Easy(char* buf, int size, const timeval* tv, DbPrintf_Class* pDB = nullptr);
int GetTimeStr_DumpLog(char* buf, int size, const timeval* tv, DbPrintf_Class* pDB = nullptr);
int GetTimeStr_Log(char* buf, int size, const timeval* tv, DbPrintf_Class* pDB = nullptr);
int GetTimeStr_Http(char* buf, int size, const timeval* tv, DbPrintf_Class* pDB = nullptr);

// Waits usec microseconds with select() and no descriptors. A signal ends
// the wait early (this is how SIGUSR1 wakes a sleeping worker). SUCCESS.
int UsecSleep(long long usec, DbPrintf_Class* pDB = nullptr);

// Reads CLOCK_MONOTONIC into *tv (seconds and microseconds since an
// arbitrary start; never steps). Every duration of the daemon is the
// GetDifftime64 of two such readings: the pass accounting of the socket
// waits and request and picture reads, the time-outs, the post-alarm tick
// and sum, the thread-stop limit, the camera's back-off. When the wall clock
// does not step, the same difference taken on this clock is the difference
// of two gettimeofday readings, so every behaviour defined on those holds;
// when it steps (NTP's first sync, date -s, a resumed virtual machine) no
// duration jumps with it. The wall clock (gettimeofday) is kept for what
// shows wall time: log lines, the picture's arrival time, the Date header,
// the configuration's update stamp.
void GetMonotonicTime(timeval* tv);

// later - earlier, in signed 64-bit microseconds.
long long GetDifftime64(const timeval* earlier, const timeval* later, DbPrintf_Class* pDB = nullptr);

// Sleeps 2^attempt whole seconds, the exponent clamped to 0..6 (1 to 64 s).
// Interruptible like UsecSleep. SUCCESS.
int SleepExponentSec(int attempt, DbPrintf_Class* pDB = nullptr);

#endif
