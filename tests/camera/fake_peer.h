#ifndef OSTREL_TESTS_CAMERA_FAKE_PEER_H
#define OSTREL_TESTS_CAMERA_FAKE_PEER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// A threaded TCP server standing in for a camera or the schedule server: each
// connection's request head is recorded, then the socket goes to the handler.
class FakePeer {
public:
    // Handler: fd, request head, connection number (1-based).
    using Handler = std::function<void(int fd, const std::string& request, int connNo)>;

    FakePeer(const char* ip, int port, Handler handler) : m_handler(std::move(handler))
    {
        m_listen = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_listen, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, ip, &addr.sin_addr);
        socklen_t len = sizeof addr;
        if (bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(m_listen, 8) != 0 ||
            getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            ADD_FAILURE() << "fake peer cannot listen on " << ip << ":" << port;
        }
        m_port = ntohs(addr.sin_port);
        m_acceptor = std::thread([this] { acceptLoop(); });
    }

    ~FakePeer()
    {
        shutdown(m_listen, SHUT_RDWR);
        m_acceptor.join();
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            for (int fd : m_fds) {
                shutdown(fd, SHUT_RDWR);
            }
        }
        for (std::thread& t : m_threads) {
            t.join();
        }
        for (int fd : m_fds) {
            close(fd);
        }
        close(m_listen);
    }

    int Port() const { return m_port; }
    int Connections() const { return m_connections.load(); }
    int Finished() const { return m_finished.load(); }
    std::vector<std::string> Requests() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }

private:
    void acceptLoop()
    {
        for (;;) {
            int fd = accept(m_listen, nullptr, nullptr);
            if (fd < 0) {
                return;
            }
            int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            int connNo = ++m_connections;
            std::lock_guard<std::mutex> lock(m_mutex);
            m_fds.push_back(fd);
            m_threads.emplace_back([this, fd, connNo] { serve(fd, connNo); });
        }
    }

    void serve(int fd, int connNo)
    {
        std::string head;
        char c;
        while (head.size() < 4 || head.compare(head.size() - 4, 4, "\r\n\r\n") != 0) {
            if (recv(fd, &c, 1, 0) != 1) {
                break;
            }
            head += c;
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.push_back(head);
        }
        m_handler(fd, head, connNo);
        shutdown(fd, SHUT_RDWR);
        m_finished++;
    }

    Handler m_handler;
    int m_listen = -1;
    int m_port = 0;
    std::atomic<int> m_connections{0};
    std::atomic<int> m_finished{0};
    mutable std::mutex m_mutex;
    std::vector<int> m_fds;
    std::vector<std::string> m_requests;
    std::vector<std::thread> m_threads;
    std::thread m_acceptor;
};

// Sends all bytes; false once the peer has gone.
inline bool SendAll(int fd, const std::string& bytes)
{
    size_t off = 0;
    while (off < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        off += static_cast<size_t>(n);
    }
    return true;
}

// Reads until the client closes (or the server shuts the connection down).
inline void DrainUntilClosed(int fd)
{
    char buf[256];
    while (recv(fd, buf, sizeof buf, 0) > 0) {
    }
}

// Polls pred until it holds or timeoutMs pass.
inline bool WaitUntil(const std::function<bool()>& pred, int timeoutMs = 20000)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

inline std::string StreamHead()
{
    return "HTTP/1.0 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=myboundary\r\n\r\n";
}

inline std::string PartHead(size_t length)
{
    return "--myboundary\r\nContent-Type: image/jpeg\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

// Picture number seq: every byte depends on seq and position, so a picture
// that was cut, shifted or mixed with another is caught.
inline std::string Picture(uint64_t seq, size_t length)
{
    std::string p(length, '\0');
    for (size_t i = 0; i < length; i++) {
        p[i] = static_cast<char>((seq * 131 + i * 7 + (i >> 8)) & 0xff);
    }
    return p;
}

// A test run in a fresh working directory holding conf/, removed afterwards,
// with helpers writing channel settings to conf/Config.txt.
using Keys = std::map<std::string, std::string>;
const char* const kMissing = "\x01missing"; // a value that leaves its key out

inline Keys ValidChannelKeys()
{
    return {
        {"translator_tarndatatype", "ostrel"}, {"encoder_ip", "10.0.0.7"},
        {"encoder_port", "8080"}, {"translator_connect_ip", "10.0.0.9"},
        {"translator_connect_port", "9001"}, {"translator_connect_camerano", "2"},
        {"channel_authentic_switch", "1"}, {"channel_authentic_user_id", "root"},
        {"channel_authentic_user_password", "pass word"}, {"translator_calarm_rec_postterm", "30"},
    };
}

class ConfDirTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_NE(getcwd(m_oldCwd, sizeof m_oldCwd), nullptr);
        char tmpl[] = "/tmp/ostrel_cameraXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_dir = tmpl;
        ASSERT_EQ(chdir(m_dir.c_str()), 0);
        ASSERT_EQ(mkdir("conf", 0777), 0);
    }
    void TearDown() override
    {
        ASSERT_EQ(chdir(m_oldCwd), 0);
        ASSERT_EQ(system(("rm -rf '" + m_dir + "'").c_str()), 0);
    }
    static void WriteChannels(const std::map<int, Keys>& channels)
    {
        std::ofstream out("conf/Config.txt", std::ios::trunc);
        out << "# channel settings\n";
        for (const auto& ch : channels) {
            char suffix[8];
            snprintf(suffix, sizeof suffix, "_%04d", ch.first);
            for (const auto& kv : ch.second) {
                if (kv.second != kMissing) {
                    out << kv.first << suffix << "=" << kv.second << "\n";
                }
            }
        }
    }

    char m_oldCwd[4096];
    std::string m_dir;
};

#endif
