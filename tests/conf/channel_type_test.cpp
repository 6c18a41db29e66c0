#include "conf/channel_type.h"

#include <gtest/gtest.h>

#include <cstring>

#include "common/return_codes.h"
#include "common/tokens.h"

namespace {

TEST(ChannelTypeTest, NamesMapExactly)
{
    struct Row {
        const char* name;
        int code;
        int type;
    } rows[] = {
        {"Out_PULL", SUCCESS, 1}, {"Out_PUSH", SUCCESS, 2}, {"In_PULL", SUCCESS, 3},
        {"In_PUSH", SUCCESS, 4},  {"Control", SUCCESS, 5},  {"control", NOTFOUND_ITEM, 0},
        {"In_PULL ", NOTFOUND_ITEM, 0}, {"In_PUL", NOTFOUND_ITEM, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        OneToken_Class name;
        ASSERT_EQ(name.Copy_WithMemAlloc(row.name), SUCCESS);
        int type = -1;
        EXPECT_EQ(Get_ChannelType_Num(&name, &type), row.code);
        EXPECT_EQ(type, row.type);
    }
    OneToken_Class empty;
    int type = -1;
    EXPECT_EQ(Get_ChannelType_Num(&empty, &type), NOTFOUND_ITEM);
}

TEST(ChannelTypeTest, PairsAcrossDirections)
{
    struct Row {
        int first;
        int second;
        int check;
        int pair;
    } rows[] = {
        {1, 3, SUCCESS, 3},           {3, 1, SUCCESS, 1},           {2, 4, SUCCESS, 4},
        {4, 2, SUCCESS, 2},           {5, 5, SUCCESS, 5},           {1, 4, NO_MATCH_ARGUMENT, 3},
        {1, 1, NO_MATCH_ARGUMENT, 3}, {5, 1, NO_MATCH_ARGUMENT, 5}, {7, 1, DEBUG_WARNING, 0},
        {0, 0, DEBUG_WARNING, 0},     {-1, 3, DEBUG_WARNING, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::Message() << row.first << "," << row.second);
        EXPECT_EQ(Check_ChannelType_Pair(row.first, row.second), row.check);
        int pair = -1;
        EXPECT_EQ(Get_PairChannelType(row.first, &pair), SUCCESS);
        EXPECT_EQ(pair, row.pair);
    }
}

}  // namespace
