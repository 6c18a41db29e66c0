#ifndef OSTREL_NET_PROCESS_UTILS_H
#define OSTREL_NET_PROCESS_UTILS_H

#include <atomic>

class DbPrintf_Class;

// The daemon's program command word: 0 normally, -1 asks the daemon to stop.
// Written by the terminate-signal handler and by the control port, polled by
// the main loop; relaxed loads and stores (a single word, no ordering needed).
extern std::atomic<int> g_Program_Command;

// Pid file: the current process id in decimal ("%d", no newline), the file
// created or truncated. INVALID_ARGUMENT (null name), CANNOT_FILEOPEN,
// SYS_FUNC_ERROR when the number could not be written whole (a full file
// system; the file is removed), or SUCCESS. Failures are logged to pDB at
// level 1.
int gg_writePid(const char* sFileName, DbPrintf_Class* pDB = nullptr);

// Reads a pid file written by gg_writePid into *pPid. A file of more than six
// characters is refused with READ_FAILED; INVALID_ARGUMENT for a null name or
// pid pointer, CANNOT_FILEOPEN when the file cannot be opened. A file that is
// not a number yields 0 (atoi).
int gg_readPid(const char* sFileName, int* pPid, DbPrintf_Class* pDB = nullptr);

// The do-nothing handler. Installed without SA_RESTART, it turns a signal the
// daemon does not want into an interruption of whatever blocking call the
// receiving thread is in (the call fails with EINTR); this is how SIGUSR1
// wakes a worker thread that is asked to stop.
void CatchSigDump(int sig);

// Installs CatchSigDump for sig (empty mask, no flags). SUCCESS or
// SYS_FUNC_ERROR.
int Set_IgnoresSignal(int sig, DbPrintf_Class* pDB = nullptr);
int SIGPIPE_Ignores(DbPrintf_Class* pDB = nullptr);
int SIGUSER1_Ignores(DbPrintf_Class* pDB = nullptr);

// CatchSigDump for SIGQUIT, SIGTSTP, SIGPIPE, SIGUSR1, SIGUSR2, SIGCHLD,
// SIGTRAP and SIGHUP, in that order; individual failures are ignored.
// Always SUCCESS.
int Set_IgnoresSignals_ForThisProgram(DbPrintf_Class* pDB = nullptr);

// Terminate handler: for SIGINT and SIGTERM sets g_Program_Command to -1 and
// notes the signal for its log line, "Signal:SIGINT\n" / "Signal:SIGTERM\n".
// Other signals: nothing. It takes no lock and writes no file (a signal may
// land on a thread that is in the middle of writing the log, whose mutex it
// holds); LogTerminateSignals writes the line.
void ProgramTarminateSignal_Func(int sig);

// Writes, at level 1, the line of each stop signal the handler has taken
// since the last call ("Signal:SIGINT\n" before "Signal:SIGTERM\n"), once.
// The main thread calls it when the signal has woken it (the wait loop) and
// before the program ends, so the line appears as the handler's would.
void LogTerminateSignals(DbPrintf_Class* pDB);

// Installs ProgramTarminateSignal_Func for SIGINT, then SIGTERM (empty mask,
// no flags). SYS_FUNC_ERROR (logged) if either sigaction fails, else SUCCESS.
int Set_ProgramTarminateSignal(DbPrintf_Class* pDB = nullptr);

#endif
