#include "net/socket_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "common/return_codes.h"
#include "test_sockets.h"

namespace {

using std::chrono::milliseconds;

int queued(int fd, unsigned long request)  // FIONREAD: unread, SIOCOUTQ: unacked
{
    int n = -1;
    ioctl(fd, request, &n);
    return n;
}

void put(int fd, const std::string& s)
{
    ASSERT_EQ(static_cast<ssize_t>(s.size()), send(fd, s.data(), s.size(), MSG_NOSIGNAL));
}

// The bytes have reached the receiver and it has taken them off its queue.
void wait_consumed(int sender, int receiver)
{
    ASSERT_TRUE(WaitUntil([&] { return queued(sender, SIOCOUTQ) == 0 && queued(receiver, FIONREAD) == 0; }));
}

// `ours` made by the code under test, `peer` accepted (blocking).
struct Pair {
    int ours = -1, peer = -1;
    Pair()
    {
        int port;
        const int l = ListenOn("127.0.0.1", 0, 8, &port);
        EXPECT_EQ(SUCCESS, Sock_OpenConnect_String("127.0.0.1", "127.0.0.1", port, &ours, 5000));
        peer = accept(l, nullptr, nullptr);
        close(l);
    }
    void close_peer()
    {
        close(peer);
        peer = -1;
    }
    ~Pair()
    {
        close(ours);
        if (peer >= 0) {
            close(peer);
        }
    }
};

void on_usr1(int)
{
}

// Runs call() in its own thread; SIGUSR1 (installed without SA_RESTART, as
// the daemon does) breaks its blocked waits.
struct Worker {
    std::promise<pthread_t> id;  // outlives the thread: result joins first
    std::future<int> result;
    pthread_t tid;

    template <typename F> explicit Worker(F call)
    {
        struct sigaction sa {};
        sa.sa_handler = on_usr1;
        sigaction(SIGUSR1, &sa, nullptr);
        result = std::async(std::launch::async, [this, call] {
            id.set_value(pthread_self());
            return call();
        });
        tid = id.get_future().get();
    }
    bool finished(int ms) { return result.wait_for(milliseconds(ms)) == std::future_status::ready; }
    // Signals repeatedly: one signal could land just before the wait starts.
    int wake_until_done()
    {
        while (!finished(20)) {
            pthread_kill(tid, SIGUSR1);
        }
        return result.get();
    }
};

TEST(SockConnectTest, FailuresLeaveNoSocketBehind)
{
    for (const char* bad : {"localhost", "127.0.0.256", ""}) {
        int fd = 12345;
        EXPECT_EQ(SYS_FUNC_ERROR, Sock_OpenConnect_String("127.0.0.1", bad, 80, &fd, 1000)) << bad;
        EXPECT_EQ(12345, fd) << "no socket is made for a bad text";
    }
    int closedPort;
    close(ListenOn("127.0.0.1", 0, 8, &closedPort));
    int fd = 12345;
    EXPECT_EQ(SOCK_CONNECT_FAIL, Sock_OpenConnect_String("127.0.0.1", "127.0.0.1", closedPort, &fd, 5000));
    EXPECT_EQ(-1, fd);

    // No host answers at this address of eth0's subnet: the handshake cannot
    // complete in time (or the neighbour lookup fails first).
    fd = 12345;
    const int rc = Sock_OpenConnect_String("0.0.0.0", "192.0.2.99", 80, &fd, 300);
    EXPECT_TRUE(rc == SOCK_TIMEOUT || rc == SOCK_CONNECT_FAIL) << rc;
    EXPECT_EQ(-1, fd);

    fd = 12345;
    EXPECT_EQ(SOCK_BIND_FAIL, Sock_OpenConnect_String("198.51.100.7", "127.0.0.1", closedPort, &fd, 1000))
        << "a myself address of another host";
    EXPECT_EQ(-1, fd);
}

TEST(SockConnectTest, SocketIsNonBlockingAndBoundToTheMyselfAddress)
{
    int port;
    const int l = ListenOn("192.0.2.1", 0, 8, &port);
    int fd = -1;
    ASSERT_EQ(SUCCESS, Sock_OpenConnect_String("192.0.2.1", "192.0.2.1", port, &fd, 5000));
    const int peer = accept(l, nullptr, nullptr);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);

    in_addr local{}, remote{};
    unsigned short localPort = 0, remotePort = 0;
    ASSERT_EQ(SUCCESS, Get_IP4Addr_Nic(fd, &local, &localPort));
    ASSERT_EQ(SUCCESS, Get_IP4Addr_Connect(peer, &remote, &remotePort));
    EXPECT_EQ(local.s_addr, remote.s_addr);
    EXPECT_EQ(localPort, remotePort) << "ports are handed out in network order";
    char text[32];
    ASSERT_EQ(SUCCESS, GetString_IPAddr(text, sizeof(text), &local, htons(80)));
    EXPECT_STREQ("192.0.2.1 :80", text);
    ASSERT_EQ(SUCCESS, GetString_IPAddr(text, 8, &local, htons(80)));
    EXPECT_STREQ("192.0.2", text);

    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    EXPECT_EQ(SOCK_NOT_IPv4, Get_IP4Addr_Connect(sv[0], &remote, &remotePort));
    for (int d : {sv[0], sv[1], peer, l}) {
        close(d);
    }
    EXPECT_EQ(SUCCESS, Sock_Close(fd));
}

// A byte every 20 ms keeps each pass short, but the passes add up: 150 ms
// in, the read ends long before the 1000 bytes are there. (Assembling a
// message from many segments is every camera part's read.)
TEST(SockRecvTest, TrickleEndsWhenTheTimeSpentInPassesRunsOut)
{
    Pair p;
    std::atomic<bool> stop{false};
    std::thread peer([&] {
        for (int i = 0; i < 1000 && !stop; ++i) {
            send(p.peer, "x", 1, MSG_NOSIGNAL);
            std::this_thread::sleep_for(milliseconds(20));
        }
    });
    std::vector<char> buf(1000);
    int got = -1;
    const int rc = Sock_Recv(p.ours, buf.data(), 1000, &got, 150, 0, nullptr);
    stop = true;
    peer.join();
    EXPECT_EQ(SOCK_TIMEOUT, rc);
    EXPECT_GT(got, 0);
    EXPECT_LT(got, 1000);
}

// A peer that sends part of the data and then nothing: one wait of the whole
// time-out ends the read with what came (it used to wait pass after pass, so
// a half-sent request held a control-port thread for ever).
TEST(SockRecvTest, SilentPeerEndsTheReadAfterOneWholeTimeOut)
{
    Pair p;
    put(p.peer, "abc");
    char buf[64];
    int got = -1;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(SOCK_TIMEOUT, Sock_Recv(p.ours, buf, sizeof(buf), &got, 300, SOCK_FIXED_FLAGS, nullptr));
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(250)) << "not before the wait ran out";
    EXPECT_EQ(3, got);

    got = -1;
    EXPECT_EQ(SOCK_TIMEOUT, Sock_Recv_TxtMsg(p.ours, buf, sizeof(buf), &got, 100, nullptr));
    EXPECT_EQ(0, got) << "the text reader, too";
}

TEST(SockRecvTest, OnlyAnExitFlagOfMinusOneEndsAWaitEarly)
{
    Pair p;
    put(p.peer, "abc");
    SockExitFlag flag{0};
    char buf[64];
    int got = -1;
    Worker w([&] { return Sock_Recv(p.ours, buf, sizeof(buf), &got, 60000, SOCK_FIXED_FLAGS, &flag); });
    wait_consumed(p.peer, p.ours);
    flag = 1;
    pthread_kill(w.tid, SIGUSR1);
    EXPECT_FALSE(w.finished(200)) << "a signal with another flag value is no stop";
    flag = -1;
    EXPECT_EQ(LOOP_INTERRUPTED, w.wake_until_done());
    EXPECT_EQ(3, got);
}

TEST(SockRecvTest, TextMessageEndsAtANulThatIsNotTheFirstByteOfABlock)
{
    Pair p;
    char buf[512];
    int got = -1;
    put(p.peer, std::string("Success\0tail", 12));
    ASSERT_EQ(SUCCESS, Sock_Recv_TxtMsg(p.ours, buf, sizeof(buf), &got, 5000, nullptr));
    EXPECT_EQ(12, got) << "the whole block counts, bytes after the NUL too";

    Worker w([&] { return Sock_Recv_TxtMsg(p.ours, buf, sizeof(buf), &got, 5000, nullptr); });
    put(p.peer, "abc");
    wait_consumed(p.peer, p.ours);
    put(p.peer, std::string("\0", 1));
    wait_consumed(p.peer, p.ours);
    EXPECT_FALSE(w.finished(0)) << "a NUL alone as a block's first byte is not seen";
    put(p.peer, std::string("\0x\0", 3));
    ASSERT_TRUE(w.finished(10000));
    EXPECT_EQ(SUCCESS, w.result.get());
    EXPECT_EQ(7, got);

    put(p.peer, "abcdef");
    ASSERT_EQ(SUCCESS, Sock_Recv_TxtMsg(p.ours, buf, 4, &got, 5000, nullptr));
    EXPECT_EQ(4, got) << "a full buffer ends it";
    p.close_peer();
    ASSERT_EQ(SUCCESS, Sock_Recv_TxtMsg(p.ours, buf, sizeof(buf), &got, 5000, nullptr));
    EXPECT_EQ(2, got) << "so does a close";
}

// The exit flag's break of a blocked send is the reliability tests' stop
// while a thread sends to a stalled viewer.
TEST(SockSendTest, PeerThatDoesNotReadEndsInTimeOut)
{
    std::vector<char> data(16 << 20);
    Pair p;
    int sent = -1;
    EXPECT_EQ(SOCK_TIMEOUT, Sock_Send(p.ours, data.data(), static_cast<int>(data.size()), &sent, 200, nullptr));
    EXPECT_LT(sent, static_cast<int>(data.size()));
}

TEST(SockSendTest, PeerThatHasGoneGivesSigpipeCodeWithoutTheSignal)
{
    signal(SIGPIPE, SIG_DFL);  // a raised signal would end the test
    Pair p;
    p.close_peer();
    int sent = -1;
    // The first bytes are still taken; the closed peer answers with a reset.
    ASSERT_EQ(SUCCESS, Sock_Send(p.ours, "one", 3, &sent, 5000, nullptr));
    ASSERT_TRUE(WaitUntil([&] {
        tcp_info ti{};
        socklen_t l = sizeof(ti);
        getsockopt(p.ours, IPPROTO_TCP, TCP_INFO, &ti, &l);
        return ti.tcpi_state == TCP_CLOSE;
    }));
    int err = 0;
    socklen_t el = sizeof(err);
    getsockopt(p.ours, SOL_SOCKET, SO_ERROR, &err, &el);  // the reset is reported once
    EXPECT_EQ(SOCK_SIGPIPE, Sock_Send(p.ours, "two", 3, &sent, 5000, nullptr));
}

}  // namespace
