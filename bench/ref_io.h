#ifndef OSTREL_BENCH_REF_IO_H
#define OSTREL_BENCH_REF_IO_H

#include <netinet/in.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bench/part_reader.h"
#include "net/tcp_endpoint.h"

// What the benchmarks' programs share: their addresses, their sockets'
// set-up (net/tcp_endpoint.h) and the one send loop of the reference
// servers. Blocking descriptors, one thread each.

// "a.b.c.d:port" as an address (a text without a valid address gives
// 0.0.0.0, which no connect reaches).
inline sockaddr_in RefAddress(const char* text)
{
    const std::string s(text);
    const size_t colon = s.find(':');
    sockaddr_in a{};
    Tcp_Address(s.substr(0, colon).c_str(), colon == std::string::npos ? 0 : std::atoi(s.c_str() + colon + 1), &a);
    return a;
}

// The listening socket on "a.b.c.d:port"; exits with status 2 and a
// message naming `who` when it cannot be had.
inline int RefListen(const char* who, const char* text, int backlog)
{
    const sockaddr_in a = RefAddress(text);
    const int fd = Tcp_Listen(&a, backlog);
    if (fd < 0) {
        std::perror((std::string(who) + ": listen").c_str());
        std::exit(2);
    }
    return fd;
}

// Writes every byte of the n pieces in v to the blocking descriptor fd,
// advancing v as the bytes go (v is used up). False when a write fails or
// the peer has gone.
inline bool SendAllV(int fd, iovec* v, int n)
{
    int i = 0;
    while (i < n) {
        ssize_t w = writev(fd, v + i, n - i);
        if (w <= 0)
            return false;
        for (size_t left = static_cast<size_t>(w); left > 0 && i < n;) {
            size_t take = left < v[i].iov_len ? left : v[i].iov_len;
            v[i].iov_base = static_cast<char*>(v[i].iov_base) + take;
            v[i].iov_len -= take;
            left -= take;
            if (v[i].iov_len == 0)
                ++i;
        }
    }
    return true;
}

// Connects cam to the camera at `camera` ("a.b.c.d:port"), sends the
// request text and reads the answer's head up to its blank line, so that
// cam's next read is the multipart stream. False (with a message naming
// `who` when the connect failed) on any fault.
inline bool RefOpenStream(const char* who, const char* camera, const std::string& request, PartReader* cam)
{
    const sockaddr_in a = RefAddress(camera);
    cam->fd = Tcp_Connect(&a, nullptr, 10000);
    if (cam->fd < 0) {
        std::perror((std::string(who) + ": camera").c_str());
        return false;
    }
    iovec v{const_cast<char*>(request.data()), request.size()};
    return SendAllV(cam->fd, &v, 1) && cam->skip_head();
}

#endif
