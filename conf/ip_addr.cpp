#include "conf/ip_addr.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include "common/return_codes.h"
#include "net/device_request.h"
#include "net/socket_io.h"
#include "net/socket_listen.h"

namespace {

// The device exists but holds no address yet; the code has no name.
constexpr int kDeviceNotReady = 1023;

const char* error_text(int err, char* buf, size_t size)
{
    // GNU strerror_r: returns a static text or one written into buf.
    return strerror_r(err, buf, size);
}

void dotted(const struct ifreq& ifr, char* out)
{
    struct sockaddr_in sin;
    std::memcpy(&sin, &ifr.ifr_addr, sizeof sin);
    inet_ntop(AF_INET, &sin.sin_addr, out, INET_ADDRSTRLEN);
}

}  // namespace

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
    if (Sock_AskDevice(fd, SIOCGIFADDR, device, &ifr) != SUCCESS) {
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
        if (Sock_AskDevice(fd, SIOCGIFNETMASK, device, &ifr) != SUCCESS) {
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
