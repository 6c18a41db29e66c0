#ifndef OSTREL_TESTS_COMMON_TEST_FILES_H
#define OSTREL_TESTS_COMMON_TEST_FILES_H

// Helpers of the unit tests that work on files: a scratch directory for each
// test, whole-file reads and writes, and a token's bytes as a string.
// Included as "common/test_files.h" from any test folder.

#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>

#include "common/tokens.h"
#include "temp_dir.h"

namespace test_files {

// The whole file; "" when it cannot be read.
inline std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// Replaces the file's content with exactly these bytes.
inline void WriteFile(const std::string& path, const std::string& bytes)
{
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// The token's bytes; "" for an empty token.
inline std::string TokenText(const OneToken_Class& t)
{
    return t.GetPtr() == nullptr
               ? std::string()
               : std::string(reinterpret_cast<const char*>(t.GetPtr()), static_cast<size_t>(t.GetLength()));
}

// Fixture base: dir_ is a fresh directory (tests/support's TempDir) for each
// test, removed with everything in it afterwards; with Cwd::Enter the test
// runs in it. A derived SetUp calls ScratchDir::SetUp first.
class ScratchDir : public ::testing::Test {
protected:
    explicit ScratchDir(TempDir::Cwd cwd = TempDir::Cwd::Stay) : cwd_(cwd) {}
    void SetUp() override
    {
        scratch_.emplace("ostrel_test", cwd_);
        dir_ = scratch_->Path();
    }
    void TearDown() override { scratch_.reset(); }

    std::string dir_;

private:
    TempDir::Cwd cwd_;
    std::optional<TempDir> scratch_;
};

}  // namespace test_files

#endif
