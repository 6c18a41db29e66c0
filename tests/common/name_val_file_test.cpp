#include "common/name_val_file.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>


#include "common/return_codes.h"
#include "common/test_files.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

using test_files::TokenText;

Pairs pairsOf(const Parsing_NameValFile_Class& p)
{
    Pairs out;
    for (int i = 0; i < p.GetCount(); ++i)
        out.emplace_back(TokenText(p.Get(i)->m_Name), TokenText(p.Get(i)->m_Val));
    return out;
}

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

struct ParseRow {
    std::string content;
    Pairs pairs;
    const char* note;
};

TEST_F(NameValFileTest, LinesParseOrAreDropped)
{
    const ParseRow rows[] = {
        {"a=1\r\nb#=2\nc=x=y\nd=\ne=5", {{"a", "1"}, {"d", ""}, {"e", "5"}},
         "CRLF, '#' in a name, second '=', empty value, no final newline"},
        {"#c=3\nb=2\n", {{"b", "2"}}, "comment line"},
        {"v=x # y\n", {{"v", "x # y"}}, "'#' and blanks inside a value"},
        {"=v\n", {{"", "v"}}, "empty name is kept"},
        {"noeq\nk=1\n", {{"k", "1"}}, "line without '='"},
        {"q`=1\nr=`\ns=ok\n", {{"s", "ok"}}, "backquote refused in name and value"},
        {"x=\x7f\ny=\xc3\xa9\nz=1\n", {{"z", "1"}}, "DEL and bytes above 0x7F refused"},
        {"x=1\x01\nz=2\n", {{"z", "2"}}, "control byte in a value"},
        {"IPADDR=\"10.0.0.1\"\n", {{"IPADDR", "\"10.0.0.1\""}}, "quotes are ordinary bytes"},
        {"a=1\rb=2\n", {{"a", "1"}}, "a lone CR ends the value; its line runs to LF"},
        {"e=", {{"e", ""}}, "empty value at the end"},
        {"a=1\nb", {{"a", "1"}}, "name cut by the end"},
        {"a=1\nb=2\nc=3\nd=4\ne=5\nf=6\ng=7\nh=8\ni=9\n",
         {{"a", "1"}, {"b", "2"}, {"c", "3"}, {"d", "4"}, {"e", "5"}, {"f", "6"}, {"g", "7"}, {"h", "8"}},
         "ninth pair dropped by the capacity of 8"},
    };
    for (const ParseRow& row : rows) {
        SCOPED_TRACE(row.note);
        write(row.content);
        Parsing_NameValFile_Class parser;
        ASSERT_EQ(parser.Parsing_FromFile(path_.c_str()), SUCCESS);
        EXPECT_EQ(pairsOf(parser), row.pairs);
    }
}

TEST_F(NameValFileTest, PairsPointIntoTheImageAndSearchByName)
{
    write("DEVICE=eth0\nIPADDR=192.168.0.5\nNETMASK=255.255.255.0\n");
    Parsing_NameValFile_Class parser;
    ASSERT_EQ(parser.Parsing_FromFile(path_.c_str()), SUCCESS);
    OneToken_Class* val = nullptr;
    ASSERT_EQ(parser.Search_NameToVal("IPADDR", &val), SUCCESS);
    EXPECT_EQ(TokenText(*val), "192.168.0.5");
    EXPECT_EQ(val->IsMemAlloc(), 0) << "values are borrowed from the image";
    EXPECT_EQ(parser.Search_NameToVal("GATEWAY", &val), NOTFOUND_ITEM);
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

TEST_F(NameValFileTest, LargerCapacityKeepsMorePairs)
{
    std::string text;
    for (int i = 0; i < 20; ++i)
        text += "k" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    write(text);
    Parsing_NameValFile_Class parser(64);
    EXPECT_EQ(parser.Init(8), ALREADY_INITIALIZE);
    ASSERT_EQ(parser.Parsing_FromFile(path_.c_str()), SUCCESS);
    EXPECT_EQ(parser.GetCount(), 20);
}

}  // namespace
