#ifndef OSTREL_NET_THREAD_CONTROL_H
#define OSTREL_NET_THREAD_CONTROL_H

#include <pthread.h>

#include <atomic>

class DbPrintf_Class;
class ThreadControlArr;

// ThreadControlElement: base class of every worker thread object. A pool
// (ThreadControlArr) owns the element, runs ThreadMain on a detached POSIX
// thread and deletes the element once its state says it has finished.
//
// Stop protocol: the pool sets m_nCommand to -1 and sends SIGUSR1 to the
// thread once. The process's SIGUSR1 handler does nothing and is installed
// without SA_RESTART (net/process_utils.h), so a blocking call of the thread
// returns EINTR. ThreadMain must test m_nCommand around every blocking call
// and return promptly once it reads -1; a signal that arrives while the
// thread is not blocked is only seen through that test. m_nCommand can be
// handed to the socket functions as their exit flag.
//
// After ThreadMain returns, the entry function stores -1 into m_nState and
// never touches the element again; the pool may delete it from then on.
class ThreadControlElement {
public:
    ThreadControlElement();
    virtual ~ThreadControlElement();

    ThreadControlElement(const ThreadControlElement&) = delete;
    ThreadControlElement& operator=(const ThreadControlElement&) = delete;

    // The thread's work; runs on the element's own thread with m_pDB. The
    // base sleeps in 15-second steps until the command word is -1, then sets
    // the exit mark to -1 and returns SUCCESS.
    virtual int ThreadMain(DbPrintf_Class* pDB);

    // Sleeps usec microseconds, or less when a stop is asked for (the command
    // word -1 with its SIGUSR1, even when the signal came just before the
    // sleep). True when the command word is -1. The element's thread only.
    bool WaitForStop(long long usec);

    // Fields shared between the pool's thread and the element's thread are
    // atomics; the others are written before the thread starts.
    const char* m_pName;                // class name
    std::atomic<int> m_nState;          // 0 created, 1 running, -1 finished
    std::atomic<int> m_nCommand;        // 0 normally, -1 asks the thread to stop
    std::atomic<pthread_t> m_ThreadId;  // 0 until the thread is created
    DbPrintf_Class* m_pDB;              // owned; deleted with the element if set
    ThreadControlArr* m_pOwner;         // the pool holding the element
    int m_nIndex;                       // slot in the pool, -1 until started
    std::atomic<int> m_nExitMark;       // -1 once ThreadMain is leaving
};

// Entry function of every worker thread (argument: the element). Detaches
// the thread, blocks SIGINT in it (SIGINT belongs to the main thread), marks
// the element running, runs ThreadMain and marks the element finished.
void* ThreadControlElement_ThreadLoop(void* pElement);

// ThreadControlArr: a pool of worker threads. The slot array and every
// member function below belong to one thread (the daemon's main thread);
// there is no lock. The pool owns its elements: it deletes finished ones
// lazily (when it starts another thread or stops all) and keeps running ones
// until they finish.
//
// Life: 8 slots after construction, growing by 8 as needed, never shrinking.
// A successful All_ThreadDestruct frees the slot array; the pool is then
// spent and ExecThread answers MEM_MAP_ERROR.
class ThreadControlArr {
public:
    ThreadControlArr();
    // All_ThreadDestruct(2000). Threads that do not stop in that time are
    // left running with their elements (which are then never freed).
    virtual ~ThreadControlArr();

    ThreadControlArr(const ThreadControlArr&) = delete;
    ThreadControlArr& operator=(const ThreadControlArr&) = delete;

    // Creates an element of the pool's kind and starts it. The base creates a
    // ThreadControlElement. MALLOC_ERROR, or ExecThread's result (the
    // element is deleted again when it was not placed into a slot).
    virtual int Add_Thread(DbPrintf_Class* pDB = nullptr);

    // Clears finished elements, puts pElement into the lowest free slot
    // (growing the array by 8 when full) and starts its thread. From SUCCESS
    // on the pool owns the element. THREAD_MAKE_FAIL: the element stays in
    // its slot, owned by the pool, with state 0. DEBUG_WARNING (null element
    // or no slot after growing), MEM_MAP_ERROR (spent pool) or MALLOC_ERROR:
    // the element was not taken and still belongs to the caller.
    int ExecThread(ThreadControlElement* pElement, DbPrintf_Class* pDB = nullptr);

    // Lowest empty slot into *pIndex (-1 unless found). NOT_FOUND_FREE_BUF
    // when every slot is used, MEM_MAP_ERROR when there is no slot array.
    int Search_FreeArr(int* pIndex, DbPrintf_Class* pDB = nullptr);
    // Grows the slot array to nNewSize slots, the new ones empty.
    // DEBUG_WARNING when nNewSize is not larger, MALLOC_ERROR when the
    // allocation fails (the old array stays).
    int Realloc_Arr(int nNewSize, DbPrintf_Class* pDB = nullptr);
    // Deletes every element whose state is -1 and empties its slot. SUCCESS.
    int DiedThreadArr_Clear(DbPrintf_Class* pDB = nullptr);
    // Number of occupied slots (finished, not yet cleared elements count).
    int Is_NumOfThreads(int* pCount, DbPrintf_Class* pDB = nullptr);
    // Asks the thread of slot nIndex to stop (command -1, then SIGUSR1).
    // SUCCESS also for an empty slot, a finished element, and a thread that
    // no longer exists (which is then marked finished). DEBUG_WARNING for a
    // bad index, SYS_FUNC_ERROR when the signal cannot be sent.
    int ThreadDestruct(int nIndex, DbPrintf_Class* pDB = nullptr);
    // Asks every running thread to stop, then polls every 2 ms until all
    // have finished: SUCCESS, all elements deleted and the slot array freed.
    // After more than nTimeLimitMs milliseconds: TIMEOUT, finished elements
    // deleted, the others kept in their slots and their threads left running.
    int All_ThreadDestruct(int nTimeLimitMs, DbPrintf_Class* pDB = nullptr);

    // Number of slots (0 once the pool is spent) and the element of a slot
    // (null when empty or out of range).
    int GetCapacity() const { return m_nArrSize; }
    ThreadControlElement* GetElement(int nIndex) const;

protected:
    ThreadControlElement** m_ppThreadArr;
    int m_nArrSize;
};

#endif
