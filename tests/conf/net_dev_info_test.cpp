#include "conf/net_dev_info.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

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

// Interface files and what a lookup makes of them (cases, then rejects); a
// found address is cached under the device's name, whatever its case.
TEST_F(NetDevInfoTest, InterfaceFilesAndTheCache)
{
    const struct {
        const char* device;
        const char* body;  // null: no file
        int code;
        const char* ip;
        const char* note;
    } rows[] = {
        {"eth0", "DEVICE=eth0\nBOOTPROTO=static\nIPADDR=192.168.0.5\nNETMASK=255.255.255.0\n", SUCCESS,
         "192.168.0.5", "static address"},
        {"eth6", "IPADDR=\"10.1.1.1\"\n", SUCCESS, "10.1.1.1", "quoted value"},
        {"eth1", nullptr, NOTFOUND_ITEM, "", "no interface file"},
        {"eth2", "DEVICE=eth2\nBOOTPROTO=dhcp\n", NOTFOUND_ITEM, "", "no IPADDR line"},
        {"eth3", "IPADDR=\n", NOTFOUND_ITEM, "", "empty IPADDR"},
        {"eth5", "#IPADDR=10.0.0.1\nipaddr=10.0.0.2\n", NOTFOUND_ITEM, "", "commented or lower-case key"},
        {"../eth0", nullptr, DEBUG_WARNING, "", "no path outside the directory"},
    };
    NetDevInfo_Class info(dir_.c_str());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.note);
        if (row.body != nullptr)
            ifcfg(row.device, row.body);
        OneToken_Class out;
        EXPECT_EQ(info.GetInfo_IPString(row.device, &out), row.code);
        EXPECT_EQ(TokenText(out), row.ip);
    }

    // The file is gone and the name is in capitals: only the cache answers.
    ASSERT_EQ(std::remove((dir_ + "/ifcfg-eth0").c_str()), 0);
    OneToken_Class out;
    ASSERT_EQ(info.GetInfo_IPString("ETH0", &out), SUCCESS);
    EXPECT_EQ(TokenText(out), "192.168.0.5");
    // A failed lookup is not cached: once the file appears it is found.
    ifcfg("eth1", "IPADDR=10.9.9.9\n");
    ASSERT_EQ(info.GetInfo_IPString("eth1", &out), SUCCESS);
    EXPECT_EQ(TokenText(out), "10.9.9.9");

    StringBuf_Class dump(1024);
    ASSERT_EQ(info.OutputBuffer(&dump), SUCCESS);
    const std::string s = dump.c_str();
    EXPECT_EQ(s.rfind("--- NetDevInfo ---\n", 0), 0u) << s;
    for (const char* ip : {"192.168.0.5", "10.1.1.1", "10.9.9.9"}) {
        const size_t first = s.find(ip);
        EXPECT_NE(first, std::string::npos) << ip;
        EXPECT_EQ(s.find(ip, first + 1), std::string::npos) << ip << " cached twice";
    }
}

}  // namespace
