#ifndef OSTREL_CONF_IP_ADDR_H
#define OSTREL_CONF_IP_ADDR_H

class DbPrintf_Class;

// Asks the kernel for the IPv4 address of a network device (SIOCGIFADDR)
// and, when netmask is not null, for its netmask (SIOCGIFNETMASK). Both are
// written as dotted text; each output must hold at least 16 bytes.
//
// Diagnostics go to standard output, not to the log. Results:
//   SUCCESS;
//   INVALID_ARGUMENT  null device or ipaddr, or a device name of IFNAMSIZ
//                     characters or more (the kernel would see it cut);
//   SOCK_OPEN_FAIL    the datagram socket could not be opened;
//   SYS_FUNC_ERROR    a request failed (no such device, ...);
//   SOCK_NOT_IPv4     the address is of another family;
//   1023 (no name)    the device exists but has no address yet. Current
//                     kernels refuse the address request of such a device
//                     with EADDRNOTAVAIL instead of reporting 0.0.0.0, so
//                     both count as "not ready" here.
// Safe to call from any thread. The requests go through Sock_AskDevice
// (net/device_request.h), whose seam tests use.
int co_getipaddr(const char* device, char* ipaddr, char* netmask, DbPrintf_Class* pDB = nullptr);

#endif
