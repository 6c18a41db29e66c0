#include "net/socket_listen.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>
#include <string.h>
#include <sys/socket.h>

#include <atomic>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/time_utils.h"

namespace {

// One shortage episode of the whole process, shared by every thread that
// accepts: its failures, its start on the monotonic clock, and whether its
// log line has been written. Relaxed: a count off by one in a log line is
// harmless.
std::atomic<long long> g_shortageFailures{0};
std::atomic<long long> g_shortageStartUsec{0};
std::atomic<bool> g_shortageLogged{false};
// A descriptor held in reserve (on /dev/null) so that the shortage can be
// logged: the log opens its file for each line, which needs a descriptor
// exactly when none is left. It is given up for the line and taken again.
std::atomic<int> g_spareFd{-1};

void take_spare()
{
    if (g_spareFd.load(std::memory_order_relaxed) >= 0) {
        return;
    }
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    int none = -1;
    if (fd >= 0 && !g_spareFd.compare_exchange_strong(none, fd, std::memory_order_relaxed)) {
        close(fd);  // another thread took one first
    }
}

long long monotonic_usec()
{
    timeval tv{};
    GetMonotonicTime(&tv);
    return static_cast<long long>(tv.tv_sec) * 1000000LL + tv.tv_usec;
}

bool is_shortage(int err)
{
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

void note_shortage(int err, DbPrintf_Class* pDB)
{
    if (g_shortageFailures.fetch_add(1, std::memory_order_relaxed) == 0) {
        g_shortageStartUsec.store(monotonic_usec(), std::memory_order_relaxed);
    }
    // The log needs a descriptor for the line: the spare is given up for it
    // (another thread's accept may take it first; the line is then tried
    // again at the next failure, until written once).
    if (pDB != nullptr && !g_shortageLogged.load(std::memory_order_relaxed)) {
        const int spare = g_spareFd.exchange(-1, std::memory_order_relaxed);
        if (spare >= 0) {
            close(spare);
        }
        if (pDB->TimePrintf(1,
                            "[Sock_Accept] accept failed (errno %d: %s), out of descriptors; trying again every "
                            "%lld ms\n",
                            err, strerror(err), kAcceptShortagePauseUsec / 1000) == SUCCESS) {
            g_shortageLogged.store(true, std::memory_order_relaxed);
        }
        take_spare();
    }
    UsecSleep(kAcceptShortagePauseUsec);
}

void note_recovery(DbPrintf_Class* pDB)
{
    // One thread takes the episode's count and writes its end.
    const long long failures = g_shortageFailures.exchange(0, std::memory_order_relaxed);
    if (failures == 0) {
        return;
    }
    const long long ms = (monotonic_usec() - g_shortageStartUsec.load(std::memory_order_relaxed)) / 1000;
    // While the log cannot open its file yet, the count goes back and the
    // next accept that works tries again.
    if (pDB != nullptr && pDB->TimePrintf(1, "[Sock_Accept] accept works again after %lld failures in %lld ms\n",
                                          failures, ms) != SUCCESS) {
        g_shortageFailures.fetch_add(failures, std::memory_order_relaxed);
        return;
    }
    g_shortageLogged.store(false, std::memory_order_relaxed);
}

}  // namespace

int Sock_Listen(const sockaddr_in* local, int backlog, int* fd)
{
    *fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (*fd < 0) {
        *fd = -1;
        return SOCK_OPEN_FAIL;
    }
    int on = 1;
    if (setsockopt(*fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return SOCK_OPEN_FAIL;
    }
    if (bind(*fd, reinterpret_cast<const sockaddr*>(local), sizeof *local) != 0) {
        return SOCK_BIND_FAIL;
    }
    if (listen(*fd, backlog) != 0) {
        return SOCK_LISTEN_FAIL;
    }
    return SUCCESS;
}

int Sock_Accept(int listenFd, int* fd, sockaddr_in* peer, DbPrintf_Class* pDB)
{
    take_spare();
    socklen_t peerLen = sizeof *peer;
    errno = 0;
    *fd = accept(listenFd, reinterpret_cast<sockaddr*>(peer), &peerLen);
    if (*fd >= 0) {
        // A descriptor freed by a closing connection may be taken at once
        // while the shortage goes on: it is over only when the reserve can
        // be had again too.
        if (g_shortageFailures.load(std::memory_order_relaxed) != 0) {
            take_spare();
            if (g_spareFd.load(std::memory_order_relaxed) >= 0) {
                note_recovery(pDB);
            }
        }
        return SUCCESS;
    }
    const int err = errno;
    *fd = -1;
    // A client that gave up between its connect and this accept is not a
    // fault of the listening socket: the next connection can be taken now.
    if (err == EINTR || err == ECONNABORTED) {
        return SOCK_INTERRUPT;
    }
    if (is_shortage(err)) {
        note_shortage(err, pDB);
    }
    return SYS_FUNC_ERROR;
}

int Sock_OpenDatagram(int* fd)
{
    *fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (*fd < 0) {
        *fd = -1;
        return SOCK_OPEN_FAIL;
    }
    return SUCCESS;
}
