#ifndef OSTREL_DAEMON_DAEMON_START_H
#define OSTREL_DAEMON_DAEMON_START_H

class DbPrintf_Class;

// Starting the daemon of one channel. name is the channel number (one or two
// characters, 0..99); it names the states file, the log and the pid file.
// Both starts publish the daemon's life in the states file: "NormalOperating"
// while it runs, "ErrorExit" with a comment when the start fails after the
// checks, removed after an orderly stop. Main thread only; the process must
// still be single-threaded when they are called.

// Forking start. The launcher-facing process answers the launcher on
// standard output and returns SUCCESS (also for "Fork response time out"),
// PROCCESS_MULTIPLEX when the states file already says "NormalOperating",
// STARTUP_FAILD when the states file cannot be written, or SYS_FUNC_ERROR
// when fork fails. The intermediate process returns SUCCESS at once (or
// SYS_FUNC_ERROR when its fork fails). The daemon itself returns
// STARTUP_FAILD for a failed start, otherwise SUCCESS once it has stopped.
// Every process returns to its caller, which is expected to end it.
int PPDMain_ForkStart(char* name, int numOfControlPortThread, DbPrintf_Class* pDB = nullptr);

// The same steps in the calling process, in the foreground, without an
// answer document: PROCCESS_MULTIPLEX, STARTUP_FAILD, or SUCCESS once the
// daemon has stopped.
int PPDMain_NonForkStart(char* name, int numOfControlPortThread, DbPrintf_Class* pDB = nullptr);

#endif
