#ifndef OSTREL_NET_DEVICE_REQUEST_H
#define OSTREL_NET_DEVICE_REQUEST_H

#include <net/if.h>

// Questions to the kernel about one network device, asked through a
// datagram socket of Sock_OpenDatagram (net/socket_listen.h). Codes of
// common/return_codes.h; nothing is logged or printed.

// Asks `request` (SIOCGIFADDR, SIOCGIFNETMASK, ...) about device: the
// request record is zeroed, the name copied into it, and the kernel's answer
// left in *ifr. The name must be shorter than IFNAMSIZ (the caller checks).
// SUCCESS, or SYS_FUNC_ERROR with errno as the kernel left it. Any thread.
int Sock_AskDevice(int fd, unsigned long request, const char* device, struct ifreq* ifr);

// Test seam: the ioctl Sock_AskDevice issues. Null restores the real one.
// Returns the previous hook. Set it only while no other thread asks.
using IfreqIoctl_Fn = int (*)(int fd, unsigned long request, struct ifreq* ifr);
IfreqIoctl_Fn Sock_AskDevice_SetIoctl(IfreqIoctl_Fn fn);

#endif
