#include "conf/directory.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "common/test_files.h"
#include "conf/name_check.h"

namespace {

class DirectoryTest : public test_files::ScratchDir {
protected:
    void SetUp() override
    {
        ScratchDir::SetUp();
        m_Path = dir_ + "/Directory.Conf";
    }
    int Parse(const std::string& bytes)
    {
        test_files::WriteFile(m_Path, bytes);
        return m_Conf.Parsing_FromFile(m_Path.c_str());
    }
    static std::string Text(const char* dir) { return dir ? dir : "<absent>"; }

    std::string m_Path;
    PPD_Directory_Class m_Conf;
};

TEST_F(DirectoryTest, DocumentTable)
{
    struct Row {
        std::string doc;
        int code;
        std::string sockDir, statesDir;
        const char* note;
    };
    const std::string longDir = "/" + std::string(300, 'd');
    const std::string root = "<Directory.Conf>", end = "</Directory.Conf>";
    const std::vector<Row> rows = {
        {root + "<UnixDomainSockDir>/tmp/s</UnixDomainSockDir><StatesDir>/run/x/</StatesDir>" + end, SUCCESS, "/tmp/s/",
         "/run/x/", "'/' added only where missing"},
        {root + "\n <StatesDir>  /a/b/  </StatesDir>\n" + end, SUCCESS, "<absent>", "/a/b/", "cut, no second '/'"},
        {root + "<StatesDir>\r\n\t/a  b\r\n</StatesDir>" + end, SUCCESS, "<absent>", "/a b/", "inner run folded"},
        {root + "<StatesDir>   </StatesDir><UnixDomainSockDir/>" + end, SUCCESS, "<absent>", "<absent>",
         "blank and empty children count as absent"},
        {root + "<StatesDir><x>/a</x></StatesDir>" + end, SUCCESS, "<absent>", "<absent>", "elements, not text"},
        {root + "<O>/o</O><StatesDir>/s</StatesDir><StatesDir>/t</StatesDir>" + end, SUCCESS, "<absent>", "/s/",
         "other children ignored, first StatesDir counts"},
        {root + "<StatesDir>" + longDir + "</StatesDir>" + end, SUCCESS, "<absent>", longDir.substr(0, 255),
         "long text is cut to the field"},
        {"<Directory><StatesDir>/s</StatesDir></Directory>", XMLPARSER_PARSER_ERROR, "<absent>", "<absent>",
         "wrong root"},
        {"  ", XMLPARSER_PARSER_ERROR, "<absent>", "<absent>", "no root at all"},
        {root + "<StatesDir>/s</Statesdir>" + end, XMLPARSER_PARSER_ERROR, "<absent>", "<absent>", "mismatched tags"},
        {"", CANNOT_FILEOPEN, "<absent>", "<absent>", "empty file"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        // What an earlier read found must not survive into this one.
        ASSERT_EQ(Parse(root + "<StatesDir>/old</StatesDir><UnixDomainSockDir>/u</UnixDomainSockDir>" + end), SUCCESS);
        ASSERT_EQ(Parse(row.doc), row.code);
        EXPECT_EQ(Text(m_Conf.GetUnixDomainSockDir()), row.sockDir);
        EXPECT_EQ(Text(m_Conf.GetStatesDir()), row.statesDir);
    }
    EXPECT_EQ(m_Conf.Parsing_FromFile((dir_ + "/none").c_str()), CANNOT_FILEOPEN);
}

TEST_F(DirectoryTest, StatesFilePathRule)
{
    char path[256];
    ASSERT_EQ(m_Conf.Make_StatesFilePath("cam01", path, sizeof path), SUCCESS);
    EXPECT_STREQ(path, "tmp.cam01.States");

    ASSERT_EQ(Parse("<Directory.Conf><StatesDir>/var/run/x</StatesDir></Directory.Conf>"), SUCCESS);
    ASSERT_EQ(m_Conf.Make_StatesFilePath("cam01", path, sizeof path), SUCCESS);
    EXPECT_STREQ(path, "/var/run/x/cam01.States");
    char small[12];
    EXPECT_EQ(m_Conf.Make_StatesFilePath("cam01", small, sizeof small), DATA_LARGE_THEN_BUF);
    EXPECT_STREQ(small, "/var/run/x/");
}

TEST(PPDNameCheckTest, AllowsOnlyFileNameSafeBytes)
{
    for (const char* ok : {"cam01", "Cam_01.v2", ""}) {
        EXPECT_EQ(PPDNameCheck(ok), SUCCESS) << ok;
    }
    for (const char* bad : {"cam-01", "../cam", "cam 01", "cam\xC3\xA9", "cam`", "a:b"}) {
        EXPECT_EQ(PPDNameCheck(bad), FOUND_ILLIGAL_CHAR) << bad;
    }
    EXPECT_EQ(PPDNameCheck(nullptr), DEBUG_WARNING);
}

}  // namespace
