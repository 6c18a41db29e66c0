#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/test_files.h"
#include "common/time_utils.h"
#include "net/socket_listen.h"
#include "test_sockets.h"

namespace {

class AcceptTest : public test_files::ScratchDir {};

int lowest_free_fd()
{
    const int fd = dup(0);
    close(fd);
    return fd;
}

int count(const std::string& text, const std::string& what)
{
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

long long elapsed_ms(const timeval& since)
{
    timeval now;
    GetMonotonicTime(&now);
    return GetDifftime64(&since, &now) / 1000;
}

// A connection waits in the queue while the process may open nothing more:
// each accept pauses instead of failing at once, one line tells the log
// (written although no descriptor is free), and the waiting connection is
// taken as soon as the limit allows it, with one more line. A second
// shortage is a new episode with its own pair of lines.
TEST_F(AcceptTest, OutOfDescriptorsPausesLogsOncePerEpisodeAndRecovers)
{
    const std::string logPath = dir_ + "/log.txt";
    DbPrintf_Class log(logPath.c_str(), 1);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int listenFd = -1;
    ASSERT_EQ(SUCCESS, Sock_Listen(&addr, 8, &listenFd));
    socklen_t len = sizeof addr;
    ASSERT_EQ(0, getsockname(listenFd, reinterpret_cast<sockaddr*>(&addr), &len));

    {
        // The first accept takes the descriptor kept in reserve for the log.
        const int client = ConnectTo("127.0.0.1", ntohs(addr.sin_port));
        sockaddr_in peer{};
        int fd = -1;
        ASSERT_EQ(SUCCESS, Sock_Accept(listenFd, &fd, &peer, &log));
        close(fd);
        close(client);
    }
    rlimit saved{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    for (int episode = 1; episode <= 2; ++episode) {
        const int client = ConnectTo("127.0.0.1", ntohs(addr.sin_port));
        rlimit low = saved;
        low.rlim_cur = static_cast<rlim_t>(lowest_free_fd());
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
        for (int i = 0; i < 3; ++i) {
            timeval start;
            GetMonotonicTime(&start);
            sockaddr_in peer{};
            int fd = 0;
            EXPECT_EQ(SYS_FUNC_ERROR, Sock_Accept(listenFd, &fd, &peer, &log));
            EXPECT_EQ(-1, fd);
            EXPECT_GE(elapsed_ms(start), kAcceptShortagePauseUsec / 1000 - 5) << "no pause";
        }
        ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
        sockaddr_in peer{};
        int fd = -1;
        EXPECT_EQ(SUCCESS, Sock_Accept(listenFd, &fd, &peer, &log));
        EXPECT_GE(fd, 0);
        close(fd);
        close(client);

        const std::string text = test_files::ReadFile(logPath);
        EXPECT_EQ(episode, count(text, "[Sock_Accept] accept failed (errno 24: Too many open files), out of "
                                       "descriptors; trying again every 100 ms\n"))
            << text;
        EXPECT_EQ(episode, count(text, "[Sock_Accept] accept works again after 3 failures in ")) << text;
    }
    close(listenFd);
}

}  // namespace
