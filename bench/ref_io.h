#ifndef OSTREL_BENCH_SEND_ALL_H
#define OSTREL_BENCH_SEND_ALL_H

#include <sys/types.h>
#include <sys/uio.h>

// Writes every byte of the n pieces in v to the blocking descriptor fd,
// advancing v as the bytes go (v is used up). False when a write fails or
// the peer has gone. Shared by the benchmarks' reference servers.
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

#endif
