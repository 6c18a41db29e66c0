#include "conf/channel_type.h"

#include "common/return_codes.h"
#include "common/tokens.h"

namespace {

int partner_of(int type)
{
    switch (type) {
    case CHANNELTYPE_OUT_PULL: return CHANNELTYPE_IN_PULL;
    case CHANNELTYPE_IN_PULL: return CHANNELTYPE_OUT_PULL;
    case CHANNELTYPE_OUT_PUSH: return CHANNELTYPE_IN_PUSH;
    case CHANNELTYPE_IN_PUSH: return CHANNELTYPE_OUT_PUSH;
    case CHANNELTYPE_CONTROL: return CHANNELTYPE_CONTROL;
    default: return 0;
    }
}

}  // namespace

int Get_ChannelType_Num(const OneToken_Class* name, int* type, DbPrintf_Class* pDB)
{
    if (name == nullptr || type == nullptr)
        return DEBUG_WARNING;
    static const struct {
        const char* text;
        int type;
    } kNames[] = {
        {"Out_PULL", CHANNELTYPE_OUT_PULL}, {"Out_PUSH", CHANNELTYPE_OUT_PUSH}, {"In_PULL", CHANNELTYPE_IN_PULL},
        {"In_PUSH", CHANNELTYPE_IN_PUSH},   {"Control", CHANNELTYPE_CONTROL},
    };
    for (const auto& n : kNames) {
        if (name->Compare(n.text, pDB) == SUCCESS) {
            *type = n.type;
            return SUCCESS;
        }
    }
    *type = 0;
    return NOTFOUND_ITEM;
}

int Get_PairChannelType(int type, int* pair, DbPrintf_Class* pDB)
{
    (void)pDB;
    if (pair == nullptr)
        return DEBUG_WARNING;
    *pair = partner_of(type);
    return SUCCESS;
}

int Check_ChannelType_Pair(int first, int second, DbPrintf_Class* pDB)
{
    (void)pDB;
    int partner = partner_of(first);
    if (partner == 0)
        return DEBUG_WARNING;
    return second == partner ? SUCCESS : NO_MATCH_ARGUMENT;
}
