#ifndef OSTREL_COMMON_DEBUG_LOG_H
#define OSTREL_COMMON_DEBUG_LOG_H

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>

#include <atomic>

// DbPrintf_Class: the process's trace and error log.
//
// One instance (g_pDB) is created at start and a pointer to it is passed, as
// the last argument, to nearly every function. Each writing member takes the
// object's mutex around open, write and close, so lines written by different
// threads do not interleave within one call. Exceptions kept on purpose:
// DbPrintfErrRtn writes without the mutex, and the indentation depth is one
// counter for the whole object changed outside the mutex (atomic here, so the
// unlocked updates are not data races).
//
// Modes (second argument of the naming constructor and of FileOpen):
//   0  the file is opened "wt" once and kept open (stdio buffered);
//   1  the file is truncated at opening; every write appends and closes;
//   2  generation files "<name>_log<i>.txt" are deleted at opening, then as 3;
//   3  generation files rotate: before each write the current generation is
//      checked and, once larger than the size limit, the next one is
//      truncated and used; every write opens and closes the file.
// In modes 1 to 3 other processes may read, move or delete the files at any
// time. Writers return CANNOT_FILEOPEN (and drop the message) when the file
// cannot be opened; a level of 0 writes nothing and returns SUCCESS.
class DbPrintf_Class {
public:
    DbPrintf_Class();
    DbPrintf_Class(const char* name, int mode);
    virtual ~DbPrintf_Class();

    DbPrintf_Class(const DbPrintf_Class&) = delete;
    DbPrintf_Class& operator=(const DbPrintf_Class&) = delete;

    // Only when neither a name nor a stream is set; otherwise DEBUG_WARNING and
    // nothing changes. CANNOT_FILEOPEN when the open of mode 0 or 1 fails (the
    // name and mode stay stored), else SUCCESS.
    int FileOpen(const char* name, int mode);

    // "[%Y/%m/%d %H:%M:%S] ", depth tabs, then the message (no newline added).
    int TimePrintf(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    int TmP(int level, const char* fmt, va_list ap);
    // Depth tabs, then the message.
    int DbPrintf(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    int DbP(int level, const char* fmt, va_list ap);
    // The message only.
    int DbPrintfNoTab(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    // Gated by the error-output flag, not by a level: the message, "\n", then
    // "->[<time>(<ms>)]:[ErrNo<errnum>:<strerror>]\n".
    int ErrPrintf(int errnum, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    int DbPErr(int errnum, const char* fmt, va_list ap);
    // Function tracing; written only when the level has bit 0x1000, but the
    // depth moves in any case (Func: +1 first; Rtn/ErrRtn: -1 after, clamped
    // at -1).
    int DbPrintfFunc(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    int DbPrintfRtn(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    int DbPrintfErrRtn(int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    // Hex dump of size bytes: "--- N byte ---\n" then rows of 16.
    int DbPDunp(int level, const char* data, int size);

    // Read-only views for callers and tests.
    int GetDepth() const { return m_nDepth.load(std::memory_order_relaxed); }
    int GetMode() const { return m_nMode; }
    int GetGeneration() const { return m_nGeneration.load(std::memory_order_relaxed); }
    const char* GetFileName() const { return m_pFileName; }

    // Field order follows the record of the log's design.
private:
    // The file one write of modes 1 to 3 goes to, opened afresh (*fd, or -1
    // with SUCCESS for an unknown mode, which writes nothing). Mode 0's kept
    // stream is written by WriteText itself.
    int OpenCheck(int* fd);
    int GenerationFileCheck(int* fd);
    int OpenAtNaming();
    void FindNewestGeneration();
    // Writes one composed text: takes the mutex when lock is set, opens the
    // file (OpenCheck), writes the text with one write() and closes it again;
    // mode 0 appends it to the kept stream. Returns the open's result.
    int WriteText(const char* text, size_t len, bool lock);
    // The body of DbPrintfRtn (lock set, ending "\n\n") and DbPrintfErrRtn
    // (no lock, ending " -!Err!- \n"): one depth step down, the text at the
    // depth it had, then the ending.
    int RtnP(int level, bool lock, const char* ending, const char* fmt, va_list ap);

    char* m_pFileName = nullptr;
    FILE* m_pStream = nullptr;  // mode 0 only; modes 1 to 3 open per write
    std::atomic<int> m_nDepth{0};
    int m_nMode = 0;
    int m_nErrOutput = 1;
    pthread_mutex_t m_Mutex;
    // Changed by DbPrintfErrRtn too, which runs without the mutex.
    std::atomic<int> m_nGeneration{0};
    int m_nGenerationCount = 2;
    int m_nSizeLimit = 0x100000;
};

// The process's log; null until start-up creates it. Set once before any
// thread is started.
extern DbPrintf_Class* g_pDB;

// Free wrappers: all do nothing when the log pointer is null.
void TimePrint(DbPrintf_Class* pDB, int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
void DebugPrint(DbPrintf_Class* pDB, int level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
void DebugErrPrint(DbPrintf_Class* pDB, int errnum, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
void DebugDump(DbPrintf_Class* pDB, int level, const char* data, int size);
void DebugFuncStart(DbPrintf_Class* pDB, int level, const char* text);
// "%s : %s" (function name, code text) to DbPrintfRtn for SUCCESS, otherwise
// to DbPrintfErrRtn. Keep the two argument orders as they are.
void dbFuncReturn(int level, DbPrintf_Class* pDB, int code, const char* func);
void dbFuncReturnLine(int level, DbPrintf_Class* pDB, int code, const char* func, int line);
void DebugFuncRtnLine(DbPrintf_Class* pDB, int level, const char* func, int code, int line);

#endif
