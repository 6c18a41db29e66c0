#include "conf/ip_addr.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include <atomic>

#include "common/return_codes.h"
#include "net/socket_io.h"
#include "net/socket_listen.h"

namespace {

// The device exists but holds no address yet; the code has no name.
constexpr int kDeviceNotReady = 1023;

int real_ioctl(int fd, unsigned long request, struct ifreq* ifr)
{
    return ioctl(fd, request, ifr);
}

std::atomic<IfreqIoctl_Fn> g_ifreq_ioctl{real_ioctl};

const char* error_text(int err, char* buf, size_t size)
{
    // GNU strerror_r: returns a static text or one written into buf.
    return strerror_r(err, buf, size);
}

// Runs one request for device; the result address is left in ifr.
int ask_device(int fd, unsigned long request, const char* device, struct ifreq* ifr)
{
    std::memset(ifr, 0, sizeof *ifr);
    std::memcpy(ifr->ifr_name, device, std::strlen(device));
    return g_ifreq_ioctl.load(std::memory_order_relaxed)(fd, request, ifr);
}

void dotted(const struct ifreq& ifr, char* out)
{
    struct sockaddr_in sin;
    std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
    inet_ntop(AF_INET, &sin.sin_addr, out, INET_ADDRSTRLEN);
}

}  // namespace

IfreqIoctl_Fn co_getipaddr_SetIoctl(IfreqIoctl_Fn fn)
{
    return g_ifreq_ioctl.exchange(fn != nullptr ? fn : real_ioctl);
}

int co_getipaddr(const char* device, char* ipaddr, char* netmask, DbPrintf_Class* pDB)
{
    (void)pDB;
    if (device == nullptr || ipaddr == nullptr || std::strlen(device) >= IFNAMSIZ) {
        std::printf("[co_getipaddr] invalid argument\n");
        return INVALID_ARGUMENT;
    }
    char errbuf[128];
    int fd = -1;
    if (Sock_OpenDatagram(&fd) != SUCCESS) {
        int err = errno;
        std::printf("[co_getipaddr] socket() failed :%s(errno %d)\n", error_text(err, errbuf, sizeof errbuf), err);
        return SOCK_OPEN_FAIL;
    }

    int result = SUCCESS;
    struct ifreq ifr;
    if (ask_device(fd, SIOCGIFADDR, device, &ifr) == -1) {
        int err = errno;
        if (err == EADDRNOTAVAIL) {
            std::printf("[co_getipaddr] %s not ready.\n", device);
            result = kDeviceNotReady;
        } else {
            std::printf("[co_getipaddr] ioctl(SIOCGIFADDR) failed :%s(errno %d)\n",
                        error_text(err, errbuf, sizeof errbuf), err);
            result = SYS_FUNC_ERROR;
        }
        goto end;
    }
    if (ifr.ifr_addr.sa_family != AF_INET) {
        std::printf("[co_getipaddr] address is not AF_INET\n");
        result = SOCK_NOT_IPv4;
        goto end;
    }
    dotted(ifr, ipaddr);
    if (std::strcmp(ipaddr, "0.0.0.0") == 0) {
        std::printf("[co_getipaddr] %s not ready.\n", device);
        result = kDeviceNotReady;
        goto end;
    }
    if (netmask != nullptr) {
        if (ask_device(fd, SIOCGIFNETMASK, device, &ifr) == -1) {
            int err = errno;
            std::printf("[co_getipaddr] ioctl(SIOCGIFNETMASK) failed :%s(errno %d)\n",
                        error_text(err, errbuf, sizeof errbuf), err);
            result = SYS_FUNC_ERROR;
            goto end;
        }
        dotted(ifr, netmask);
    }

end:
    Sock_Close(fd);
    return result;
}
