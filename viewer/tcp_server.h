#ifndef OSTREL_TOOLS_TCP_SERVER_H
#define OSTREL_TOOLS_TCP_SERVER_H

// The listening side shared by the simulators: one accept thread, one
// thread per connection running the handler. The handler owns the
// descriptor it is given (it must close it) and should return soon after
// StopFlag() becomes true; every wait in tool_net.h honours that flag.
//
// Start and Stop are called from one controlling thread.

#include <atomic>
#include <functional>
#include <list>
#include <string>
#include <thread>

namespace otools {

class TcpServer {
public:
    using Handler = std::function<void(int fd, const std::string& peer, int connNo)>;

    TcpServer() = default;
    ~TcpServer();
    TcpServer(const TcpServer&) = delete;
    TcpServer& operator=(const TcpServer&) = delete;

    // Listens on host:port (0 = any free port) and starts accepting.
    bool Start(const std::string& host, int port, Handler handler, std::string* err);
    // Accepts on a socket that already listens (passed in by the caller, for
    // example from another network namespace); the server closes it at Stop.
    void StartOnListener(int listenFd, Handler handler);
    // Stops accepting, waits for every handler to return. Safe to call twice.
    void Stop();

    int Port() const { return port_; }
    int Connections() const { return connections_.load(std::memory_order_relaxed); }
    const std::atomic<bool>& StopFlag() const { return stop_; }

private:
    struct Conn {
        std::thread thread;
        std::atomic<bool> done{false};
    };
    void accept_loop();

    Handler handler_;
    int listen_fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> connections_{0};
    std::thread accept_thread_;
    std::list<Conn> conns_;  // touched only by the accept thread until it is joined
};

}  // namespace otools

#endif  // OSTREL_TOOLS_TCP_SERVER_H
