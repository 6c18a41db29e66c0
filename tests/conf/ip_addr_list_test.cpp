#include "conf/ip_addr_list.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <string>

#include "common/return_codes.h"

namespace {

in_addr* heapAddr(const char* text)
{
    in_addr* a = new in_addr;
    inet_pton(AF_INET, text, a);
    return a;
}

TEST(IpAddrListTest, OwningListGrowsSearchesAndFreesItsEntries)
{
    Arr_IpAddr list;
    in_addr unused;
    EXPECT_EQ(list.Add(&unused), MEM_MAP_ERROR) << "no array before CleanUp";

    ASSERT_EQ(list.CleanUp(), SUCCESS);
    for (int i = 0; i < 9; ++i)
        ASSERT_EQ(list.Add(heapAddr(("10.0.0." + std::to_string(i)).c_str())), SUCCESS);
    ASSERT_EQ(list.Add(heapAddr("10.0.0.3")), SUCCESS);
    EXPECT_EQ(list.GetCount(), 10);

    int index = 0;
    in_addr probe = *list.Get(3);
    EXPECT_EQ(list.Search(&probe, &index), SUCCESS);
    EXPECT_EQ(index, 3) << "the first of two equal entries";
    inet_pton(AF_INET, "10.0.0.200", &probe);
    EXPECT_EQ(list.Search(&probe, &index), NOTFOUND_ITEM);
    EXPECT_EQ(index, -1);

    // Starting over frees the owned entries (the sanitizer build checks it).
    ASSERT_EQ(list.CleanUp(), SUCCESS);
    EXPECT_EQ(list.GetCount(), 0);
}

TEST(IpAddrListTest, BorrowingListLeavesEntriesAlone)
{
    in_addr onStack[3];
    inet_pton(AF_INET, "192.0.2.1", &onStack[0]);
    inet_pton(AF_INET, "192.0.2.2", &onStack[1]);
    inet_pton(AF_INET, "192.0.2.3", &onStack[2]);
    {
        Arr_IpAddr list;
        ASSERT_EQ(list.CleanUp(1), SUCCESS);
        for (in_addr& a : onStack)
            ASSERT_EQ(list.Add(&a), SUCCESS);
        int index = -1;
        EXPECT_EQ(list.Search(&onStack[2], &index), SUCCESS);
        EXPECT_EQ(index, 2);
    }  // deleting stack entries here would crash
    ASSERT_EQ(onStack[1].s_addr, inet_addr("192.0.2.2"));
}

}  // namespace
