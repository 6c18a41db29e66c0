#include "control/pre_image.h"

#include <stdio.h>
#include <string.h>
#include <sys/time.h>

#include <chrono>

#include "camera/cam_wakeup.h"
#include "camera/shared_state.h"
#include "common/debug_log.h"
#include "common/figures.h"
#include "common/return_codes.h"
#include "common/time_utils.h"
#include "camera/channel_config.h"
#include "control/control_connection.h"
#include "control/request_view.h"
#include "fifo/frame_fifo.h"
#include "http/response_writer.h"

namespace {

constexpr int kOptionSize = 128;

// "IMAGE_ID0000:" line, at most 127 characters with its CR LF.
constexpr int kImageIdLineMax = 127;
// The whole extra header block, at most 511 characters.
constexpr int kExtraHeadersMax = 511;

// Builds the extra header lines of an image answer from the frame's option
// text. The option text is cut so that the IMAGE_ID line, CR LF included,
// stays within its 127 characters: a cut line would leave the head without
// its line end.
void compose_image_headers(const char* option, char* out, int outSize)
{
    static const char kPrefix[] = "IMAGE_ID0000:";
    const int maxText = kImageIdLineMax - (static_cast<int>(sizeof(kPrefix)) - 1) - 2;
    char imageId[kImageIdLineMax + 1];
    snprintf(imageId, sizeof(imageId), "%s%.*s\r\n", kPrefix, maxText, option);
    snprintf(out, outSize, "TarnDataType: %s\r\n%sOFFSET_TIME: 0\r\n", "Ostrel", imageId);
}

// The answer to a login or a logout: format with the user id as the whole
// body, status 200, then the connection closes.
int answer_user(ControlPort_Connection& conn, const char* format, int userId, DbPrintf_Class* pDB)
{
    char text[64];
    snprintf(text, sizeof text, format, userId);
    conn.AnswerText(text, pDB);
    return HTTP_CONNECTIONCLOSE;
}

// The request's img_user_id into *userId. When it is missing the refusal is
// logged for the command, "ERROR_SYSTEM:" answered and false returned.
bool read_user_id(ControlPort_Connection& conn, const char* command, int* userId, DbPrintf_Class* pDB)
{
    if (request_param_int(conn.Request(), "img_user_id=", userId)) {
        return true;
    }
    TimePrint(pDB, 1, "ControlPort_ServerThread:ptippreimg.cgi %s Error.Not found img_user_id=[200]\n", command);
    conn.AnswerText("ERROR_SYSTEM:", pDB);
    return false;
}

}  // namespace

int PreImage_Protocol::Handle(ControlPort_Connection& conn, DbPrintf_Class* pDB)
{
    return PreImage_Protocol(conn).DoCommand_Ptipimg(pDB);
}

int PreImage_Protocol::DoCommand_Ptipimg(DbPrintf_Class* pDB)
{
    configParam_Struct cfg;
    if (g_configInfoIOClass.GetParamsFromMem(&cfg, pDB) != SUCCESS) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:ptippreimg.cgi Error.failed at GetParamsFromMem.[200]\n");
        m_Conn.AnswerText("ERROR_SYSTEM:", pDB);
        return HTTP_CONNECTIONCLOSE;
    }
    if (!m_Conn.PeerIsMyIp(cfg.myip)) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:ptippreimg.cgi Error.unknown ip[200]\n");
        m_Conn.AnswerText("ERROR_UNKNOWN_IP:", pDB);
        return HTTP_CONNECTIONCLOSE;
    }
    const HTTPRequestBuffer_Class& request = m_Conn.Request();
    if (request_param(request, "img_login=") != nullptr)
        return DoCommand_Ptipimg__img_login(pDB);
    if (request_param(request, "get_image=") != nullptr)
        return DoCommand_Ptipimg__get_image(pDB);
    if (request_param(request, "img_logout=") != nullptr)
        return DoCommand_Ptipimg__img_logout(pDB);
    TimePrint(pDB, 1, "ControlPort_ServerThread:ptippreimg.cgi Error.Request command is not supported.[200]\n");
    m_Conn.AnswerText("ERROR_SYSTEM:", pDB);
    return HTTP_CONNECTIONCLOSE;
}

int PreImage_Protocol::DoCommand_Ptipimg__img_login(DbPrintf_Class* pDB)
{
    long long top = 0;
    long long tail = 0;
    int rc = g_Fifo.GetTopTailDataNo(&top, &tail);
    if (rc == SUCCESS) {
        // Only frames stored after the login are handed out.
        g_NextDataID.store(tail + 1, std::memory_order_relaxed);
    } else if (rc == CHANNEL_NO_DATA) {
        g_NextDataID.store(0, std::memory_order_relaxed);
    } else {
        // The error answer is followed by the login answer on the same
        // connection: the login itself does not depend on the FIFO.
        TimePrint(pDB, 1, "ERROR_SYSTEM:failed at GetTopTailDataNo\n");
        m_Conn.AnswerText("ERROR_SYSTEM:", pDB);
    }

    g_flagLoginUserExist.store(1, std::memory_order_relaxed);
    timeval now;
    GetMonotonicTime(&now);
    SetNowTimePT(now);
    NotifyCamThread();
    g_Figures.Login();

    return answer_user(m_Conn, "LOGIN_SUCCESS:%d:\r\n", kUserId, pDB);
}

int PreImage_Protocol::DoCommand_Ptipimg__get_image(DbPrintf_Class* pDB)
{
    if (!ImageRequestValid(pDB))
        return HTTP_CONNECTIONCLOSE;
    char* pVideo = nullptr;
    char option[kOptionSize + 1] = {};
    _StrOutInfo info{};
    if (!BorrowNextFrame(&pVideo, option, &info, pDB))
        return HTTP_CONNECTIONCLOSE;
    // The FIFO may deliver a later frame than asked for when the asked one
    // has already been overwritten.
    g_NextDataID.store(info.lnDataNo + 1, std::memory_order_relaxed);
    SendImage(pVideo, option, info, pDB);
    g_Figures.PictureOut(info.nDataSize_Video);
    return HTTP_CONNECTIONCLOSE;
}

// The logged-in viewer's id, and a camera that delivers.
bool PreImage_Protocol::ImageRequestValid(DbPrintf_Class* pDB)
{
    int userId = 0;
    if (!read_user_id(m_Conn, "get_image", &userId, pDB)) {
        return false;
    }
    if (userId != kUserId || g_flagLoginUserExist.load(std::memory_order_relaxed) != 1) {
        TimePrint(pDB, 1,
                  "ControlPort_ServerThread:ptippreimg.cgi get_image Error.This img_user_id is not login:[200]\n");
        m_Conn.AnswerText("ERROR_USER_ID:", pDB);
        return false;
    }
    if (g_ConnectState.load(std::memory_order_relaxed) != 1) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:ptippreimg.cgi get_image Error.ERROR_TRANSLATOR_RECEIVE:[200]\n");
        m_Conn.AnswerText("ERROR_TRANSLATOR_RECEIVE:", pDB);
        return false;
    }
    return true;
}

// Borrows frame g_NextDataID (or the nearest one the FIFO still holds),
// waiting for the camera's commit within the frame wait. The option buffer
// holds kOptionSize + 1 bytes.
bool PreImage_Protocol::BorrowNextFrame(char** ppVideo, char* option, _StrOutInfo* pInfo, DbPrintf_Class* pDB)
{
    int videoCapacity = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(kFrameWaitUsec);
    for (;;) {
        // A FIFO failure is answered and tried again at once, without
        // counting an attempt. That retry ends when the answer cannot be
        // sent any more (the viewer has gone) or a stop is asked, so a FIFO
        // that keeps failing cannot hold the thread for ever.
        long long top = 0;
        long long tail = 0;
        int rc = g_Fifo.GetTopTailDataNo(&top, &tail);
        const bool fifoEmpty = (rc == CHANNEL_NO_DATA);
        if (rc != SUCCESS && rc != CHANNEL_NO_DATA) {
            TimePrint(
                pDB, 1,
                "ControlPort_ServerThread:ptippreimg.cgi get_image Error.failed at g_Fifo.GetTopTailDataNo[200]\n");
            if (m_Conn.AnswerText("ERROR_SYSTEM:", pDB) != SUCCESS || m_Conn.StopRequested())
                return false;
            continue;
        }
        const long long next = g_NextDataID.load(std::memory_order_relaxed);
        if (rc == SUCCESS && next <= tail) {
            memset(option, 0, kOptionSize + 1);
            rc = g_Fifo.GetData2(next, ppVideo, &videoCapacity, option, kOptionSize, pInfo);
            if (rc == SUCCESS)
                return true;
            TimePrint(pDB, 1,
                      "ControlPort_ServerThread:ptippreimg.cgi get_image Error.failed at g_Fifo.GetData2[200]\n");
            if (m_Conn.AnswerText("ERROR_SYSTEM:", pDB) != SUCCESS || m_Conn.StopRequested())
                return false;
            continue;
        }

        // The frame does not exist yet: wait for the camera thread's next
        // commit, within what is left of the frame wait.
        const bool arrived = g_Fifo.WaitForDataNo(next, deadline);
        if (m_Conn.StopRequested()) {
            m_Conn.AnswerText("ERROR_USER_ID:", pDB);
            m_Conn.MarkExit();
            return false;
        }
        if (!arrived) {
            if (fifoEmpty)
                TimePrint(
                    pDB, 1,
                    "ControlPort_ServerThread:ptippreimg.cgi get_image Error.ERROR_TRANSLATOR_RECEIVE for timeout:[200]\n");
            m_Conn.AnswerText("ERROR_TRANSLATOR_RECEIVE:", pDB);
            g_Figures.NotYet();
            return false;
        }
    }
}

// Sends the borrowed picture with its option text in the extra headers.
void PreImage_Protocol::SendImage(const char* pVideo, const char* option, const _StrOutInfo& info, DbPrintf_Class* pDB)
{
    char extra[kExtraHeadersMax + 1];
    compose_image_headers(option, extra, sizeof(extra));

    // The picture goes out straight from the FIFO slot: it stays intact for
    // the write-only zone's number of frames after this one.
    m_Conn.Header().clear();
    int rc = HttpResponse_MakeMessage_Header(&m_Conn.Header(), 200, m_Conn.MinorVersion(), 0, "image/jpeg", extra,
                                             info.nDataSize_Video, pDB);
    if (rc != SUCCESS) {
        TimePrint(
            pDB, 1,
            "[ControlPort_ServerThread::DoCommand_Ptipimg__get_image] HttpResponse_MakeMessage_Header failed ::%d\n",
            rc);
        return;
    }
    m_Conn.SendHeadAndData_WhileIntact(
        pVideo, info.nDataSize_Video, [&info] { return g_Fifo.FrameIntact(info.lnDataNo); }, pDB);
    // Done with the borrowed slot: taking the FIFO's mutex once more orders
    // this read before the writer's next commit, and so before it refills
    // the slot, even when no further request comes (a paused viewer).
    long long top = 0, tail = 0;
    g_Fifo.GetTopTailDataNo(&top, &tail);
}

int PreImage_Protocol::DoCommand_Ptipimg__img_logout(DbPrintf_Class* pDB)
{
    int userId = 0;
    if (!read_user_id(m_Conn, "img_logout", &userId, pDB)) {
        return HTTP_CONNECTIONCLOSE;
    }
    if (userId != kUserId) {
        TimePrint(pDB, 1,
                  "ControlPort_ServerThread:ptippreimg.cgi img_logout Error.This img_user_id is not login[200]\n");
        m_Conn.AnswerText("ERROR_LOGOUT:", pDB);
        return HTTP_CONNECTIONCLOSE;
    }
    g_flagLoginUserExist.store(0, std::memory_order_relaxed);
    g_Figures.Logout();
    return answer_user(m_Conn, "LOGOUT_SUCCESS:%d:IMAGE\r\n", kUserId, pDB);
}
