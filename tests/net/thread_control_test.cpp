#include "net/thread_control.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "common/return_codes.h"
#include "net/process_utils.h"
#include "wait_until.h"

namespace {

// Counters shared by the test elements; they outlive the elements, which the
// pool deletes on its own.
struct Probe {
    std::atomic<int> started{0};
    std::atomic<int> stoppedOnCommand{0};
    std::atomic<int> destroyed{0};
    std::atomic<int> sigintBlocked{0};
    std::atomic<int> detached{0};
    std::atomic<long long> work{0};

    // Stubborn threads wait here until the test lets them go.
    std::mutex m;
    std::condition_variable cv;
    bool released = false;

    void Release()
    {
        std::lock_guard<std::mutex> lock(m);
        released = true;
        cv.notify_all();
    }
};

// Works in small steps and tests the command word between them, like the
// daemon's threads do between blocking calls.
class WorkerElement : public ThreadControlElement {
public:
    explicit WorkerElement(Probe* p) : probe(p) { m_pName = "WorkerElement"; }
    ~WorkerElement() override { probe->destroyed++; }
    int ThreadMain(DbPrintf_Class*) override
    {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        if (sigismember(&mask, SIGINT)) {
            probe->sigintBlocked++;
        }
        pthread_attr_t attr;
        int detach = 0;
        if (pthread_getattr_np(pthread_self(), &attr) == 0) {
            pthread_attr_getdetachstate(&attr, &detach);
            pthread_attr_destroy(&attr);
        }
        if (detach == PTHREAD_CREATE_DETACHED) {
            probe->detached++;
        }
        probe->started++;
        // Busy, but not spinning: the other threads of a 2-core machine
        // (and other tests running beside this one) keep their share.
        while (m_nCommand.load() != -1) {
            probe->work++;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        probe->stoppedOnCommand++;
        m_nExitMark.store(-1);
        return SUCCESS;
    }
    Probe* probe;
};

// Ignores the stop until the test releases it.
class StubbornElement : public ThreadControlElement {
public:
    explicit StubbornElement(Probe* p) : probe(p) {}
    ~StubbornElement() override { probe->destroyed++; }
    int ThreadMain(DbPrintf_Class*) override
    {
        probe->started++;
        std::unique_lock<std::mutex> lock(probe->m);
        // SIGUSR1 may wake the wait early; the predicate puts it back.
        probe->cv.wait(lock, [this] { return probe->released; });
        return SUCCESS;
    }
    Probe* probe;
};

template <class Element> class ElementPool : public ThreadControlArr {
public:
    explicit ElementPool(Probe* p) : probe(p) {}
    int Add_Thread(DbPrintf_Class* pDB) override
    {
        Element* e = new Element(probe);
        int ret = ExecThread(e, pDB);
        if (ret != SUCCESS && e->m_pOwner != this) {
            delete e;
        }
        return ret;
    }
    Probe* probe;
};

bool Finished(ThreadControlElement* e)
{
    return e->m_nState.load() == -1;
}

class ThreadPoolTest : public ::testing::Test {
protected:
    // The stop signal relies on the daemon's do-nothing SIGUSR1 handler.
    void SetUp() override
    {
        sigaction(SIGUSR1, nullptr, &saved_);
        ASSERT_EQ(SUCCESS, SIGUSER1_Ignores());
    }
    void TearDown() override { sigaction(SIGUSR1, &saved_, nullptr); }

    int Count(ThreadControlArr& pool)
    {
        int n = -1;
        EXPECT_EQ(SUCCESS, pool.Is_NumOfThreads(&n));
        return n;
    }

    Probe probe;

private:
    struct sigaction saved_;
};

TEST_F(ThreadPoolTest, SleepingBaseThreadsAreWokenByTheStopSignal)
{
    ThreadControlArr pool;
    std::vector<ThreadControlElement*> elements;
    for (int i = 0; i < 4; i++) {
        ASSERT_EQ(SUCCESS, pool.Add_Thread(nullptr));
        elements.push_back(pool.GetElement(i));
        ASSERT_NE(nullptr, elements.back());
        EXPECT_EQ(i, elements.back()->m_nIndex);
        EXPECT_EQ(&pool, elements.back()->m_pOwner);
    }
    ASSERT_TRUE(WaitUntil([&] {
        for (auto* e : elements) {
            if (e->m_nState.load() != 1) {
                return false;
            }
        }
        return true;
    }));
    // Their 15-second sleep is far beyond this limit: only the signal can
    // end it in time.
    EXPECT_EQ(SUCCESS, pool.All_ThreadDestruct(10000));
    EXPECT_EQ(0, pool.GetCapacity());
}

// Stopping a busy pool whose threads all obey is the daemon's every stop,
// which the end-to-end and reliability runs take while threads read,
// send and wait; here a pool where some threads do not obey.
TEST_F(ThreadPoolTest, ThreadsThatIgnoreTheStopGiveTimeoutAndAreKept)
{
    ElementPool<StubbornElement> stubborn(&probe);
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(SUCCESS, stubborn.Add_Thread(nullptr));
    }
    // An element of the same pool that has stopped is cleared.
    WorkerElement* worker = new WorkerElement(&probe);
    ASSERT_EQ(SUCCESS, stubborn.ExecThread(worker));
    ASSERT_TRUE(WaitUntil([&] { return probe.started.load() == 3 && probe.work.load() > 100; }));
    EXPECT_EQ(1, probe.sigintBlocked.load()) << "SIGINT must stay with the main thread";
    EXPECT_EQ(1, probe.detached.load());
    ASSERT_EQ(SUCCESS, stubborn.ThreadDestruct(worker->m_nIndex));
    ASSERT_TRUE(WaitUntil([&] { return Finished(worker); }));
    EXPECT_EQ(1, probe.stoppedOnCommand.load());

    // The stubborn elements cannot finish before their release: no time
    // limit needs to pass to show it, one poll is enough.
    EXPECT_EQ(TIMEOUT, stubborn.All_ThreadDestruct(0));
    EXPECT_EQ(2, Count(stubborn)) << "unfinished elements stay";
    EXPECT_EQ(1, probe.destroyed.load()) << "the finished one went";
    EXPECT_EQ(-1, stubborn.GetElement(0)->m_nCommand.load());
    EXPECT_EQ(8, stubborn.GetCapacity());

    probe.Release();
    EXPECT_EQ(SUCCESS, stubborn.All_ThreadDestruct(10000));
    EXPECT_EQ(3, probe.destroyed.load());
}

TEST_F(ThreadPoolTest, FinishedElementsAreClearedLazilyAndTheirSlotsReused)
{
    // Held until both are started, so the second start cannot clear the first.
    ElementPool<StubbornElement> pool(&probe);
    ASSERT_EQ(SUCCESS, pool.Add_Thread(nullptr));
    ASSERT_EQ(SUCCESS, pool.Add_Thread(nullptr));
    ThreadControlElement* first = pool.GetElement(0);
    ThreadControlElement* second = pool.GetElement(1);
    probe.Release();
    ASSERT_TRUE(WaitUntil([&] { return Finished(first) && Finished(second); }));
    EXPECT_EQ(2, Count(pool)) << "finished but not yet cleared";
    EXPECT_EQ(0, probe.destroyed.load());

    ASSERT_EQ(SUCCESS, pool.Add_Thread(nullptr));
    EXPECT_EQ(2, probe.destroyed.load()) << "starting a thread clears the finished ones";
    EXPECT_EQ(0, pool.GetElement(0)->m_nIndex) << "lowest slot reused";
    EXPECT_EQ(1, Count(pool));
    EXPECT_EQ(8, pool.GetCapacity());
}

TEST_F(ThreadPoolTest, EmptyPoolStopsAtOnceAndIsSpent)
{
    ThreadControlArr pool;
    EXPECT_EQ(SUCCESS, pool.All_ThreadDestruct(0));
    EXPECT_EQ(0, pool.GetCapacity());
    EXPECT_EQ(MEM_MAP_ERROR, pool.Add_Thread(nullptr)) << "and the element is not leaked";
    EXPECT_EQ(SUCCESS, pool.All_ThreadDestruct(0)) << "twice";
}

}  // namespace
