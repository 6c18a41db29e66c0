#include "conf/listen_port.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"

namespace {

// A plain listening socket (no SO_REUSEADDR) that keeps a port busy.
class PortHolder {
public:
    PortHolder(const char* addr, int port)
    {
        m_nFd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in sa = Address(addr, port);
        m_bOk = m_nFd >= 0 && bind(m_nFd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
                listen(m_nFd, 1) == 0;
    }
    ~PortHolder()
    {
        if (m_nFd >= 0) close(m_nFd);
    }
    bool Ok() const { return m_bOk; }

    static sockaddr_in Address(const char* addr, int port)
    {
        sockaddr_in sa;
        memset(&sa, 0, sizeof sa);
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, addr, &sa.sin_addr);
        return sa;
    }

private:
    int m_nFd = -1;
    bool m_bOk = false;
};

// The recorded descriptor really accepts a connection on addr:port.
void ExpectAccepts(const PPD_ListenPort_Class& lp, const char* addr, int port)
{
    int c = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(c, 0);
    sockaddr_in sa = PortHolder::Address(addr, port);
    EXPECT_EQ(connect(c, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0) << addr << ":" << port;
    int a = accept(lp.GetSocket(), nullptr, nullptr);
    EXPECT_GE(a, 0);
    if (a >= 0) close(a);
    close(c);
}

TEST(ListenPortTest, FixedPortOnEachConfiguredAddress)
{
    PPD_ListenPort_Class lp;
    EXPECT_EQ(lp.GetSocket(), -1);
    for (const char* addr : {"127.0.0.1", "192.0.2.1"}) {
        ASSERT_EQ(lp.ListenPort_SetUp(addr, static_cast<short>(4321)), SUCCESS) << addr;
        EXPECT_EQ(lp.GetPort(), 4321);
        ExpectAccepts(lp, addr, 4321);
    }
    // Bound to the configured address only, not to every interface; the
    // earlier socket on 127.0.0.1 was closed by the new set-up.
    int c = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa = PortHolder::Address("127.0.0.1", 4321);
    EXPECT_NE(connect(c, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    close(c);
}

TEST(ListenPortTest, PortAboveSignedRangeIsUsedAsConfigured)
{
    PPD_ListenPort_Class lp;
    ASSERT_EQ(lp.ListenPort_SetUp("127.0.0.1", static_cast<short>(40000)), SUCCESS);
    EXPECT_EQ(lp.GetPort(), 40000);
    ExpectAccepts(lp, "127.0.0.1", 40000);
}

TEST(ListenPortTest, TakenPortFails)
{
    PortHolder busy("127.0.0.1", 5005);
    ASSERT_TRUE(busy.Ok());
    PPD_ListenPort_Class lp;
    EXPECT_EQ(lp.ListenPort_SetUp("127.0.0.1", static_cast<short>(5005)), SOCK_OPEN_FAIL);
    EXPECT_EQ(lp.ListenPort_Search("127.0.0.1", 5005), SOCK_BIND_FAIL);
    EXPECT_GE(lp.GetSocket(), 0) << "the failed socket stays recorded until the next Clear";
    EXPECT_EQ(lp.GetPort(), -1);
    EXPECT_EQ(lp.Clear(), SUCCESS);
    EXPECT_EQ(lp.GetSocket(), -1);
}

TEST(ListenPortTest, SearchTakesFirstFreePortFrom2001)
{
    PortHolder first("192.0.2.1", 2001);
    PortHolder second("192.0.2.1", 2002);
    ASSERT_TRUE(first.Ok() && second.Ok());
    PPD_ListenPort_Class lp;
    ASSERT_EQ(lp.ListenPort_SetUp("192.0.2.1"), SUCCESS);
    EXPECT_EQ(lp.GetPort(), 2003);
    ExpectAccepts(lp, "192.0.2.1", 2003);

    // A new search closes the old socket first, so it finds 2003 again.
    ASSERT_EQ(lp.ListenPort_SetUp("192.0.2.1"), SUCCESS);
    EXPECT_EQ(lp.GetPort(), 2003);
}

TEST(ListenPortTest, ClearReleasesThePort)
{
    PPD_ListenPort_Class lp;
    ASSERT_EQ(lp.ListenPort_SetUp("127.0.0.1", static_cast<short>(6006)), SUCCESS);
    EXPECT_EQ(lp.Clear(), SUCCESS);
    EXPECT_EQ(lp.GetPort(), -1);
    PortHolder again("127.0.0.1", 6006);
    EXPECT_TRUE(again.Ok());
    EXPECT_EQ(lp.Clear(), SUCCESS) << "safe to call twice";
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
    EXPECT_EQ(lp.GetSocket(), -1);
}

TEST(ListenPortTest, AddressNotOnThisHostExhaustsTheSearch)
{
    PPD_ListenPort_Class lp;
    EXPECT_EQ(lp.ListenPort_SetUp("192.0.2.99", static_cast<short>(2500)), SOCK_OPEN_FAIL);
    EXPECT_EQ(lp.ListenPort_SetUp("192.0.2.99"), SOCK_OPEN_FAIL);
    EXPECT_EQ(lp.GetSocket(), -1);
    EXPECT_EQ(lp.GetPort(), -1);
}

}  // namespace
