#include "conf/listen_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "test_sockets.h"

namespace {

// A plain listening socket (no SO_REUSEADDR) that keeps a port busy.
struct PortHolder {
    PortHolder(const char* addr, int port) : fd(socket(AF_INET, SOCK_STREAM, 0))
    {
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, addr, &sa.sin_addr);
        ok = bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 && listen(fd, 1) == 0;
    }
    ~PortHolder() { close(fd); }
    int fd;
    bool ok;
};

// true when a connection to addr:port is made (and, given lp, accepted on
// its recorded descriptor).
bool Connects(const char* addr, int port, const PPD_ListenPort_Class* lp)
{
    const int c = ConnectTo(addr, port);
    bool ok = c >= 0;
    if (ok && lp != nullptr) {
        const int a = accept(lp->GetSocket(), nullptr, nullptr);
        ok = a >= 0;
        close(a);
    }
    close(c);
    return ok;
}

TEST(ListenPortTest, FixedPortOnTheConfiguredAddressOnly)
{
    PPD_ListenPort_Class lp;
    ASSERT_EQ(lp.ListenPort_SetUp("127.0.0.1", static_cast<short>(4321)), SUCCESS);
    EXPECT_TRUE(Connects("127.0.0.1", 4321, &lp));
    ASSERT_EQ(lp.ListenPort_SetUp("192.0.2.1", static_cast<short>(4321)), SUCCESS);
    EXPECT_EQ(lp.GetPort(), 4321);
    EXPECT_TRUE(Connects("192.0.2.1", 4321, &lp));
    EXPECT_FALSE(Connects("127.0.0.1", 4321, nullptr)) << "the earlier socket was closed, no wildcard bind";

    // The 16 bits of the configured port are read as unsigned.
    ASSERT_EQ(lp.ListenPort_SetUp("127.0.0.1", static_cast<short>(40000)), SUCCESS);
    EXPECT_EQ(lp.GetPort(), 40000);
    EXPECT_TRUE(Connects("127.0.0.1", 40000, &lp));

    // (A port that saw no connection, so no TIME_WAIT holds it afterwards.)
    ASSERT_EQ(lp.ListenPort_SetUp("127.0.0.1", static_cast<short>(6006)), SUCCESS);
    EXPECT_EQ(lp.Clear(), SUCCESS);
    EXPECT_EQ(lp.GetPort(), -1);
    EXPECT_TRUE(PortHolder("127.0.0.1", 6006).ok) << "Clear releases the port";
    EXPECT_EQ(lp.Clear(), SUCCESS);
}

TEST(ListenPortTest, SearchTakesFirstFreePortFrom2001)
{
    PortHolder first("192.0.2.1", 2001), second("192.0.2.1", 2002);
    ASSERT_TRUE(first.ok && second.ok);
    PPD_ListenPort_Class lp;
    ASSERT_EQ(lp.ListenPort_SetUp("192.0.2.1"), SUCCESS);
    EXPECT_EQ(lp.GetPort(), 2003);
    EXPECT_TRUE(Connects("192.0.2.1", 2003, &lp));
    ASSERT_EQ(lp.ListenPort_SetUp("192.0.2.1"), SUCCESS);
    EXPECT_EQ(lp.GetPort(), 2003) << "a new search closes the old socket first";
}

TEST(ListenPortTest, BadAddressesAndPorts)
{
    PPD_ListenPort_Class lp;
    for (const char* addr : {"localhost", "::1", "192.0.2", "", "192.0.2.1 "}) {
        EXPECT_EQ(lp.ListenPort_SetUp(addr, static_cast<short>(2500)), SOCK_OPEN_FAIL) << addr;
        EXPECT_EQ(lp.ListenPort_SetUp(addr), INVALID_ARGUMENT) << addr;
    }
    EXPECT_EQ(lp.ListenPort_Search(nullptr, 2500), INVALID_ARGUMENT);
    EXPECT_EQ(lp.ListenPort_Search("127.0.0.1", 0), INVALID_ARGUMENT);
    EXPECT_EQ(lp.ListenPort_Search("127.0.0.1", 65536), INVALID_ARGUMENT);
    EXPECT_EQ(lp.ListenPort_SetUp("127.0.0.1", static_cast<short>(0)), SOCK_OPEN_FAIL);

    // An address of no interface here: every bind fails, the search ends.
    EXPECT_EQ(lp.ListenPort_SetUp("192.0.2.99", static_cast<short>(2500)), SOCK_OPEN_FAIL);
    EXPECT_EQ(lp.ListenPort_SetUp("192.0.2.99"), SOCK_OPEN_FAIL);
    EXPECT_EQ(lp.GetSocket(), -1);
}

}  // namespace
