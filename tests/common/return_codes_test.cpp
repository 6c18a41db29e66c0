#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "common/return_codes.h"

namespace {

std::string CodeText(int code, int size = 256)
{
    char buf[256];
    getReturnCodeString(code, buf, size);
    return buf;
}

TEST(ReturnCodeText, NamesAndUnknownValues)
{
    struct Row {
        int code;
        const char* text;
        const char* note;
    } rows[] = {
        // [1]SUCCESS, [2022]SOCK_TIMEOUT and [27]Unknown Return value. are
        // checked where the log writes them.
        {1013, "[1013]NOTFOUND_FILE", "listed out of numeric order"},
        {9999, "[9999]DEBUG_WARNING", "last row"},
        {1023, "[1023]Unknown Return value.", "in use but unnamed"},
        {0, "[0]Unknown Return value.", ""},
        {-1, "[-1]Unknown Return value.", ""},
        {10001, "[10001]Unknown Return value.", ""},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(CodeText(r.code), r.text) << r.note;
    }
}

TEST(ReturnCodeText, ShortBufferCutsAndTerminates)
{
    char buf[16];
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(getReturnCodeString(SOCK_TIMEOUT, buf, 8), SUCCESS);
    EXPECT_STREQ(buf, "[2022]S");
    EXPECT_EQ(buf[8], 'x') << "wrote past the given size";
    EXPECT_EQ(getReturnCodeString(SOCK_TIMEOUT, buf, 0), SUCCESS);
}

TEST(ReturnCodeGeneral, BandEdges)
{
    const int rows[][2] = {{0, 1},    {10, 1},    {11, 2},     {100, 2}, {101, 4},  {1000, 4},
                           {1001, 3}, {10000, 3}, {10001, -1}, {-5, -1}, {2022, 3}, {28, 2}};
    for (const auto& r : rows) {
        EXPECT_EQ(GetErrGeneralCode(r[0]), r[1]) << "code " << r[0];
    }
}

TEST(ReturnCodeStrnlen, NeverReadsPastTheLimit)
{
    const char abc[3] = {'a', 'b', 'c'};  // no terminator: a read past 3 is an overflow
    EXPECT_EQ(Strnlen(abc, 2), 2);
    EXPECT_EQ(Strnlen(abc, 3), 3);
    EXPECT_EQ(Strnlen("abc", 10), 3);
    EXPECT_EQ(Strnlen("abc", 0), 0);
    EXPECT_EQ(Strnlen("abc", -4), 0);
}

}  // namespace
