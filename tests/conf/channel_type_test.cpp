#include "conf/channel_type.h"

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "common/tokens.h"

namespace {

// Each row: a name, its number and lookup result, the partner type and the
// pair check of the type with its partner and with type 4.
TEST(ChannelTypeTest, NamesNumbersAndPartners)
{
    const struct {
        const char* name;
        int code, type, partner, withPartner, with4;
    } rows[] = {
        {"Out_PULL", SUCCESS, 1, 3, SUCCESS, NO_MATCH_ARGUMENT},
        {"Out_PUSH", SUCCESS, 2, 4, SUCCESS, SUCCESS},
        {"In_PULL", SUCCESS, 3, 1, SUCCESS, NO_MATCH_ARGUMENT},
        {"In_PUSH", SUCCESS, 4, 2, SUCCESS, NO_MATCH_ARGUMENT},
        {"Control", SUCCESS, 5, 5, SUCCESS, NO_MATCH_ARGUMENT},
        {"control", NOTFOUND_ITEM, 0, 0, DEBUG_WARNING, DEBUG_WARNING},  // case-sensitive
        {"Out_PULLX", NOTFOUND_ITEM, 0, 0, DEBUG_WARNING, DEBUG_WARNING},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        OneToken_Class name;
        ASSERT_EQ(name.Copy_WithMemAlloc(row.name), SUCCESS);
        int type = -1, partner = -1;
        EXPECT_EQ(Get_ChannelType_Num(&name, &type), row.code);
        EXPECT_EQ(type, row.type);
        EXPECT_EQ(Get_PairChannelType(type, &partner), SUCCESS);
        EXPECT_EQ(partner, row.partner);
        EXPECT_EQ(Check_ChannelType_Pair(type, partner), row.withPartner);
        EXPECT_EQ(Check_ChannelType_Pair(type, 4), row.with4);
    }
    int type = 0;
    EXPECT_EQ(Get_ChannelType_Num(nullptr, &type), DEBUG_WARNING);
    EXPECT_EQ(Get_PairChannelType(1, nullptr), DEBUG_WARNING);
    EXPECT_EQ(Check_ChannelType_Pair(7, 1), DEBUG_WARNING);
}

}  // namespace
