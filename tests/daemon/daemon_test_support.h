#ifndef OSTREL_TESTS_DAEMON_TEST_SUPPORT_H
#define OSTREL_TESTS_DAEMON_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <glob.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace daemon_test {

inline std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

inline void spit(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

// Polls until done() holds or a generous bound has passed; the final answer.
inline bool waitFor(const std::function<bool()>& done)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!done() && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return done();
}

// Exit status of a child (-1: any child), -1 when it has not ended in time.
inline int waitExit(pid_t pid)
{
    int status = -1;
    waitFor([&] { return waitpid(pid, &status, WNOHANG) > 0; });
    return status;
}

// A CGI answer as the launcher reads it.
inline std::string cgi(const std::string& body)
{
    return "Content-Length: " + std::to_string(body.size()) + "\nContent-type: text/plain\n\n" + body;
}

inline std::string startFailed(const std::string& comment)
{
    return cgi("<Response>\n  <States>Err_StartFaild</States>\n  <Comment>" + comment + "</Comment>\n</Response>\n");
}

inline sockaddr_in testAddr(int port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, "192.0.2.1", &a.sin_addr);
    return a;
}

struct Outcome {
    pid_t pid = -1;
    int status = -1;
    std::string out, err;
};

// Each test gets a fresh working directory with conf/Config.txt (channels 1
// and 5, control port on 192.0.2.1:port_), log/ and mem/. The test process
// is a child subreaper, so a daemon that detaches ends up as its child and
// its exit can be waited for. Sanitizer reports of the program go to files
// in the directory and fail the test.
class DaemonDir : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        char tmpl[] = "/tmp/ostrel_daemonXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        for (const char* sub : {"/conf", "/log", "/mem"})
            ASSERT_EQ(mkdir((dir_ + sub).c_str(), 0777), 0);
        // A free port below 32768: the states file holds it as a signed
        // 16-bit number.
        for (port_ = 20000 + getpid() % 10000;; ++port_) {
            int fd = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in a = testAddr(port_);
            bool bound = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
            close(fd);
            if (bound)
                break;
        }
        writeConfig("ostrel");
    }
    void TearDown() override
    {
        while (waitpid(-1, nullptr, WNOHANG) > 0) {
        }
        glob_t found{};
        if (glob((dir_ + "/sanitizer*").c_str(), 0, nullptr, &found) == 0) {
            for (size_t i = 0; i < found.gl_pathc; ++i)
                ADD_FAILURE() << slurp(found.gl_pathv[i]);
        }
        globfree(&found);
        ASSERT_EQ(std::system(("rm -rf '" + dir_ + "'").c_str()), 0);
    }

    void writeConfig(const std::string& type)
    {
        std::ostringstream c;
        for (const char* ch : {"_0001=", "_0005="})
            c << "translator_tarndatatype" << ch << type << "\nencoder_ip" << ch << "192.0.2.1\nencoder_port" << ch
              << port_ << "\ntranslator_connect_ip" << ch << "192.0.2.1\ntranslator_connect_port" << ch
              << "9\ntranslator_connect_camerano" << ch << "1\nchannel_authentic_switch" << ch
              << "0\nchannel_authentic_user_id" << ch << "\nchannel_authentic_user_password" << ch
              << "\ntranslator_calarm_rec_postterm" << ch << "30\n";
        spit(dir_ + "/conf/Config.txt", c.str());
    }

    // Starts the program in the directory with exactly the given environment
    // (plus sanitizer options) and stdin text; its output goes to files.
    pid_t spawn(std::vector<std::string> args, std::vector<std::string> env = {}, const std::string& in = "",
                const char* argv0 = "Ostrel")
    {
        spit(dir_ + "/stdin.txt", in);
        const std::string san = "log_path=" + dir_ + "/sanitizer";
        env.insert(env.end(), {"ASAN_OPTIONS=" + san, "UBSAN_OPTIONS=print_stacktrace=1:" + san,
                               "TSAN_OPTIONS=report_signal_unsafe=0:" + san});
        args.insert(args.begin(), argv0);
        pid_t pid = fork();
        if (pid == 0) {
            if (chdir(dir_.c_str()) != 0)
                _exit(127);
            dup2(open("stdin.txt", O_RDONLY), 0);
            dup2(open("stdout.txt", O_WRONLY | O_CREAT | O_TRUNC, 0666), 1);
            dup2(open("stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0666), 2);
            std::vector<char*> av, ev;
            for (auto& s : args)
                av.push_back(&s[0]);
            for (auto& s : env)
                ev.push_back(&s[0]);
            av.push_back(nullptr);
            ev.push_back(nullptr);
            execve(OSTREL_BINARY_DIR "/Ostrel", av.data(), ev.data());
            _exit(127);
        }
        return pid;
    }

    // Runs the program to its end (the launcher-facing process for a fork).
    Outcome run(std::vector<std::string> args, std::vector<std::string> env = {}, const std::string& in = "",
                const char* argv0 = "Ostrel")
    {
        Outcome r;
        r.pid = spawn(std::move(args), std::move(env), in, argv0);
        r.status = waitExit(r.pid);
        r.out = slurp(dir_ + "/stdout.txt");
        r.err = slurp(dir_ + "/stderr.txt");
        return r;
    }

    std::string statesPath(const std::string& name = "1") const { return dir_ + "/tmp." + name + ".States"; }

    std::string dir_;
    int port_ = 0;
};

}  // namespace daemon_test

#endif
