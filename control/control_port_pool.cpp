#include "control/control_port_pool.h"

#include <new>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "control/control_port_server.h"

ControlPort_ServerThread_ControlClass::ControlPort_ServerThread_ControlClass() = default;

ControlPort_ServerThread_ControlClass::~ControlPort_ServerThread_ControlClass()
{
    // The workers read this object's listening descriptor, so they are
    // stopped here, before this part of the object goes away, and not only
    // by the base destructor.
    All_ThreadDestruct(2000, nullptr);
}

int ControlPort_ServerThread_ControlClass::Init_ListenFd(int fd, DbPrintf_Class* /*pDB*/)
{
    m_nListenFd.store(fd, std::memory_order_relaxed);
    return SUCCESS;
}

int ControlPort_ServerThread_ControlClass::Add_Thread(DbPrintf_Class* pDB)
{
    ControlPort_ServerThread* pThread = new (std::nothrow) ControlPort_ServerThread();
    if (pThread == nullptr) {
        TimePrint(pDB, 1, "[ControlPort_ServerThread_ControlClass::Add_Thread] new ControlPort_ServerThread failed\n");
        return MALLOC_ERROR;
    }
    pThread->m_pPool = this;
    pThread->m_pLog = pDB;
    int rc = ExecThread(pThread, pDB);
    // Only a worker that was placed into a slot belongs to the pool.
    if (rc != SUCCESS && rc != THREAD_MAKE_FAIL)
        delete pThread;
    return rc;
}
