#include "control/control_port_server.h"

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/time_utils.h"
#include "control/control_routes.h"
#include "control/listen_source.h"
#include "control/request_view.h"
#include "net/socket_io.h"
#include "net/socket_listen.h"

namespace {

// Pause after an accept failure that does not pass at once: a listening socket
// that keeps failing (out of descriptors, ...) must not make every worker
// spin.
constexpr long long kAcceptRetryPauseUsec = 10000;

}  // namespace

ControlPort_ServerThread::ControlPort_ServerThread() : m_Conn(&m_nCommand, &m_nExitMark)
{
    m_pName = "ControlPort_ServerThread";
}

ControlPort_ServerThread::~ControlPort_ServerThread() = default;

int ControlPort_ServerThread::ThreadMain(DbPrintf_Class* pDB)
{
    if (pDB == nullptr)
        pDB = m_pLog;
    m_Conn.Detach();
    if (m_pPool == nullptr) {
        TimePrint(pDB, 1, "[ControlPort_ServerThread::ThreadMain] m_pPool == NULL\n");
        m_Conn.MarkExit();
        return DEBUG_WARNING;
    }
    int rc = m_Conn.SetupMemory(pDB);
    if (rc != SUCCESS) {
        m_Conn.MarkExit();
        return rc;
    }

    while (!m_Conn.StopRequested()) {
        m_Conn.ClearRequest(pDB);
        sockaddr_in peer{};
        int fd = -1;
        rc = Sock_Accept(m_pPool->GetListenFd(), &fd, &peer, pDB);
        if (m_Conn.StopRequested()) {
            if (fd >= 0)
                Sock_Close(fd, pDB);
            break;
        }
        if (rc != SUCCESS) {
            if (rc != SOCK_INTERRUPT)
                UsecSleep(kAcceptRetryPauseUsec, pDB);
            continue;
        }
        m_Conn.Attach(fd, pDB);
        ServeConnection(pDB);
        Sock_Close(fd, pDB);
        m_Conn.Detach();
    }
    m_Conn.MarkExit();
    return SUCCESS;
}

void ControlPort_ServerThread::ServeConnection(DbPrintf_Class* pDB)
{
    for (;;) {
        if (m_Conn.StopRequested()) {
            m_Conn.MarkExit();
            return;
        }
        int rc = m_Conn.ReadRequest(kRequestTimeoutMs, pDB);
        if (rc == SOCK_TIMEOUT)
            return;
        if (rc != SUCCESS) {
            AnswerReadFailure(pDB);
            return;
        }
        // Every command answers with "Connection: close" and DoCommand_Root
        // returns HTTP_CONNECTIONCLOSE, so a connection carries one request
        // and this loop never comes round twice. It is the keep-alive path
        // of the protocol, kept for a command that answers SUCCESS.
        rc = DoCommand_Root(pDB);
        if (rc != SUCCESS)
            return;
        if (m_Conn.Is_KeepAlive(pDB) != SUCCESS)
            return;
    }
}

void ControlPort_ServerThread::AnswerReadFailure(DbPrintf_Class* pDB)
{
    const HTTPRequestBuffer_Class& request = m_Conn.Request();
    int status = request_status(request);
    if (status != 0) {
        const char* reason = request_error_text(request);
        TimePrint(pDB, 1, "ControlPort_ServerThread:%s[%d]\n", reason, status);
        m_Conn.Body().add("%s", reason);
        m_Conn.ResponceSend_ConnectionClose(status, pDB);
        return;
    }
    TimePrint(pDB, 1, "ControlPort_ServerThread:This server failed in the decipherment of HTTP request.\n");
    m_Conn.Body().add("This server failed in the decipherment of HTTP request.[500]\n");
    m_Conn.ResponceSend_ConnectionClose(500, pDB);
}

int ControlPort_ServerThread::DoCommand_Root(DbPrintf_Class* pDB)
{
    // The directory part of the URI is not looked at.
    const ControlPort_Route* route = ControlPort_FindRoute(request_file_name(m_Conn.Request()));
    if (route != nullptr)
        return route->handler(m_Conn, pDB);

    const OneToken_Class& uri = request_uri(m_Conn.Request());
    TimePrint(pDB, 1, "ControlPort_ServerThread:CGI Error.Request Message URI is not supported.[404]\n");
    StringBuf_Class& body = m_Conn.Body();
    body.add("CGI Error.\nRequest Message URI[");
    if (uri.GetLength() > 0)
        body.add_FromPtr(uri.GetPtr(), uri.GetLength());
    body.add("].not supported.\n");
    m_Conn.ResponceSend_ConnectionClose(404, pDB);
    return HTTP_CONNECTIONCLOSE;
}
