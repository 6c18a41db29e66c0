#ifndef OSTREL_TOOLS_TOOL_NET_H
#define OSTREL_TOOLS_TOOL_NET_H

// Socket helpers of the viewer and the simulators. Their socket set-up is
// net/tcp_endpoint.h, which the daemon does not use; the reading and
// sending are their own, apart from the daemon's, so that the tools check
// the daemon independently. IPv4 only; every wait is bounded and also ends when the
// given stop flag becomes true (checked at least every 100 ms).
//
// All functions are thread-safe; descriptors belong to the caller.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/uio.h>

namespace otools {

// Set by SIGINT and SIGTERM once InstallStopSignals has run.
extern std::atomic<bool> g_stopRequested;

// Installs SIGINT/SIGTERM handlers (without SA_RESTART) that set
// g_stopRequested, and ignores SIGPIPE.
void InstallStopSignals();

// Wall-clock time (CLOCK_REALTIME) in microseconds since the epoch.
int64_t RealtimeUs();

// Splits "a.b.c.d:port" or "a.b.c.d" (then port = defaultPort). The address
// must be a dotted IPv4 address; the port 0..65535. False on any fault.
bool ParseHostPort(const std::string& text, int defaultPort, std::string* host, int* port);

// "a.b.c.d:port" of a peer or local address.
std::string FormatPeer(uint32_t addrNetworkOrder, uint16_t portHostOrder);

// Opens a listening socket bound to host:port (port 0 = any free port;
// BoundPort tells which). Returns the descriptor, or -1 with *err set.
int ListenTcp(const std::string& host, int port, std::string* err);
int BoundPort(int fd);

// Waits for a connection; returns its descriptor (blocking mode) and the
// peer's text, or -1 when *stop became true.
int AcceptOrStop(int listenFd, const std::atomic<bool>& stop, std::string* peer);

// Connects to host:port within timeoutMs, first binding bindAddr (and
// bindPort when it is non-zero) when bindAddr is non-empty. Returns the
// descriptor (blocking mode) or -1 with *err set.
int ConnectTcp(const std::string& host, int port, const std::string& bindAddr, int timeoutMs, std::string* err,
               int bindPort = 0);

enum class IoResult { kOk, kTimeout, kClosed, kError, kStopped };
const char* IoResultName(IoResult r);

// Sends every byte of the iovec array (which it may modify) within
// timeoutMs overall. MSG_NOSIGNAL: a closed peer gives kError, not SIGPIPE.
IoResult SendAllV(int fd, iovec* iov, int iovcnt, int timeoutMs, const std::atomic<bool>& stop);
IoResult SendAll(int fd, const void* data, size_t len, int timeoutMs, const std::atomic<bool>& stop);

// Receives until the buffer holds an HTTP head (ended by CR LF CR LF or by
// LF LF); *head gets the head including its blank line, *rest whatever came
// after it. kError also when more than maxBytes arrive without a head end.
IoResult ReadHttpHead(int fd, size_t maxBytes, int timeoutMs, const std::atomic<bool>& stop, std::string* head,
                      std::string* rest);

// Appends received bytes to *out until the peer closes (kOk), maxBytes are
// held (kError), or the time runs out.
IoResult ReadUntilClose(int fd, size_t maxBytes, int timeoutMs, const std::atomic<bool>& stop, std::string* out);

// Receives exactly `len` more bytes into *out.
IoResult ReadExact(int fd, size_t len, int timeoutMs, const std::atomic<bool>& stop, std::string* out);

// Sleeps until `deadline`, returning false early when *stop became true.
bool SleepUntil(std::chrono::steady_clock::time_point deadline, const std::atomic<bool>& stop);

// Pushes out what the socket still holds (no Nagle delay from here on) and
// waits until the peer has acknowledged every byte (the send queue is
// empty), at most timeoutMs or until *stop. A fault that acts next (a
// reset, a silence) then hits exactly after the bytes sent before it.
// Returns false when the queue did not empty in time.
bool FlushSendQueue(int fd, int timeoutMs, const std::atomic<bool>& stop);

// Closes with an RST instead of a FIN (SO_LINGER with zero time). Bytes
// still queued are thrown away: call FlushSendQueue first to deliver them.
void CloseWithReset(int fd);

}  // namespace otools

#endif  // OSTREL_TOOLS_TOOL_NET_H
