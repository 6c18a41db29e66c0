#include "conf/write_if_changed.h"

#include <gtest/gtest.h>

#include <string>

#include <sys/stat.h>
#include <sys/time.h>

#include "common/return_codes.h"
#include "common/string_buf.h"
#include "common/test_files.h"

namespace {

class WriteIfChangedTest : public test_files::ScratchDir {};

// Each row writes over the file the previous rows left: the file's bytes
// after it, and whether it was written (a rewrite moves the backdated
// modification time).
TEST_F(WriteIfChangedTest, WritesOnlyChangedContent)
{
    const std::string path = dir_ + "/file";
    const struct {
        const char* content;
        bool written;
        const char* after;  // null: the content
    } rows[] = {
        {"0123456789", true, nullptr},                 // new file
        {"0123456789", false, nullptr},                // same content
        {"abcdefghij", true, nullptr},                 // same size, other bytes
        {"AAAAAAAAAABBBBBBBBBB", true, nullptr},       // longer
        {"0123456789", true, "0123456789BBBBBBBBBB"},  // shorter: the old tail stays
    };
    const mode_t oldMask = umask(022);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.content);
        const timeval past[2] = {{1000000000, 0}, {1000000000, 0}};
        utimes(path.c_str(), past);
        StringBuf_Class buf(256);
        buf.add("%s", row.content);
        ASSERT_EQ(FileIsNewCheck_AndWrite(path.c_str(), &buf), SUCCESS);
        EXPECT_EQ(test_files::ReadFile(path), row.after ? row.after : row.content);
        struct stat st {};
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mtime != 1000000000, row.written);
        EXPECT_EQ(st.st_mode & 0777, 0666u) << "the mode is set explicitly, past the umask";
    }
    umask(oldMask);

    StringBuf_Class buf(16);
    buf.add("x");
    EXPECT_EQ(FileIsNewCheck_AndWrite((dir_ + "/no/dir/file").c_str(), &buf), SYS_FUNC_ERROR);
    EXPECT_EQ(FileIsNewCheck_AndWrite(nullptr, &buf), DEBUG_WARNING);
    EXPECT_EQ(FileIsNewCheck_AndWrite(path.c_str(), nullptr), DEBUG_WARNING);
}

}  // namespace
