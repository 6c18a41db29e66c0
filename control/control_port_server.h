#ifndef OSTREL_CONTROL_CONTROL_PORT_SERVER_H
#define OSTREL_CONTROL_CONTROL_PORT_SERVER_H

#include <netinet/in.h>

#include "common/string_buf.h"
#include "http/request_buffer.h"
#include "net/thread_control.h"

struct _StrOutInfo;

class DbPrintf_Class;
class ControlPort_ServerThread_ControlClass;

// ControlPort_ServerThread: one worker of the control port, the daemon's own
// small HTTP server. Every worker of the pool blocks in accept() on the
// pool's one listening socket; the kernel hands each connection to one of
// them. A connection is read with a 65536-byte request reader (15000 ms per
// request) and dispatched on the file name of the request URI:
//   "/ptippreimg.cgi"  the pre-image protocol: img_login, get_image (one JPEG
//                      out of the frame FIFO, sent straight from its slot),
//                      img_logout; served only to the channel's own address;
//   "/trcom.cgi"       the TrCommunicate protocol (notice_update,
//                      reset_postterm);
//   anything else      404.
// Every answer closes the connection.
//
// Lifetime and threads: created and started by the pool's Add_Thread; the
// pool owns the object and deletes it after ThreadMain has returned. All
// members except the command word belong to the worker's own thread. A stop
// is asked by the pool (command word -1 plus SIGUSR1, which breaks accept,
// the reads and the sends); a request being served is then abandoned.
//
// Shared state: the pre-image login and frame cursor and the post-alarm
// words of camera/shared_state.h, g_Fifo (borrowed pictures), the channel
// configuration g_configInfoIOClass (copied under its lock) and
// g_Program_Command (set to -1 when a re-read configuration is unusable).
class ControlPort_ServerThread : public ThreadControlElement {
public:
    static constexpr int kRequestBufferSize = 65536;
    static constexpr int kRequestTimeoutMs = 15000;
    static constexpr int kSendTimeoutMs = 4000;
    static constexpr int kHeaderMemSize = 4096;
    static constexpr int kBodyMemSize = 512;
    // The only user id of the pre-image protocol.
    static constexpr int kUserId = 1;
    // get_image waits for a frame not yet stored for at most 200 pauses of
    // 10 us. Such a pause really lasts about 60 us on Linux (the 10 us plus
    // the default 50 us timer slack), so the loop of pauses answered after
    // about 12 ms. The wait keeps that answer time but is one wait that the
    // FIFO's next commit ends at once: the same answers, without the 200
    // wake-ups per empty answer.
    static constexpr int kFrameWaitAttempts = 200;
    static constexpr int kPauseUsec = 10;
    static constexpr int kPauseSlackUsec = 50;
    static constexpr long long kFrameWaitUsec =
        static_cast<long long>(kFrameWaitAttempts) * (kPauseUsec + kPauseSlackUsec);
    // Node_Id of the TrCommunicate answer.
    static constexpr int kNodeId = 16777473;

    ControlPort_ServerThread();
    ~ControlPort_ServerThread() override;

    ControlPort_ServerThread(const ControlPort_ServerThread&) = delete;
    ControlPort_ServerThread& operator=(const ControlPort_ServerThread&) = delete;

    // The accept loop; returns SUCCESS after a stop, DEBUG_WARNING without a
    // pool, the reader's code or MALLOC_ERROR when the thread's memory
    // cannot be had. Sets the exit mark to -1 on every way out. pDB may be
    // null: the log given to Add_Thread is used then.
    int ThreadMain(DbPrintf_Class* pDB) override;

    // Dispatch of one parsed request on the connection. HTTP_CONNECTIONCLOSE
    // after every pre-image answer and every unknown URI, else the result of
    // DoCommand_TrCommunicate (also HTTP_CONNECTIONCLOSE).
    int DoCommand_Root(DbPrintf_Class* pDB);

    // The pre-image commands; each answers and returns HTTP_CONNECTIONCLOSE.
    int DoCommand_Ptipimg__img_login(DbPrintf_Class* pDB);
    int DoCommand_Ptipimg__get_image(DbPrintf_Class* pDB);
    int DoCommand_Ptipimg__img_logout(DbPrintf_Class* pDB);

    // TrCommunicate: checks, runs the command and answers status 200 with
    // the result in four header lines; returns HTTP_CONNECTIONCLOSE.
    int DoCommand_TrCommunicate(DbPrintf_Class* pDB);
    // Re-reads the channel configuration; on any failure asks the daemon to
    // stop (g_Program_Command = -1). Returns the reader's code.
    int DoCommand_TrCommunicate__notice_update(DbPrintf_Class* pDB);
    // Restarts the post-alarm term's sum and stop flag. SUCCESS.
    int DoCommand_TrCommunicate__reset_postterm(DbPrintf_Class* pDB);

    // Builds a "text/plain" head with the status, "Connection: close", the
    // body text's length and (second form) extra header lines, then sends
    // head and body (only the head for HEAD) with a 4000 ms limit that the
    // command word can cut short. SUCCESS whatever the send did.
    int ResponceSend_ConnectionClose(int status, DbPrintf_Class* pDB);
    int ResponceSend_ConnectionClose(int status, const char* extraHeaders, DbPrintf_Class* pDB);

    // Set by the pool before the thread starts.
    ControlPort_ServerThread_ControlClass* m_pPool = nullptr;
    // Log used when ThreadMain is handed none (not owned).
    DbPrintf_Class* m_pLog = nullptr;

private:
    void ResetConnection();
    int SetupMemory(DbPrintf_Class* pDB);
    void ServeConnection(DbPrintf_Class* pDB);
    void AnswerReadFailure(DbPrintf_Class* pDB);
    int SendAnswer(int status, const char* extraHeaders, DbPrintf_Class* pDB);
    int AnswerText(const char* text, DbPrintf_Class* pDB);
    int MinorVersion() const;
    bool IsHeadRequest() const;
    bool PeerIsMyIp(const char* myip) const;
    bool StopRequested() const;
    // The steps of DoCommand_Ptipimg__get_image; the first two answer and
    // return false when the request ends there.
    bool ImageRequestValid(DbPrintf_Class* pDB);
    bool BorrowNextFrame(char** ppVideo, char* option, _StrOutInfo* pInfo, DbPrintf_Class* pDB);
    void SendImage(const char* pVideo, const char* option, const _StrOutInfo& info, DbPrintf_Class* pDB);

    HTTPRequestBuffer_Class m_Request;
    char* m_pHeaderMem = nullptr;
    char* m_pBodyMem = nullptr;
    int m_nConnectFd = -1;
    in_addr m_PeerAddr{};
    unsigned short m_nPeerPort = 0;
    StringBuf_Class m_Header;
    StringBuf_Class m_Body;
};

#endif
