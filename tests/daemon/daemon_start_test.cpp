// Starting and stopping the daemon: the foreground start stopped by a signal
// or by deleting its states file, the forking start with its answer to the
// launcher, and the start failures the launcher and the states file report.
#include <signal.h>

#include "daemon_test_support.h"

namespace daemon_test {
namespace {

const std::string kAlready = cgi("<Response>\n  <States>Err_AlreadyWorking</States>\n</Response>\n");

std::string success(int port)
{
    return cgi("<Response>\n  <States>Success</States>\n  <Port>" + std::to_string(port) + "</Port>\n</Response>\n");
}

int field(const std::string& doc, const std::string& name)
{
    size_t at = doc.find("<" + name + ">");
    return at == std::string::npos ? -1 : std::atoi(doc.c_str() + at + name.size() + 2);
}

bool accepts(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = testAddr(port);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

class DaemonStartTest : public DaemonDir {
protected:
    // Waits until the daemon runs: the states file names its port and its
    // pid, and the pid file (written once every thread has started) agrees.
    pid_t running(const std::string& name = "1")
    {
        std::string states;
        const std::string pidFile = dir_ + "/mem/Ostrel_0" + name.back() + ".pid";
        EXPECT_TRUE(waitFor([&] {
            states = slurp(statesPath(name));
            return states.find("</PPD.States>") != std::string::npos && states.find("<Port>") != std::string::npos &&
                   slurp(pidFile) == std::to_string(field(states, "ProcessId"));
        })) << states;
        EXPECT_NE(states.find(" <PPD_Type>Ostrel</PPD_Type>\n"), std::string::npos) << states;
        EXPECT_NE(states.find(" <PPD_Name>" + name + "</PPD_Name>\n <States>NormalOperating</States>\n"),
                  std::string::npos);
        EXPECT_EQ(field(states, "Port"), port_);
        EXPECT_TRUE(accepts(port_));
        return field(states, "ProcessId");
    }
    void expectStopped(pid_t pid)
    {
        int status = waitExit(pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        EXPECT_FALSE(accepts(port_));
        EXPECT_NE(access(statesPath().c_str(), F_OK), 0);
    }
};

TEST_F(DaemonStartTest, ForegroundDaemonStopsOnSigtermOrStatesFileDeletion)
{
    for (bool bySignal : {true, false}) {
        SCOPED_TRACE(bySignal ? "SIGTERM" : "states file deleted");
        pid_t pid = spawn({"-StartUp_NonDeamon", "1"});
        EXPECT_EQ(running(), pid);
        if (bySignal)
            kill(pid, SIGTERM);
        else
            std::remove(statesPath().c_str());
        expectStopped(pid);
        EXPECT_EQ(slurp(dir_ + "/mem/Ostrel_01.pid"), std::to_string(pid));
        std::string log = slurp(dir_ + "/log/Ostrel_01_log0.txt");
        EXPECT_NE(log.find(bySignal ? "Signal:SIGTERM\n" : "States file deleted\n"), std::string::npos) << log;
    }
}

TEST_F(DaemonStartTest, ForkingStartAnswersWithThePortAndRefusesASecondStart)
{
    // A states file left "NormalOperating" by a daemon that is gone blocks a
    // start as well; "ErrorExit" does not.
    spit(statesPath(), "<PPD.States>\n <States>normaloperating</States>\n</PPD.States>\n");
    EXPECT_EQ(run({"-StartUp", "1"}).out, kAlready);
    spit(statesPath(), "<PPD.States>\n <States>ErrorExit</States>\n</PPD.States>\n");

    Outcome launcher = run({"-StartUp", "1"});
    EXPECT_EQ(launcher.out, success(port_));
    pid_t pid = running();
    EXPECT_NE(pid, launcher.pid);
    EXPECT_EQ(run({"-StartUp", "1"}).out, kAlready);
    EXPECT_EQ(run({"-StartUp_NonDeamon", "1"}).out, "1 was alredy started.\n");
    std::remove(statesPath().c_str());
    expectStopped(pid);
}

TEST_F(DaemonStartTest, CgiStartClampsTheControlPortThreads)
{
    auto threads = [&](const std::string& count) {
        Outcome r = run({"x", "05"}, {"REQUEST_METHOD=GET",
                                      "QUERY_STRING=Command=StartUp&Name=05&NumOfControlPortThread=" + count});
        EXPECT_EQ(r.out, success(port_));
        pid_t pid = running("05");
        glob_t tasks{};
        glob(("/proc/" + std::to_string(pid) + "/task/*").c_str(), 0, nullptr, &tasks);
        const int n = static_cast<int>(tasks.gl_pathc);
        globfree(&tasks);
        kill(pid, SIGTERM);
        EXPECT_TRUE(WIFEXITED(waitExit(pid)));
        return n;
    };
    const int one = threads("1");
    EXPECT_EQ(threads("0"), one);
    EXPECT_EQ(threads("-5"), one);
    EXPECT_EQ(threads("50"), one + 9);
}

TEST_F(DaemonStartTest, FailedDaemonLeavesErrorExitAndTheLauncherTimesOut)
{
    struct Row {
        const char* fault;
        const char* comment;
    };
    const Row rows[] = {
        {"type", "For translator_tarndatatype matching failed"},
        {"no config", "For failed at config file reading"},
        {"port busy", "Control Listen Port , can not open."},
        {"name 001", "For invalid argument"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.fault);
        const std::string fault = row.fault, name = fault == "name 001" ? "001" : "1";
        writeConfig(fault == "type" ? "other" : "ostrel");
        if (fault == "no config")
            std::remove((dir_ + "/conf/Config.txt").c_str());
        int busy = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = testAddr(port_);
        if (fault == "port busy") {
            ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        }
        Outcome r = name == "1" ? run({"-StartUp", "1"})
                                : run({"x", "01"}, {"REQUEST_METHOD=GET", "QUERY_STRING=Command=StartUp&Name=001"});
        close(busy);
        EXPECT_EQ(r.out, startFailed("Fork response time out"));
        std::string states = slurp(statesPath(name));
        EXPECT_NE(states.find(std::string(" <States>ErrorExit</States>\n <ProcessId>")), std::string::npos) << states;
        EXPECT_NE(states.find(std::string(" <Comment>") + row.comment + "</Comment>\n"), std::string::npos);
        std::remove(statesPath(name).c_str());
    }
}

TEST_F(DaemonStartTest, UnwritableStatesDirectoryIsReportedToTheLauncher)
{
    spit(dir_ + "/Directory.Conf", "<Directory.Conf><StatesDir>" + dir_ + "/none</StatesDir></Directory.Conf>\n");
    EXPECT_EQ(run({"-StartUp", "1"}).out,
              startFailed("States file does not create. Prease check a permission '" + dir_ + "/none/'"));
    EXPECT_EQ(run({"-StartUp_NonDeamon", "1"}).out, "");
}

TEST_F(DaemonStartTest, MissingPidDirectoryStopsTheStartedDaemon)
{
    ASSERT_EQ(rmdir((dir_ + "/mem").c_str()), 0);
    EXPECT_EQ(run({"-StartUp", "1"}).out, success(port_));
    expectStopped(-1);  // the daemon is this process's only child left
    EXPECT_NE(slurp(dir_ + "/log/Ostrel_01_log0.txt")
                  .find("[Server_Construct] writePid(pid_file_name_tmp mem/Ostrel_01.pid) failed ::"),
              std::string::npos);
}

}  // namespace
}  // namespace daemon_test
