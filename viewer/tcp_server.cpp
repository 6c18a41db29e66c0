#include "viewer/tcp_server.h"

#include <unistd.h>

#include "viewer/tool_net.h"

namespace otools {

TcpServer::~TcpServer()
{
    Stop();
}

bool TcpServer::Start(const std::string& host, int port, Handler handler, std::string* err)
{
    handler_ = std::move(handler);
    listen_fd_ = ListenTcp(host, port, err);
    if (listen_fd_ < 0)
        return false;
    port_ = BoundPort(listen_fd_);
    accept_thread_ = std::thread([this] { accept_loop(); });
    return true;
}

void TcpServer::StartOnListener(int listenFd, Handler handler)
{
    handler_ = std::move(handler);
    listen_fd_ = listenFd;
    port_ = BoundPort(listen_fd_);
    accept_thread_ = std::thread([this] { accept_loop(); });
}

void TcpServer::Stop()
{
    stop_.store(true, std::memory_order_relaxed);
    if (accept_thread_.joinable())
        accept_thread_.join();
    for (Conn& c : conns_)
        if (c.thread.joinable())
            c.thread.join();
    conns_.clear();
    if (listen_fd_ >= 0)
        ::close(listen_fd_);
    listen_fd_ = -1;
}

void TcpServer::accept_loop()
{
    for (;;) {
        std::string peer;
        const int fd = AcceptOrStop(listen_fd_, stop_, &peer);
        if (fd < 0)
            return;
        // Reap the threads of connections that have ended.
        for (auto it = conns_.begin(); it != conns_.end();) {
            if (it->done.load(std::memory_order_acquire)) {
                it->thread.join();
                it = conns_.erase(it);
            } else {
                ++it;
            }
        }
        const int connNo = connections_.fetch_add(1, std::memory_order_relaxed) + 1;
        conns_.emplace_back();
        Conn& c = conns_.back();
        c.thread = std::thread([this, fd, peer, connNo, &c] {
            handler_(fd, peer, connNo);
            c.done.store(true, std::memory_order_release);
        });
    }
}

}  // namespace otools
