#ifndef OSTREL_TESTS_SUPPORT_TEST_SOCKETS_H
#define OSTREL_TESTS_SUPPORT_TEST_SOCKETS_H

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "wait_until.h"  // the tests that wait on sockets use it

// Socket fixtures of the tests: blocking IPv4 TCP on the addresses of the
// test's network namespace. A call that cannot set up what it promises
// (socket, bind, listen, connect) prints why and aborts the test program.

// A listening socket on ip:port (port 0: the system chooses; *boundPort
// gets the port, host order, when not null). SO_REUSEADDR is set.
int ListenOn(const char* ip, int port, int backlog = 8, int* boundPort = nullptr);

// A blocking connection to ip:port, from src when not null, with a receive
// limit of rcvTimeoutSec seconds so that a hung server fails the test
// instead of holding it. -1 when the connect fails (not aborted: refusal is
// what some tests look for).
int ConnectTo(const char* ip, int port, const char* src = nullptr, int rcvTimeoutSec = 60);

// Sends all bytes; false once the peer has gone.
bool SendAll(int fd, const std::string& bytes);

// Reads until the peer closes, or resets (*reset then true when not null).
// The descriptor stays open.
std::string ReadToClose(int fd, bool* reset = nullptr);

// A threaded TCP server standing in for a camera or the schedule server:
// each connection's request head (up to CR LF CR LF) is recorded, then the
// socket goes to the handler on a thread of its own; the connection is shut
// down when the handler returns. The destructor shuts every connection down
// and joins all threads.
class FakePeer {
public:
    // Handler: fd, request head, connection number (1-based).
    using Handler = std::function<void(int fd, const std::string& request, int connNo)>;

    FakePeer(const char* ip, int port, Handler handler);
    ~FakePeer();
    FakePeer(const FakePeer&) = delete;
    FakePeer& operator=(const FakePeer&) = delete;

    int Port() const { return m_port; }
    int Connections() const { return m_connections.load(); }
    int Finished() const { return m_finished.load(); }
    std::vector<std::string> Requests() const;

private:
    void AcceptLoop();
    void Serve(int fd, int connNo);

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

#endif
