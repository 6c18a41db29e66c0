#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "common/return_codes.h"
#include "common/tokens.h"

namespace {

const unsigned char* Bytes(const char* s)
{
    return reinterpret_cast<const unsigned char*>(s);
}

// Each row is converted from a borrowed, unterminated span: a heap copy of
// exactly its bytes, so a read past the span is caught under ASan.
TEST(OneToken, NumberConversion)
{
    struct Row {
        const char* in;
        int rc;
        long long value;
        bool wide;  // Atoll instead of Atoi
        const char* note;
    } rows[] = {
        {"  42abc", SUCCESS, 42, false, "trailing text ignored"},
        {" \t\r\n9", SUCCESS, 9, false, "all four blank kinds"},
        {"   ", SUCCESS, 0, false, "blanks only"},
        {"-", SUCCESS, 0, false, "lone minus"},
        {"+5", SUCCESS, 0, false, "plus ends the number"},
        {"--5", SUCCESS, 0, false, "one minus only"},
        {"2147483648", OUT_OF_RANGE, -2147483648LL, false, "wrapped value is left"},
        {"-2147483648", OUT_OF_RANGE, -2147483648LL, false, "the smallest int cannot be read"},
        {"9223372036854775808", OUT_OF_RANGE, static_cast<long long>(1ULL << 63), true, ""},
    };
    for (const Row& r : rows) {
        size_t n = strlen(r.in);
        std::vector<unsigned char> span(Bytes(r.in), Bytes(r.in) + n);
        OneToken_Class tok;
        ASSERT_EQ(tok.Copy_OnlyPointer(span.data(), static_cast<int>(n)), SUCCESS) << r.note;
        long long got = -99;
        int rc;
        if (r.wide) {
            rc = tok.Atoll(&got);
        } else {
            int v = -99;
            rc = tok.Atoi(&v);
            got = v;
        }
        EXPECT_EQ(rc, r.rc) << r.in << ": " << r.note;
        EXPECT_EQ(got, r.value) << r.in << ": " << r.note;
    }

    OneToken_Class empty;
    int v = 5;
    EXPECT_EQ(empty.Atoi(&v), NOT_INITIALIZE);

    OneToken_Class prefix;  // only "12" of "123" belongs to the span
    prefix.Copy_OnlyPointer(Bytes("123"), 2);
    EXPECT_EQ(prefix.Atoi(&v), SUCCESS);
    EXPECT_EQ(v, 12);
}

TEST(OneToken, SpanBoundsAndOwnership)
{
    std::vector<unsigned char> big(ONETOKEN_MAXLEN + 1, 'q');
    OneToken_Class tok;
    EXPECT_EQ(tok.Copy_WithMemAlloc(big.data(), ONETOKEN_MAXLEN + 1), DEBUG_WARNING);
    EXPECT_EQ(tok.Copy_WithMemAlloc(big.data(), 0), DEBUG_WARNING);
    EXPECT_EQ(tok.Copy_OnlyPointer(big.data(), -1), DEBUG_WARNING);
    EXPECT_EQ(tok.GetPtr(), nullptr) << "a refused copy changes nothing";

    ASSERT_EQ(tok.Copy_WithMemAlloc(big.data(), ONETOKEN_MAXLEN), SUCCESS);
    EXPECT_NE(tok.GetPtr(), big.data());
    EXPECT_EQ(tok.GetPtr()[ONETOKEN_MAXLEN], '\0') << "owned copies carry a terminator";
    tok.Clear();
    EXPECT_EQ(tok.GetLength(), 0);

    std::string text(ONETOKEN_MAXLEN + 1, 't');
    EXPECT_EQ(tok.Copy_WithMemAlloc(text.c_str()), DEBUG_WARNING);
    EXPECT_EQ(tok.Copy_WithMemAlloc(""), DEBUG_WARNING);

    OneToken_Class borrowed;
    borrowed.Copy_OnlyPointer(Bytes("hello"), 5);
    EXPECT_EQ(tok.Copy_WithMemAlloc(&borrowed), SUCCESS);
    EXPECT_STREQ(reinterpret_cast<const char*>(tok.GetPtr()), "hello");
}

TEST(OneToken, Comparisons)
{
    OneToken_Class host, empty, other;
    host.Copy_OnlyPointer(Bytes("Host:x"), 5);  // "Host:"
    other.Copy_WithMemAlloc("Host:");

    EXPECT_EQ(host.Compare("Host:"), SUCCESS);
    EXPECT_EQ(host.Compare("Host"), NO_MATCH_ARGUMENT);
    EXPECT_EQ(host.Compare("host:"), NO_MATCH_ARGUMENT);
    EXPECT_EQ(host.Case_Compear("hOST:"), SUCCESS);
    EXPECT_EQ(host.Case_Compear("hOST"), NO_MATCH_ARGUMENT);
    EXPECT_EQ(host.Compare(""), DEBUG_WARNING);
    EXPECT_EQ(host.Compare(static_cast<const char*>(nullptr)), DEBUG_WARNING);
    EXPECT_EQ(empty.Compare("Host:"), DEBUG_WARNING) << "empty token is an argument fault, not a mismatch";

    EXPECT_EQ(host.Compare(&other), SUCCESS);
    EXPECT_EQ(host.Compare(&empty), NO_MATCH_ARGUMENT);
    EXPECT_EQ(empty.Compare(&empty), NO_MATCH_ARGUMENT) << "two empty tokens are not equal";
    EXPECT_EQ(host.Compare(Bytes("Host:"), 4), NO_MATCH_ARGUMENT);
}

TEST(TokenArrays, GrowthKeepsEveryEntry)
{
    Arr_NameValToken_Class arr;
    EXPECT_EQ(arr.GetCapacity(), 8);
    EXPECT_EQ(arr.Add_NameValTokenClass(nullptr), DEBUG_WARNING);
    const char* names[] = {"n0", "n1", "n2", "n3", "n4", "n5", "n6", "n7", "n8"};
    const char* vals[] = {"v0", "v1", "v2", "v3", "v4", "v5", "v6", "v7", "v8"};
    for (int i = 0; i < 9; ++i) {
        auto* p = new NameValToken_Class;
        p->m_Name.Copy_WithMemAlloc(names[i]);
        p->m_Val.Copy_WithMemAlloc(vals[i]);
        ASSERT_EQ(arr.Add_NameValTokenClass(p), SUCCESS);
    }
    EXPECT_EQ(arr.GetCapacity(), 16);
    EXPECT_EQ(arr.GetCount(), 9);
    EXPECT_STREQ(reinterpret_cast<const char*>(arr.Get(8)->m_Name.GetPtr()), "n8");
}

TEST(StaticTable, FillSearchAndReuse)
{
    StaticArr_NameValToken_Class table;
    EXPECT_EQ(table.Set_NameValToken_OnlyPointer(Bytes("a"), 1, Bytes("b"), 1), NOT_FOUND_FREE_BUF)
        << "not initialised";
    ASSERT_EQ(table.Init(3), SUCCESS);
    EXPECT_EQ(table.Init(3), ALREADY_INITIALIZE);

    const char head[] = "Content-Length: 12\r\nX:\r\nContent-Length: 99\r\n";
    const unsigned char* h = Bytes(head);
    EXPECT_EQ(table.Set_NameValToken_OnlyPointer(h, 15, h + 16, 2), SUCCESS);
    EXPECT_EQ(table.Set_NameValToken_WithMemAlloc(h + 20, 2, h + 22, 0), SUCCESS)
        << "an empty value still takes an entry";
    EXPECT_EQ(table.Set_NameValToken_OnlyPointer(h + 24, 15, h + 40, 2), SUCCESS);
    EXPECT_EQ(table.Set_NameValToken_OnlyPointer(h, 15, h + 16, 2), NOT_FOUND_FREE_BUF);

    OneToken_Class* val = nullptr;
    ASSERT_EQ(table.Search_NameToVal("Content-Length:", &val), SUCCESS);
    EXPECT_EQ(val->GetPtr(), h + 16) << "the first of two equal names wins";
    EXPECT_EQ(table.Search_NameToVal("content-length:", &val), NOTFOUND_ITEM) << "case-sensitive";
    EXPECT_EQ(table.Search_NameToVal("Content-Length", &val), NOTFOUND_ITEM);
    int n = 0;
    EXPECT_EQ(table.Search_NameToVal_RtnInt("Content-Length:", &n), SUCCESS);
    EXPECT_EQ(n, 12);
    EXPECT_EQ(table.Search_NameToVal_RtnInt("X:", &n), NOT_INITIALIZE);

    OneToken_Class out;
    out.Copy_WithMemAlloc("stale");
    EXPECT_EQ(table.Search_NameToVal_WithMemAlloc("Content-Length:", &out, 3, 8), DATASIZE_SHORT);
    EXPECT_EQ(out.GetPtr(), nullptr) << "the output is cleared first";
    EXPECT_EQ(table.Search_NameToVal_WithMemAlloc("Content-Length:", &out, 1, 1), DATASIZE_LARGE);
    EXPECT_EQ(table.Search_NameToVal_WithMemAlloc("Missing:", &out, 0, 8), NOTFOUND_ITEM);
    ASSERT_EQ(table.Search_NameToVal_WithMemAlloc("Content-Length:", &out, 2, 2), SUCCESS);
    EXPECT_EQ(out.IsMemAlloc(), 1);
    EXPECT_STREQ(reinterpret_cast<const char*>(out.GetPtr()), "12");

    EXPECT_EQ(table.Clear(), SUCCESS);
    EXPECT_EQ(table.Search_NameToVal("Content-Length:", &val), NOTFOUND_ITEM);
    EXPECT_EQ(table.Set_NameValToken_WithMemAlloc(Bytes("a"), 1, Bytes("b"), 1), SUCCESS);
    EXPECT_EQ(table.GetCount(), 1);
}

}  // namespace
