#include "conf/net_dev_info.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>


#include "common/return_codes.h"
#include "common/string_buf.h"
#include "common/test_files.h"

namespace {

using test_files::TokenText;

class NetDevInfoTest : public test_files::ScratchDir {
protected:
    void ifcfg(const std::string& device, const std::string& body)
    {
        test_files::WriteFile(dir_ + "/ifcfg-" + device, body);
    }
};

TEST_F(NetDevInfoTest, AddressComesFromTheFileThenFromTheCache)
{
    ifcfg("eth0", "DEVICE=eth0\nBOOTPROTO=static\nIPADDR=192.168.0.5\nNETMASK=255.255.255.0\n");
    NetDevInfo_Class info(dir_.c_str());
    OneToken_Class out;
    ASSERT_EQ(info.GetInfo_IPString("eth0", &out), SUCCESS);
    EXPECT_EQ(TokenText(out), "192.168.0.5");

    // The file is gone and the name is in capitals: only the cache can answer.
    ASSERT_EQ(std::remove((dir_ + "/ifcfg-eth0").c_str()), 0);
    ASSERT_EQ(info.GetInfo_IPString("ETH0", &out), SUCCESS);
    EXPECT_EQ(TokenText(out), "192.168.0.5");

}

TEST_F(NetDevInfoTest, FilesWithoutAUsableAddress)
{
    struct Row {
        const char* device;
        const char* body;  // null: no file
        int code;
        const char* ip;
        const char* note;
    } rows[] = {
        {"eth1", nullptr, NOTFOUND_ITEM, "", "no interface file"},
        {"eth2", "DEVICE=eth2\nBOOTPROTO=dhcp\n", NOTFOUND_ITEM, "", "no IPADDR line"},
        {"eth3", "IPADDR=\n", NOTFOUND_ITEM, "", "empty IPADDR"},
        {"eth5", "#IPADDR=10.0.0.1\nipaddr=10.0.0.2\n", NOTFOUND_ITEM, "", "commented or lower-case key"},
        {"eth6", "IPADDR=\"10.1.1.1\"\n", SUCCESS, "10.1.1.1", "quoted value"},
        {"eth8",
         "NAME=\"System eth8\"\nUUID=5fb06bd0-0bb0-7ffb-45f1-d6edd65f3e03\nTYPE=Ethernet\nONBOOT=yes\n"
         "BOOTPROTO=none\nDEFROUTE=yes\nIPV4_FAILURE_FATAL=no\nIPV6INIT=no\nDNS1=10.0.0.53\n"
         "IPADDR=10.3.3.3\n",
         SUCCESS, "10.3.3.3", "address on the tenth line of a full file"},
        {"../eth0", nullptr, DEBUG_WARNING, "", "no path outside the directory"},
    };
    NetDevInfo_Class info(dir_.c_str());
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        if (row.body != nullptr)
            ifcfg(row.device, row.body);
        OneToken_Class out;
        EXPECT_EQ(info.GetInfo_IPString(row.device, &out), row.code);
        EXPECT_EQ(TokenText(out), row.ip);
    }
    // A failed lookup is not cached: once the file appears it is found.
    ifcfg("eth1", "IPADDR=10.9.9.9\n");
    OneToken_Class out;
    EXPECT_EQ(info.GetInfo_IPString("eth1", &out), SUCCESS);
    EXPECT_EQ(TokenText(out), "10.9.9.9");
}

TEST_F(NetDevInfoTest, ConcurrentLookupsAgreeAndCacheEachDeviceOnce)
{
    constexpr int kDevices = 12;  // more than the first 8 cache entries
    constexpr int kThreads = 4;
    for (int d = 0; d < kDevices; ++d)
        ifcfg("dev" + std::to_string(d), "IPADDR=10.0.0." + std::to_string(d + 1) + "\n");
    NetDevInfo_Class info(dir_.c_str());

    std::atomic<int> waiting{kThreads};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t]() {
            waiting.fetch_sub(1);
            while (waiting.load() > 0)
                std::this_thread::yield();
            for (int round = 0; round < 20; ++round) {
                int d = (round + t) % kDevices;
                OneToken_Class out;
                std::string name = "dev" + std::to_string(d);
                if (info.GetInfo_IPString(name.c_str(), &out) != SUCCESS ||
                    TokenText(out) != "10.0.0." + std::to_string(d + 1))
                    wrong.fetch_add(1);
            }
        });
    }
    for (std::thread& th : threads)
        th.join();
    EXPECT_EQ(wrong.load(), 0);

    StringBuf_Class dump(4096);
    ASSERT_EQ(info.OutputBuffer(&dump), SUCCESS);
    const std::string s = dump.c_str();
    for (int d = 0; d < kDevices; ++d) {
        const std::string ip = "IP[ 10.0.0." + std::to_string(d + 1) + " ]";
        size_t first = s.find(ip);
        ASSERT_NE(first, std::string::npos) << ip;
        EXPECT_EQ(s.find(ip, first + 1), std::string::npos) << ip << " cached twice";
    }
}

}  // namespace
