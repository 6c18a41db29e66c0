#include "net/device_request.h"

#include <string.h>
#include <sys/ioctl.h>

#include <atomic>

#include "common/return_codes.h"

namespace {

int real_ioctl(int fd, unsigned long request, struct ifreq* ifr)
{
    return ioctl(fd, request, ifr);
}

std::atomic<IfreqIoctl_Fn> g_ifreq_ioctl{real_ioctl};

}  // namespace

IfreqIoctl_Fn Sock_AskDevice_SetIoctl(IfreqIoctl_Fn fn)
{
    return g_ifreq_ioctl.exchange(fn != nullptr ? fn : real_ioctl);
}

int Sock_AskDevice(int fd, unsigned long request, const char* device, struct ifreq* ifr)
{
    memset(ifr, 0, sizeof *ifr);
    memcpy(ifr->ifr_name, device, strlen(device));
    return g_ifreq_ioctl.load(std::memory_order_relaxed)(fd, request, ifr) == -1 ? SYS_FUNC_ERROR : SUCCESS;
}
