#ifndef OSTREL_CONTROL_CONTROL_PORT_POOL_H
#define OSTREL_CONTROL_CONTROL_PORT_POOL_H

#include <atomic>

#include "control/listen_source.h"
#include "net/thread_control.h"

class DbPrintf_Class;

// ControlPort_ServerThread_ControlClass: the pool of control-port workers.
// All of them accept on the one listening descriptor handed over by
// Init_ListenFd. The pool is driven by one thread (the daemon's main
// thread): Init_ListenFd, then Add_Thread once per worker, and at the end
// All_ThreadDestruct (inherited), which stops workers blocked in accept.
// The listening descriptor stays owned by the caller, who closes it only
// after the pool has stopped. The workers know the pool only as their
// listen source; it knows nothing of the requests they serve.
class ControlPort_ServerThread_ControlClass : public ThreadControlArr, public ControlPort_ListenSource {
public:
    ControlPort_ServerThread_ControlClass();
    ~ControlPort_ServerThread_ControlClass() override;

    // Stores the listening descriptor. SUCCESS.
    int Init_ListenFd(int fd, DbPrintf_Class* pDB = nullptr);

    // Creates a ControlPort_ServerThread bound to this pool and starts it
    // (ExecThread). The worker logs to pDB (not owned; it must outlive the
    // worker). MALLOC_ERROR when the worker cannot be created, else the
    // result of ExecThread.
    int Add_Thread(DbPrintf_Class* pDB) override;

    // The listening descriptor, -1 before Init_ListenFd. Any thread.
    int GetListenFd() const override { return m_nListenFd.load(std::memory_order_relaxed); }

private:
    std::atomic<int> m_nListenFd{-1};
};

#endif
