#include "xml/xml_element.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "xml/xml_parser.h"

namespace {

class XmlElementTest : public ::testing::Test {
protected:
    // Parses a document held by the fixture; the root, or null on failure.
    const XmlElement_Class* Parse(const std::string& doc)
    {
        m_Doc = doc;
        const auto* data = reinterpret_cast<const unsigned char*>(m_Doc.data());
        if (m_Parser.Construct_BufferPointerCopy(data, static_cast<int>(m_Doc.size())) != SUCCESS ||
            m_Parser.ParserMain() != SUCCESS) {
            ADD_FAILURE() << m_Parser.GetMessage();
            return nullptr;
        }
        return m_Parser.GetRootElement();
    }
    static std::string Text(const OneToken_Class& t)
    {
        return t.GetPtr() ? std::string(reinterpret_cast<const char*>(t.GetPtr()), t.GetLength()) : "<empty>";
    }

    std::string m_Doc;
    XmlParser_Class m_Parser;
};

TEST_F(XmlElementTest, CutSpaceTable)
{
    struct Row {
        std::string text;  // between <t> and </t>
        int code;
        std::string cut;
        const char* note;
    };
    const std::vector<Row> rows = {
        {"  12  \r\n  34 ", SUCCESS, "12 \n 34", "blank runs fold, CR LF becomes LF"},
        {"a\t \tb", SUCCESS, "a b", "tabs and blanks fold together"},
        {"a\r\rb", SUCCESS, "a\n\nb", "lone CRs become LFs, not merged"},
        {"a\n\n\nb", SUCCESS, "a\n\n\nb", "LF runs are kept"},
        {"a\r\n\r\nb", SUCCESS, "a\n\nb", "two CR LF pairs"},
        {"\r\n\t x \t\r\n", SUCCESS, "x", "outer whitespace of every kind dropped"},
        {"&amp; <![CDATA[ q ]]>", SUCCESS, "&amp; <![CDATA[ q ]]>", "markup inside text is raw"},
        {" \t\r\n ", STRING_NOT_FOUND, "<empty>", "whitespace only"},
    };
    std::string doc = "<r>";
    for (const Row& row : rows)
        doc += "<t>" + row.text + "</t>";
    const XmlElement_Class* root = Parse(doc + "<e/></r>");
    ASSERT_NE(root, nullptr);
    for (size_t i = 0; i < rows.size(); i++) {
        SCOPED_TRACE(rows[i].note);
        OneToken_Class out;
        EXPECT_EQ(root->GetChildren().Get(static_cast<int>(i))->Get_CutSpace_ElementString(&out), rows[i].code);
        EXPECT_EQ(Text(out), rows[i].cut);
        if (out.GetPtr()) {
            EXPECT_EQ(out.GetPtr()[out.GetLength()], '\0') << "owned copies are terminated";
        }
        out.Clear();
    }
    OneToken_Class out;
    ASSERT_EQ(root->GetChildren().Get(0)->Get_CutSpace_ElementString(&out), SUCCESS);
    EXPECT_EQ(root->GetChildren().Get(0)->Get_CutSpace_ElementString(&out), DEBUG_WARNING) << "token in use";
    out.Clear();
    EXPECT_EQ(root->Get_CutSpace_ElementString(&out), STRING_NOT_FOUND) << "element with children";
    EXPECT_EQ(root->GetChildren().Get(8)->Get_CutSpace_ElementString(&out), STRING_NOT_FOUND) << "empty element";
}

TEST_F(XmlElementTest, ChildLookupByNameAndIndex)
{
    const XmlElement_Class* root = Parse("<r k='7' x=\"\"><a>1</a><b>x</b><a>2</a><a/><c><d/></c></r>");
    ASSERT_NE(root, nullptr);
    XmlElement_Class* found = nullptr;
    ASSERT_EQ(root->Get_ChildElement("a", 1, 1, &found), SUCCESS);
    EXPECT_EQ(Text(found->GetText()), "2");
    EXPECT_EQ(root->Get_ChildElement("a", 1, 3, &found), NOTFOUND_ITEM) << "below the child count, no 4th 'a'";
    EXPECT_EQ(root->Get_ChildElement("a", 1, 5, &found), NO_MATCH_ARGUMENT) << "past the child count";
    EXPECT_EQ(root->Get_ChildElement("A", 1, 0, &found), NOTFOUND_ITEM) << "names are case-sensitive";
    EXPECT_EQ(root->Get_ChildElement("d", 1, 0, &found), NOTFOUND_ITEM) << "grandchildren are not searched";
    EXPECT_EQ(root->Get_ChildElement("a", ONETOKEN_MAXLEN + 1, 0, &found), DATA_LARGE_THEN_BUF);
    int count = -1;
    EXPECT_EQ(root->Search_ChildElement("a", 1, &count), SUCCESS);
    EXPECT_EQ(count, 3);

    NameValToken_Class* attr = nullptr;
    ASSERT_EQ(root->SearchGet_Attribute("k", 1, &attr), SUCCESS);
    EXPECT_EQ(Text(attr->m_Val), "'7'") << "values keep their quotes";
    ASSERT_EQ(root->SearchGet_Attribute("x", 1, &attr), SUCCESS);
    EXPECT_EQ(Text(attr->m_Val), "\"\"");
    EXPECT_EQ(root->SearchGet_Attribute("a", 1, &attr), NO_MATCH_ARGUMENT);
    EXPECT_EQ(attr, nullptr);
}

TEST_F(XmlElementTest, ChildStringAndValueTable)
{
    const XmlElement_Class* root = Parse(
        "<r><n> -12abc </n><n>\n 7\n</n><s>  a  b  </s><e/><blank>   </blank><p><q/></p><big>99999999999</big></r>");
    ASSERT_NE(root, nullptr);
    struct Row {
        const char* name;
        int index;
        int code;
        int value;        // after Get_ChildElementValue, which starts from 5
        const char* cut;  // from Get_ChildElementString
    };
    const Row rows[] = {
        {"n", 0, SUCCESS, -12, "-12abc"},
        {"n", 1, SUCCESS, 7, "7"},
        {"s", 0, SUCCESS, 0, "a b"},
        {"blank", 0, SUCCESS, 0, "<empty>"},  // blanks only: the element exists, its text is nothing
        {"e", 0, NOTFOUND_ITEM, 5, "<empty>"},
        {"p", 0, NOTFOUND_ITEM, 5, "<empty>"},
        {"n", 2, NOTFOUND_ITEM, 5, "<empty>"},
        {"missing", 0, NOTFOUND_ITEM, 5, "<empty>"},
        {"", 0, NOTFOUND_ITEM, 5, "<empty>"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.name) + "#" + std::to_string(row.index));
        int value = 5;
        EXPECT_EQ(root->Get_ChildElementValue(row.name, &value, row.index), row.code);
        EXPECT_EQ(value, row.value);
        OneToken_Class cut;
        EXPECT_EQ(root->Get_ChildElementString(row.name, &cut, row.index), row.code);
        EXPECT_EQ(Text(cut), row.cut);
        cut.Clear();
    }
    int value = 0;
    EXPECT_EQ(root->Get_ChildElementValue("big", &value, 0), SUCCESS) << "overflow is not an error";
}

}  // namespace
