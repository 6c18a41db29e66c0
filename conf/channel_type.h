#ifndef OSTREL_CONF_CHANNEL_TYPE_H
#define OSTREL_CONF_CHANNEL_TYPE_H

class DbPrintf_Class;
class OneToken_Class;

// The five channel roles of a PPD connection. Pull and push channels pair
// across directions (Out_PULL with In_PULL, Out_PUSH with In_PUSH); a
// control channel pairs with another control channel.
constexpr int CHANNELTYPE_OUT_PULL = 1;
constexpr int CHANNELTYPE_OUT_PUSH = 2;
constexpr int CHANNELTYPE_IN_PULL = 3;
constexpr int CHANNELTYPE_IN_PUSH = 4;
constexpr int CHANNELTYPE_CONTROL = 5;

// "Out_PULL", "Out_PUSH", "In_PULL", "In_PUSH", "Control" (exact, case-
// sensitive) to 1..5 with SUCCESS; anything else gives 0 and NOTFOUND_ITEM.
// DEBUG_WARNING for a null argument.
int Get_ChannelType_Num(const OneToken_Class* name, int* type, DbPrintf_Class* pDB = nullptr);

// The partner type of type (0 for anything but 1..5). Always SUCCESS
// (DEBUG_WARNING for a null output).
int Get_PairChannelType(int type, int* pair, DbPrintf_Class* pDB = nullptr);

// SUCCESS when second is first's partner, NO_MATCH_ARGUMENT for another
// second, DEBUG_WARNING for a first outside 1..5.
int Check_ChannelType_Pair(int first, int second, DbPrintf_Class* pDB = nullptr);

#endif
