#include "common/name_val_file.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "common/return_codes.h"
#include "common/test_files.h"

namespace {

class NameValFileTest : public test_files::ScratchDir {
protected:
    void SetUp() override
    {
        ScratchDir::SetUp();
        path_ = dir_ + "/ifcfg";
    }
    void write(const std::string& text) { test_files::WriteFile(path_, text); }
    std::string path_;
};

// What a file's lines parse into, and how many pairs a table holds, the
// fuzz target decides against a line-by-line reading, and its corpus holds
// CR LF, a lone CR, comments, refused bytes in names, empty names and
// values, a file cut without a final newline and an overfull table; looking
// up IPADDR is the network device tests'. Here the bytes the corpus lacks.
TEST_F(NameValFileTest, RefusedAndOrdinaryBytesInValues)
{
    const struct {
        std::string content;
        std::vector<std::pair<std::string, std::string>> pairs;
        const char* note;
    } rows[] = {
        {"r=`\ns=ok\n", {{"s", "ok"}}, "backquote refused in a value"},
        {"x=\x7f\nx=1\x01\nz=1\n", {{"z", "1"}}, "DEL and control bytes refused"},
        {"IPADDR=\"10.0.0.1\"\ne=", {{"IPADDR", "\"10.0.0.1\""}, {"e", ""}}, "quotes; empty value at the end"},
    };
    for (const auto& row : rows) {
        write(row.content);
        Parsing_NameValFile_Class parser;
        ASSERT_EQ(parser.Parsing_FromFile(path_.c_str()), SUCCESS) << row.note;
        std::vector<std::pair<std::string, std::string>> got;
        for (int i = 0; i < parser.GetCount(); ++i)
            got.emplace_back(test_files::TokenText(parser.Get(i)->m_Name), test_files::TokenText(parser.Get(i)->m_Val));
        EXPECT_EQ(got, row.pairs) << row.note;
    }
}

TEST_F(NameValFileTest, LoadRefusesSizesAndSecondLoad)
{
    Parsing_NameValFile_Class parser;
    EXPECT_EQ(parser.Parsing_FromFile(nullptr), DEBUG_WARNING);
    EXPECT_EQ(parser.Parsing_FromFile((dir_ + "/missing").c_str()), CANNOT_FILEOPEN);

    write("");
    EXPECT_EQ(parser.Parsing_FromFile(path_.c_str()), CANNOT_FILEOPEN) << "empty file";

    write(std::string(0x40000, 'a'));
    EXPECT_EQ(parser.Parsing_FromFile(path_.c_str()), DATA_LARGE_THEN_BUF);

    std::string big(0x3FFFF, '#');
    big.replace(0, 4, "k=v\n");
    write(big);
    ASSERT_EQ(parser.Parsing_FromFile(path_.c_str()), SUCCESS) << "one byte below the limit";
    ASSERT_EQ(parser.GetCount(), 1);
    EXPECT_EQ(parser.Parsing_FromFile(path_.c_str()), DEBUG_WARNING) << "an object loads once";
}

}  // namespace
