#ifndef OSTREL_CONTROL_CONTROL_PORT_SERVER_H
#define OSTREL_CONTROL_CONTROL_PORT_SERVER_H

#include "control/control_connection.h"
#include "net/thread_control.h"

class DbPrintf_Class;
class ControlPort_ListenSource;

// ControlPort_ServerThread: one worker of the control port, the daemon's own
// small HTTP server. Every worker blocks in accept() on the one listening
// socket of its listen source (the pool); the kernel hands each connection
// to one of them. A connection is read with a 65536-byte request reader
// (15000 ms per request) and dispatched by the routing table
// (control/control_routes.h) on the file name of the request URI; a name
// without a row gets 404. Every answer closes the connection.
//
// Lifetime and threads: created and started by the pool's Add_Thread; the
// pool owns the object and deletes it after ThreadMain has returned. All
// members except the command word belong to the worker's own thread. A stop
// is asked by the pool (command word -1 plus SIGUSR1, which breaks accept,
// the reads and the sends); a request being served is then abandoned.
class ControlPort_ServerThread : public ThreadControlElement {
public:
    static constexpr int kRequestTimeoutMs = 15000;

    ControlPort_ServerThread();
    ~ControlPort_ServerThread() override;

    ControlPort_ServerThread(const ControlPort_ServerThread&) = delete;
    ControlPort_ServerThread& operator=(const ControlPort_ServerThread&) = delete;

    // The accept loop; returns SUCCESS after a stop, DEBUG_WARNING without a
    // pool, the reader's code or MALLOC_ERROR when the thread's memory
    // cannot be had. Sets the exit mark to -1 on every way out. pDB may be
    // null: the log given to Add_Thread is used then.
    int ThreadMain(DbPrintf_Class* pDB) override;

    // Dispatch of one parsed request on the connection: the route's result
    // (HTTP_CONNECTIONCLOSE for both protocols), HTTP_CONNECTIONCLOSE after
    // the 404 of an unknown URI.
    int DoCommand_Root(DbPrintf_Class* pDB);

    // Set by the pool before the thread starts: where connections come from.
    ControlPort_ListenSource* m_pPool = nullptr;
    // Log used when ThreadMain is handed none (not owned).
    DbPrintf_Class* m_pLog = nullptr;

private:
    void ServeConnection(DbPrintf_Class* pDB);
    void AnswerReadFailure(DbPrintf_Class* pDB);

    ControlPort_Connection m_Conn;
};

#endif
