#include "conf/directory.h"

#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "conf/name_check.h"

namespace {

class DirectoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/ostrel_dir_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_Dir = tmpl;
        m_Path = m_Dir + "/Directory.Conf";
    }
    void TearDown() override
    {
        unlink(m_Path.c_str());
        rmdir(m_Dir.c_str());
    }
    void WriteConf(const std::string& bytes) const
    {
        std::ofstream out(m_Path, std::ios::binary | std::ios::trunc);
        out << bytes;
    }
    static std::string Dir(const char* text) { return text ? text : "<absent>"; }

    std::string m_Dir;
    std::string m_Path;
};

struct DirRow {
    std::string doc;
    int code;
    const char* sockDir;  // null: absent
    const char* statesDir;
    const char* note;
};

TEST_F(DirectoryTest, DocumentTable)
{
    const std::string longDir = "/" + std::string(300, 'd');
    const std::vector<DirRow> rows = {
        {"<Directory.Conf><UnixDomainSockDir>/tmp/sock</UnixDomainSockDir><StatesDir>/var/run/x/</StatesDir>"
         "</Directory.Conf>",
         SUCCESS, "/tmp/sock/", "/var/run/x/", "'/' added only where missing"},
        {"<Directory.Conf>\n <StatesDir>  /a/b/  </StatesDir>\n</Directory.Conf>", SUCCESS, nullptr, "/a/b/",
         "cut text, no second '/'"},
        {"<Directory.Conf><StatesDir>\r\n\t/a b\r\n</StatesDir></Directory.Conf>", SUCCESS, nullptr, "/a b/",
         "inner blank kept"},
        {"<Directory.Conf><StatesDir>   </StatesDir><UnixDomainSockDir/></Directory.Conf>", SUCCESS, nullptr,
         nullptr, "blank and empty children count as absent"},
        {"<Directory.Conf><StatesDir><x>/a</x></StatesDir></Directory.Conf>", SUCCESS, nullptr, nullptr,
         "child elements instead of text"},
        {"<Directory.Conf><Other>/o</Other><StatesDir>/s</StatesDir><StatesDir>/t</StatesDir></Directory.Conf>",
         SUCCESS, nullptr, "/s/", "other children ignored, first StatesDir counts"},
        {"<Directory.Conf/>", SUCCESS, nullptr, nullptr, "no children"},
        {"<Directory.Conf><StatesDir>" + longDir + "</StatesDir></Directory.Conf>", SUCCESS, nullptr,
         nullptr /* checked below */, "long text is cut to the field"},
        {"<Directory><StatesDir>/s</StatesDir></Directory>", XMLPARSER_PARSER_ERROR, nullptr, nullptr, "wrong root"},
        {"  ", XMLPARSER_PARSER_ERROR, nullptr, nullptr, "no root at all"},
        {"<Directory.Conf><StatesDir>/s</Statesdir></Directory.Conf>", XMLPARSER_PARSER_ERROR, nullptr, nullptr,
         "mismatched tags"},
        {"", CANNOT_FILEOPEN, nullptr, nullptr, "empty file"},
    };
    for (const DirRow& row : rows) {
        SCOPED_TRACE(row.note);
        WriteConf(row.doc);
        PPD_Directory_Class dir;
        // A previous read must not leak into a failing one.
        WriteConf("<Directory.Conf><StatesDir>/old</StatesDir></Directory.Conf>");
        ASSERT_EQ(dir.Parsing_FromFile(m_Path.c_str()), SUCCESS);
        WriteConf(row.doc);
        ASSERT_EQ(dir.Parsing_FromFile(m_Path.c_str()), row.code);
        EXPECT_EQ(Dir(dir.GetUnixDomainSockDir()), Dir(row.sockDir));
        if (row.doc.find(longDir) != std::string::npos) {
            EXPECT_EQ(Dir(dir.GetStatesDir()), longDir.substr(0, 255));
        } else {
            EXPECT_EQ(Dir(dir.GetStatesDir()), Dir(row.statesDir));
        }
    }
}

TEST_F(DirectoryTest, MissingFileIsReportedAndLeavesDirectoriesAbsent)
{
    PPD_Directory_Class dir;
    EXPECT_EQ(dir.Parsing_FromFile((m_Dir + "/none").c_str()), CANNOT_FILEOPEN);
    EXPECT_EQ(dir.GetStatesDir(), nullptr);
    EXPECT_EQ(dir.Parsing_FromFile(nullptr), DEBUG_WARNING);
}

TEST_F(DirectoryTest, StatesFilePathRule)
{
    PPD_Directory_Class dir;
    char path[256];
    ASSERT_EQ(dir.Make_StatesFilePath("cam01", path, sizeof path), SUCCESS);
    EXPECT_STREQ(path, "tmp.cam01.States");

    WriteConf("<Directory.Conf><StatesDir>/var/run/x</StatesDir></Directory.Conf>");
    ASSERT_EQ(dir.Parsing_FromFile(m_Path.c_str()), SUCCESS);
    ASSERT_EQ(dir.Make_StatesFilePath("cam01", path, sizeof path), SUCCESS);
    EXPECT_STREQ(path, "/var/run/x/cam01.States");

    char small[12];
    EXPECT_EQ(dir.Make_StatesFilePath("cam01", small, sizeof small), DATA_LARGE_THEN_BUF);
    EXPECT_STREQ(small, "/var/run/x/");
}

TEST(PPDNameCheckTest, AllowsOnlyFileNameSafeBytes)
{
    struct Row {
        const char* name;
        int code;
    };
    const Row rows[] = {
        {"cam01", SUCCESS},          {"Cam_01.v2", SUCCESS},         {"", SUCCESS},
        {"cam-01", FOUND_ILLIGAL_CHAR}, {"../cam", FOUND_ILLIGAL_CHAR}, {"cam 01", FOUND_ILLIGAL_CHAR},
        {"cam\xC3\xA9", FOUND_ILLIGAL_CHAR}, {"cam`", FOUND_ILLIGAL_CHAR}, {"a:b", FOUND_ILLIGAL_CHAR},
        {nullptr, DEBUG_WARNING},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(PPDNameCheck(row.name), row.code) << (row.name ? row.name : "(null)");
    }
}

}  // namespace
