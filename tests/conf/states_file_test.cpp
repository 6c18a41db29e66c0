#include "conf/states_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"

namespace {

class StatesFileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/ostrel_states_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_Dir = tmpl;
        m_Path = m_Dir + "/cam01.States";
    }
    void TearDown() override
    {
        unlink(m_Path.c_str());
        rmdir(m_Dir.c_str());
    }

    std::string ReadFile() const
    {
        std::ifstream in(m_Path, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    void WriteFile(const std::string& bytes) const
    {
        std::ofstream out(m_Path, std::ios::binary | std::ios::trunc);
        out << bytes;
    }
    // The PPD_VersionTime text of a written document, checked against the
    // build stamp's format only (the actual build date is not known here).
    static std::string VersionTime(const std::string& doc)
    {
        const std::string open = " <PPD_VersionTime>";
        const size_t from = doc.find(open);
        const size_t to = doc.find("</PPD_VersionTime>\n");
        if (from == std::string::npos || to == std::string::npos || to < from) {
            return "<missing>";
        }
        return doc.substr(from + open.size(), to - from - open.size());
    }

    std::string m_Dir;
    std::string m_Path;
};

bool IsDigits(const std::string& s, size_t pos, size_t n)
{
    for (size_t i = pos; i < pos + n; i++) {
        if (i >= s.size() || s[i] < '0' || s[i] > '9') return false;
    }
    return true;
}

// "Mmm dd yyyy": English month, day padded with a blank, four-digit year.
bool IsBuildDate(const std::string& s)
{
    static const std::string months = "JanFebMarAprMayJunJulAugSepOctNovDec";
    if (s.size() != 11 || s[3] != ' ' || s[6] != ' ') return false;
    const size_t m = months.find(s.substr(0, 3));
    if (m == std::string::npos || m % 3 != 0) return false;
    const bool day = (s[4] == ' ' && s[5] >= '1' && s[5] <= '9') ||
                     (s[4] >= '1' && s[4] <= '3' && IsDigits(s, 5, 1));
    return day && IsDigits(s, 7, 4);
}

// "HH:MM:SS".
bool IsBuildTime(const std::string& s)
{
    return s.size() == 8 && IsDigits(s, 0, 2) && s[2] == ':' && IsDigits(s, 3, 2) && s[5] == ':' &&
           IsDigits(s, 6, 2);
}

TEST_F(StatesFileTest, PlainDocumentByteForByte)
{
    PPDStatesFile_Class states;
    ASSERT_EQ(states.SetType("Ostrel"), SUCCESS);
    ASSERT_EQ(states.Init("cam01", m_Path.c_str()), SUCCESS);
    states.SetProcessId(4321);
    states.SetPort(2005);
    ASSERT_EQ(states.StatesWrite("NormalOperating"), SUCCESS);

    const std::string doc = ReadFile();
    const std::string stamp = VersionTime(doc);
    EXPECT_TRUE(stamp.size() == 20 && IsBuildTime(stamp.substr(0, 8)) && stamp[8] == ' ' &&
                IsBuildDate(stamp.substr(9)))
        << stamp;
    EXPECT_EQ(doc,
              "<PPD.States>\n"
              " <PPD_Type>Ostrel</PPD_Type>\n"
              " <PPD_VersionTime>" + stamp + "</PPD_VersionTime>\n"
              " <PPD_Name>cam01</PPD_Name>\n"
              " <States>NormalOperating</States>\n"
              " <ProcessId>4321</ProcessId>\n"
              " <Port>2005</Port>\n"
              "</PPD.States>\n");

    struct stat st;
    ASSERT_EQ(stat(m_Path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
}

TEST_F(StatesFileTest, CommentDocumentCarriesDateAloneAndTruncatesOldContent)
{
    PPDStatesFile_Class states;
    ASSERT_EQ(states.Init("cam01", m_Path.c_str()), SUCCESS);
    WriteFile(std::string(2000, 'x'));
    ASSERT_EQ(states.StatesWrite("NormalOperating"), SUCCESS);
    const std::string plainStamp = VersionTime(ReadFile());

    states.SetPort(-1);
    ASSERT_EQ(states.StatesWrite_WithComment("ErrorExit", "Control Listen Port , can not open."), SUCCESS);
    const std::string doc = ReadFile();
    const std::string stamp = VersionTime(doc);
    EXPECT_TRUE(IsBuildDate(stamp)) << stamp;
    EXPECT_EQ(plainStamp.substr(9), stamp) << "both writers name the same build";
    EXPECT_EQ(doc,
              "<PPD.States>\n"
              " <PPD_Type></PPD_Type>\n"
              " <PPD_VersionTime>" + stamp + "</PPD_VersionTime>\n"
              " <PPD_Name>cam01</PPD_Name>\n"
              " <States>ErrorExit</States>\n"
              " <ProcessId>0</ProcessId>\n"
              " <Port>-1</Port>\n"
              " <Comment>Control Listen Port , can not open.</Comment>\n"
              "</PPD.States>\n");
}

TEST_F(StatesFileTest, WrittenFileReadsBack)
{
    PPDStatesFile_Class writer;
    ASSERT_EQ(writer.SetType("Ostrel"), SUCCESS);
    ASSERT_EQ(writer.Init("cam01", m_Path.c_str()), SUCCESS);
    writer.SetProcessId(77);
    writer.SetPort(9999);
    ASSERT_EQ(writer.StatesWrite_WithComment("ErrorExit", "For invalid argument"), SUCCESS);

    PPDStatesFile_Class reader;
    ASSERT_EQ(reader.Init("cam01", m_Path.c_str()), SUCCESS);
    ASSERT_EQ(reader.StatesRead(), SUCCESS);
    EXPECT_STREQ(reinterpret_cast<const char*>(reader.GetStates().GetPtr()), "ErrorExit");
    EXPECT_EQ(reader.GetProcessId(), 77);
    EXPECT_EQ(reader.GetPort(), 9999);

    // A second read replaces the first one's States text.
    writer.SetProcessId(78);
    ASSERT_EQ(writer.StatesWrite("NormalOperating"), SUCCESS);
    ASSERT_EQ(reader.StatesRead(), SUCCESS);
    EXPECT_STREQ(reinterpret_cast<const char*>(reader.GetStates().GetPtr()), "NormalOperating");
    EXPECT_EQ(reader.GetProcessId(), 78);
}

struct ReadRow {
    std::string doc;
    int code;
    const char* states;
    int pid;
    int port;
    const char* note;
};

TEST_F(StatesFileTest, ReadTable)
{
    const std::vector<ReadRow> rows = {
        {"<PPD.States><States>NormalOperating</States><Port>2001</Port></PPD.States>", SUCCESS, "NormalOperating", -1,
         2001, "no ProcessId"},
        {"<PPD.States><States>X</States><ProcessId>12</ProcessId></PPD.States>", SUCCESS, "X", 12, -1, "no Port"},
        {"<?xml version='1.0'?>\n<PPD.States>\n <States>\n  Normal  Operating \n </States>\n</PPD.States>\n", SUCCESS,
         "Normal Operating", -1, -1, "States text is cut"},
        {"<PPD.States><ProcessId>12</ProcessId></PPD.States>", NOTFOUND_ITEM, nullptr, 0, 0, "no States"},
        {"<PPD.States><States/></PPD.States>", NOTFOUND_ITEM, nullptr, 0, 0, "empty States"},
        {"<PPD.State><States>X</States></PPD.State>", XMLPARSER_PARSER_ERROR, nullptr, 0, 0, "wrong root"},
        {"just text", XMLPARSER_PARSER_ERROR, nullptr, 0, 0, "no root"},
        {"<PPD.States><States>X</State></PPD.States>", XMLPARSER_PARSER_ERROR, nullptr, 0, 0, "broken document"},
        {"", CANNOT_FILEOPEN, nullptr, 0, 0, "empty file (being rewritten)"},
    };
    for (const ReadRow& row : rows) {
        SCOPED_TRACE(row.note);
        WriteFile(row.doc);
        PPDStatesFile_Class states;
        ASSERT_EQ(states.Init("cam01", m_Path.c_str()), SUCCESS);
        ASSERT_EQ(states.StatesRead(), row.code);
        if (row.code == SUCCESS) {
            EXPECT_STREQ(reinterpret_cast<const char*>(states.GetStates().GetPtr()), row.states);
            EXPECT_EQ(states.GetProcessId(), row.pid);
            EXPECT_EQ(states.GetPort(), row.port);
        }
    }
}

TEST_F(StatesFileTest, PresenceAndRemoval)
{
    PPDStatesFile_Class states;
    ASSERT_EQ(states.Init("cam01", m_Path.c_str()), SUCCESS);
    EXPECT_EQ(states.IsFile(), NOTFOUND_FILE);
    EXPECT_EQ(states.StatesRead(), CANNOT_FILEOPEN);
    ASSERT_EQ(states.StatesWrite("NormalOperating"), SUCCESS);
    EXPECT_EQ(states.IsFile(), SUCCESS);
    EXPECT_EQ(states.FileUnLink(), SUCCESS);
    EXPECT_EQ(states.IsFile(), NOTFOUND_FILE);
    EXPECT_EQ(states.FileUnLink(), SYS_FUNC_ERROR);

    PPDStatesFile_Class nowhere;
    ASSERT_EQ(nowhere.Init("cam01", (m_Dir + "/missing/cam01.States").c_str()), SUCCESS);
    EXPECT_EQ(nowhere.StatesWrite("NormalOperating"), SYS_FUNC_ERROR);
    EXPECT_EQ(nowhere.StatesWrite_WithComment("ErrorExit", "For invalid argument"), SYS_FUNC_ERROR);
}

}  // namespace
