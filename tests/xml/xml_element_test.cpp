#include "xml/xml_element.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "xml/xml_parser.h"

namespace {

// Parses a whole document held by the fixture.
class XmlElementTest : public ::testing::Test {
protected:
    const XmlElement_Class* Parse(const std::string& doc)
    {
        m_Doc = doc;
        EXPECT_EQ(m_Parser.Construct_BufferPointerCopy(reinterpret_cast<const unsigned char*>(m_Doc.data()),
                                                       static_cast<int>(m_Doc.size())),
                  SUCCESS);
        EXPECT_EQ(m_Parser.ParserMain(), SUCCESS) << m_Parser.GetMessage();
        return m_Parser.GetRootElement();
    }

    static std::string Text(const OneToken_Class& t)
    {
        return std::string(reinterpret_cast<const char*>(t.GetPtr()), t.GetLength());
    }

    std::string m_Doc;
    XmlParser_Class m_Parser;
};

struct CutRow {
    std::string text;  // between <t> and </t>
    int code;
    std::string cut;
    const char* note;
};

TEST_F(XmlElementTest, CutSpaceTable)
{
    const std::vector<CutRow> rows = {
        {"  12  \r\n  34 ", SUCCESS, "12 \n 34", "blank runs fold, CR LF becomes LF"},
        {"a\t \tb", SUCCESS, "a b", "tabs and blanks fold together"},
        {"a\r\rb", SUCCESS, "a\n\nb", "lone CRs become LFs, not merged"},
        {"a\n\n\nb", SUCCESS, "a\n\n\nb", "LF runs are kept"},
        {"a\r\n\r\nb", SUCCESS, "a\n\nb", "two CR LF pairs"},
        {"\r\n\t x \t\r\n", SUCCESS, "x", "outer whitespace of every kind dropped"},
        {"&amp; <![CDATA[ q ]]>", SUCCESS, "&amp; <![CDATA[ q ]]>", "markup inside text is raw"},
        {" \t\r\n ", STRING_NOT_FOUND, "", "whitespace only"},
    };
    for (const CutRow& row : rows) {
        SCOPED_TRACE(row.note);
        XmlParser_Class parser;
        const std::string doc = "<t>" + row.text + "</t>";
        ASSERT_EQ(parser.Construct_WithMemAlloc_BufferCopy(reinterpret_cast<const unsigned char*>(doc.data()),
                                                           static_cast<int>(doc.size())),
                  SUCCESS);
        ASSERT_EQ(parser.ParserMain(), SUCCESS);
        OneToken_Class out;
        EXPECT_EQ(parser.GetRootElement()->Get_CutSpace_ElementString(&out), row.code);
        EXPECT_EQ(Text(out), row.cut);
        if (row.code == SUCCESS) {
            // Owned copies carry a terminator for C-string users.
            EXPECT_EQ(out.GetPtr()[out.GetLength()], '\0');
        }
        out.Clear();
    }
}

TEST_F(XmlElementTest, CutSpaceRefusesNonTextElementsAndUsedTokens)
{
    const XmlElement_Class* root = Parse("<r><e/><t>x</t></r>");
    ASSERT_NE(root, nullptr);
    OneToken_Class out;
    EXPECT_EQ(root->Get_CutSpace_ElementString(&out), STRING_NOT_FOUND);
    EXPECT_EQ(root->GetChildren().Get(0)->Get_CutSpace_ElementString(&out), STRING_NOT_FOUND);
    const XmlElement_Class* t = root->GetChildren().Get(1);
    EXPECT_EQ(t->Get_CutSpace_ElementString(nullptr), DEBUG_WARNING);
    ASSERT_EQ(t->Get_CutSpace_ElementString(&out), SUCCESS);
    EXPECT_EQ(t->Get_CutSpace_ElementString(&out), DEBUG_WARNING);
    out.Clear();
}

TEST_F(XmlElementTest, ChildLookupByNameAndIndex)
{
    const XmlElement_Class* root = Parse("<r><a>1</a><b>x</b><a>2</a><a/><c><d/></c></r>");
    ASSERT_NE(root, nullptr);
    XmlElement_Class* found = nullptr;

    ASSERT_EQ(root->Get_ChildElement("a", 1, 1, &found), SUCCESS);
    EXPECT_EQ(Text(found->GetText()), "2");
    EXPECT_EQ(root->Get_ChildElement("a", 1, 2, &found), SUCCESS);
    EXPECT_EQ(found->GetContentKind(), XMLELEMENT_EMPTY);
    // Index 3 is below the child count (5) but only three "a" exist.
    EXPECT_EQ(root->Get_ChildElement("a", 1, 3, &found), NOTFOUND_ITEM);
    // An index past the child count is refused before any name is compared.
    EXPECT_EQ(root->Get_ChildElement("a", 1, 5, &found), NO_MATCH_ARGUMENT);
    EXPECT_EQ(root->Get_ChildElement("ab", 1, 0, &found), SUCCESS) << "length bounds the name";
    EXPECT_EQ(root->Get_ChildElement("A", 1, 0, &found), NOTFOUND_ITEM) << "names are case-sensitive";
    EXPECT_EQ(root->Get_ChildElement("d", 1, 0, &found), NOTFOUND_ITEM) << "grandchildren are not searched";
    EXPECT_EQ(root->Get_ChildElement(nullptr, 1, 0, &found), DEBUG_WARNING);
    EXPECT_EQ(root->Get_ChildElement("a", 0, 0, &found), DEBUG_WARNING);
    EXPECT_EQ(root->Get_ChildElement("a", ONETOKEN_MAXLEN + 1, 0, &found), DATA_LARGE_THEN_BUF);

    int count = -1;
    EXPECT_EQ(root->Search_ChildElement("a", 1, &count), SUCCESS);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(root->Search_ChildElement("z", 1, &count), SUCCESS);
    EXPECT_EQ(count, 0);
}

TEST_F(XmlElementTest, ChildStringAndValue)
{
    const XmlElement_Class* root =
        Parse("<r><n> -12abc </n><n>\n 7\n</n><s>  a  b  </s><e/><blank>   </blank><p><q/></p><big>99999999999</big></r>");
    ASSERT_NE(root, nullptr);
    int value = 5;
    EXPECT_EQ(root->Get_ChildElementValue("n", &value, 0), SUCCESS);
    EXPECT_EQ(value, -12);
    EXPECT_EQ(root->Get_ChildElementValue("n", &value, 1), SUCCESS);
    EXPECT_EQ(value, 7);
    EXPECT_EQ(root->Get_ChildElementValue("blank", &value, 0), SUCCESS);
    EXPECT_EQ(value, 0) << "a text of blanks only converts to 0";
    value = 5;
    EXPECT_EQ(root->Get_ChildElementValue("s", &value, 0), SUCCESS);
    EXPECT_EQ(value, 0) << "no digits";
    EXPECT_EQ(root->Get_ChildElementValue("e", &value, 0), NOTFOUND_ITEM);
    EXPECT_EQ(root->Get_ChildElementValue("p", &value, 0), NOTFOUND_ITEM);
    EXPECT_EQ(root->Get_ChildElementValue("missing", &value, 0), NOTFOUND_ITEM);
    EXPECT_EQ(root->Get_ChildElementValue("n", &value, 2), NOTFOUND_ITEM);
    EXPECT_EQ(root->Get_ChildElementValue("big", &value, 0), SUCCESS) << "overflow is not an error";

    OneToken_Class s;
    EXPECT_EQ(root->Get_ChildElementString("s", &s, 0), SUCCESS);
    EXPECT_EQ(Text(s), "a b");
    s.Clear();
    EXPECT_EQ(root->Get_ChildElementString("blank", &s, 0), SUCCESS);
    EXPECT_EQ(s.GetPtr(), nullptr);
    EXPECT_EQ(root->Get_ChildElementString("e", &s, 0), NOTFOUND_ITEM);
    EXPECT_EQ(root->Get_ChildElementString("", &s, 0), NOTFOUND_ITEM);
}

TEST_F(XmlElementTest, AttributesKeepQuotesAndOrder)
{
    const XmlElement_Class* root = Parse("<r a='7' b=\"x  y\" c=''/>");
    ASSERT_NE(root, nullptr);
    NameValToken_Class* attr = nullptr;
    ASSERT_EQ(root->SearchGet_Attribute("a", 1, &attr), SUCCESS);
    EXPECT_EQ(Text(attr->m_Val), "'7'");
    ASSERT_EQ(root->SearchGet_Attribute("b", 1, &attr), SUCCESS);
    EXPECT_EQ(Text(attr->m_Val), "\"x  y\"") << "values are raw, not folded";
    ASSERT_EQ(root->SearchGet_Attribute("c", 1, &attr), SUCCESS);
    EXPECT_EQ(attr->m_Val.GetLength(), 2);
    EXPECT_EQ(root->SearchGet_Attribute("d", 1, &attr), NO_MATCH_ARGUMENT);
    EXPECT_EQ(attr, nullptr);
    ASSERT_EQ(root->GetAttributes().GetCount(), 3);
    EXPECT_EQ(Text(root->GetAttributes().Get(2)->m_Name), "c");
}

TEST_F(XmlElementTest, TemporaryArrayBorrowsWithoutDeleting)
{
    const XmlElement_Class* root = Parse("<r><a/><a/><a/><a/><a/><a/><a/><a/><a/><a/></r>");
    ASSERT_NE(root, nullptr);
    {
        ForTmporary_Arr_XmlElement_Class picked;
        for (int i = 0; i < root->GetChildren().GetCount(); i++) {
            ASSERT_EQ(picked.Add_XmlElement_Class(root->GetChildren().Get(i)), SUCCESS);
        }
        EXPECT_EQ(picked.GetCount(), 10);
        EXPECT_EQ(picked.GetCapacity(), 16);
        EXPECT_EQ(picked.Add_XmlElement_Class(nullptr), DEBUG_WARNING);
    }
    // The tree is intact: a double delete would have been caught by the
    // sanitizer builds when the parser goes away.
    EXPECT_EQ(root->GetChildren().Get(9)->GetParent(), root);
}

}  // namespace
