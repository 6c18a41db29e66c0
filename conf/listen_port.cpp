#include "conf/listen_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include "common/return_codes.h"
#include "net/socket_io.h"
#include "net/socket_listen.h"

PPD_ListenPort_Class g_ControlListenPort;

namespace {
constexpr int LISTEN_BACKLOG = 128;
constexpr int SEARCH_FIRST_PORT = 2001;
constexpr int SEARCH_LAST_PORT = 9999;
}  // namespace

PPD_ListenPort_Class::~PPD_ListenPort_Class()
{
    Clear();
}

int PPD_ListenPort_Class::Clear(DbPrintf_Class*)
{
    if (m_nSock >= 0) {
        Sock_Close(m_nSock);
    }
    m_nSock = -1;
    m_nPort = -1;
    return SUCCESS;
}

int PPD_ListenPort_Class::ListenPort_Search(const char* addr, int port, DbPrintf_Class* pDB)
{
    Clear(pDB);
    sockaddr_in sa;
    memset(&sa, 0, sizeof sa);
    // Port 0 would let the system pick one that the recorded port (and so the
    // states file and the launcher's answer) could not name.
    if (addr == nullptr || inet_pton(AF_INET, addr, &sa.sin_addr) != 1 || port < 1 || port > 65535) {
        return INVALID_ARGUMENT;
    }
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));

    int rc = Sock_Listen(&sa, LISTEN_BACKLOG, &m_nSock);
    if (rc != SUCCESS) {
        return rc;
    }
    m_nPort = port;
    return SUCCESS;
}

int PPD_ListenPort_Class::ListenPort_SetUp(const char* addr, short port, DbPrintf_Class* pDB)
{
    // The configured port is a 16-bit field: read its bits as unsigned so
    // that ports above 32767 survive the signed storage.
    int rc = ListenPort_Search(addr, static_cast<unsigned short>(port), pDB);
    return rc == SUCCESS ? SUCCESS : SOCK_OPEN_FAIL;
}

int PPD_ListenPort_Class::ListenPort_SetUp(const char* addr, DbPrintf_Class* pDB)
{
    for (int port = SEARCH_FIRST_PORT; port <= SEARCH_LAST_PORT; port++) {
        int rc = ListenPort_Search(addr, port, pDB);
        if (rc == SUCCESS) {
            return SUCCESS;
        }
        if (rc != SOCK_BIND_FAIL) {
            return rc;
        }
    }
    Clear(pDB);
    return SOCK_OPEN_FAIL;
}
