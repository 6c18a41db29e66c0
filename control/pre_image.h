#ifndef OSTREL_CONTROL_PRE_IMAGE_H
#define OSTREL_CONTROL_PRE_IMAGE_H

class ControlPort_Connection;
class DbPrintf_Class;
struct _StrOutInfo;

// PreImage_Protocol: "/ptippreimg.cgi" on the control port. One viewer logs
// in (img_login), pulls the buffered JPEG pictures one after another out of
// the frame FIFO (get_image: each sent straight from its FIFO slot) and logs
// out (img_logout). Served only to the channel's own address (its myip).
// Every answer has status 200; the outcome is the body text ("text/plain")
// or the picture ("image/jpeg"), and the connection closes after it.
//
// Shared state: the login and frame cursor of camera/shared_state.h, g_Fifo
// (borrowed pictures) and the channel configuration (copied under its
// lock). An object lives for one request on the worker's own thread.
class PreImage_Protocol {
public:
    // The only user id of the protocol.
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

    explicit PreImage_Protocol(ControlPort_Connection& conn) : m_Conn(conn) {}

    // The routing table's handler: PreImage_Protocol(conn).DoCommand_Ptipimg.
    static int Handle(ControlPort_Connection& conn, DbPrintf_Class* pDB);

    // Checks the peer and selects the command by the first parameter present
    // of img_login=, get_image=, img_logout=. HTTP_CONNECTIONCLOSE.
    int DoCommand_Ptipimg(DbPrintf_Class* pDB);
    // The commands; each answers and returns HTTP_CONNECTIONCLOSE.
    int DoCommand_Ptipimg__img_login(DbPrintf_Class* pDB);
    int DoCommand_Ptipimg__get_image(DbPrintf_Class* pDB);
    int DoCommand_Ptipimg__img_logout(DbPrintf_Class* pDB);

private:
    // The steps of get_image; the first two answer and return false when the
    // request ends there.
    bool ImageRequestValid(DbPrintf_Class* pDB);
    bool BorrowNextFrame(char** ppVideo, char* option, _StrOutInfo* pInfo, DbPrintf_Class* pDB);
    void SendImage(const char* pVideo, const char* option, const _StrOutInfo& info, DbPrintf_Class* pDB);

    ControlPort_Connection& m_Conn;
};

#endif
