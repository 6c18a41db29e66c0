#include "net/process_utils.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>

#include "common/debug_log.h"
#include "common/return_codes.h"

std::atomic<int> g_Program_Command{0};

namespace {

// Pid files longer than this many characters are refused.
constexpr int kPidMaxChars = 6;

int install_handler(int sig, void (*handler)(int))
{
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: the point of these handlers is that blocking calls of
    // the receiving thread return EINTR.
    sa.sa_flags = 0;
    return sigaction(sig, &sa, nullptr);
}

}  // namespace

int gg_writePid(const char* sFileName, DbPrintf_Class* pDB)
{
    if (sFileName == nullptr) {
        TimePrint(pDB, 1, "[gg_writePid] sFileName == NULL\n");
        return INVALID_ARGUMENT;
    }
    FILE* fp = fopen(sFileName, "w");
    if (fp == nullptr) {
        TimePrint(pDB, 1, "[gg_writePid] fopen(sFileName %s) failed\n", sFileName);
        return CANNOT_FILEOPEN;
    }
    // Like every file the system writes, 0666 by an explicit change of mode,
    // whatever the file-creation mask (a foreground start keeps the
    // caller's, usually 022).
    fchmod(fileno(fp), 0666);
    const int written = fprintf(fp, "%d", static_cast<int>(getpid()));
    // A full file system shows at the flush. A pid file that is not whole is
    // removed: a cut number would name another process.
    if (fclose(fp) != 0 || written < 0) {
        unlink(sFileName);
        TimePrint(pDB, 1, "[gg_writePid] fprintf(sFileName %s) failed\n", sFileName);
        return SYS_FUNC_ERROR;
    }
    return SUCCESS;
}

int gg_readPid(const char* sFileName, int* pPid, DbPrintf_Class* pDB)
{
    if (sFileName == nullptr) {
        TimePrint(pDB, 1, "[gg_readPid] sFileName == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (pPid == nullptr) {
        return INVALID_ARGUMENT;
    }
    FILE* fp = fopen(sFileName, "r");
    if (fp == nullptr) {
        TimePrint(pDB, 1, "[gg_readPid] fopen(sFileName %s) failed\n", sFileName);
        return CANNOT_FILEOPEN;
    }
    char buf[kPidMaxChars + 2] = {};
    int i = 0;
    while (i <= kPidMaxChars && fread(&buf[i], 1, 1, fp) == 1) {
        i++;
    }
    // Closed on both paths (a refused file is not left open).
    fclose(fp);
    if (i > kPidMaxChars) {
        TimePrint(pDB, 1, "[gg_readPid] fread(i %d) failed\n", i);
        return READ_FAILED;
    }
    *pPid = atoi(buf);
    return SUCCESS;
}

void CatchSigDump(int /*sig*/)
{
}

int Set_IgnoresSignal(int sig, DbPrintf_Class* /*pDB*/)
{
    return install_handler(sig, CatchSigDump) == 0 ? SUCCESS : SYS_FUNC_ERROR;
}

int SIGPIPE_Ignores(DbPrintf_Class* pDB)
{
    return Set_IgnoresSignal(SIGPIPE, pDB);
}

int SIGUSER1_Ignores(DbPrintf_Class* pDB)
{
    return Set_IgnoresSignal(SIGUSR1, pDB);
}

int Set_IgnoresSignals_ForThisProgram(DbPrintf_Class* pDB)
{
    static const int kSignals[] = {SIGQUIT, SIGTSTP, SIGPIPE, SIGUSR1, SIGUSR2, SIGCHLD, SIGTRAP, SIGHUP};
    for (int sig : kSignals) {
        Set_IgnoresSignal(sig, pDB);
    }
    return SUCCESS;
}

namespace {

// Stop signals taken by the handler whose log line is still to be written:
// bit 0 SIGINT, bit 1 SIGTERM. A lock-free word, so the handler may set it.
std::atomic<int> g_pendingSignalLines{0};
static_assert(std::atomic<int>::is_always_lock_free, "set from a signal handler");

}  // namespace

void ProgramTarminateSignal_Func(int sig)
{
    // Only lock-free stores here. The log takes its mutex for every line,
    // and a signal may land on the thread that holds it (a web server sends
    // SIGTERM to its CGI program while that writes its log): writing the
    // line from here would deadlock. The line follows as soon as the
    // interrupted thread looks (LogTerminateSignals).
    if (sig == SIGINT) {
        g_Program_Command.store(-1, std::memory_order_relaxed);
        g_pendingSignalLines.fetch_or(1, std::memory_order_relaxed);
    } else if (sig == SIGTERM) {
        g_Program_Command.store(-1, std::memory_order_relaxed);
        g_pendingSignalLines.fetch_or(2, std::memory_order_relaxed);
    }
}

void LogTerminateSignals(DbPrintf_Class* pDB)
{
    const int pending = g_pendingSignalLines.exchange(0, std::memory_order_relaxed);
    if (pending & 1) {
        TimePrint(pDB, 1, "Signal:SIGINT\n");
    }
    if (pending & 2) {
        TimePrint(pDB, 1, "Signal:SIGTERM\n");
    }
}

int Set_ProgramTarminateSignal(DbPrintf_Class* pDB)
{
    if (install_handler(SIGINT, ProgramTarminateSignal_Func) != 0) {
        TimePrint(pDB, 1, "[Set_ProgramTarminateSignal] sigaction(SIGINT) failed\n");
        return SYS_FUNC_ERROR;
    }
    if (install_handler(SIGTERM, ProgramTarminateSignal_Func) != 0) {
        TimePrint(pDB, 1, "[Set_ProgramTarminateSignal] sigaction(SIGTERM) failed\n");
        return SYS_FUNC_ERROR;
    }
    return SUCCESS;
}
