#ifndef OSTREL_TESTS_DAEMON_TEST_SUPPORT_H
#define OSTREL_TESTS_DAEMON_TEST_SUPPORT_H

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <map>
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

inline bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// A CGI answer as the launcher reads it.
inline std::string cgi(const std::string& body)
{
    return "Content-Length: " + std::to_string(body.size()) + "\nContent-type: text/plain\n\n" + body;
}

inline std::string startFailed(const std::string& comment)
{
    return cgi("<Response>\n  <States>Err_StartFaild</States>\n  <Comment>" + comment + "</Comment>\n</Response>\n");
}

// A port of 192.0.2.1 that nothing listens on at the moment. The states
// file holds the port as a signed 16-bit number, so it stays below 32768.
inline int freePort()
{
    for (int port = 20000 + getpid() % 10000; port < 32768; ++port) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, "192.0.2.1", &a.sin_addr);
        bool free = bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        close(fd);
        if (free)
            return port;
    }
    return -1;
}

struct Outcome {
    pid_t pid = -1;
    int status = -1;
    std::string out, err;
};

// Each test gets a fresh working directory with conf/Config.txt (channels 1
// and 5, control port on 192.0.2.1:port), log/ and mem/. The test process is
// a child subreaper, so daemons that detach end up as its children and their
// exit can be waited for. Sanitizer reports of the program go to files in
// the directory and fail the test.
class DaemonDir : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
        char tmpl[] = "/tmp/ostrel_daemonXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        ASSERT_EQ(mkdir((dir_ + "/conf").c_str(), 0777), 0);
        ASSERT_EQ(mkdir((dir_ + "/log").c_str(), 0777), 0);
        ASSERT_EQ(mkdir((dir_ + "/mem").c_str(), 0777), 0);
        port_ = freePort();
        writeConfig("ostrel", port_);
    }
    void TearDown() override
    {
        for (pid_t pid : started_) {
            if (waitpid(pid, nullptr, WNOHANG) == 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
        }
        DIR* d = opendir(dir_.c_str());
        for (dirent* e; d != nullptr && (e = readdir(d)) != nullptr;) {
            if (std::string(e->d_name).rfind("sanitizer", 0) == 0)
                ADD_FAILURE() << slurp(dir_ + "/" + e->d_name);
        }
        if (d != nullptr)
            closedir(d);
        ASSERT_EQ(std::system(("rm -rf '" + dir_ + "'").c_str()), 0);
    }

    void writeConfig(const std::string& type, int port)
    {
        std::ostringstream c;
        for (const char* ch : {"0001", "0005"})
            c << "translator_tarndatatype_" << ch << "=" << type << "\nencoder_ip_" << ch << "=192.0.2.1\n"
              << "encoder_port_" << ch << "=" << port << "\ntranslator_connect_ip_" << ch << "=192.0.2.1\n"
              << "translator_connect_port_" << ch << "=9\ntranslator_connect_camerano_" << ch << "=1\n"
              << "channel_authentic_switch_" << ch << "=0\nchannel_authentic_user_id_" << ch << "=\n"
              << "channel_authentic_user_password_" << ch << "=\ntranslator_calarm_rec_postterm_" << ch
              << "=30\n";
        spit(dir_ + "/conf/Config.txt", c.str());
    }

    // Starts the program in the directory with exactly the given environment
    // (plus sanitizer options) and stdin text; output goes to files.
    pid_t spawn(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                const std::string& in = "", const char* argv0 = nullptr)
    {
        spit(dir_ + "/stdin.txt", in);
        std::vector<std::string> e = env;
        std::string san = "log_path=" + dir_ + "/sanitizer";
        e.push_back("ASAN_OPTIONS=" + san);
        e.push_back("UBSAN_OPTIONS=print_stacktrace=1:" + san);
        e.push_back("TSAN_OPTIONS=report_signal_unsafe=0:" + san);
        std::vector<std::string> a = args;
        a.insert(a.begin(), argv0 ? argv0 : "Ostrel");
        pid_t pid = fork();
        if (pid == 0) {
            if (chdir(dir_.c_str()) != 0)
                _exit(127);
            dup2(open("stdin.txt", O_RDONLY), 0);
            dup2(open("stdout.txt", O_WRONLY | O_CREAT | O_TRUNC, 0666), 1);
            dup2(open("stderr.txt", O_WRONLY | O_CREAT | O_TRUNC, 0666), 2);
            std::vector<char*> av, ev;
            for (auto& s : a)
                av.push_back(&s[0]);
            for (auto& s : e)
                ev.push_back(&s[0]);
            av.push_back(nullptr);
            ev.push_back(nullptr);
            execve(OSTREL_BINARY_DIR "/Ostrel", av.data(), ev.data());
            _exit(127);
        }
        started_.push_back(pid);
        return pid;
    }

    // Runs the program to its end (the launcher-facing process for a fork).
    Outcome run(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
            const std::string& in = "", const char* argv0 = nullptr)
    {
        Outcome r;
        r.pid = spawn(args, env, in, argv0);
        r.status = waitExit(r.pid);
        r.out = slurp(dir_ + "/stdout.txt");
        r.err = slurp(dir_ + "/stderr.txt");
        return r;
    }

    // Exit status of a child (any child for -1), or -1 when it has not ended
    // within the bound.
    static int waitExit(pid_t pid, int seconds = 60)
    {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        int status = 0;
        while (std::chrono::steady_clock::now() < end) {
            if (waitpid(pid, &status, WNOHANG) > 0)
                return status;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return -1;
    }

    // Waits until the states file holds text (the daemon writes it whole).
    std::string waitStates(const std::string& text, const std::string& name = "1", int seconds = 60)
    {
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        std::string s;
        while (std::chrono::steady_clock::now() < end) {
            s = slurp(statesPath(name));
            if (s.find(text) != std::string::npos && s.find("</PPD.States>") != std::string::npos)
                return s;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return s;
    }

    std::string statesPath(const std::string& name = "1") const { return dir_ + "/tmp." + name + ".States"; }

    std::string dir_;
    int port_ = 0;
    std::vector<pid_t> started_;
};

}  // namespace daemon_test

#endif
