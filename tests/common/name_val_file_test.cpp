#include "common/name_val_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "common/return_codes.h"
#include "common/test_files.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

class NameValFileTest : public test_files::ScratchDir {};

// Whole files and the pairs they parse into (a fresh object each, capacity 8),
// then the files a load refuses.
TEST_F(NameValFileTest, FilesAndTheirPairs)
{
    const std::string path = dir_ + "/ifcfg";
    const struct {
        std::string content;
        Pairs pairs;
        const char* note;
    } cases[] = {
        {"a=1\r\nb#=2\nc=x=y\nd=\ne=5", {{"a", "1"}, {"d", ""}, {"e", "5"}}, "CR LF, '#' in a name, second '=', no final LF"},
        {"# c\n=v\n k=a #b\n", {{"", "v"}, {" k", "a #b"}}, "comment; empty name; blank in a name, '#' in a value"},
        {"r=`\nx=\x7f\ny=1\x01\ns=ok\n", {{"s", "ok"}}, "backquote, DEL and control bytes refused"},
        {"IPADDR=\"10.0.0.1\"\ne=", {{"IPADDR", "\"10.0.0.1\""}, {"e", ""}}, "quotes; empty value at the end"},
        {"1=a\n2=b\n3=c\n4=d\n5=e\n6=f\n7=g\n8=h\n9=i\n",
         {{"1", "a"}, {"2", "b"}, {"3", "c"}, {"4", "d"}, {"5", "e"}, {"6", "f"}, {"7", "g"}, {"8", "h"}},
         "the ninth pair is dropped silently"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.note);
        test_files::WriteFile(path, row.content);
        Parsing_NameValFile_Class parser;
        ASSERT_EQ(parser.Parsing_FromFile(path.c_str()), SUCCESS);
        Pairs got;
        for (int i = 0; i < parser.GetCount(); ++i)
            got.emplace_back(test_files::TokenText(parser.Get(i)->m_Name), test_files::TokenText(parser.Get(i)->m_Val));
        EXPECT_EQ(got, row.pairs);
        EXPECT_EQ(parser.Parsing_FromFile(path.c_str()), DEBUG_WARNING) << "an object loads once";
    }

    std::string justBelow(0x3FFFF, '#');
    justBelow.replace(0, 4, "k=v\n");
    const struct {
        const char* content;  // null: no file
        std::string bytes;
        int code;
        const char* note;
    } rejects[] = {
        {nullptr, "", CANNOT_FILEOPEN, "missing file"},
        {"", "", CANNOT_FILEOPEN, "empty file"},
        {"", std::string(0x40000, 'a'), DATA_LARGE_THEN_BUF, "262144 bytes"},
        {"", justBelow, SUCCESS, "one byte below the limit"},
    };
    for (const auto& row : rejects) {
        SCOPED_TRACE(row.note);
        ::unlink(path.c_str());
        if (row.content != nullptr)
            test_files::WriteFile(path, row.bytes);
        Parsing_NameValFile_Class parser;
        EXPECT_EQ(parser.Parsing_FromFile(path.c_str()), row.code);
    }
    Parsing_NameValFile_Class parser;
    EXPECT_EQ(parser.Parsing_FromFile(nullptr), DEBUG_WARNING);
}

}  // namespace
