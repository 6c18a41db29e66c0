#include "wait_until.h"

#include <chrono>
#include <thread>

bool WaitUntil(const std::function<bool()>& pred, int timeoutMs)
{
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= until) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
