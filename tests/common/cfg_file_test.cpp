#include "common/cfg_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/test_files.h"

namespace {

using test_files::ReadFile;
using test_files::WriteFile;

// Each test also gets its own semaphore key, so test programs running side
// by side never wait on each other; the set is removed afterwards.
class CfgFileTest : public test_files::ScratchDir {
protected:
    void SetUp() override
    {
        ScratchDir::SetUp();
        file_ = dir_ + "/Config.txt";
        key_ = 0x4F530000 + (getpid() & 0xFFFF);
        log_ = new DbPrintf_Class((dir_ + "/log.txt").c_str(), 1);
    }
    void TearDown() override
    {
        delete log_;
        int id = semget(key_, 1, 0);
        if (id != -1)
            semctl(id, 0, IPC_RMID);
        ScratchDir::TearDown();
    }
    int semValue()
    {
        int id = semget(key_, 1, 0);
        return id == -1 ? -1 : semctl(id, 0, GETVAL);
    }
    std::string logText() { return ReadFile(dir_ + "/log.txt"); }

    std::string file_;
    int key_ = 0;
    DbPrintf_Class* log_ = nullptr;
};

struct ReadRow {
    const char* content;
    const char* item;
    int outSize;
    int code;
    const char* value;
    const char* note;
};

// The fuzz target compares every read with a plain reading of the file; its
// corpus holds comments, indented lines, leading '='s, kept trailing blanks
// and CR, an empty value, a bare name, the second piece of a long line and a
// value longer than the field. Here the rest, and the lock after each read.
TEST_F(CfgFileTest, ReadFollowsTheLineSyntax)
{
    const ReadRow rows[] = {
        {"a=1\na=2\n", "a", 256, SUCCESS, "1", "first of two wins"},
        {"a=x=y\n", "a", 256, SUCCESS, "x=y", "value keeps further '='"},
        {"a = 1\n", "a ", 256, SUCCESS, " 1", "name keeps its blank"},
        {"a = 1\n", "a", 256, NOTFOUND_ITEM, "", "no trimming of names"},
        {"A=1\n", "a", 256, NOTFOUND_ITEM, "", "names are case-sensitive"},
        {"a=123\n", "a", 4, SUCCESS, "123", "value fills the field"},
        {"a=1234\n", "a", 4, DATA_LARGE_THEN_BUF, "", "value longer than the field"},
    };
    for (const ReadRow& row : rows) {
        SCOPED_TRACE(row.note);
        WriteFile(file_, row.content);
        char out[256];
        std::memset(out, 'Z', sizeof out);
        EXPECT_EQ(co_CfgFile_Read(file_.c_str(), key_, row.item, out, row.outSize, nullptr), row.code);
        if (row.code == SUCCESS || row.code == DATA_LARGE_THEN_BUF) {
            EXPECT_STREQ(out, row.value);
        }
        // Whatever happened, the semaphore is free again.
        EXPECT_EQ(semValue(), 1);
    }
}

TEST_F(CfgFileTest, ArgumentAndFileFailuresLogTheirTexts)
{
    char out[256];
    const std::string name257(257, 'n');
    EXPECT_EQ(co_CfgFile_Read(nullptr, key_, "a", out, 256, log_), INVALID_ARGUMENT);
    EXPECT_EQ(co_CfgFile_Read(name257.c_str(), key_, "a", out, 256, log_), INVALID_ARGUMENT);
    EXPECT_EQ(co_CfgFile_Read(std::string(256, 'n').c_str(), key_, "a", out, 256, log_), CANNOT_FILEOPEN)
        << "256 characters are still allowed";
    EXPECT_EQ(co_CfgFile_Read(file_.c_str(), key_, nullptr, out, 256, log_), INVALID_ARGUMENT);
    EXPECT_EQ(co_CfgFile_Read(file_.c_str(), key_, "a", nullptr, 256, log_), INVALID_ARGUMENT);
    EXPECT_EQ(co_CfgFile_Read((dir_ + "/missing").c_str(), key_, "a", out, 256, log_), CANNOT_FILEOPEN);
    EXPECT_EQ(semValue(), 1) << "a failed open must still release the semaphore";

    const std::string log = logText();
    for (const std::string& text : {
             std::string("[co_CfgFile_Read] filename == NULL\n"),
             "[co_CfgFile_Read] strlen(filename " + name257 + ") > FNAME_MAXSIZE\n",
             std::string("[co_CfgFile_Read] itemname == NULL\n"),
             "[co_CfgFile_Read] fopen(filename " + dir_ + "/missing) failed\n",
         }) {
        EXPECT_NE(log.find(text), std::string::npos) << text;
    }
}

TEST_F(CfgFileTest, SemaphoreIsCreatedOnceAndNotReinitialised)
{
    int id = -1;
    EXPECT_EQ(co_semaphore_getid(key_, nullptr, nullptr), SEMAPHORE_ERROR);
    ASSERT_EQ(co_semaphore_getid(key_, &id, nullptr), SUCCESS);
    EXPECT_EQ(semValue(), 1);
    ASSERT_EQ(co_semaphore_p(id, nullptr), SUCCESS);
    EXPECT_EQ(semValue(), 0);

    // A second opener while the semaphore is held must not reset it to 1,
    // or two holders would be inside at once.
    int again = -1;
    ASSERT_EQ(co_semaphore_getid(key_, &again, nullptr), SUCCESS);
    EXPECT_EQ(again, id);
    EXPECT_EQ(semValue(), 0);
    ASSERT_EQ(co_semaphore_v(id, nullptr), SUCCESS);
    EXPECT_EQ(semValue(), 1);

    ASSERT_EQ(semctl(id, 0, IPC_RMID), 0);
    EXPECT_EQ(co_semaphore_p(id, log_), SEMAPHORE_ERROR);
    EXPECT_NE(logText().find("[co_semaphore_p] semop(sem_id " + std::to_string(id) + ") failed\n"), std::string::npos);
}

TEST_F(CfgFileTest, HolderThatDiesGivesTheSemaphoreBack)
{
    int id = -1;
    ASSERT_EQ(co_semaphore_getid(key_, &id, nullptr), SUCCESS);
    pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0)
        _exit(co_semaphore_p(id, nullptr) == SUCCESS ? 0 : 1);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(semValue(), 1);
}

// Write truncates and refills the file; a reader in another process that
// got in between would find the item missing or cut.
TEST_F(CfgFileTest, ReaderInAnotherProcessNeverSeesAHalfWrittenFile)
{
    const std::string valueA(200, 'A');
    const std::string valueB(200, 'B');
    std::string content;
    // Large enough that a rewrite takes several write calls.
    for (int i = 0; i < 400; ++i)
        content += "filler_" + std::to_string(i) + "=" + std::string(100, 'f') + "\n";
    content += "item=" + valueA + "\n";
    WriteFile(file_, content);

    constexpr int kRounds = 300;
    pid_t pid = fork();
    ASSERT_NE(pid, -1);
    if (pid == 0) {
        int bad = 0;
        for (int i = 0; i < kRounds; ++i) {
            char out[256];
            int rc = co_CfgFile_Read(file_.c_str(), key_, "item", out, 256, nullptr);
            if (rc != SUCCESS || (out != valueA && out != valueB))
                ++bad;
        }
        _exit(bad == 0 ? 0 : 1);
    }
    int writeFailures = 0;
    for (int i = 0; i < kRounds; ++i) {
        const std::string& v = (i % 2) ? valueA : valueB;
        if (co_CfgFile_Write(file_.c_str(), key_, "item", v.c_str(), nullptr) != SUCCESS)
            ++writeFailures;
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(writeFailures, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the reader saw a missing or cut value";
}

}  // namespace
