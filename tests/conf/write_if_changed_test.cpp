#include "conf/write_if_changed.h"

#include <gtest/gtest.h>

#include <string>

#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include "common/return_codes.h"
#include "common/string_buf.h"
#include "common/test_files.h"

namespace {

class WriteIfChangedTest : public test_files::ScratchDir {
protected:
    void SetUp() override
    {
        ScratchDir::SetUp();
        path_ = dir_ + "/file";
        oldMask_ = umask(022);
    }
    void TearDown() override
    {
        umask(oldMask_);
        ScratchDir::TearDown();
    }
    int put(const std::string& text)
    {
        StringBuf_Class buf(256);
        buf.add("%s", text.c_str());
        return FileIsNewCheck_AndWrite(path_.c_str(), &buf);
    }
    std::string content() { return test_files::ReadFile(path_); }
    struct stat info()
    {
        struct stat st {};
        EXPECT_EQ(stat(path_.c_str(), &st), 0);
        return st;
    }
    std::string path_;
    mode_t oldMask_ = 0;
};

TEST_F(WriteIfChangedTest, NewFileIsWrittenWithMode0666)
{
    ASSERT_EQ(put("hello"), SUCCESS);
    EXPECT_EQ(content(), "hello");
    EXPECT_EQ(info().st_mode & 0777, 0666u) << "the mode is set explicitly, past the umask";
    StringBuf_Class buf(16);
    buf.add("x");
    EXPECT_EQ(FileIsNewCheck_AndWrite((dir_ + "/no/dir/file").c_str(), &buf), SYS_FUNC_ERROR);
}

TEST_F(WriteIfChangedTest, SameContentIsNotRewritten)
{
    ASSERT_EQ(put("0123456789"), SUCCESS);
    // Backdate the file: a rewrite would show as a new modification time.
    struct timeval past[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(path_.c_str(), past), 0);
    const ino_t inode = info().st_ino;

    ASSERT_EQ(put("0123456789"), SUCCESS);
    EXPECT_EQ(info().st_mtime, 1000000000);
    EXPECT_EQ(info().st_ino, inode);

    ASSERT_EQ(put("abcdefghij"), SUCCESS) << "same size, other bytes";
    EXPECT_EQ(content(), "abcdefghij");
    EXPECT_NE(info().st_mtime, 1000000000);
}

TEST_F(WriteIfChangedTest, ShorterContentLeavesTheOldTail)
{
    ASSERT_EQ(put("AAAAAAAAAABBBBBBBBBB"), SUCCESS);
    ASSERT_EQ(put("0123456789"), SUCCESS);
    EXPECT_EQ(content(), "0123456789BBBBBBBBBB");
    ASSERT_EQ(put("0123456789BBBBBBBBBBxyz"), SUCCESS) << "longer content extends the file";
    EXPECT_EQ(content(), "0123456789BBBBBBBBBBxyz");
}

}  // namespace
