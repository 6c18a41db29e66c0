#include "xml/xml_parser.h"

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {

enum class Load { Copy, Borrow, File };

// A scratch directory removed with its files at the end of each test.
class ScratchDir {
public:
    ScratchDir()
    {
        char tmpl[] = "/tmp/ostrel_xml_XXXXXX";
        char* made = mkdtemp(tmpl);
        EXPECT_NE(made, nullptr);
        m_Dir = made ? made : "/tmp";
    }
    ~ScratchDir()
    {
        for (const std::string& f : m_Files) {
            unlink(f.c_str());
        }
        rmdir(m_Dir.c_str());
    }
    std::string Write(const std::string& name, const std::string& bytes)
    {
        std::string path = m_Dir + "/" + name;
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
        m_Files.push_back(path);
        return path;
    }

private:
    std::string m_Dir;
    std::vector<std::string> m_Files;
};

struct FreeDeleter {
    void operator()(unsigned char* p) const { free(p); }
};

// Loads bytes by one of the three loaders. The borrowed buffer is an
// exactly sized heap block, so a read past the end trips AddressSanitizer;
// it is declared first so that it outlives the parser.
class LoadedParser {
public:
    LoadedParser(const std::string& bytes, Load how, ScratchDir* dir)
    {
        switch (how) {
        case Load::Copy:
            rc = parser.Construct_WithMemAlloc_BufferCopy(reinterpret_cast<const unsigned char*>(bytes.data()),
                                                          static_cast<int>(bytes.size()));
            break;
        case Load::Borrow:
            m_Borrowed.reset(static_cast<unsigned char*>(malloc(bytes.size())));
            memcpy(m_Borrowed.get(), bytes.data(), bytes.size());
            rc = parser.Construct_BufferPointerCopy(m_Borrowed.get(), static_cast<int>(bytes.size()));
            break;
        case Load::File:
            rc = parser.Construct_FromFileOpen(dir->Write("doc.xml", bytes).c_str());
            break;
        }
    }

private:
    std::unique_ptr<unsigned char, FreeDeleter> m_Borrowed;

public:
    int rc = 0;
    XmlParser_Class parser;
};

const char* LoadName(Load how)
{
    return how == Load::Copy ? "copy" : how == Load::Borrow ? "borrow" : "file";
}

struct ParseRow {
    std::string input;
    int code;
    const char* message;
    bool hasRoot;
    const char* note;
};

// Documents broken in each way the reader reports, and lenient or odd
// documents it accepts. Every row runs through all three loaders.
const std::vector<ParseRow> kRows = {
    {std::string("<a>x\x07</a>"), XMLPARSER_PARSER_ERROR, "Parser Error. Found abnormal character code [0x07] .", true, "bell byte"},
    {std::string("<a>x\0</a>", 9), XMLPARSER_PARSER_ERROR, "Parser Error. Found abnormal character code [0x00] .", true, "NUL byte"},
    {"<a>5 > 4</a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[>](0x3e) in element content.", true, "'>' in text"},
    {"<a>it's</a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character['](0x27) in element content.", true, "apostrophe in text"},
    {"<a>say \"hi\"</a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[\"](0x22) in element content.", true, "quote in text"},
    {"\"<a/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[\"](0x22).", false, "quote before the root"},
    {"<a/>>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[>](0x3e).", true, "'>' after the root"},
    {"< a/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[ ](0x20) after '<'.", false, "blank after '<'"},
    {"<1a/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[1](0x31) after '<'.", false, "digit starts a name"},
    {"<a></\tb>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[ ](0x20) after '</'.", true, "tab folds to a blank"},
    {"<a/ >", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character [/] in start tag.", false, "blank inside '/>'"},
    {"<a =\"1\"/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character [=](0x3d) in start tag.", false, "attribute without a name"},
    {"<a x =\"1\"/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character [ ](0x20) in start tag attribute.", false, "blank before '='"},
    {"<a x= \"1\"/>", XMLPARSER_PARSER_ERROR, "Parser Error. Not found quote character in start tag attribute.", false, "blank after '='"},
    {"<a x=1/>", XMLPARSER_PARSER_ERROR, "Parser Error. Not found quote character in start tag attribute.", false, "unquoted value"},
    {"<a x=\"1<2\"/>", XMLPARSER_PARSER_ERROR, "Parser Error.found Syntax error character [<](0x3c) in start tag attribute.", false, "'<' in value"},
    {"<a x=\"1>2\"/>", XMLPARSER_PARSER_ERROR, "Parser Error.found Syntax error character [>](0x3e) in start tag attribute.", false, "'>' in value"},
    {"<a x='1\"'/>", XMLPARSER_PARSER_ERROR, "Parser Error.found Syntax error character [\"](0x22) in start tag attribute.", false, "other quote in value"},
    {"<a x=\"1\"y=\"2\"/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character [y](0x79) after attribute values string.", false, "no blank between attributes"},
    {"<a x=\"1\" y=\"2\" x='3'/>", XMLPARSER_PARSER_ERROR, "Parser Error. The same attribute name exists.[x].", false, "duplicate attribute"},
    {"<a x=\"1", XMLPARSER_PARSER_ERROR, "Parser Error. File end in start tag attribute.", false, "end inside a value"},
    {"<a x=", XMLPARSER_PARSER_ERROR, "Parser Error. File end in start tag attribute.", false, "end after '='"},
    {"<a x=\"1\"", XMLPARSER_PARSER_ERROR, "Parser Error. File end in start tag parsing.", false, "end after a value"},
    {"<a  ", XMLPARSER_PARSER_ERROR, "Parser Error. File end in start tag parsing.", false, "end among blanks"},
    {"<a/", XMLPARSER_PARSER_ERROR, "Parser Error. File end in start tag parsing.", false, "end after '/'"},
    {"<abc", XMLPARSER_PARSER_ERROR, "Parser Error. File end in token parsing.", false, "end inside a name"},
    {"<a></a", XMLPARSER_PARSER_ERROR, "Parser Error. File end in token parsing.", true, "end inside an end tag name"},
    {"<a/><b/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found 2nd root element.", true, "second root"},
    {"<a></a>\n<b>", XMLPARSER_PARSER_ERROR, "Parser Error. Found 2nd root element.", true, "second root after text"},
    {"</a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found illegal EndTag.", false, "end tag without a start"},
    {"<a/></a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found illegal EndTag.", true, "end tag after self-closing root"},
    {"<a>\n  <b>\r\n</c></a>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Tag name differ with  StartTag[b](Line 1:2) and end EndTag[c](Line 2:0).", true, "CR LF is one line end"},
    {"<a>\r\r\t<b></bb></a>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Tag name differ with  StartTag[b](Line 2:1) and end EndTag[bb](Line 2:4).", true, "lone CRs count as lines"},
    {"<a></a >", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[ ](0x20) in EndTag.", true, "blank in end tag"},
    {"<?xml a>b?>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[>](0x3e) in '<? ... ?>' .", false, "'>' in PI"},
    {"<?xml <?>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[<](0x3c) in '<? ... ?>' .", false, "'<' in PI"},
    {"<?xml v='?>", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<? ... ?>' .", false, "end inside a quoted PI string"},
    {"<!x>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[x](0x78) in '<!...!>' .", false, "unknown '<!'"},
    {"<!-x-->", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[x](0x78) in '<!...!>' .", false, "single dash"},
    {"<!doctype a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[d](0x64) in '<!...!>' .", false, "DOCTYPE is case-sensitive"},
    {"<!", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<!...!>' .", false, "end after '<!'"},
    {"<!-- a -- b -->", XMLPARSER_PARSER_ERROR, "Parser Error. Found '--' in comment.", false, "double dash in comment"},
    {"<!-- a --->", XMLPARSER_PARSER_ERROR, "Parser Error. Found '--' in comment.", false, "three dashes before '>'"},
    {"<!-- a", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<-- ... -->' .", false, "unterminated comment"},
    {"<a><![CDATA[ <![CDATA[ ]]></a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found '<![CDATA[' in '<![CDATA[ ... ]]>' .", true, "nested CDATA"},
    {"<a><![CDATA[ x ]]", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<![CDATA[ ... ]]>' .", true, "unterminated CDATA"},
    {"<!DOCTYPE a [ <!ENTITY e 'v'> ]x>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Found Syntax error character[x](0x78) after ']'.in '<!DOCTYPE[...]>' .", false, "junk after internal subset"},
    {"<!DOCTYPE a", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<!DOCTYPE ... >' .", false, "unterminated DOCTYPE"},
    {"<!DOCTYPE a [ x", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<!DOCTYPE ... >' .", false, "unterminated internal subset"},
    {"<a>x<", XMLPARSER_PARSER_ERROR, "Parser Error.", true, "end right after '<'"},
    {"<a>x</", XMLPARSER_PARSER_ERROR, "Parser Error.", true, "end right after '</'"},

    {"   \r\n\t ", SUCCESS, "", false, "blanks only: no root, message untouched"},
    {"<a>text", SUCCESS, "", true, "open element at the end is accepted"},
    {"<a><b></b>", SUCCESS, "", true, "open root at the end is accepted"},
    {"hello <a/> bye", SUCCESS, "Parser Success.", true, "text around the root is passed over"},
    {"<a>&quot;&#39;&gt;</a>", SUCCESS, "Parser Success.", true, "references stay undecoded"},
    {"<?xml version=\"1.0\" note='?>'?><a/>", SUCCESS, "Parser Success.", true, "'?>' inside a quoted PI string"},
    {"<!----><a/>", SUCCESS, "Parser Success.", true, "empty comment"},
    {"<a><![CDATA[ 5 > 4 \"q\" ]]]></a>", SUCCESS, "Parser Success.", true, "CDATA hides markup characters"},
    {"<!DOCTYPE a [ <!ENTITY e 'v'> ]><a/>", SUCCESS, "Parser Success.", true, "DOCTYPE with internal subset"},
    {"<a\tx='1'\r\n  y=\"2\"\n/>", SUCCESS, "Parser Success.", true, "whitespace of any kind between attributes"},
    {"<\xC3\xA9:n-1.x\xC3\xA9/>", SUCCESS, "Parser Success.", true, "high bytes, ':' '-' '.' digits in names"},
};

TEST(XmlParserTest, DocumentTableThroughEveryLoader)
{
    for (Load how : {Load::Copy, Load::Borrow, Load::File}) {
        for (const ParseRow& row : kRows) {
            SCOPED_TRACE(std::string(LoadName(how)) + ": " + row.note);
            ScratchDir dir;
            LoadedParser lp(row.input, how, &dir);
            ASSERT_EQ(lp.rc, SUCCESS);
            EXPECT_EQ(lp.parser.ParserMain(), row.code);
            EXPECT_STREQ(lp.parser.GetMessage(), row.message);
            EXPECT_EQ(lp.parser.GetRootElement() != nullptr, row.hasRoot);
        }
    }
}

TEST(XmlParserTest, MessagesQuoteLongNamesCutAndStayWithinTheirBuffer)
{
    const std::string longName(300, 'n');
    const std::vector<std::string> docs = {
        "<a " + longName + "='1' " + longName + "='2'/>",
        "<" + longName + "></b>",
        "<b></" + longName + ">",
    };
    for (const std::string& doc : docs) {
        XmlParser_Class parser;
        ASSERT_EQ(parser.Construct_WithMemAlloc_BufferCopy(reinterpret_cast<const unsigned char*>(doc.data()),
                                                           static_cast<int>(doc.size())),
                  SUCCESS);
        EXPECT_EQ(parser.ParserMain(), XMLPARSER_PARSER_ERROR);
        const std::string msg = parser.GetMessage();
        EXPECT_EQ(msg.size(), 255u);
        EXPECT_EQ(msg.find(std::string(256, 'n')), std::string::npos);
    }
}

TEST(XmlParserTest, StopsAtFirstErrorWithPositionOfOffendingCharacter)
{
    const std::string doc = "<a>\r\n <b x='1'>\n\tok</b>\n <c>x'</c>\n</a>";
    XmlParser_Class parser;
    ASSERT_EQ(parser.Construct_BufferPointerCopy(reinterpret_cast<const unsigned char*>(doc.data()),
                                                 static_cast<int>(doc.size())),
              SUCCESS);
    EXPECT_EQ(parser.ParserMain(), XMLPARSER_PARSER_ERROR);
    EXPECT_EQ(parser.GetCurrentAddress().GetLine(), 3);
    EXPECT_EQ(parser.GetCurrentAddress().GetColumn(), 5);
    EXPECT_EQ(parser.GetCurrentAddress().GetOffset(), static_cast<int>(doc.find("x'<") + 1));
    // The partial tree stays attached and is freed with the parser.
    ASSERT_NE(parser.GetRootElement(), nullptr);
    EXPECT_EQ(parser.GetRootElement()->GetChildren().GetCount(), 2);
}

TEST(XmlParserTest, TreeRecordsTagPositionsKindsAndDepth)
{
    const std::string doc = "<r>\r\n  <e/>\n  <t k=\"v\">ab</t>\n  <p><q></q></p>\n</r>";
    XmlParser_Class parser;
    ASSERT_EQ(parser.Construct_BufferPointerCopy(reinterpret_cast<const unsigned char*>(doc.data()),
                                                 static_cast<int>(doc.size())),
              SUCCESS);
    ASSERT_EQ(parser.ParserMain(), SUCCESS);
    EXPECT_STREQ(parser.GetMessage(), "Parser Success.");

    const XmlElement_Class* root = parser.GetRootElement();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->GetContentKind(), XMLELEMENT_CHILDREN);
    ASSERT_EQ(root->GetChildren().GetCount(), 3);
    const XmlElement_Class* e = root->GetChildren().Get(0);
    const XmlElement_Class* t = root->GetChildren().Get(1);
    const XmlElement_Class* p = root->GetChildren().Get(2);

    EXPECT_EQ(e->GetContentKind(), XMLELEMENT_EMPTY);
    EXPECT_EQ(e->GetStartTag_Start().GetOffset(), 7);
    EXPECT_EQ(e->GetStartTag_Start().GetLine(), 1);
    EXPECT_EQ(e->GetStartTag_Start().GetColumn(), 2);
    EXPECT_EQ(e->GetStartTag_End().GetColumn(), 5);

    EXPECT_EQ(t->GetContentKind(), XMLELEMENT_TEXT);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(t->GetText().GetPtr()), t->GetText().GetLength()), "ab");
    EXPECT_EQ(t->GetEndTag_Start().GetLine(), 2);
    EXPECT_EQ(t->GetEndTag_Start().GetColumn(), 13);
    EXPECT_EQ(t->GetEndTag_End().GetOffset(), static_cast<int>(doc.find("</t>") + 3));
    EXPECT_EQ(t->GetDepth(), 1);
    EXPECT_EQ(t->GetParent(), root);

    EXPECT_EQ(p->GetContentKind(), XMLELEMENT_CHILDREN);
    const XmlElement_Class* q = p->GetChildren().Get(0);
    EXPECT_EQ(q->GetContentKind(), XMLELEMENT_EMPTY);
    EXPECT_EQ(q->GetDepth(), 2);
    EXPECT_EQ(root->GetEndTag_Start().GetLine(), 4);
}

TEST(XmlParserTest, TreeOutputShowsKindsQuotesAndRawText)
{
    const std::string doc =
        "<?xml version='1.0'?>\n<!-- head -->\n"
        "<r a='1' b=\"x y\">\n <e/>\n <t><![CDATA[<]]> &amp; </t>\n <p>\n  <q z=''></q>\n  txt\n </p>\n</r>\n";
    XmlParser_Class parser;
    ASSERT_EQ(parser.Construct_WithMemAlloc_BufferCopy(reinterpret_cast<const unsigned char*>(doc.data()),
                                                       static_cast<int>(doc.size())),
              SUCCESS);
    ASSERT_EQ(parser.ParserMain(), SUCCESS);
    StringBuf_Class out(1024);
    ASSERT_EQ(parser.Output_XMLTree(&out), SUCCESS);
    EXPECT_STREQ(out.c_str(),
                 "<r a='1' b=\"x y\">\n"
                 "\t<e/>\n"
                 "\t<t><![CDATA[<]]> &amp; </t>\n"
                 "\t<p>\n"
                 "\t\t<q z=''/>\n"
                 "\t</p>\n"
                 "</r>\n");

    StringBuf_Class small(20);
    EXPECT_EQ(parser.Output_XMLTree(&small), DATA_LARGE_THEN_BUF);
}

TEST(XmlParserTest, ManyChildrenKeepDocumentOrder)
{
    std::string doc = "<r>";
    for (int i = 0; i < 30; i++) {
        doc += "<c>" + std::to_string(i) + "</c>";
    }
    doc += "</r>";
    XmlParser_Class parser;
    ASSERT_EQ(parser.Construct_WithMemAlloc_BufferCopy(reinterpret_cast<const unsigned char*>(doc.data()),
                                                       static_cast<int>(doc.size())),
              SUCCESS);
    ASSERT_EQ(parser.ParserMain(), SUCCESS);
    const XmlElement_Class* root = parser.GetRootElement();
    ASSERT_EQ(root->GetChildren().GetCount(), 30);
    for (int i = 0; i < 30; i++) {
        int value = -1;
        ASSERT_EQ(root->Get_ChildElementValue("c", &value, i), SUCCESS);
        EXPECT_EQ(value, i);
    }
}

TEST(XmlParserTest, LoadersRefuseBadArgumentsAndSizes)
{
    ScratchDir dir;
    const unsigned char byte = '<';
    std::string big(XMLPARSER_MAX_DOCSIZE + 1, ' ');
    std::string largest(XMLPARSER_MAX_DOCSIZE, ' ');
    largest.replace(0, 4, "<a/>");

    {
        XmlParser_Class p;
        EXPECT_EQ(p.ParserMain(), DEBUG_WARNING);
        EXPECT_EQ(p.Construct_FromFileOpen(nullptr), DEBUG_WARNING);
        EXPECT_EQ(p.Construct_FromFileOpen((dir.Write("x", "") + "-missing").c_str()), CANNOT_FILEOPEN);
        EXPECT_EQ(p.Construct_FromFileOpen(dir.Write("empty", "").c_str()), CANNOT_FILEOPEN);
        EXPECT_EQ(p.Construct_FromFileOpen(dir.Write("big", big).c_str()), DATA_LARGE_THEN_BUF);
        EXPECT_EQ(p.Construct_WithMemAlloc_BufferCopy(nullptr, 1), DEBUG_WARNING);
        EXPECT_EQ(p.Construct_WithMemAlloc_BufferCopy(&byte, 0), DEBUG_WARNING);
        EXPECT_EQ(p.Construct_BufferPointerCopy(reinterpret_cast<const unsigned char*>(big.data()),
                                                static_cast<int>(big.size())),
                  DATA_LARGE_THEN_BUF);
        EXPECT_EQ(p.Construct_WithMemAlloc_BufferCopy(reinterpret_cast<const unsigned char*>(big.data()),
                                                      static_cast<int>(big.size())),
                  DATA_LARGE_THEN_BUF);
    }
    {
        XmlParser_Class p;
        ASSERT_EQ(p.Construct_FromFileOpen(dir.Write("largest", largest).c_str()), SUCCESS);
        EXPECT_EQ(p.Construct_WithMemAlloc_BufferCopy(&byte, 1), DEBUG_WARNING);
        EXPECT_EQ(p.Construct_FromFileOpen(dir.Write("again", "<b/>").c_str()), DEBUG_WARNING);
        EXPECT_EQ(p.ParserMain(), SUCCESS);
        EXPECT_STREQ(p.GetMessage(), "Parser Success.");
    }
}

}  // namespace
