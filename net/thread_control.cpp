#include "net/thread_control.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/select.h>
#include <sys/time.h>

#include <new>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/time_utils.h"

namespace {

constexpr int kPoolGrowth = 8;
constexpr long long kStopPollUsec = 2000;
constexpr time_t kBaseSleepSec = 15;

}  // namespace

// ---------------------------------------------------------------------------
// ThreadControlElement

ThreadControlElement::ThreadControlElement()
    : m_pName("ThreadControlElement"), m_nState(0), m_nCommand(0), m_ThreadId(0), m_pDB(nullptr), m_pOwner(nullptr),
      m_nIndex(-1), m_nExitMark(0)
{
}

ThreadControlElement::~ThreadControlElement()
{
    delete m_pDB;
}

int ThreadControlElement::ThreadMain(DbPrintf_Class* /*pDB*/)
{
    // SIGUSR1 stays blocked except inside pselect, which unblocks it
    // atomically: a stop signal that comes between the test of the command
    // word and the start of the sleep stays pending and ends the sleep at
    // once, instead of being lost and leaving the thread asleep for 15 s.
    sigset_t usr1, old;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &old);
    sigset_t during = old;
    sigdelset(&during, SIGUSR1);

    while (m_nCommand.load(std::memory_order_relaxed) != -1) {
        const timespec ts{kBaseSleepSec, 0};
        pselect(0, nullptr, nullptr, nullptr, &ts, &during);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    m_nExitMark.store(-1, std::memory_order_relaxed);
    return SUCCESS;
}

void* ThreadControlElement_ThreadLoop(void* pElement)
{
    if (pElement == nullptr) {
        return nullptr;
    }
    ThreadControlElement* e = static_cast<ThreadControlElement*>(pElement);
    pthread_detach(pthread_self());
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);

    e->m_ThreadId.store(pthread_self(), std::memory_order_relaxed);
    e->m_nState.store(1, std::memory_order_release);
    e->ThreadMain(e->m_pDB);
    // Release: everything the thread did to the element happens before the
    // pool's deletion of it, which follows an acquire load of this -1.
    e->m_nState.store(-1, std::memory_order_release);
    return nullptr;
}

// ---------------------------------------------------------------------------
// ThreadControlArr

ThreadControlArr::ThreadControlArr() : m_ppThreadArr(nullptr), m_nArrSize(0)
{
    m_ppThreadArr = static_cast<ThreadControlElement**>(calloc(kPoolGrowth, sizeof(ThreadControlElement*)));
    if (m_ppThreadArr != nullptr) {
        m_nArrSize = kPoolGrowth;
    }
}

ThreadControlArr::~ThreadControlArr()
{
    All_ThreadDestruct(2000, nullptr);
}

ThreadControlElement* ThreadControlArr::GetElement(int nIndex) const
{
    if (m_ppThreadArr == nullptr || nIndex < 0 || nIndex >= m_nArrSize) {
        return nullptr;
    }
    return m_ppThreadArr[nIndex];
}

int ThreadControlArr::Add_Thread(DbPrintf_Class* pDB)
{
    ThreadControlElement* e = new (std::nothrow) ThreadControlElement();
    if (e == nullptr) {
        return MALLOC_ERROR;
    }
    int ret = ExecThread(e, pDB);
    if (ret != SUCCESS && e->m_pOwner != this) {
        delete e;
    }
    return ret;
}

int ThreadControlArr::ExecThread(ThreadControlElement* pElement, DbPrintf_Class* pDB)
{
    if (pElement == nullptr) {
        return DEBUG_WARNING;
    }
    DiedThreadArr_Clear(pDB);

    int nIndex = -1;
    int ret = Search_FreeArr(&nIndex, pDB);
    if (ret == NOT_FOUND_FREE_BUF) {
        const int nOldSize = m_nArrSize;
        ret = Realloc_Arr(nOldSize + kPoolGrowth, pDB);
        if (ret != SUCCESS) {
            return ret;
        }
        if (m_nArrSize <= nOldSize || m_ppThreadArr[nOldSize] != nullptr) {
            return DEBUG_WARNING;
        }
        nIndex = nOldSize;
    } else if (ret != SUCCESS) {
        return ret;
    }

    m_ppThreadArr[nIndex] = pElement;
    pElement->m_pOwner = this;
    pElement->m_nIndex = nIndex;

    pthread_t tid;
    if (pthread_create(&tid, nullptr, ThreadControlElement_ThreadLoop, pElement) != 0) {
        return THREAD_MAKE_FAIL;
    }
    // The thread stores the same id itself; storing it here too means a stop
    // that comes before the thread has run can already be signalled.
    pElement->m_ThreadId.store(tid, std::memory_order_relaxed);
    return SUCCESS;
}

int ThreadControlArr::Search_FreeArr(int* pIndex, DbPrintf_Class* /*pDB*/)
{
    if (pIndex != nullptr) {
        *pIndex = -1;
    }
    if (m_ppThreadArr == nullptr) {
        return MEM_MAP_ERROR;
    }
    if (pIndex == nullptr) {
        return DEBUG_WARNING;
    }
    for (int i = 0; i < m_nArrSize; i++) {
        if (m_ppThreadArr[i] == nullptr) {
            *pIndex = i;
            return SUCCESS;
        }
    }
    return NOT_FOUND_FREE_BUF;
}

int ThreadControlArr::Realloc_Arr(int nNewSize, DbPrintf_Class* /*pDB*/)
{
    if (nNewSize <= m_nArrSize) {
        return DEBUG_WARNING;
    }
    void* p = realloc(m_ppThreadArr, sizeof(ThreadControlElement*) * nNewSize);
    if (p == nullptr) {
        return MALLOC_ERROR;
    }
    m_ppThreadArr = static_cast<ThreadControlElement**>(p);
    for (int i = m_nArrSize; i < nNewSize; i++) {
        m_ppThreadArr[i] = nullptr;
    }
    m_nArrSize = nNewSize;
    return SUCCESS;
}

int ThreadControlArr::DiedThreadArr_Clear(DbPrintf_Class* /*pDB*/)
{
    if (m_ppThreadArr == nullptr) {
        return SUCCESS;
    }
    for (int i = 0; i < m_nArrSize; i++) {
        ThreadControlElement* e = m_ppThreadArr[i];
        if (e != nullptr && e->m_nState.load(std::memory_order_acquire) == -1) {
            delete e;
            m_ppThreadArr[i] = nullptr;
        }
    }
    return SUCCESS;
}

int ThreadControlArr::Is_NumOfThreads(int* pCount, DbPrintf_Class* /*pDB*/)
{
    if (pCount == nullptr) {
        return DEBUG_WARNING;
    }
    int n = 0;
    for (int i = 0; m_ppThreadArr != nullptr && i < m_nArrSize; i++) {
        if (m_ppThreadArr[i] != nullptr) {
            n++;
        }
    }
    *pCount = n;
    return SUCCESS;
}

int ThreadControlArr::ThreadDestruct(int nIndex, DbPrintf_Class* /*pDB*/)
{
    if (m_ppThreadArr == nullptr || nIndex < 0 || nIndex >= m_nArrSize) {
        return DEBUG_WARNING;
    }
    ThreadControlElement* e = m_ppThreadArr[nIndex];
    if (e == nullptr || e->m_nState.load(std::memory_order_acquire) == -1) {
        return SUCCESS;
    }
    e->m_nCommand.store(-1, std::memory_order_relaxed);
    const pthread_t tid = e->m_ThreadId.load(std::memory_order_relaxed);
    // An element whose thread could not be created has no thread to signal:
    // like a thread that has gone, it counts as finished.
    const int err = tid == 0 ? ESRCH : pthread_kill(tid, SIGUSR1);
    if (err == 0) {
        return SUCCESS;
    }
    if (err == EINVAL) {
        return DEBUG_WARNING;
    }
    if (err == ESRCH) {
        e->m_nState.store(-1, std::memory_order_release);
        return SUCCESS;
    }
    return SYS_FUNC_ERROR;
}

int ThreadControlArr::All_ThreadDestruct(int nTimeLimitMs, DbPrintf_Class* pDB)
{
    if (m_ppThreadArr == nullptr) {
        return SUCCESS;
    }
    for (int i = 0; i < m_nArrSize; i++) {
        ThreadControlElement* e = m_ppThreadArr[i];
        if (e != nullptr && e->m_nState.load(std::memory_order_acquire) != -1) {
            ThreadDestruct(i, pDB);
        }
    }

    timeval start;
    GetMonotonicTime(&start);
    for (;;) {
        UsecSleep(kStopPollUsec);
        int nAlive = 0;
        for (int i = 0; i < m_nArrSize; i++) {
            ThreadControlElement* e = m_ppThreadArr[i];
            if (e != nullptr && e->m_nState.load(std::memory_order_acquire) != -1) {
                nAlive++;
            }
        }
        if (nAlive == 0) {
            DiedThreadArr_Clear(pDB);
            free(m_ppThreadArr);
            m_ppThreadArr = nullptr;
            m_nArrSize = 0;
            return SUCCESS;
        }
        timeval now;
        GetMonotonicTime(&now);
        if (GetDifftime64(&start, &now) / 1000 > nTimeLimitMs) {
            break;
        }
    }
    DiedThreadArr_Clear(pDB);
    return TIMEOUT;
}
