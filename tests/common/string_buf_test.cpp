#include <gtest/gtest.h>


#include <fstream>
#include <string>

#include "common/return_codes.h"
#include "common/string_buf.h"
#include "temp_dir.h"

namespace {

const unsigned char* Bytes(const char* s)
{
    return reinterpret_cast<const unsigned char*>(s);
}

TEST(StringBuf, CutsOnceThenRefuses)
{
    struct Row {
        const char* first;  // appended to an empty 16-byte buffer
        const char* kept;
        int secondRc;  // of a following add("x")
        const char* note;
    } rows[] = {
        {"abcdefghijklmnopqrst", "abcdefghijklmno", DATA_LARGE_THEN_BUF, "cut to capacity-1"},
        {"abcdefghijklmno", "abcdefghijklmno", DATA_LARGE_THEN_BUF, "exactly full"},
        {"abcdefghijklmn", "abcdefghijklmn", SUCCESS, "one byte of room left"},
        {"", "", SUCCESS, "empty text"},
    };
    for (const Row& r : rows) {
        StringBuf_Class buf(16);
        int len = -1;
        EXPECT_EQ(buf.add(&len, "%s", r.first), SUCCESS) << r.note;
        EXPECT_STREQ(buf.c_str(), r.kept) << r.note;
        EXPECT_EQ(len, static_cast<int>(strlen(r.kept))) << r.note;
        EXPECT_EQ(buf.add(&len, "x"), r.secondRc) << r.note;
        EXPECT_EQ(len, buf.length()) << "length is stored on failure too: " << r.note;
        EXPECT_LE(buf.length(), 15) << r.note;
    }
}

TEST(StringBuf, BorrowedAndMissingBuffers)
{
    StringBuf_Class none;
    EXPECT_EQ(none.add("a"), DATA_LARGE_THEN_BUF);
    EXPECT_EQ(none.add_FromPtr(Bytes("a"), 1), DATA_LARGE_THEN_BUF);
    EXPECT_EQ(none.add_FromFile("/dev/null"), DATA_LARGE_THEN_BUF);

    char mem[8];
    memset(mem, '#', sizeof mem);
    StringBuf_Class buf(mem, 6);
    EXPECT_EQ(buf.add("%d-%d", 12, 345), SUCCESS);
    EXPECT_EQ(std::string(mem, 8), std::string("12-34\0##", 8)) << "must not touch bytes beyond its size";

    char other[4];
    EXPECT_EQ(buf.ConstructBuf_WithNonMemAlloc(other, 4), SUCCESS);
    EXPECT_EQ(buf.length(), 0);
    buf.add("zz");
    EXPECT_STREQ(other, "zz");
    EXPECT_STREQ(mem, "12-34") << "the first buffer is no longer written";
}

TEST(StringBuf, RawBytes)
{
    StringBuf_Class buf(8);
    EXPECT_EQ(buf.add_FromPtr(Bytes("ab"), 0), SUCCESS);
    EXPECT_EQ(buf.length(), 0);
    EXPECT_EQ(buf.add_FromPtr(Bytes("a\0b"), 3), SUCCESS);
    EXPECT_EQ(buf.length(), 3) << "embedded NUL bytes are kept";
    int len = 0;
    EXPECT_EQ(buf.add_FromPtr(&len, Bytes("cdefgh"), 6), SUCCESS);
    EXPECT_EQ(len, 7);
    EXPECT_EQ(std::string(buf.c_str(), 8), std::string("a\0bcdef\0", 8));
    EXPECT_EQ(buf.add_FromPtr(Bytes("x"), 1), DATA_LARGE_THEN_BUF);
}

TEST(StringBuf, FileContents)
{
    TempDir dir("ostrel_sbuf");
    const std::string file = dir.File("ten");
    const char* path = file.c_str();
    std::ofstream(path) << "0123456789";

    StringBuf_Class big(64);
    big.add("<");
    EXPECT_EQ(big.add_FromFile(path), SUCCESS);
    big.add(">");
    EXPECT_STREQ(big.c_str(), "<0123456789>");

    StringBuf_Class small(6);
    small.add("ab");
    EXPECT_EQ(small.add_FromFile(path), SUCCESS);
    EXPECT_STREQ(small.c_str(), "ab012");

    EXPECT_EQ(big.add_FromFile("/nonexistent/file"), SYS_FUNC_ERROR);
    EXPECT_EQ(big.add_FromFile("/tmp"), SYS_FUNC_ERROR) << "a directory cannot be read";
    EXPECT_STREQ(big.c_str(), "<0123456789>");
    unlink(path);
}

}  // namespace
