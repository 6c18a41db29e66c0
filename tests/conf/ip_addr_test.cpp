#include "conf/ip_addr.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/ioctl.h>

#include "common/return_codes.h"
#include "net/device_request.h"

namespace {

struct DeviceResult {
    int code;
    std::string ip;
    std::string mask;
    std::string printed;
};

DeviceResult query(const char* device, bool withMask = true)
{
    DeviceResult r;
    char ip[16] = "untouched";
    char mask[16] = "untouched";
    testing::internal::CaptureStdout();
    r.code = co_getipaddr(device, ip, withMask ? mask : nullptr);
    r.printed = testing::internal::GetCapturedStdout();
    r.ip = ip;
    r.mask = mask;
    return r;
}

// The test network namespace has lo, eth0 = 192.0.2.1/24 and its veth peer
// eth1 without an address.
TEST(GetIpAddrTest, RealDevicesOfTheTestNamespace)
{
    DeviceResult lo = query("lo");
    EXPECT_EQ(lo.code, SUCCESS);
    EXPECT_EQ(lo.ip, "127.0.0.1");
    EXPECT_EQ(lo.mask, "255.0.0.0");
    EXPECT_EQ(lo.printed, "");

    DeviceResult eth0 = query("eth0");
    EXPECT_EQ(eth0.code, SUCCESS);
    EXPECT_EQ(eth0.ip, "192.0.2.1");
    EXPECT_EQ(eth0.mask, "255.255.255.0");

    EXPECT_EQ(query("eth0", false).ip, "192.0.2.1") << "without a netmask output";

    DeviceResult eth1 = query("eth1");
    EXPECT_EQ(eth1.code, 1023) << "an existing device without an address is not ready";
    EXPECT_EQ(eth1.printed, "[co_getipaddr] eth1 not ready.\n");

    DeviceResult none = query("nosuchdev0");
    EXPECT_EQ(none.code, SYS_FUNC_ERROR);
    EXPECT_EQ(none.printed.rfind("[co_getipaddr] ioctl(SIOCGIFADDR) failed :", 0), 0u) << none.printed;
    EXPECT_NE(none.printed.find("(errno " + std::to_string(ENODEV) + ")\n"), std::string::npos);
}

// Answers the kernel cannot be made to give: another family, 0.0.0.0, and a
// netmask request that fails after the address succeeded.
struct FakeAnswer {
    int family;
    const char* addr;
    int maskErrno;
};
FakeAnswer g_fake;

int fake_ioctl(int, unsigned long request, struct ifreq* ifr)
{
    if (request == SIOCGIFNETMASK && g_fake.maskErrno != 0) {
        errno = g_fake.maskErrno;
        return -1;
    }
    struct sockaddr_in sin;
    std::memset(&sin, 0, sizeof sin);
    sin.sin_family = static_cast<sa_family_t>(g_fake.family);
    inet_pton(AF_INET, g_fake.addr, &sin.sin_addr);
    std::memcpy(&ifr->ifr_addr, &sin, sizeof sin);
    return 0;
}

TEST(GetIpAddrTest, UnusualKernelAnswers)
{
    struct Row {
        FakeAnswer answer;
        int code;
        const char* printed;
        const char* note;
    } rows[] = {
        {{AF_INET6, "10.1.2.3", 0}, SOCK_NOT_IPv4, "[co_getipaddr] address is not AF_INET\n", "other family"},
        {{AF_INET, "0.0.0.0", 0}, 1023, "[co_getipaddr] fake0 not ready.\n", "zero address"},
        {{AF_INET, "10.1.2.3", EIO}, SYS_FUNC_ERROR, "[co_getipaddr] ioctl(SIOCGIFNETMASK) failed :", "netmask fails"},
    };
    IfreqIoctl_Fn previous = Sock_AskDevice_SetIoctl(fake_ioctl);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        g_fake = row.answer;
        DeviceResult r = query("fake0");
        EXPECT_EQ(r.code, row.code);
        EXPECT_EQ(r.printed.rfind(row.printed, 0), 0u) << r.printed;
    }
    Sock_AskDevice_SetIoctl(previous);
}

}  // namespace
