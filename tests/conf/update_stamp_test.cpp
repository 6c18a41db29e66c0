#include "conf/update_stamp.h"

#include <gtest/gtest.h>

#include <string>

#include "common/return_codes.h"

namespace {

OneToken_Class* token(OneToken_Class* t, const char* text)
{
    t->Clear();
    t->Copy_WithMemAlloc(text);
    return t;
}

TEST(UpdateStampTest, VerdictOfOneStamp)
{
    OneToken_Class name;
    PPD_ConfUpdateInfo info;
    timeval base{100, 500000};
    ASSERT_EQ(info.Set(token(&name, "Directory.Conf"), &base, 7), SUCCESS);

    struct Row {
        const char* name;
        timeval time;
        int seq;
        int verdict;
        const char* note;
    } rows[] = {
        {"Directory.Conf", {100, 500001}, 7, NEED_UPDATE, "one microsecond later"},
        {"Directory.Conf", {100, 499999}, 8, NON_UPDATE, "earlier, whatever the sequence"},
        {"Directory.Conf", {100, 500000}, 7, NON_UPDATE, "same time and sequence"},
        {"Directory.Conf", {100, 500000}, 6, NEED_UPDATE, "same time, other sequence"},
        {"ServerPC.Conf", {200, 0}, 7, NO_MATCH_ARGUMENT, "other file"},
        {"directory.conf", {200, 0}, 7, NO_MATCH_ARGUMENT, "names are case-sensitive"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        OneToken_Class other;
        EXPECT_EQ(info.Is_Accept_ConfUpdate(token(&other, row.name), &row.time, row.seq), row.verdict);
    }
}

TEST(UpdateStampTest, ListAnswersPerFileAndReplacesStamps)
{
    Arr_PPDUpdateFileInfo list;
    OneToken_Class a, b;
    token(&a, "a.Conf");
    token(&b, "b.Conf");
    timeval t1{10, 0}, t2{20, 0};
    EXPECT_EQ(list.Is_Accept_ConfUpdate(&a, &t1, 0), NEED_UPDATE) << "unknown file";
    ASSERT_EQ(list.Update_ConfUpdateInfo(&a, &t2, 1), SUCCESS);
    ASSERT_EQ(list.Update_ConfUpdateInfo(&b, &t1, 1), SUCCESS);
    EXPECT_EQ(list.Is_Accept_ConfUpdate(&a, &t1, 1), NON_UPDATE);
    EXPECT_EQ(list.Is_Accept_ConfUpdate(&b, &t2, 1), NEED_UPDATE);

    ASSERT_EQ(list.Update_ConfUpdateInfo(&a, &t1, 1), SUCCESS) << "replaces, does not append";
    EXPECT_EQ(list.GetCount(), 2);
    EXPECT_EQ(list.Is_Accept_ConfUpdate(&a, &t1, 1), NON_UPDATE);
    EXPECT_EQ(list.Is_Accept_ConfUpdate(&a, &t2, 1), NEED_UPDATE);
}

}  // namespace
