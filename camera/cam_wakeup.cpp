#include "camera/cam_wakeup.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace {

std::mutex g_wakeMutex;
std::condition_variable g_wakeCond;
unsigned long long g_wakeSeq = 0;  // guarded by g_wakeMutex

}  // namespace

void NotifyCamThread()
{
    {
        std::lock_guard<std::mutex> lock(g_wakeMutex);
        ++g_wakeSeq;
    }
    g_wakeCond.notify_all();
}

unsigned long long CamThreadWakeSeq()
{
    std::lock_guard<std::mutex> lock(g_wakeMutex);
    return g_wakeSeq;
}

void WaitCamThreadWake(unsigned long long seen, long long usec)
{
    std::unique_lock<std::mutex> lock(g_wakeMutex);
    g_wakeCond.wait_for(lock, std::chrono::microseconds(usec), [seen] { return g_wakeSeq != seen; });
}
