#ifndef OSTREL_NET_SOCKET_IO_H
#define OSTREL_NET_SOCKET_IO_H

#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>

class DbPrintf_Class;

// Socket I/O: free functions over IPv4 TCP sockets. Every network exchange of
// the daemon goes through them.
//
// Common contract
// - Every function returns a code of common/return_codes.h; SUCCESS (1) is
//   the only success. Nothing is logged here (the log pointer is accepted and
//   ignored); the caller logs the code.
// - Time-outs are int milliseconds. Waits use poll(), not select(): the same
//   time-out meaning, but no limit at descriptor 1024.
// - Elapsed time is microseconds on the monotonic clock (GetDifftime64 of two
//   GetMonotonicTime readings), so a step of the wall clock neither ends a
//   wait early nor stretches it; it is compared with a time-out after
//   integer division by 1000.
// - Exit flag: optional pointer to the caller's stop word (a worker thread's
//   command word, written by another thread). A loop stops with
//   LOOP_INTERRUPTED only when the word holds exactly -1; a null pointer or
//   any other value lets the loop go on. It is read once per pass (relaxed).
//   Signals that break a wait (SIGUSR1 without SA_RESTART) make the loop look
//   at the flag at once.
// - Receives and sends pass MSG_DONTWAIT | MSG_NOSIGNAL (0x4040, "the fixed
//   flags") unless a flags argument says otherwise. No SIGPIPE is ever raised.
// - A peer's reset while receiving is an orderly close: 0 bytes, SUCCESS.
// - Count out-parameters are written only where stated; on an early failure
//   they keep their old value.
// - Stateless: any number of threads may call at once, each on its own
//   descriptor.

using SockExitFlag = std::atomic<int>;

// The fixed flags: MSG_DONTWAIT | MSG_NOSIGNAL.
constexpr int SOCK_FIXED_FLAGS = MSG_DONTWAIT | MSG_NOSIGNAL;

// ---- Opening and connecting ------------------------------------------------

// Creates an AF_INET stream socket in *fd, makes it non-blocking and binds it
// to local (always with length 16, whatever addrlen says; port 0 lets the
// system choose). SOCK_OPEN_FAIL (socket failed, *fd == -1), SYS_FUNC_ERROR
// (fcntl failed: the descriptor stays open in *fd for the caller to close),
// SOCK_BIND_FAIL (descriptor open in *fd), SUCCESS.
int Sock_Open(const sockaddr* local, unsigned addrlen, int* fd, DbPrintf_Class* pDB = nullptr);

// Connects the non-blocking socket fd, waiting at most timeout_ms.
// SUCCESS, SOCK_CONNECT_FAIL (refused, unreachable, ...), SOCK_TIMEOUT,
// SOCK_INTERRUPT (the wait was broken by a signal), SYS_FUNC_ERROR.
int Sock_Connect(int fd, const sockaddr* remote, unsigned addrlen, int timeout_ms, DbPrintf_Class* pDB = nullptr);

// Sock_Open then Sock_Connect. On failure of either the socket is closed and
// *fd becomes -1; on SUCCESS *fd holds the connected descriptor (the caller
// owns it and closes it with Sock_Close).
int Sock_OpenConnect(sockaddr_in* local, sockaddr_in* remote, int* fd, int timeout_ms, DbPrintf_Class* pDB = nullptr);

// The text form the HTTP clients use: myselfIp and targetIp are dotted IPv4
// texts ("0.0.0.0" binds to any interface), port is in host order. A text
// that is not a dotted IPv4 address gives SYS_FUNC_ERROR before any socket is
// made (*fd untouched). Otherwise as Sock_OpenConnect.
int Sock_OpenConnect_String(const char* myselfIp, const char* targetIp, unsigned short port, int* fd, int timeout_ms,
                            DbPrintf_Class* pDB = nullptr);

// The two steps of Sock_OpenConnect_String separately. Sock_Open_String
// leaves *fd as Sock_Open does on failure (the caller closes a descriptor
// that is not -1).
int Sock_Open_String(const char* localIp, int* fd, DbPrintf_Class* pDB = nullptr);
int Sock_Connect_String(const char* ip, unsigned short port, int fd, int timeout_ms, DbPrintf_Class* pDB = nullptr);

// close(fd); always SUCCESS.
int Sock_Close(int fd, DbPrintf_Class* pDB = nullptr);

// Sets the descriptor's file-status flags to exactly `flag` (F_SETFL with the
// argument itself; `on` only decides what would have been computed). Its one
// use, O_NONBLOCK on a fresh socket, gives a non-blocking socket.
// SYS_FUNC_ERROR when fcntl fails, else SUCCESS.
int Set_FcntlFlag(int fd, int flag, int on, DbPrintf_Class* pDB = nullptr);

// ---- Receiving ---------------------------------------------------------------

// True when the exit flag exists and holds exactly -1: the one test every
// loop over a socket (here and in the HTTP readers) makes of it.
bool Sock_ExitRequested(const SockExitFlag* exitFlag);

// The time accounting of every receive loop (Sock_Recv, Sock_Recv_TxtMsg,
// Sock_PeekRecv and the HTTP head readers), kept in this one place.
// passUsec: how long the pass took; silent: its wait ran the whole time-out
// and no byte came. Returns true when the loop must end with SOCK_TIMEOUT:
// - a silent pass ends it at once. Every caller promises a bound built on
//   its time-out (a request is read within 15 s, a camera read gives up
//   after 2 s, the launcher waits 2 s for the daemon's answer); a peer that
//   stays silent must not hold a thread, a channel or a launcher longer;
// - a pass that received data adds its duration to *countedUsec when it
//   is shorter than timeout_ms (a longer one adds nothing), and the loop
//   ends once the sum reaches timeout_ms, so a slow trickle is bounded too.
bool Sock_RecvPassTimeUp(long long passUsec, bool silent, int timeout_ms, long long* countedUsec);

// One receive of what is there already; only when that would block, one
// wait for readability (timeout_ms) and one recv(fd, buf, len, flags). The
// results are those of a wait followed by a receive: SUCCESS with *got =
// bytes (0: the peer closed or reset),
// SOCK_TIMEOUT (*got untouched), SOCK_INTERRUPT (a signal broke the wait, or
// the recv: then *got = 0), SYS_FUNC_ERROR (the wait failed), SOCK_READ_FAIL
// (any other recv failure, EAGAIN included). got may be null.
int Sock_Recv_OneBlock(int fd, void* buf, int len, int* got, int timeout_ms, int flags, DbPrintf_Class* pDB = nullptr);

// Fills buf with up to len bytes in passes of Sock_Recv_OneBlock.
// SUCCESS with *got = total when len bytes arrived or the peer closed
// (possibly short); LOOP_INTERRUPTED with the count so far when the exit
// flag is -1; SOCK_TIMEOUT with the count so far when a pass waited
// timeout_ms without any data (a silent peer), or when the time spent in
// passes that received data reaches timeout_ms (a trickle); see
// Sock_RecvPassTimeUp. With MSG_DONTWAIT in flags, 10 ms pass between
// passes. Other failures are returned as they are, *got not written. len 0:
// SUCCESS, *got = 0, the socket is not touched.
int Sock_Recv(int fd, void* buf, int len, int* got, int timeout_ms, int flags, SockExitFlag* exitFlag,
              DbPrintf_Class* pDB = nullptr);

// Receives a NUL-terminated text message with the fixed flags, as Sock_Recv
// (a silent wait of timeout_ms ends it with SOCK_TIMEOUT) but without the
// pause between passes. After each pass the new block is
// scanned from its last byte down to its second byte (its first byte is never
// looked at); at a NUL the call ends with SUCCESS and *got counting the whole
// block, bytes after the NUL included. A close or a full buffer also end it
// with SUCCESS.
int Sock_Recv_TxtMsg(int fd, void* buf, int len, int* got, int timeout_ms, SockExitFlag* exitFlag,
                     DbPrintf_Class* pDB = nullptr);

// Polls with MSG_PEEK (every 20 ms) until more than `need` bytes can be
// peeked into buf (SUCCESS, *got = bytes visible, nothing consumed) or the
// peer closed (SUCCESS, *got = 0). Time accounting as Sock_Recv:
// SOCK_TIMEOUT with *got = last peeked count. LOOP_INTERRUPTED when the exit
// flag is -1. Other failures are returned as they are.
int Sock_PeekRecv(int fd, void* buf, int len, int need, int* got, int timeout_ms, SockExitFlag* exitFlag,
                  DbPrintf_Class* pDB = nullptr);

// Simple reader: passes of Sock_Recv_OneBlock (2000 ms, fixed flags) until
// len bytes or a close (SUCCESS, *got = total); SOCK_TIMEOUT with *got =
// total; other failures returned as they are.
int Sock_Read(int fd, void* buf, int len, int* got, DbPrintf_Class* pDB = nullptr);

// One wait for readability then one read(). Any wait result below 1 (errors
// included) is SOCK_TIMEOUT. SUCCESS with *got = bytes (a reset gives 0);
// SOCK_READ_FAIL for other read errors.
int Sock_Read_OneBlock(int fd, void* buf, int len, int* got, int timeout_ms, DbPrintf_Class* pDB = nullptr);

// ---- Sending -----------------------------------------------------------------

// One send (flags | fixed flags), then one wait (timeout_ms) until the socket
// can take more. *sent = 0 first. SUCCESS with *sent = bytes taken by the
// system; SOCK_TIMEOUT with *sent left 0 although the bytes were taken (the
// caller offers them again); SOCK_INTERRUPT (EINTR), SOCK_SIGPIPE (the peer
// has gone), SYS_FUNC_ERROR (anything else, EAGAIN included).
int Sock_Send_OneBlock(int fd, const void* buf, int len, int* sent, int timeout_ms, int flags,
                       DbPrintf_Class* pDB = nullptr);

// Sends all len bytes in passes of Sock_Send_OneBlock. SUCCESS with *sent =
// total; LOOP_INTERRUPTED with the count so far when the exit flag is -1;
// SOCK_TIMEOUT with the count so far once the time since the call
// began reaches timeout_ms. Other failures (SOCK_SIGPIPE, ...) are returned
// at once, *sent not written. No pause between passes.
int Sock_Send(int fd, const void* buf, int len, int* sent, int timeout_ms, SockExitFlag* exitFlag,
              DbPrintf_Class* pDB = nullptr);

// As Sock_Send, but tells the system that more bytes follow at once
// (MSG_MORE), so that a short head and the body sent right after it leave
// in one segment instead of two. Use it only when the next send on the
// socket follows without delay: the bytes wait for it (or for the close).
int Sock_SendMore(int fd, const void* buf, int len, int* sent, int timeout_ms, SockExitFlag* exitFlag,
                  DbPrintf_Class* pDB = nullptr);

// Simple writer: passes of Sock_Send_OneBlock (2000 ms, fixed flags) until
// len bytes or a pass that sent 0 (SUCCESS, *sent = total); any failure,
// SOCK_TIMEOUT included, is returned at once.
int Sock_Write(int fd, const void* buf, int len, int* sent, DbPrintf_Class* pDB = nullptr);

// One write() (failure: SYS_FUNC_ERROR), then one wait for writability
// (nothing within timeout_ms: SOCK_TIMEOUT; otherwise SUCCESS with *sent).
// Unlike the send functions, a write to a closed peer may raise SIGPIPE.
int Sock_Write_OneBlock(int fd, const void* buf, int len, int* sent, int timeout_ms, DbPrintf_Class* pDB = nullptr);

// ---- Addresses ---------------------------------------------------------------

// The peer's (getpeername) / the local (getsockname) address and port, both
// copied out as stored: network byte order. SYS_FUNC_ERROR when the call
// fails, SOCK_NOT_IPv4 for another family, else SUCCESS.
int Get_IP4Addr_Connect(int fd, in_addr* addr, unsigned short* port, DbPrintf_Class* pDB = nullptr);
int Get_IP4Addr_Nic(int fd, in_addr* addr, unsigned short* port, DbPrintf_Class* pDB = nullptr);

// Writes "<dotted address> :<port>" into dst (cut to dstSize as snprintf
// does). port is in network order. SYS_FUNC_ERROR when the address cannot be
// converted, else SUCCESS.
int GetString_IPAddr(char* dst, int dstSize, const in_addr* addr, unsigned short port, DbPrintf_Class* pDB = nullptr);

#endif
