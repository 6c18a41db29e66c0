#include "net/socket_io.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "common/return_codes.h"

namespace {

// Polls a condition every millisecond for up to 10 s: used to wait for an
// event in the kernel (bytes arrived, bytes consumed, a reset seen), never
// as a stand-in for ordering between threads.
template <typename Pred>
bool eventually(Pred pred)
{
    for (int i = 0; i < 10000; ++i) {
        if (pred()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return pred();
}

int unread_bytes(int fd)
{
    int n = -1;
    ioctl(fd, FIONREAD, &n);
    return n;
}

int unacked_bytes(int fd)
{
    int n = -1;
    ioctl(fd, SIOCOUTQ, &n);
    return n;
}

void write_all(int fd, const std::string& s)
{
    ASSERT_EQ(static_cast<ssize_t>(s.size()), send(fd, s.data(), s.size(), MSG_NOSIGNAL));
}

// The bytes have reached the other end and it has taken them off its queue.
void wait_consumed(int sender, int receiver)
{
    ASSERT_TRUE(eventually([&] { return unacked_bytes(sender) == 0; }));
    ASSERT_TRUE(eventually([&] { return unread_bytes(receiver) == 0; }));
}

void close_with_reset(int fd)
{
    linger lg{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof(lg));
    close(fd);
}

// A listening socket on addr:ephemeral (plain blocking descriptors).
struct Listener {
    int fd = -1;
    unsigned short port = 0;

    explicit Listener(const char* addr = "127.0.0.1")
    {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, addr, &a.sin_addr);
        bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
        listen(fd, 8);
        socklen_t l = sizeof(a);
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &l);
        port = ntohs(a.sin_port);
    }
    ~Listener() { close(fd); }
};

// A connected pair: `ours` made by the code under test, `peer` accepted.
struct Pair {
    int ours = -1;
    int peer = -1;

    Pair()
    {
        Listener l;
        EXPECT_EQ(SUCCESS, Sock_OpenConnect_String("127.0.0.1", "127.0.0.1", l.port, &ours, 5000));
        peer = accept(l.fd, nullptr, nullptr);
        EXPECT_GE(peer, 0);
    }
    ~Pair()
    {
        if (ours >= 0) {
            close(ours);
        }
        if (peer >= 0) {
            close(peer);
        }
    }
};

void on_usr1(int) {}

// SIGUSR1 without SA_RESTART: the signal a worker's owner uses to break a
// blocked wait.
void install_wake_signal()
{
    struct sigaction sa {};
    sa.sa_handler = on_usr1;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGUSR1, &sa, nullptr);
}

// Runs call() in a thread that first reports its pthread id.
struct Worker {
    std::promise<pthread_t> id;
    std::future<int> result;

    template <typename F>
    explicit Worker(F call)
    {
        std::future<pthread_t> idf = id.get_future();
        result = std::async(std::launch::async, [this, call] {
            id.set_value(pthread_self());
            return call();
        });
        tid = idf.get();
    }

    bool finished(int ms = 0)
    {
        return result.wait_for(std::chrono::milliseconds(ms)) == std::future_status::ready;
    }

    // Keeps poking the thread with SIGUSR1 until it returns: a single signal
    // could land just before the thread enters its wait.
    int wake_until_done()
    {
        while (!finished(20)) {
            pthread_kill(tid, SIGUSR1);
        }
        return result.get();
    }

    pthread_t tid;
};

// ---- Opening and connecting ------------------------------------------------

TEST(SockConnectTest, RefusesBadAddressesBeforeMakingASocket)
{
    struct Row {
        const char* myself;
        const char* target;
        const char* note;
    } rows[] = {
        {"127.0.0.1", "localhost", "host name as target"},
        {"me", "127.0.0.1", "host name as myself address"},
        {"127.0.0.1", "127.0.0.256", "octet out of range"},
        {"", "127.0.0.1", "empty myself address"},
        {"127.0.0.1", nullptr, "no target"},
    };
    for (const Row& r : rows) {
        int fd = 12345;
        EXPECT_EQ(SYS_FUNC_ERROR, Sock_OpenConnect_String(r.myself, r.target, 80, &fd, 1000)) << r.note;
        EXPECT_EQ(12345, fd) << r.note;
    }
}

TEST(SockConnectTest, FailedConnectionsCloseTheSocket)
{
    // A port that was just free: nothing listens there.
    unsigned short closedPort;
    {
        Listener l;
        closedPort = l.port;
    }
    int fd = 12345;
    EXPECT_EQ(SOCK_CONNECT_FAIL, Sock_OpenConnect_String("127.0.0.1", "127.0.0.1", closedPort, &fd, 5000));
    EXPECT_EQ(-1, fd);

    // An address of eth0's subnet where no host answers: the handshake never
    // completes within the time-out (or the neighbour lookup fails first).
    fd = 12345;
    const int rc = Sock_OpenConnect_String("0.0.0.0", "192.0.2.99", 80, &fd, 300);
    EXPECT_TRUE(rc == SOCK_TIMEOUT || rc == SOCK_CONNECT_FAIL) << rc;
    EXPECT_EQ(-1, fd);

    // A myself address that is not on this host cannot be bound.
    fd = 12345;
    EXPECT_EQ(SOCK_BIND_FAIL, Sock_OpenConnect_String("198.51.100.7", "127.0.0.1", closedPort, &fd, 1000));
    EXPECT_EQ(-1, fd);
}

TEST(SockConnectTest, ConnectedSocketIsNonBlockingAndBoundToTheMyselfAddress)
{
    Listener l("192.0.2.1");
    int fd = -1;
    ASSERT_EQ(SUCCESS, Sock_OpenConnect_String("192.0.2.1", "192.0.2.1", l.port, &fd, 5000));
    const int peer = accept(l.fd, nullptr, nullptr);
    ASSERT_GE(peer, 0);

    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);

    in_addr a{};
    unsigned short port = 0;
    char text[64];
    ASSERT_EQ(SUCCESS, Get_IP4Addr_Nic(fd, &a, &port));
    ASSERT_EQ(SUCCESS, GetString_IPAddr(text, sizeof(text), &a, 0));
    EXPECT_STREQ("192.0.2.1 :0", text);
    EXPECT_NE(0, port);

    ASSERT_EQ(SUCCESS, Get_IP4Addr_Connect(fd, &a, &port));
    EXPECT_EQ(l.port, ntohs(port));

    // The accepting side sees our bound address and port as its peer.
    in_addr pa{};
    unsigned short pport = 0;
    ASSERT_EQ(SUCCESS, Get_IP4Addr_Connect(peer, &pa, &pport));
    in_addr ours{};
    unsigned short oport = 0;
    Get_IP4Addr_Nic(fd, &ours, &oport);
    EXPECT_EQ(ours.s_addr, pa.s_addr);
    EXPECT_EQ(oport, pport);

    close(peer);
    EXPECT_EQ(SUCCESS, Sock_Close(fd));
}

TEST(SockAddressTest, TextFormAndFailures)
{
    in_addr a{};
    inet_pton(AF_INET, "192.168.0.10", &a);
    char text[32];
    ASSERT_EQ(SUCCESS, GetString_IPAddr(text, sizeof(text), &a, htons(80)));
    EXPECT_STREQ("192.168.0.10 :80", text);

    char small[8];
    ASSERT_EQ(SUCCESS, GetString_IPAddr(small, sizeof(small), &a, htons(80)));
    EXPECT_STREQ("192.168", small);

    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    unsigned short port;
    EXPECT_EQ(SOCK_NOT_IPv4, Get_IP4Addr_Nic(sv[0], &a, &port));
    EXPECT_EQ(SOCK_NOT_IPv4, Get_IP4Addr_Connect(sv[0], &a, &port));
    close(sv[0]);
    close(sv[1]);

    int pipefd[2];
    ASSERT_EQ(0, pipe(pipefd));
    EXPECT_EQ(SYS_FUNC_ERROR, Get_IP4Addr_Nic(pipefd[0], &a, &port));
    close(pipefd[0]);
    close(pipefd[1]);

    const int unconnected = socket(AF_INET, SOCK_STREAM, 0);
    EXPECT_EQ(SYS_FUNC_ERROR, Get_IP4Addr_Connect(unconnected, &a, &port));
    close(unconnected);
}

// ---- Receiving ---------------------------------------------------------------

TEST(SockRecvTest, PeerThatClosesOrResetsMidMessageGivesThePartialCount)
{
    for (bool reset : {false, true}) {
        Pair p;
        write_all(p.peer, "hello");
        if (reset) {
            close_with_reset(p.peer);
        } else {
            close(p.peer);
        }
        p.peer = -1;
        char buf[64];
        int got = -1;
        EXPECT_EQ(SUCCESS, Sock_Recv(p.ours, buf, sizeof(buf), &got, 5000, SOCK_FIXED_FLAGS, nullptr))
            << (reset ? "reset" : "close");
        EXPECT_EQ(5, got);
        EXPECT_EQ("hello", std::string(buf, 5));
    }
}

TEST(SockRecvTest, TwoMessagesInOneWriteAreTakenOneAtATime)
{
    Pair p;
    write_all(p.peer, "first-second!");
    char buf[16] = {};
    int got = -1;
    ASSERT_EQ(SUCCESS, Sock_Recv(p.ours, buf, 6, &got, 5000, SOCK_FIXED_FLAGS, nullptr));
    EXPECT_EQ(6, got);
    EXPECT_EQ("first-", std::string(buf, 6));
    ASSERT_EQ(SUCCESS, Sock_Recv(p.ours, buf, 7, &got, 5000, 0, nullptr));
    EXPECT_EQ(7, got);
    EXPECT_EQ("second!", std::string(buf, 7));

    // len 0 never touches the descriptor.
    got = -1;
    EXPECT_EQ(SUCCESS, Sock_Recv(-1, buf, 0, &got, 5000, 0, nullptr));
    EXPECT_EQ(0, got);
}

TEST(SockRecvTest, TrickledBytesAreAssembledUntilTheTimeSpentInPassesRunsOut)
{
    // Complete message, one byte at a time.
    {
        Pair p;
        std::thread peer([&] {
            for (char c : std::string("0123456789")) {
                send(p.peer, &c, 1, MSG_NOSIGNAL);
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
        char buf[10];
        int got = -1;
        EXPECT_EQ(SUCCESS, Sock_Recv(p.ours, buf, sizeof(buf), &got, 5000, SOCK_FIXED_FLAGS, nullptr));
        peer.join();
        EXPECT_EQ(10, got);
        EXPECT_EQ("0123456789", std::string(buf, 10));
    }
    // A trickle slower than the time-out allows: each pass is short, so the
    // passes add up to the time-out long before the peer is done.
    {
        Pair p;
        std::atomic<bool> stop{false};
        std::thread peer([&] {
            for (int i = 0; i < 1000 && !stop.load(); ++i) {
                send(p.peer, "x", 1, MSG_NOSIGNAL);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        });
        std::vector<char> buf(1000);
        int got = -1;
        EXPECT_EQ(SOCK_TIMEOUT, Sock_Recv(p.ours, buf.data(), 1000, &got, 150, 0, nullptr));
        stop = true;
        peer.join();
        EXPECT_GT(got, 0);
        EXPECT_LT(got, 1000);
    }
}

TEST(SockRecvTest, SilentPeerWaitsUntilTheExitFlagIsMinusOne)
{
    Pair p;
    write_all(p.peer, "abc");
    SockExitFlag flag{0};
    char buf[64];
    int got = -1;
    Worker w([&] { return Sock_Recv(p.ours, buf, sizeof(buf), &got, 50, SOCK_FIXED_FLAGS, &flag); });

    // Many time-outs' worth of silence is not a time-out, and a flag value
    // other than -1 changes nothing.
    EXPECT_FALSE(w.finished(400));
    flag = 1;
    EXPECT_FALSE(w.finished(200));
    flag = -1;
    EXPECT_TRUE(w.finished(10000));
    EXPECT_EQ(LOOP_INTERRUPTED, w.result.get());
    EXPECT_EQ(3, got);
}

TEST(SockRecvTest, SignalBreaksALongWaitWhenTheExitFlagIsSet)
{
    install_wake_signal();
    Pair p;
    SockExitFlag flag{0};
    char buf[64];
    int got = -1;
    Worker w([&] { return Sock_Recv(p.ours, buf, sizeof(buf), &got, 600000, 0, &flag); });
    // Without -1 a signal only starts the next pass.
    pthread_kill(w.tid, SIGUSR1);
    EXPECT_FALSE(w.finished(100));
    flag = -1;
    EXPECT_EQ(LOOP_INTERRUPTED, w.wake_until_done());
    EXPECT_EQ(0, got);
}

TEST(SockRecvTest, TextMessageEndsAtANulThatIsNotTheFirstByteOfABlock)
{
    // Whole message with bytes after the NUL: the whole block counts.
    {
        Pair p;
        write_all(p.peer, std::string("Success\0tail", 12));
        char buf[512];
        int got = -1;
        ASSERT_EQ(SUCCESS, Sock_Recv_TxtMsg(p.ours, buf, sizeof(buf), &got, 5000, nullptr));
        EXPECT_EQ(12, got);
    }
    // A NUL that arrives as the first byte of a block is not seen.
    {
        Pair p;
        char buf[512];
        int got = -1;
        Worker w([&] { return Sock_Recv_TxtMsg(p.ours, buf, sizeof(buf), &got, 5000, nullptr); });
        write_all(p.peer, "abc");
        wait_consumed(p.peer, p.ours);
        write_all(p.peer, std::string("\0", 1));
        wait_consumed(p.peer, p.ours);
        EXPECT_FALSE(w.finished(0));
        write_all(p.peer, std::string("\0x\0", 3));
        ASSERT_TRUE(w.finished(10000));
        EXPECT_EQ(SUCCESS, w.result.get());
        EXPECT_EQ(7, got);
    }
    // No NUL: a close or a full buffer end it.
    {
        Pair p;
        write_all(p.peer, "abcdef");
        char buf[4];
        int got = -1;
        ASSERT_EQ(SUCCESS, Sock_Recv_TxtMsg(p.ours, buf, sizeof(buf), &got, 5000, nullptr));
        EXPECT_EQ(4, got);
        close(p.peer);
        p.peer = -1;
        ASSERT_EQ(SUCCESS, Sock_Recv_TxtMsg(p.ours, buf, sizeof(buf), &got, 5000, nullptr));
        EXPECT_EQ(2, got);
    }
}

TEST(SockRecvTest, PeekWaitsForMoreThanNeedAndConsumesNothing)
{
    Pair p;
    write_all(p.peer, "abc");
    char buf[64];
    int got = -1;
    EXPECT_EQ(SOCK_TIMEOUT, Sock_PeekRecv(p.ours, buf, sizeof(buf), 5, &got, 100, nullptr));
    EXPECT_EQ(3, got);

    Worker w([&] { return Sock_PeekRecv(p.ours, buf, sizeof(buf), 5, &got, 60000, nullptr); });
    write_all(p.peer, "de");
    EXPECT_FALSE(w.finished(100));  // 5 bytes are not more than 5
    write_all(p.peer, "f");
    ASSERT_TRUE(w.finished(10000));
    EXPECT_EQ(SUCCESS, w.result.get());
    EXPECT_EQ(6, got);

    ASSERT_EQ(SUCCESS, Sock_Recv(p.ours, buf, 6, &got, 5000, 0, nullptr));
    EXPECT_EQ("abcdef", std::string(buf, 6));

    SockExitFlag flag{-1};
    EXPECT_EQ(LOOP_INTERRUPTED, Sock_PeekRecv(p.ours, buf, sizeof(buf), 5, &got, 60000, &flag));
    close(p.peer);
    p.peer = -1;
    got = -1;
    EXPECT_EQ(SUCCESS, Sock_PeekRecv(p.ours, buf, sizeof(buf), 5, &got, 60000, nullptr));
    EXPECT_EQ(0, got);
}

TEST(SockRecvTest, SimpleReaderAndWriterRoundTrip)
{
    Pair p;
    int n = -1;
    ASSERT_EQ(SUCCESS, Sock_Write(p.ours, "ping", 4, &n));
    EXPECT_EQ(4, n);
    char buf[16];
    ASSERT_EQ(SUCCESS, Sock_Read_OneBlock(p.peer, buf, sizeof(buf), &n, 5000));
    EXPECT_EQ("ping", std::string(buf, n));
    ASSERT_EQ(SUCCESS, Sock_Write_OneBlock(p.peer, "pong!", 5, &n, 5000));
    EXPECT_EQ(5, n);
    close(p.peer);
    p.peer = -1;
    ASSERT_EQ(SUCCESS, Sock_Read(p.ours, buf, sizeof(buf), &n));
    EXPECT_EQ("pong!", std::string(buf, n));
}

// ---- Sending -----------------------------------------------------------------

TEST(SockSendTest, LargeBufferArrivesWhole)
{
    Pair p;
    std::vector<char> data(4 << 20);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 7 + i / 4096);
    }
    std::vector<char> in(data.size());
    std::thread reader([&] {
        size_t have = 0;
        while (have < in.size()) {
            const ssize_t r = recv(p.peer, in.data() + have, in.size() - have, 0);
            if (r <= 0) {
                break;
            }
            have += static_cast<size_t>(r);
        }
    });
    int sent = -1;
    EXPECT_EQ(SUCCESS, Sock_Send(p.ours, data.data(), static_cast<int>(data.size()), &sent, 30000, nullptr));
    reader.join();
    EXPECT_EQ(static_cast<int>(data.size()), sent);
    EXPECT_TRUE(data == in);
}

TEST(SockSendTest, PeerThatDoesNotReadEndsInTimeOutOrExitFlag)
{
    std::vector<char> data(16 << 20);
    {
        Pair p;
        int sent = -1;
        EXPECT_EQ(SOCK_TIMEOUT, Sock_Send(p.ours, data.data(), static_cast<int>(data.size()), &sent, 200, nullptr));
        EXPECT_LT(sent, static_cast<int>(data.size()));
    }
    {
        install_wake_signal();
        Pair p;
        SockExitFlag flag{0};
        int sent = -1;
        Worker w([&] {
            return Sock_Send(p.ours, data.data(), static_cast<int>(data.size()), &sent, 600000, &flag);
        });
        ASSERT_TRUE(eventually([&] { return unread_bytes(p.peer) > 0; }));
        EXPECT_FALSE(w.finished(100));
        flag = -1;
        EXPECT_EQ(LOOP_INTERRUPTED, w.wake_until_done());
        // Bytes of a block whose wait was broken are not counted, so this may
        // even be 0 although the peer has bytes queued.
        EXPECT_LT(sent, static_cast<int>(data.size()));
    }
}

TEST(SockSendTest, PeerThatHasGoneGivesSigpipeCodeWithoutTheSignal)
{
    // SIGPIPE keeps its default action: a raised signal would end the test.
    signal(SIGPIPE, SIG_DFL);
    Pair p;
    close(p.peer);
    p.peer = -1;
    int sent = -1;
    // The first bytes are still taken; the closed peer answers them with a
    // reset.
    ASSERT_EQ(SUCCESS, Sock_Send(p.ours, "one", 3, &sent, 5000, nullptr));
    ASSERT_TRUE(eventually([&] {
        tcp_info ti{};
        socklen_t l = sizeof(ti);
        getsockopt(p.ours, IPPROTO_TCP, TCP_INFO, &ti, &l);
        return ti.tcpi_state == TCP_CLOSE;
    }));
    // The pending reset is reported once; after it the socket says EPIPE.
    int err = 0;
    socklen_t el = sizeof(err);
    getsockopt(p.ours, SOL_SOCKET, SO_ERROR, &err, &el);
    EXPECT_EQ(SOCK_SIGPIPE, Sock_Send(p.ours, "two", 3, &sent, 5000, nullptr));
    EXPECT_EQ(SOCK_SIGPIPE, Sock_Send_OneBlock(p.ours, "three", 5, &sent, 5000, 0));
    EXPECT_EQ(0, sent);
}

}  // namespace
