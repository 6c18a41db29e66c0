#ifndef OSTREL_CONF_LISTEN_PORT_H
#define OSTREL_CONF_LISTEN_PORT_H

class DbPrintf_Class;

// PPD_ListenPort_Class: the control port's one listening socket (IPv4 TCP,
// SO_REUSEADDR, backlog 128, blocking: the control-port threads all block in
// accept on it). The object owns the descriptor and closes it in Clear and
// at destruction. Set up by one thread before the server threads start.
class PPD_ListenPort_Class {
public:
    PPD_ListenPort_Class() = default;
    virtual ~PPD_ListenPort_Class();

    PPD_ListenPort_Class(const PPD_ListenPort_Class&) = delete;
    PPD_ListenPort_Class& operator=(const PPD_ListenPort_Class&) = delete;

    // Closes an open descriptor; descriptor and port -1. SUCCESS.
    int Clear(DbPrintf_Class* pDB = nullptr);

    // Clears, then listens on the dotted IPv4 address and port.
    // INVALID_ARGUMENT for an address that is not dotted IPv4 text or a port
    // outside 1..65535; SOCK_OPEN_FAIL (socket or SO_REUSEADDR),
    // SOCK_BIND_FAIL, SOCK_LISTEN_FAIL; SUCCESS with the port recorded. After
    // a failure past socket creation the descriptor stays recorded until the
    // next Clear or search.
    int ListenPort_Search(const char* addr, int port, DbPrintf_Class* pDB = nullptr);

    // The configured port (its 16 bits taken as unsigned): any failure is
    // reported as SOCK_OPEN_FAIL.
    int ListenPort_SetUp(const char* addr, short port, DbPrintf_Class* pDB = nullptr);
    // The first free port of 2001..9999, in ascending order. A failure other
    // than SOCK_BIND_FAIL ends the search with that code; no free port gives
    // SOCK_OPEN_FAIL.
    int ListenPort_SetUp(const char* addr, DbPrintf_Class* pDB = nullptr);

    // Listening descriptor and port, -1 when none.
    int GetSocket() const { return m_nSock; }
    int GetPort() const { return m_nPort; }

private:
    int m_nSock = -1;
    int m_nPort = -1;
};

// The control port's listening socket.
extern PPD_ListenPort_Class g_ControlListenPort;

#endif
