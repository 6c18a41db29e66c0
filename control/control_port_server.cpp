#include "control/control_port_server.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include "camera/channel_config.h"
#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/time_utils.h"
#include "control/control_port_pool.h"
#include "control/request_view.h"
#include "http/response_writer.h"
#include "net/socket_io.h"
#include "net/socket_listen.h"

namespace {

// Pause after an accept failure that does not pass at once: a listening socket
// that keeps failing (out of descriptors, ...) must not make every worker
// spin.
constexpr long long kAcceptRetryPauseUsec = 10000;

}  // namespace

ControlPort_ServerThread::ControlPort_ServerThread()
{
    m_pName = "ControlPort_ServerThread";
}

ControlPort_ServerThread::~ControlPort_ServerThread()
{
    // The text buffers only borrow the memory; detach them before it goes.
    m_Header.ConstructBuf_WithNonMemAlloc(nullptr, 0);
    m_Body.ConstructBuf_WithNonMemAlloc(nullptr, 0);
    free(m_pHeaderMem);
    free(m_pBodyMem);
}

void ControlPort_ServerThread::ResetConnection()
{
    m_nConnectFd = -1;
    m_PeerAddr.s_addr = 0;
    m_nPeerPort = 0;
}

bool ControlPort_ServerThread::StopRequested() const
{
    return m_nCommand.load(std::memory_order_relaxed) == -1;
}

int ControlPort_ServerThread::SetupMemory(DbPrintf_Class* pDB)
{
    int rc = m_Request.Init(kRequestBufferSize, pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[ControlPort_ServerThread::ThreadMain] m_Request.Init failed ::%d\n", rc);
        return rc;
    }
    m_pHeaderMem = static_cast<char*>(calloc(1, kHeaderMemSize));
    m_pBodyMem = static_cast<char*>(calloc(1, kBodyMemSize));
    if (m_pHeaderMem == nullptr || m_pBodyMem == nullptr) {
        TimePrint(pDB, 1, "[ControlPort_ServerThread::ThreadMain] malloc failed ::%d\n", MALLOC_ERROR);
        return MALLOC_ERROR;
    }
    m_Header.ConstructBuf_WithNonMemAlloc(m_pHeaderMem, kHeaderMemSize);
    m_Body.ConstructBuf_WithNonMemAlloc(m_pBodyMem, kBodyMemSize);
    return SUCCESS;
}

int ControlPort_ServerThread::ThreadMain(DbPrintf_Class* pDB)
{
    if (pDB == nullptr)
        pDB = m_pLog;
    ResetConnection();
    if (m_pPool == nullptr) {
        TimePrint(pDB, 1, "[ControlPort_ServerThread::ThreadMain] m_pPool == NULL\n");
        m_nExitMark.store(-1, std::memory_order_relaxed);
        return DEBUG_WARNING;
    }
    int rc = SetupMemory(pDB);
    if (rc != SUCCESS) {
        m_nExitMark.store(-1, std::memory_order_relaxed);
        return rc;
    }

    while (!StopRequested()) {
        m_Request.ClearBuf(pDB);
        sockaddr_in peer{};
        int fd = -1;
        rc = Sock_Accept(m_pPool->GetListenFd(), &fd, &peer, pDB);
        if (StopRequested()) {
            if (fd >= 0)
                Sock_Close(fd, pDB);
            break;
        }
        if (rc != SUCCESS) {
            if (rc != SOCK_INTERRUPT)
                UsecSleep(kAcceptRetryPauseUsec, pDB);
            continue;
        }
        m_nConnectFd = fd;
        Get_IP4Addr_Connect(fd, &m_PeerAddr, &m_nPeerPort, pDB);
        ServeConnection(pDB);
        Sock_Close(fd, pDB);
        ResetConnection();
    }
    m_nExitMark.store(-1, std::memory_order_relaxed);
    return SUCCESS;
}

void ControlPort_ServerThread::ServeConnection(DbPrintf_Class* pDB)
{
    for (;;) {
        m_Header.clear();
        m_Body.clear();
        if (StopRequested()) {
            m_nExitMark.store(-1, std::memory_order_relaxed);
            return;
        }
        int rc = m_Request.HttpRead(m_nConnectFd, kRequestTimeoutMs, &m_nCommand, pDB);
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
        if (m_Request.Is_KeepAlive(pDB) != SUCCESS)
            return;
    }
}

void ControlPort_ServerThread::AnswerReadFailure(DbPrintf_Class* pDB)
{
    int status = request_status(m_Request);
    if (status != 0) {
        const char* reason = request_error_text(m_Request);
        TimePrint(pDB, 1, "ControlPort_ServerThread:%s[%d]\n", reason, status);
        m_Body.add("%s", reason);
        ResponceSend_ConnectionClose(status, pDB);
        return;
    }
    TimePrint(pDB, 1, "ControlPort_ServerThread:This server failed in the decipherment of HTTP request.\n");
    m_Body.add("This server failed in the decipherment of HTTP request.[500]\n");
    ResponceSend_ConnectionClose(500, pDB);
}

int ControlPort_ServerThread::DoCommand_Root(DbPrintf_Class* pDB)
{
    // The command is chosen by the URI's file name (the text from its last
    // slash), compared exactly; the directory part is not looked at.
    const OneToken_Class& fileName = request_file_name(m_Request);
    if (fileName.Compare("/ptippreimg.cgi") == SUCCESS) {
        configParam_Struct cfg;
        if (g_configInfoIOClass.GetParamsFromMem(&cfg, pDB) != SUCCESS) {
            TimePrint(pDB, 1, "ControlPort_ServerThread:ptippreimg.cgi Error.failed at GetParamsFromMem.[200]\n");
            AnswerText("ERROR_SYSTEM:", pDB);
            return HTTP_CONNECTIONCLOSE;
        }
        if (!PeerIsMyIp(cfg.myip)) {
            TimePrint(pDB, 1, "ControlPort_ServerThread:ptippreimg.cgi Error.unknown ip[200]\n");
            AnswerText("ERROR_UNKNOWN_IP:", pDB);
            return HTTP_CONNECTIONCLOSE;
        }
        if (request_param(m_Request, "img_login=") != nullptr)
            return DoCommand_Ptipimg__img_login(pDB);
        if (request_param(m_Request, "get_image=") != nullptr)
            return DoCommand_Ptipimg__get_image(pDB);
        if (request_param(m_Request, "img_logout=") != nullptr)
            return DoCommand_Ptipimg__img_logout(pDB);
        TimePrint(pDB, 1, "ControlPort_ServerThread:ptippreimg.cgi Error.Request command is not supported.[200]\n");
        AnswerText("ERROR_SYSTEM:", pDB);
        return HTTP_CONNECTIONCLOSE;
    }
    if (fileName.Compare("/trcom.cgi") == SUCCESS)
        return DoCommand_TrCommunicate(pDB);

    const OneToken_Class& uri = request_uri(m_Request);
    TimePrint(pDB, 1, "ControlPort_ServerThread:CGI Error.Request Message URI is not supported.[404]\n");
    m_Body.add("CGI Error.\nRequest Message URI[");
    if (uri.GetLength() > 0)
        m_Body.add_FromPtr(uri.GetPtr(), uri.GetLength());
    m_Body.add("].not supported.\n");
    ResponceSend_ConnectionClose(404, pDB);
    return HTTP_CONNECTIONCLOSE;
}

bool ControlPort_ServerThread::PeerIsMyIp(const char* myip) const
{
    in_addr mine{};
    if (inet_pton(AF_INET, myip, &mine) != 1)
        return false;
    return mine.s_addr == m_PeerAddr.s_addr;
}

int ControlPort_ServerThread::MinorVersion() const
{
    // Answer in the request's own minor version when it was read (0 or 1);
    // a request that failed before its version gets HTTP/1.1.
    int minor = request_minor_version(m_Request);
    return (minor == 0) ? 0 : 1;
}

bool ControlPort_ServerThread::IsHeadRequest() const
{
    return request_method(m_Request) == 2;
}

int ControlPort_ServerThread::SendAnswer(int status, const char* extraHeaders, DbPrintf_Class* pDB)
{
    int rc = HttpResponse_MakeMessage_Header(&m_Header, status, MinorVersion(), 0, "text/plain", extraHeaders,
                                             m_Body.length(), pDB);
    if (rc != SUCCESS) {
        TimePrint(
            pDB, 1,
            "[ControlPort_ServerThread::ResponceSend_ConnectionClose] HttpResponse_MakeMessage_Header failed ::%d\n",
            rc);
        return rc;
    }
    int bodyLength = IsHeadRequest() ? 0 : m_Body.length();
    return HttpResponse_SendMessage(m_nConnectFd, m_Header.c_str(), m_Header.length(), m_Body.c_str(), bodyLength,
                                    kSendTimeoutMs, &m_nCommand, pDB);
}

int ControlPort_ServerThread::ResponceSend_ConnectionClose(int status, DbPrintf_Class* pDB)
{
    SendAnswer(status, nullptr, pDB);
    return SUCCESS;
}

int ControlPort_ServerThread::ResponceSend_ConnectionClose(int status, const char* extraHeaders, DbPrintf_Class* pDB)
{
    SendAnswer(status, extraHeaders, pDB);
    return SUCCESS;
}

int ControlPort_ServerThread::AnswerText(const char* text, DbPrintf_Class* pDB)
{
    m_Header.clear();
    m_Body.clear();
    m_Body.add("%s", text);
    return SendAnswer(200, nullptr, pDB);
}
