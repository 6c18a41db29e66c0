#ifndef OSTREL_TESTS_HTTP_LOOPBACK_PEER_H
#define OSTREL_TESTS_HTTP_LOOPBACK_PEER_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

// A connected TCP pair on 127.0.0.1: reader() is the side the code under
// test reads from, the test writes through the peer side.
class LoopbackPair {
public:
    LoopbackPair()
    {
        int listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (listener < 0 || bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(listener, 1) != 0 || getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            ADD_FAILURE() << "loopback listener";
        }
        m_peer = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(m_peer, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            ADD_FAILURE() << "loopback connect";
        }
        m_reader = accept(listener, nullptr, nullptr);
        close(listener);
        int one = 1;
        setsockopt(m_peer, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    ~LoopbackPair()
    {
        ClosePeer();
        if (m_reader >= 0) {
            close(m_reader);
        }
    }
    LoopbackPair(const LoopbackPair&) = delete;
    LoopbackPair& operator=(const LoopbackPair&) = delete;

    int reader() const { return m_reader; }

    void Send(const std::string& bytes)
    {
        size_t off = 0;
        while (off < bytes.size()) {
            ssize_t n = send(m_peer, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
            if (n <= 0) {
                ADD_FAILURE() << "peer send";
                return;
            }
            off += static_cast<size_t>(n);
        }
    }

    // Returns once everything sent so far has been delivered to the reader's
    // socket (nothing left unacknowledged at the peer) and taken out of it by
    // the reader, or once *done says the reader has stopped reading. This is
    // what makes each piece arrive in a receive of its own. A bounded poll
    // (100 us steps, 10 s at most) so that it never starves the reader.
    void WaitDrained(const std::atomic<bool>& done) const
    {
        for (int i = 0; i < 100000; i++) {
            int unacked = 0;
            int unread = 0;
            ioctl(m_peer, SIOCOUTQ, &unacked);
            ioctl(m_reader, SIOCINQ, &unread);
            if ((unacked == 0 && unread == 0) || done.load()) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        ADD_FAILURE() << "the reader did not take what was sent within 10 s";
    }

    void ClosePeer()
    {
        if (m_peer >= 0) {
            close(m_peer);
            m_peer = -1;
        }
    }

private:
    int m_reader = -1;
    int m_peer = -1;
};

// The input cut into pieces: whole, or at one offset, or byte by byte.
inline std::vector<std::string> SplitAt(const std::string& s, size_t cut)
{
    return {s.substr(0, cut), s.substr(cut)};
}

inline std::vector<std::string> Bytewise(const std::string& s)
{
    std::vector<std::string> out;
    for (char c : s) {
        out.emplace_back(1, c);
    }
    return out;
}

// Runs read(fd) on a thread of its own while the pieces are sent one after
// the other, each only after the reader has taken the one before; then the
// peer is closed if asked. Returns once read has returned.
inline void FeedInPieces(const std::vector<std::string>& pieces, bool closeAfter,
                         const std::function<void(int fd)>& read)
{
    LoopbackPair pair;
    std::atomic<bool> done{false};
    std::thread reader([&] {
        read(pair.reader());
        done.store(true);
    });
    for (const std::string& piece : pieces) {
        if (piece.empty()) {
            continue;
        }
        pair.Send(piece);
        pair.WaitDrained(done);
    }
    if (closeAfter) {
        pair.ClosePeer();
    }
    reader.join();
}

#endif
