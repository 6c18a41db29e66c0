#include "conf/ip_addr_list.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string>

#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {

in_addr address(const char* text)
{
    in_addr a{};
    inet_pton(AF_INET, text, &a);
    return a;
}

// An owning list grows past its first 8 entries, finds the first of equal
// entries and frees what it owns when it starts over (the sanitizer build
// checks the frees); a borrowing list never frees its entries.
TEST(IpAddrListTest, AddSearchAndDump)
{
    Arr_IpAddr owning;
    in_addr unused{};
    EXPECT_EQ(owning.Add(&unused), MEM_MAP_ERROR) << "no array before CleanUp";
    ASSERT_EQ(owning.CleanUp(), SUCCESS);
    for (int i = 0; i < 9; ++i)
        ASSERT_EQ(owning.Add(new in_addr(address(("10.0.0." + std::to_string(i)).c_str()))), SUCCESS);
    ASSERT_EQ(owning.Add(new in_addr(address("10.0.0.3"))), SUCCESS);
    EXPECT_EQ(owning.GetCount(), 10);

    const struct {
        const char* address;
        int code, index;
    } rows[] = {
        {"10.0.0.3", SUCCESS, 3},  // the first of two equal entries
        {"10.0.0.8", SUCCESS, 8},  // past the first 8
        {"10.0.0.200", NOTFOUND_ITEM, -1},
    };
    for (const auto& row : rows) {
        in_addr probe = address(row.address);
        int index = 99;
        EXPECT_EQ(owning.Search(&probe, &index), row.code) << row.address;
        EXPECT_EQ(index, row.index) << row.address;
    }
    ASSERT_EQ(owning.CleanUp(), SUCCESS);
    EXPECT_EQ(owning.GetCount(), 0);

    in_addr onStack[2] = {address("192.0.2.1"), address("192.0.2.2")};
    Arr_IpAddr borrowing;
    ASSERT_EQ(borrowing.CleanUp(1), SUCCESS);
    for (in_addr& a : onStack)
        ASSERT_EQ(borrowing.Add(&a), SUCCESS);
    StringBuf_Class dump(256);
    ASSERT_EQ(borrowing.OutputBuffer(&dump), SUCCESS);
    EXPECT_STREQ(dump.c_str(), "IP4_Arr: Max[8]\nIP4_Address[0]: 192.0.2.1\nIP4_Address[1]: 192.0.2.2\n");
    ASSERT_EQ(borrowing.CleanUp(1), SUCCESS) << "frees the array, not the stack entries";
}

}  // namespace
