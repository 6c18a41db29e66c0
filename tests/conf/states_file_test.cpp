#include "conf/states_file.h"

#include <ctype.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "common/test_files.h"

namespace {

class StatesFileTest : public test_files::ScratchDir {
protected:
    void SetUp() override
    {
        ScratchDir::SetUp();
        m_Path = dir_ + "/cam01.States";
        ASSERT_EQ(m_States.Init("cam01", m_Path.c_str()), SUCCESS);
    }
    std::string ReadFile() const { return test_files::ReadFile(m_Path); }
    void WriteFile(const std::string& bytes) const { test_files::WriteFile(m_Path, bytes); }

    // The PPD_VersionTime text. The build stamp itself is unknown here, so
    // tests compare its shape: digits become '9', letters 'a'.
    static std::string VersionTime(const std::string& doc)
    {
        const std::string open = " <PPD_VersionTime>";
        const size_t from = doc.find(open), to = doc.find("</PPD_VersionTime>\n");
        if (from == std::string::npos || to == std::string::npos)
            return "";
        return doc.substr(from + open.size(), to - from - open.size());
    }
    static std::string Shape(const std::string& s)
    {
        std::string out;
        for (unsigned char c : s)
            out += isdigit(c) ? '9' : isalpha(c) ? 'a' : static_cast<char>(c);
        return out;
    }
    static bool IsBuildDate(const std::string& s)
    {
        const std::string months = "JanFebMarAprMayJunJulAugSepOctNovDec";
        const size_t m = months.find(s.substr(0, 3));
        return m != std::string::npos && m % 3 == 0 && (Shape(s) == "aaa 99 9999" || Shape(s) == "aaa  9 9999");
    }

    std::string m_Path;
    PPDStatesFile_Class m_States;
};

TEST_F(StatesFileTest, PlainDocumentByteForByte)
{
    ASSERT_EQ(m_States.SetType("Ostrel"), SUCCESS);
    m_States.SetProcessId(4321);
    m_States.SetPort(2005);
    ASSERT_EQ(m_States.StatesWrite("NormalOperating"), SUCCESS);

    const std::string doc = ReadFile();
    const std::string stamp = VersionTime(doc);
    EXPECT_EQ(Shape(stamp.substr(0, 9)), "99:99:99 ");
    EXPECT_TRUE(IsBuildDate(stamp.substr(9))) << stamp;
    EXPECT_EQ(doc, "<PPD.States>\n <PPD_Type>Ostrel</PPD_Type>\n <PPD_VersionTime>" + stamp +
                       "</PPD_VersionTime>\n <PPD_Name>cam01</PPD_Name>\n <States>NormalOperating</States>\n"
                       " <ProcessId>4321</ProcessId>\n <Port>2005</Port>\n</PPD.States>\n");
    struct stat st;
    ASSERT_EQ(stat(m_Path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);

    PPDStatesFile_Class reader;
    ASSERT_EQ(reader.Init("cam01", m_Path.c_str()), SUCCESS);
    ASSERT_EQ(reader.StatesRead(), SUCCESS);
    EXPECT_STREQ(reinterpret_cast<const char*>(reader.GetStates().GetPtr()), "NormalOperating");
    EXPECT_EQ(reader.GetProcessId(), 4321);
    EXPECT_EQ(reader.GetPort(), 2005);
}

TEST_F(StatesFileTest, CommentDocumentCarriesDateAloneAndTruncatesOldContent)
{
    ASSERT_EQ(m_States.StatesWrite("NormalOperating"), SUCCESS);
    const std::string plainStamp = VersionTime(ReadFile());
    WriteFile(std::string(2000, 'x'));

    m_States.SetPort(-1);
    ASSERT_EQ(m_States.StatesWrite_WithComment("ErrorExit", "Control Listen Port , can not open."), SUCCESS);
    const std::string doc = ReadFile();
    const std::string stamp = VersionTime(doc);
    EXPECT_TRUE(IsBuildDate(stamp)) << stamp;
    EXPECT_EQ(plainStamp.substr(9), stamp) << "both writers name the same build";
    EXPECT_EQ(doc, "<PPD.States>\n <PPD_Type></PPD_Type>\n <PPD_VersionTime>" + stamp +
                       "</PPD_VersionTime>\n <PPD_Name>cam01</PPD_Name>\n <States>ErrorExit</States>\n"
                       " <ProcessId>0</ProcessId>\n <Port>-1</Port>\n"
                       " <Comment>Control Listen Port , can not open.</Comment>\n</PPD.States>\n");
}

TEST_F(StatesFileTest, ReadTable)
{
    struct Row {
        std::string doc;
        int code;
        const char* states;
        int pid;
        int port;
        const char* note;
    };
    const std::vector<Row> rows = {
        {"<PPD.States><States>A</States><Port>2001</Port></PPD.States>", SUCCESS, "A", -1, 2001, "no ProcessId"},
        {"<PPD.States><States>X</States><ProcessId>12</ProcessId></PPD.States>", SUCCESS, "X", 12, -1, "no Port"},
        {"<?xml version='1.0'?>\n<PPD.States>\n <States>\n  Normal  Op \n </States>\n</PPD.States>\n", SUCCESS,
         "Normal Op", -1, -1, "States text is cut"},
        {"<PPD.States><ProcessId>12</ProcessId></PPD.States>", NOTFOUND_ITEM, "", 0, 0, "no States"},
        {"<PPD.States><States/></PPD.States>", NOTFOUND_ITEM, "", 0, 0, "empty States"},
        {"<PPD.State><States>X</States></PPD.State>", XMLPARSER_PARSER_ERROR, "", 0, 0, "wrong root"},
        {"just text", XMLPARSER_PARSER_ERROR, "", 0, 0, "no root"},
        {"<PPD.States><States>X</State></PPD.States>", XMLPARSER_PARSER_ERROR, "", 0, 0, "broken document"},
        {"", CANNOT_FILEOPEN, "", 0, 0, "empty file (being rewritten)"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        WriteFile(row.doc);
        ASSERT_EQ(m_States.StatesRead(), row.code);
        if (row.code == SUCCESS) {
            EXPECT_STREQ(reinterpret_cast<const char*>(m_States.GetStates().GetPtr()), row.states);
            EXPECT_EQ(m_States.GetProcessId(), row.pid);
            EXPECT_EQ(m_States.GetPort(), row.port);
        }
    }
}

}  // namespace
