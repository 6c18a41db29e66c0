#include "control/control_connection.h"

#include <arpa/inet.h>
#include <stdlib.h>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "control/request_view.h"
#include "http/response_writer.h"

ControlPort_Connection::ControlPort_Connection(SockExitFlag* command, std::atomic<int>* exitMark)
    : m_pCommand(command), m_pExitMark(exitMark)
{
}

ControlPort_Connection::~ControlPort_Connection()
{
    // The text buffers only borrow the memory; detach them before it goes.
    m_Header.ConstructBuf_WithNonMemAlloc(nullptr, 0);
    m_Body.ConstructBuf_WithNonMemAlloc(nullptr, 0);
    free(m_pHeaderMem);
    free(m_pBodyMem);
}

int ControlPort_Connection::SetupMemory(DbPrintf_Class* pDB)
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

void ControlPort_Connection::Attach(int fd, DbPrintf_Class* pDB)
{
    m_nConnectFd = fd;
    Get_IP4Addr_Connect(fd, &m_PeerAddr, &m_nPeerPort, pDB);
}

void ControlPort_Connection::Detach()
{
    m_nConnectFd = -1;
    m_PeerAddr.s_addr = 0;
    m_nPeerPort = 0;
}

void ControlPort_Connection::ClearRequest(DbPrintf_Class* pDB)
{
    m_Request.ClearBuf(pDB);
}

int ControlPort_Connection::ReadRequest(int timeoutMs, DbPrintf_Class* pDB)
{
    m_Header.clear();
    m_Body.clear();
    return m_Request.HttpRead(m_nConnectFd, timeoutMs, m_pCommand, pDB);
}

int ControlPort_Connection::Is_KeepAlive(DbPrintf_Class* pDB)
{
    return m_Request.Is_KeepAlive(pDB);
}

bool ControlPort_Connection::StopRequested() const
{
    return m_pCommand->load(std::memory_order_relaxed) == -1;
}

void ControlPort_Connection::MarkExit()
{
    m_pExitMark->store(-1, std::memory_order_relaxed);
}

bool ControlPort_Connection::PeerIsMyIp(const char* myip) const
{
    in_addr mine{};
    if (inet_pton(AF_INET, myip, &mine) != 1)
        return false;
    return mine.s_addr == m_PeerAddr.s_addr;
}

int ControlPort_Connection::MinorVersion() const
{
    // A request that failed before its version gets HTTP/1.1.
    int minor = request_minor_version(m_Request);
    return (minor == 0) ? 0 : 1;
}

bool ControlPort_Connection::IsHeadRequest() const
{
    return request_method(m_Request) == 2;
}

int ControlPort_Connection::SendAnswer(int status, const char* extraHeaders, DbPrintf_Class* pDB)
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
    return SendHeadAndData(m_Body.c_str(), m_Body.length(), pDB);
}

int ControlPort_Connection::SendHeadAndData(const char* data, int size, DbPrintf_Class* pDB)
{
    int length = IsHeadRequest() ? 0 : size;
    return HttpResponse_SendMessage(m_nConnectFd, m_Header.c_str(), m_Header.length(), data, length, kSendTimeoutMs,
                                    m_pCommand, pDB);
}

int ControlPort_Connection::SendHeadAndData_WhileIntact(const char* data, int size, const std::function<bool()>& intact,
                                                        DbPrintf_Class* pDB)
{
    int length = IsHeadRequest() ? 0 : size;
    return HttpResponse_SendMessage_WhileIntact(m_nConnectFd, m_Header.c_str(), m_Header.length(), data, length,
                                                kSendTimeoutMs, m_pCommand, intact, pDB);
}

int ControlPort_Connection::ResponceSend_ConnectionClose(int status, DbPrintf_Class* pDB)
{
    SendAnswer(status, nullptr, pDB);
    return SUCCESS;
}

int ControlPort_Connection::ResponceSend_ConnectionClose(int status, const char* extraHeaders, DbPrintf_Class* pDB)
{
    SendAnswer(status, extraHeaders, pDB);
    return SUCCESS;
}

int ControlPort_Connection::AnswerText(const char* text, DbPrintf_Class* pDB)
{
    m_Header.clear();
    m_Body.clear();
    m_Body.add("%s", text);
    return SendAnswer(200, nullptr, pDB);
}
