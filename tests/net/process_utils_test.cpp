#include "net/process_utils.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/test_files.h"
#include "wait_until.h"

namespace {

using test_files::ReadFile;
using test_files::WriteFile;

class ProcessTest : public test_files::ScratchDir {};

TEST_F(ProcessTest, PidFileIsTruncatedAndHoldsTheDecimalPid)
{
    const std::string path = dir_ + "/Ostrel_01.pid";
    WriteFile(path, "999999999999");
    ASSERT_EQ(SUCCESS, gg_writePid(path.c_str()));
    EXPECT_EQ(std::to_string(getpid()), ReadFile(path)) << "truncated; decimal, no newline";
    EXPECT_EQ(CANNOT_FILEOPEN, gg_writePid((dir_ + "/no/dir/pid").c_str()));
}

// Runs the daemon's signal set-up in a forked child with its own log, raises
// the ignored signals (which must neither end the process nor ask for a
// stop), writes to a closed socket (which must fail with EPIPE instead of
// killing it), then raises the terminate signal. Returns the wait status
// and the log.
std::pair<int, std::string> RaiseInChild(const std::string& dir, int terminate)
{
    const std::string logPath = dir + "/log.txt";
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        g_pDB = new DbPrintf_Class(logPath.c_str(), 1);
        g_Program_Command.store(0);
        if (Set_ProgramTarminateSignal(g_pDB) != SUCCESS || Set_IgnoresSignals_ForThisProgram(g_pDB) != SUCCESS) {
            _exit(10);
        }
        // An ignored signal goes to the do-nothing handler, which changes no
        // state whenever it runs (a sanitizer runtime may run it later than
        // raise()): the dispositions show that nothing can follow, and the
        // process surviving the raises shows the rest.
        for (int sig : {SIGHUP, SIGQUIT, SIGTSTP, SIGPIPE, SIGUSR1, SIGUSR2, SIGCHLD, SIGTRAP}) {
            struct sigaction sa {};
            if (sigaction(sig, nullptr, &sa) != 0 || sa.sa_handler != CatchSigDump) {
                _exit(30);
            }
            raise(sig);
        }
        if (g_Program_Command.load() != 0) {
            _exit(30);
        }
        int sv[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0 || close(sv[1]) != 0 || write(sv[0], "x", 1) != -1 ||
            errno != EPIPE) {  // a plain write, no MSG_NOSIGNAL
            _exit(40);
        }
        raise(terminate);
        WaitUntil([] { return g_Program_Command.load() == -1; });
        // The handler itself writes nothing: it may have interrupted a
        // thread that holds the log's mutex. The line comes from the thread
        // the signal woke.
        struct stat st {};
        if (stat(logPath.c_str(), &st) == 0 && st.st_size != 0) {
            _exit(50);
        }
        LogTerminateSignals(g_pDB);
        LogTerminateSignals(g_pDB);  // once only
        _exit(g_Program_Command.load() == -1 ? 0 : 20);
    }
    int status = -1;
    waitpid(pid, &status, 0);
    std::string log = ReadFile(logPath);
    unlink(logPath.c_str());
    return {status, log};
}

TEST_F(ProcessTest, SigtermAndSigintAskTheDaemonToStopAndAreLogged)
{
    const std::pair<int, std::string> rows[] = {{SIGTERM, "Signal:SIGTERM\n"}, {SIGINT, "Signal:SIGINT\n"}};
    for (const auto& [sig, line] : rows) {
        auto [status, log] = RaiseInChild(dir_, sig);
        ASSERT_TRUE(WIFEXITED(status)) << line << " killed by " << WTERMSIG(status);
        EXPECT_EQ(0, WEXITSTATUS(status)) << line;
        // One time-stamped line: "[%Y/%m/%d %H:%M:%S] " then the text.
        ASSERT_EQ(22 + line.size(), log.size()) << log;
        EXPECT_EQ('[', log[0]) << log;
        EXPECT_EQ("] " + line, log.substr(20)) << log;
    }
}

}  // namespace
