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

}  // namespace
