// Starting and stopping the daemon: the foreground start stopped by a signal
// or by deleting its states file, the forking start with its answer to the
// launcher, and the start failures the launcher and the states file report.
#include <signal.h>

#include "daemon_test_support.h"

namespace daemon_test {
namespace {

std::string success(int port)
{
    return cgi("<Response>\n  <States>Success</States>\n  <Port>" + std::to_string(port) +
               "</Port>\n</Response>\n");
}

int field(const std::string& doc, const std::string& name)
{
    size_t at = doc.find("<" + name + ">");
    return at == std::string::npos ? -1 : std::atoi(doc.c_str() + at + name.size() + 2);
}

bool accepts(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, "192.0.2.1", &a.sin_addr);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

class DaemonStartTest : public DaemonDir {
protected:
    // The running daemon's states file, after checking what it announces.
    std::string expectRunning(const std::string& name = "1")
    {
        std::string states = waitStates("<Port>", name);
        EXPECT_NE(states.find(" <PPD_Type>Ostrel</PPD_Type>\n"), std::string::npos) << states;
        EXPECT_NE(states.find(" <PPD_Name>" + name + "</PPD_Name>\n <States>NormalOperating</States>\n"),
                  std::string::npos) << states;
        EXPECT_EQ(field(states, "Port"), port_);
        EXPECT_TRUE(accepts(port_));
        return states;
    }
    // The daemon's pid, once its pid file (written after the states file
    // names the port, when every thread has been started) agrees with the
    // states file.
    pid_t daemonPid(const std::string& states, const std::string& pidFile = "/mem/Ostrel_01.pid")
    {
        const std::string pid = std::to_string(field(states, "ProcessId"));
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (slurp(dir_ + pidFile) != pid && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(slurp(dir_ + pidFile), pid);
        return static_cast<pid_t>(std::atoi(pid.c_str()));
    }
};

TEST_F(DaemonStartTest, ForegroundDaemonStopsOnSigtermOrStatesFileDeletion)
{
    for (bool bySignal : {true, false}) {
        SCOPED_TRACE(bySignal ? "SIGTERM" : "states file deleted");
        pid_t pid = spawn({"-StartUp_NonDeamon", "1"});
        EXPECT_EQ(daemonPid(expectRunning()), pid);
        if (bySignal)
            kill(pid, SIGTERM);
        else
            std::remove(statesPath().c_str());
        int status = waitExit(pid);
        ASSERT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), 0);
        EXPECT_FALSE(exists(statesPath()));
        EXPECT_TRUE(exists(dir_ + "/mem/Ostrel_01.pid"));
        EXPECT_FALSE(accepts(port_));
        std::string log = slurp(dir_ + "/log/Ostrel_01_log0.txt");
        EXPECT_NE(log.find(bySignal ? "Signal:SIGTERM\n" : "States file deleted\n"), std::string::npos) << log;
    }
}

TEST_F(DaemonStartTest, ForkingStartAnswersWithThePortAndRefusesASecondStart)
{
    Outcome launcher = run({"-StartUp", "1"});
    EXPECT_EQ(launcher.out, success(port_));
    pid_t pid = daemonPid(expectRunning());
    EXPECT_NE(pid, launcher.pid);

    const std::string already = cgi("<Response>\n  <States>Err_AlreadyWorking</States>\n</Response>\n");
    EXPECT_EQ(run({"-StartUp", "1"}).out, already);
    EXPECT_EQ(run({"-StartUp_NonDeamon", "1"}).out, "1 was alredy started.\n");

    std::remove(statesPath().c_str());
    int status = waitExit(pid);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_FALSE(accepts(port_));
}

TEST_F(DaemonStartTest, StaleRunningStatesFileBlocksTheStart)
{
    spit(statesPath(), "<PPD.States>\n <States>normaloperating</States>\n</PPD.States>\n");
    EXPECT_EQ(run({"-StartUp", "1"}).out, cgi("<Response>\n  <States>Err_AlreadyWorking</States>\n</Response>\n"));
    spit(statesPath(), "<PPD.States>\n <States>ErrorExit</States>\n</PPD.States>\n");
    EXPECT_EQ(run({"-StartUp", "1"}).out, success(port_));
    pid_t pid = daemonPid(expectRunning());
    kill(pid, SIGTERM);
    EXPECT_TRUE(WIFEXITED(waitExit(pid)));
}

TEST_F(DaemonStartTest, CgiStartClampsTheControlPortThreads)
{
    // Threads of the daemon for a requested count; the pid file is written
    // after every thread has been started.
    auto threads = [&](const std::string& count) {
        Outcome r = run({"x", "05"}, {"REQUEST_METHOD=GET",
                                      "QUERY_STRING=Command=StartUp&Name=05&NumOfControlPortThread=" + count});
        EXPECT_EQ(r.out, success(port_));
        pid_t pid = daemonPid(expectRunning("05"), "/mem/Ostrel_05.pid");
        DIR* d = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
        int n = 0;
        for (dirent* e; d != nullptr && (e = readdir(d)) != nullptr;)
            n += e->d_name[0] != '.';
        if (d != nullptr)
            closedir(d);
        kill(pid, SIGTERM);
        EXPECT_TRUE(WIFEXITED(waitExit(pid)));
        return n;
    };
    const int one = threads("1");
    EXPECT_EQ(threads("0"), one);
    EXPECT_EQ(threads("-5"), one);
    EXPECT_EQ(threads("x"), one);
    EXPECT_EQ(threads("50"), one + 9);
}

struct FailureRow {
    const char* config;  // "type" or "port": what is wrong; "" for none
    std::vector<std::string> env;
    const char* comment;
};

TEST_F(DaemonStartTest, FailedDaemonLeavesErrorExitAndTheLauncherTimesOut)
{
    const std::vector<FailureRow> rows = {
        {"type", {}, "For translator_tarndatatype matching failed"},
        {"missing", {}, "For failed at config file reading"},
        {"port", {}, "Control Listen Port , can not open."},
        {"", {"REQUEST_METHOD=GET", "QUERY_STRING=Command=StartUp&Name=001"}, "For invalid argument"},
    };
    for (const FailureRow& row : rows) {
        SCOPED_TRACE(row.comment);
        writeConfig(std::string(row.config) == "type" ? "other" : "ostrel", port_);
        if (std::string(row.config) == "missing")
            std::remove((dir_ + "/conf/Config.txt").c_str());
        int busy = socket(AF_INET, SOCK_STREAM, 0);
        if (std::string(row.config) == "port") {
            sockaddr_in a{};
            a.sin_family = AF_INET;
            a.sin_port = htons(static_cast<uint16_t>(port_));
            inet_pton(AF_INET, "192.0.2.1", &a.sin_addr);
            ASSERT_EQ(bind(busy, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        }
        std::string name = row.env.empty() ? "1" : "001";
        Outcome r = run(row.env.empty() ? std::vector<std::string>{"-StartUp", "1"} : std::vector<std::string>{"x", "01"},
                        row.env);
        close(busy);
        EXPECT_EQ(r.out, startFailed("Fork response time out"));
        std::string states = slurp(statesPath(name));
        EXPECT_NE(states.find(" <States>ErrorExit</States>\n"), std::string::npos) << states;
        EXPECT_NE(states.find(std::string(" <Comment>") + row.comment + "</Comment>\n"), std::string::npos)
            << states;
        std::remove(statesPath(name).c_str());
    }
}

TEST_F(DaemonStartTest, StatesDirectoryThatCannotBeWrittenIsReportedToTheLauncher)
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
    // The daemon is this process's only remaining child (subreaper).
    int status = waitExit(-1);
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_FALSE(exists(statesPath()));
    EXPECT_NE(slurp(dir_ + "/log/Ostrel_01_log0.txt").find("[Server_Construct] writePid(pid_file_name_tmp mem/Ostrel_01.pid) failed ::"),
              std::string::npos);
}

}  // namespace
}  // namespace daemon_test
