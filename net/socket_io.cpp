#include "net/socket_io.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include "common/return_codes.h"
#include "common/time_utils.h"

namespace {

// Every socket this module makes is bound with the size of an IPv4 address
// record, whatever length the caller passed.
constexpr socklen_t kInetAddrLen = 16;

// The simple reader and writer wait this long per pass.
constexpr int kSimplePassMs = 2000;

// Pause between passes of Sock_Recv (when MSG_DONTWAIT is asked for) and of
// Sock_PeekRecv.
constexpr long long kRecvPauseUsec = 10000;
constexpr long long kPeekPauseUsec = 20000;

// The one wait of this module: poll() on one descriptor. poll replaces the
// fixed-size select() sets (no limit at descriptor 1024) with the same time-out
// meaning; a negative time-out is taken as 0 rather than "for ever".
// Returns poll's result (> 0 ready, 0 time-out, < 0 failure with errno set)
// and the events seen in *revents. EINTR is not retried here: the callers
// turn it into SOCK_INTERRUPT so that their loops look at the exit flag.
int wait_fd(int fd, short events, int timeout_ms, short* revents)
{
    pollfd p;
    p.fd = fd;
    p.events = events;
    p.revents = 0;
    errno = 0;
    const int r = poll(&p, 1, timeout_ms < 0 ? 0 : timeout_ms);
    if (revents != nullptr) {
        *revents = p.revents;
    }
    return r;
}

// errno of a failed wait or send -> return code. EPIPE only arises from send.
int map_errno(int err)
{
    switch (err) {
    case EINTR: return SOCK_INTERRUPT;
    case EPIPE: return SOCK_SIGPIPE;
    default: return SYS_FUNC_ERROR;
    }
}

// Wait result -> return code: SUCCESS (ready), SOCK_TIMEOUT, or the mapped
// errno.
int wait_code(int r)
{
    if (r > 0) {
        return SUCCESS;
    }
    if (r == 0) {
        return SOCK_TIMEOUT;
    }
    return map_errno(errno);
}

long long elapsed_usec(const timeval& since)
{
    timeval now;
    GetMonotonicTime(&now);
    return GetDifftime64(&since, &now);
}

bool make_inet_addr(const char* text, unsigned short port, sockaddr_in* out)
{
    memset(out, 0, sizeof(*out));
    out->sin_family = AF_INET;
    out->sin_port = htons(port);
    return text != nullptr && inet_pton(AF_INET, text, &out->sin_addr) > 0;
}

// The loop of Sock_Recv and Sock_Recv_TxtMsg. scanNul: end at a NUL in a
// block (not at its first byte); pauseUsec: sleep between passes (0: none).
int recv_loop(int fd, char* buf, int len, int* got, int timeout_ms, int flags, SockExitFlag* exitFlag, bool scanNul,
              long long pauseUsec)
{
    int total = 0;
    long long counted = 0;
    for (;;) {
        if (total >= len) {
            *got = total;
            return SUCCESS;
        }
        if (Sock_ExitRequested(exitFlag)) {
            *got = total;
            return LOOP_INTERRUPTED;
        }
        int n = 0;
        timeval start;
        GetMonotonicTime(&start);
        const int rc = Sock_Recv_OneBlock(fd, buf + total, len - total, &n, timeout_ms, flags);
        const long long passUsec = elapsed_usec(start);
        const bool silent = rc == SOCK_TIMEOUT;

        if (rc == SOCK_INTERRUPT) {
            if (Sock_ExitRequested(exitFlag)) {
                *got = total;
                return LOOP_INTERRUPTED;
            }
            n = 0;  // as after a wait that saw no data
        } else if (rc == SUCCESS) {
            if (n == 0) {
                *got = total;
                return SUCCESS;
            }
        } else if (rc != SOCK_TIMEOUT) {
            return rc;
        } else {
            n = 0;
        }

        if (scanNul && n > 1) {
            // The block's first byte is deliberately never examined.
            for (int i = n - 1; i >= 1; --i) {
                if (buf[total + i] == '\0') {
                    *got = total + n;
                    return SUCCESS;
                }
            }
        }
        total += n;

        if (Sock_RecvPassTimeUp(passUsec, silent, timeout_ms, &counted)) {
            *got = total;
            return SOCK_TIMEOUT;
        }
        // The pause paces the passes that still have bytes to wait for.
        // After the pass that filled the buffer there is no further pass
        // (the loop returns at its top), so it is not slept.
        if (pauseUsec > 0 && total < len) {
            UsecSleep(pauseUsec);
        }
    }
}

int get_inet_name(int fd, bool peer, in_addr* addr, unsigned short* port)
{
    sockaddr_storage ss;
    memset(&ss, 0, sizeof(ss));
    socklen_t sl = sizeof(ss);
    errno = 0;
    const int r = peer ? getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &sl)
                       : getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &sl);
    if (r != 0) {
        return SYS_FUNC_ERROR;
    }
    if (ss.ss_family != AF_INET) {
        return SOCK_NOT_IPv4;
    }
    const sockaddr_in* in = reinterpret_cast<const sockaddr_in*>(&ss);
    if (addr != nullptr) {
        *addr = in->sin_addr;
    }
    if (port != nullptr) {
        *port = in->sin_port;
    }
    return SUCCESS;
}

// Whether a receive (or read) that returned r with errno err delivered:
// then *got (when given) holds the count. A result that is not negative is
// a success whatever errno holds: errno is only meaningful after a failure,
// and a signal handler or a sanitizer's interceptor may leave a stale value
// behind a success. A reset peer is treated like one that closed in order
// (a count of 0).
bool recv_done(ssize_t r, int err, int* got)
{
    if (r < 0 && err != ECONNRESET) {
        return false;
    }
    if (got != nullptr) {
        *got = r >= 0 ? static_cast<int>(r) : 0;
    }
    return true;
}

// Runs one-block transfers (step(done so far, &count)) until len bytes have
// gone or a step moves none (the peer closed); then *done is the total. A
// failing step's code is returned as it is, a time-out with *done set first
// when timeoutKeepsCount.
template <typename Step> int repeat_blocks(int len, int* done, bool timeoutKeepsCount, Step&& step)
{
    int total = 0;
    while (total < len) {
        int n = 0;
        const int rc = step(total, &n);
        if (rc == SOCK_TIMEOUT && timeoutKeepsCount) {
            *done = total;
        }
        if (rc != SUCCESS) {
            return rc;
        }
        if (n == 0) {
            break;
        }
        total += n;
    }
    *done = total;
    return SUCCESS;
}

}  // namespace

bool Sock_ExitRequested(const SockExitFlag* exitFlag)
{
    return exitFlag != nullptr && exitFlag->load(std::memory_order_relaxed) == -1;
}

bool Sock_RecvPassTimeUp(long long passUsec, bool silent, int timeout_ms, long long* countedUsec)
{
    // A pass that waited its whole time-out without a byte ends the call.
    // Counting only the passes that brought data (so that a silent peer was
    // waited for pass after pass) would let one half-sent request hold a
    // control-port thread, or a hung camera freeze the channel, for ever.
    if (silent) {
        return true;
    }
    if (passUsec / 1000 < timeout_ms) {
        *countedUsec += passUsec;
    }
    return *countedUsec / 1000 >= timeout_ms;
}

// ---- Opening and connecting ------------------------------------------------

int Set_FcntlFlag(int fd, int flag, int /*on*/, DbPrintf_Class* /*pDB*/)
{
    errno = 0;
    if (fcntl(fd, F_GETFL, 0) < 0) {
        return SYS_FUNC_ERROR;
    }
    // The flags are not merged with the current ones: they become exactly
    // `flag`, so `on` changes nothing. The only use (O_NONBLOCK on a fresh
    // socket) wants just that.
    errno = 0;
    if (fcntl(fd, F_SETFL, flag) < 0) {
        return SYS_FUNC_ERROR;
    }
    return SUCCESS;
}

int Sock_Open(const sockaddr* local, unsigned /*addrlen*/, int* fd, DbPrintf_Class* pDB)
{
    if (local == nullptr || fd == nullptr) {
        return DEBUG_WARNING;
    }
    errno = 0;
    *fd = socket(AF_INET, SOCK_STREAM, 0);
    if (*fd == -1) {
        return SOCK_OPEN_FAIL;
    }
    const int rc = Set_FcntlFlag(*fd, O_NONBLOCK, 1, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    errno = 0;
    if (bind(*fd, local, kInetAddrLen) != 0) {
        return SOCK_BIND_FAIL;
    }
    return SUCCESS;
}

int Sock_Connect(int fd, const sockaddr* remote, unsigned addrlen, int timeout_ms, DbPrintf_Class* /*pDB*/)
{
    if (remote == nullptr) {
        return DEBUG_WARNING;
    }
    errno = 0;
    if (connect(fd, remote, addrlen) >= 0) {
        return SUCCESS;
    }
    // A non-blocking connect normally answers EINPROGRESS; the outcome is
    // known once the socket becomes readable or writable.
    if (errno != EINPROGRESS) {
        return SOCK_CONNECT_FAIL;
    }
    short revents = 0;
    const int r = wait_fd(fd, POLLIN | POLLOUT, timeout_ms, &revents);
    if (r <= 0) {
        return wait_code(r);
    }
    if (revents == 0) {
        return SUCCESS;
    }
    int pending = 0;
    socklen_t pl = sizeof(pending);
    errno = 0;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &pl) < 0) {
        return SYS_FUNC_ERROR;
    }
    return pending != 0 ? SOCK_CONNECT_FAIL : SUCCESS;
}

int Sock_OpenConnect(sockaddr_in* local, sockaddr_in* remote, int* fd, int timeout_ms, DbPrintf_Class* pDB)
{
    if (local == nullptr || remote == nullptr || fd == nullptr) {
        return DEBUG_WARNING;
    }
    int rc = Sock_Open(reinterpret_cast<const sockaddr*>(local), kInetAddrLen, fd, pDB);
    if (rc == SUCCESS) {
        rc = Sock_Connect(*fd, reinterpret_cast<const sockaddr*>(remote), kInetAddrLen, timeout_ms, pDB);
    }
    if (rc != SUCCESS) {
        if (*fd != -1) {
            Sock_Close(*fd, pDB);
        }
        *fd = -1;
    }
    return rc;
}

int Sock_OpenConnect_String(const char* myselfIp, const char* targetIp, unsigned short port, int* fd, int timeout_ms,
                            DbPrintf_Class* pDB)
{
    if (fd == nullptr) {
        return DEBUG_WARNING;
    }
    sockaddr_in local;
    sockaddr_in remote;
    if (!make_inet_addr(myselfIp, 0, &local) || !make_inet_addr(targetIp, port, &remote)) {
        return SYS_FUNC_ERROR;
    }
    return Sock_OpenConnect(&local, &remote, fd, timeout_ms, pDB);
}

int Sock_Open_String(const char* localIp, int* fd, DbPrintf_Class* pDB)
{
    if (fd == nullptr) {
        return DEBUG_WARNING;
    }
    sockaddr_in local;
    if (!make_inet_addr(localIp, 0, &local)) {
        return SYS_FUNC_ERROR;
    }
    return Sock_Open(reinterpret_cast<const sockaddr*>(&local), kInetAddrLen, fd, pDB);
}

int Sock_Connect_String(const char* ip, unsigned short port, int fd, int timeout_ms, DbPrintf_Class* pDB)
{
    sockaddr_in remote;
    if (!make_inet_addr(ip, port, &remote)) {
        return SYS_FUNC_ERROR;
    }
    return Sock_Connect(fd, reinterpret_cast<const sockaddr*>(&remote), kInetAddrLen, timeout_ms, pDB);
}

int Sock_Close(int fd, DbPrintf_Class* /*pDB*/)
{
    // Not retried on EINTR: on Linux the descriptor is released either way.
    close(fd);
    return SUCCESS;
}

// ---- Receiving ---------------------------------------------------------------

int Sock_Recv_OneBlock(int fd, void* buf, int len, int* got, int timeout_ms, int flags, DbPrintf_Class* /*pDB*/)
{
    // The receive is tried first, without waiting: when bytes (or a close,
    // or a pending error) are already there, the wait would return at once
    // and the receive that follows would see exactly what this one sees, so
    // the results are the same without the wait's system call. Only a
    // receive that would block waits, and a wait that times out without data
    // is still the silent pass (SOCK_TIMEOUT, *got untouched). A zero
    // length keeps the wait first: such a receive returns 0 at once whether
    // or not anything arrived.
    ssize_t r = -1;
    int err = EAGAIN;
    if (len > 0) {
        errno = 0;
        r = recv(fd, buf, static_cast<size_t>(len), flags | MSG_DONTWAIT);
        err = errno;
    }
    if (r < 0 && (err == EAGAIN || err == EWOULDBLOCK)) {
        const int w = wait_code(wait_fd(fd, POLLIN, timeout_ms, nullptr));
        if (w != SUCCESS) {
            return w;
        }
        errno = 0;
        r = recv(fd, buf, static_cast<size_t>(len < 0 ? 0 : len), flags);
        err = errno;
    }
    if (recv_done(r, err, got)) {
        return SUCCESS;
    }
    if (err == EINTR) {
        if (got != nullptr) {
            *got = 0;
        }
        return SOCK_INTERRUPT;
    }
    return SOCK_READ_FAIL;
}

int Sock_Recv(int fd, void* buf, int len, int* got, int timeout_ms, int flags, SockExitFlag* exitFlag,
              DbPrintf_Class* /*pDB*/)
{
    if (got == nullptr || (buf == nullptr && len > 0)) {
        return DEBUG_WARNING;
    }
    const long long pause = (flags & MSG_DONTWAIT) ? kRecvPauseUsec : 0;
    return recv_loop(fd, static_cast<char*>(buf), len, got, timeout_ms, flags, exitFlag, false, pause);
}

int Sock_Recv_TxtMsg(int fd, void* buf, int len, int* got, int timeout_ms, SockExitFlag* exitFlag,
                     DbPrintf_Class* /*pDB*/)
{
    if (got == nullptr || (buf == nullptr && len > 0)) {
        return DEBUG_WARNING;
    }
    return recv_loop(fd, static_cast<char*>(buf), len, got, timeout_ms, SOCK_FIXED_FLAGS, exitFlag, true, 0);
}

int Sock_PeekRecv(int fd, void* buf, int len, int need, int* got, int timeout_ms, SockExitFlag* exitFlag,
                  DbPrintf_Class* /*pDB*/)
{
    if (got == nullptr || buf == nullptr) {
        return DEBUG_WARNING;
    }
    long long counted = 0;
    for (;;) {
        if (Sock_ExitRequested(exitFlag)) {
            *got = 0;
            return LOOP_INTERRUPTED;
        }
        int n = 0;
        timeval start;
        GetMonotonicTime(&start);
        const int rc = Sock_Recv_OneBlock(fd, buf, len, &n, 0, MSG_PEEK);
        if (rc == SUCCESS && (n == 0 || n > need)) {
            *got = n;
            return SUCCESS;
        }
        if (rc == SOCK_INTERRUPT) {
            if (Sock_ExitRequested(exitFlag)) {
                *got = 0;
                return LOOP_INTERRUPTED;
            }
        } else if (rc != SUCCESS && rc != SOCK_TIMEOUT) {
            return rc;
        }
        UsecSleep(kPeekPauseUsec);
        // Each poll here has a zero time-out, so the pause is counted as part
        // of the pass; otherwise the time-out would almost never be reached.
        // An empty poll is no silent wait: it did not wait at all.
        if (Sock_RecvPassTimeUp(elapsed_usec(start), false, timeout_ms, &counted)) {
            *got = n;
            return SOCK_TIMEOUT;
        }
    }
}

int Sock_Read(int fd, void* buf, int len, int* got, DbPrintf_Class* /*pDB*/)
{
    if (got == nullptr || (buf == nullptr && len > 0)) {
        return DEBUG_WARNING;
    }
    char* p = static_cast<char*>(buf);
    // A time-out reports what was read before it.
    return repeat_blocks(len, got, true, [fd, p, len](int total, int* n) {
        return Sock_Recv_OneBlock(fd, p + total, len - total, n, kSimplePassMs, SOCK_FIXED_FLAGS);
    });
}

int Sock_Read_OneBlock(int fd, void* buf, int len, int* got, int timeout_ms, DbPrintf_Class* /*pDB*/)
{
    if (wait_fd(fd, POLLIN, timeout_ms, nullptr) < 1) {
        return SOCK_TIMEOUT;
    }
    errno = 0;
    const ssize_t r = read(fd, buf, static_cast<size_t>(len < 0 ? 0 : len));
    return recv_done(r, errno, got) ? SUCCESS : SOCK_READ_FAIL;
}

// ---- Sending -----------------------------------------------------------------

int Sock_Send_OneBlock(int fd, const void* buf, int len, int* sent, int timeout_ms, int flags, DbPrintf_Class* /*pDB*/)
{
    if (sent == nullptr) {
        return DEBUG_WARNING;
    }
    *sent = 0;
    // MSG_NOSIGNAL: a vanished peer gives EPIPE (SOCK_SIGPIPE), not a signal.
    flags |= SOCK_FIXED_FLAGS;
    errno = 0;
    const ssize_t r = send(fd, buf, static_cast<size_t>(len < 0 ? 0 : len), flags);
    if (r < 0) {
        return map_errno(errno);
    }
    const int w = wait_code(wait_fd(fd, POLLOUT, timeout_ms, nullptr));
    if (w != SUCCESS) {
        // On SOCK_TIMEOUT the bytes were taken by the system, yet 0 is
        // reported; Sock_Send offers them again.
        return w;
    }
    *sent = static_cast<int>(r);
    return SUCCESS;
}

namespace {

// The loop of Sock_Send and Sock_SendMore; extraFlags go to every send.
int send_loop(int fd, const void* buf, int len, int* sent, int timeout_ms, SockExitFlag* exitFlag, int extraFlags)
{
    if (sent == nullptr || (buf == nullptr && len > 0)) {
        return DEBUG_WARNING;
    }
    const char* p = static_cast<const char*>(buf);
    timeval start;
    GetMonotonicTime(&start);
    int total = 0;
    for (;;) {
        if (Sock_ExitRequested(exitFlag)) {
            *sent = total;
            return LOOP_INTERRUPTED;
        }
        int n = 0;
        const int rc = Sock_Send_OneBlock(fd, p + total, len - total, &n, timeout_ms, SOCK_FIXED_FLAGS | extraFlags);
        if (rc == SOCK_INTERRUPT && Sock_ExitRequested(exitFlag)) {
            *sent = total;
            return LOOP_INTERRUPTED;
        }
        if (rc != SUCCESS && rc != SOCK_TIMEOUT && rc != SOCK_INTERRUPT) {
            return rc;
        }
        total += n;
        if (total >= len) {
            *sent = total;
            return SUCCESS;
        }
        // Unlike the receivers, the plain time since the call began.
        if (elapsed_usec(start) / 1000 >= timeout_ms) {
            *sent = total;
            return SOCK_TIMEOUT;
        }
    }
}

}  // namespace

int Sock_Send(int fd, const void* buf, int len, int* sent, int timeout_ms, SockExitFlag* exitFlag,
              DbPrintf_Class* /*pDB*/)
{
    return send_loop(fd, buf, len, sent, timeout_ms, exitFlag, 0);
}

int Sock_SendMore(int fd, const void* buf, int len, int* sent, int timeout_ms, SockExitFlag* exitFlag,
                  DbPrintf_Class* /*pDB*/)
{
    return send_loop(fd, buf, len, sent, timeout_ms, exitFlag, MSG_MORE);
}

int Sock_Write(int fd, const void* buf, int len, int* sent, DbPrintf_Class* /*pDB*/)
{
    if (sent == nullptr || (buf == nullptr && len > 0)) {
        return DEBUG_WARNING;
    }
    const char* p = static_cast<const char*>(buf);
    return repeat_blocks(len, sent, false, [fd, p, len](int total, int* n) {
        return Sock_Send_OneBlock(fd, p + total, len - total, n, kSimplePassMs, SOCK_FIXED_FLAGS);
    });
}

int Sock_Write_OneBlock(int fd, const void* buf, int len, int* sent, int timeout_ms, DbPrintf_Class* /*pDB*/)
{
    errno = 0;
    const ssize_t r = write(fd, buf, static_cast<size_t>(len < 0 ? 0 : len));
    if (r < 0) {
        return SYS_FUNC_ERROR;
    }
    if (wait_fd(fd, POLLOUT, timeout_ms, nullptr) == 0) {
        return SOCK_TIMEOUT;
    }
    if (sent != nullptr) {
        *sent = static_cast<int>(r);
    }
    return SUCCESS;
}

// ---- Addresses ---------------------------------------------------------------

int Get_IP4Addr_Connect(int fd, in_addr* addr, unsigned short* port, DbPrintf_Class* /*pDB*/)
{
    return get_inet_name(fd, true, addr, port);
}

int Get_IP4Addr_Nic(int fd, in_addr* addr, unsigned short* port, DbPrintf_Class* /*pDB*/)
{
    return get_inet_name(fd, false, addr, port);
}

int GetString_IPAddr(char* dst, int dstSize, const in_addr* addr, unsigned short port, DbPrintf_Class* /*pDB*/)
{
    if (dst == nullptr || addr == nullptr || dstSize < 0) {
        return DEBUG_WARNING;
    }
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, addr, text, sizeof(text)) == nullptr) {
        return SYS_FUNC_ERROR;
    }
    snprintf(dst, static_cast<size_t>(dstSize), "%s :%d", text, static_cast<int>(ntohs(port)));
    return SUCCESS;
}
