#include "xml/xml_parser.h"

#include <pthread.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "common/return_codes.h"
#include "common/test_files.h"

namespace {

enum class Loader { Copy, Borrow, File };

class XmlParserTest : public test_files::ScratchDir {
protected:
    std::string WriteFile(const std::string& name, const std::string& bytes)
    {
        const std::string path = dir_ + "/" + name;
        test_files::WriteFile(path, bytes);
        return path;
    }
    // A borrowed buffer is an exactly sized heap block kept by the fixture
    // (so it outlives the parser): a read past its end trips ASan.
    int Load(XmlParser_Class* parser, const std::string& bytes, Loader how)
    {
        const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
        const int size = static_cast<int>(bytes.size());
        if (how == Loader::Copy)
            return parser->Construct_WithMemAlloc_BufferCopy(data, size);
        if (how == Loader::File)
            return parser->Construct_FromFileOpen(WriteFile("doc.xml", bytes).c_str());
        m_Borrowed.emplace_back(new unsigned char[bytes.size()]);
        memcpy(m_Borrowed.back().get(), data, bytes.size());
        return parser->Construct_BufferPointerCopy(m_Borrowed.back().get(), size);
    }

    std::vector<std::unique_ptr<unsigned char[]>> m_Borrowed;
};

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
    {std::string("<a>x\x07</a>"), XMLPARSER_PARSER_ERROR, "Parser Error. Found abnormal character code [0x07] .", true,
     "bell byte"},
    {std::string("<a>x\0</a>", 9), XMLPARSER_PARSER_ERROR, "Parser Error. Found abnormal character code [0x00] .", true,
     "NUL byte"},
    {"<a>5 > 4</a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[>](0x3e) in element content.",
     true, "'>' in text"},
    {"<a>it's</a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character['](0x27) in element content.",
     true, "apostrophe in text"},
    {"<a>say \"hi\"</a>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Found Syntax error character[\"](0x22) in element content.", true, "quote in text"},
    {"\"<a/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[\"](0x22).", false,
     "quote before the root"},
    {"<a/>>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[>](0x3e).", true,
     "'>' after the root"},
    {"< a/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[ ](0x20) after '<'.", false,
     "blank after '<'"},
    {"<1a/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[1](0x31) after '<'.", false,
     "digit starts a name"},
    {"<a></\tb>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[ ](0x20) after '</'.", true,
     "tab folds to a blank"},
    {"<a/ >", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character [/] in start tag.", false,
     "blank inside '/>'"},
    {"<a =\"1\"/>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character [=](0x3d) in start tag.", false,
     "attribute without a name"},
    {"<a x =\"1\"/>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Found Syntax error character [ ](0x20) in start tag attribute.", false, "blank before '='"},
    {"<a x= \"1\"/>", XMLPARSER_PARSER_ERROR, "Parser Error. Not found quote character in start tag attribute.", false,
     "blank after '='"},
    {"<a x=1/>", XMLPARSER_PARSER_ERROR, "Parser Error. Not found quote character in start tag attribute.", false,
     "unquoted value"},
    {"<a x=\"1<2\"/>", XMLPARSER_PARSER_ERROR,
     "Parser Error.found Syntax error character [<](0x3c) in start tag attribute.", false, "'<' in value"},
    {"<a x=\"1>2\"/>", XMLPARSER_PARSER_ERROR,
     "Parser Error.found Syntax error character [>](0x3e) in start tag attribute.", false, "'>' in value"},
    {"<a x='1\"'/>", XMLPARSER_PARSER_ERROR,
     "Parser Error.found Syntax error character [\"](0x22) in start tag attribute.", false, "other quote in value"},
    {"<a x=\"1\"y=\"2\"/>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Found Syntax error character [y](0x79) after attribute values string.", false,
     "no blank between attributes"},
    {"<a x=\"1\" y=\"2\" x='3'/>", XMLPARSER_PARSER_ERROR, "Parser Error. The same attribute name exists.[x].", false,
     "duplicate attribute"},
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
    {"<a/></a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found illegal EndTag.", true,
     "end tag after self-closing root"},
    {"<a>\n  <b>\r\n</c></a>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Tag name differ with  StartTag[b](Line 1:2) and end EndTag[c](Line 2:0).", true,
     "CR LF is one line end"},
    {"<a>\r\r\t<b></bb></a>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Tag name differ with  StartTag[b](Line 2:1) and end EndTag[bb](Line 2:4).", true,
     "lone CRs count as lines"},
    {"<a></a >", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[ ](0x20) in EndTag.", true,
     "blank in end tag"},
    {"<?xml a>b?>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[>](0x3e) in '<? ... ?>' .",
     false, "'>' in PI"},
    {"<?xml <?>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[<](0x3c) in '<? ... ?>' .", false,
     "'<' in PI"},
    {"<?xml v='?>", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<? ... ?>' .", false,
     "end inside a quoted PI string"},
    {"<!x>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[x](0x78) in '<!...!>' .", false,
     "unknown '<!'"},
    {"<!-x-->", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[x](0x78) in '<!...!>' .", false,
     "single dash"},
    {"<!doctype a>", XMLPARSER_PARSER_ERROR, "Parser Error. Found Syntax error character[d](0x64) in '<!...!>' .",
     false, "DOCTYPE is case-sensitive"},
    {"<!", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<!...!>' .", false, "end after '<!'"},
    {"<!-- a -- b -->", XMLPARSER_PARSER_ERROR, "Parser Error. Found '--' in comment.", false,
     "double dash in comment"},
    {"<!-- a --->", XMLPARSER_PARSER_ERROR, "Parser Error. Found '--' in comment.", false, "three dashes before '>'"},
    {"<!-- a", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<-- ... -->' .", false, "unterminated comment"},
    {"<a><![CDATA[ <![CDATA[ ]]></a>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Found '<![CDATA[' in '<![CDATA[ ... ]]>' .", true, "nested CDATA"},
    {"<a><![CDATA[ x ]]", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<![CDATA[ ... ]]>' .", true,
     "unterminated CDATA"},
    {"<!DOCTYPE a [ <!ENTITY e 'v'> ]x>", XMLPARSER_PARSER_ERROR,
     "Parser Error. Found Syntax error character[x](0x78) after ']'.in '<!DOCTYPE[...]>' .", false,
     "junk after internal subset"},
    {"<!DOCTYPE a", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<!DOCTYPE ... >' .", false,
     "unterminated DOCTYPE"},
    {"<!DOCTYPE a [ x", XMLPARSER_PARSER_ERROR, "Parser Error. File end in '<!DOCTYPE ... >' .", false,
     "unterminated internal subset"},
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

TEST_F(XmlParserTest, DocumentTableThroughEveryLoader)
{
    for (Loader how : {Loader::Copy, Loader::Borrow, Loader::File}) {
        for (const ParseRow& row : kRows) {
            SCOPED_TRACE(std::to_string(static_cast<int>(how)) + ": " + row.note);
            XmlParser_Class parser;
            ASSERT_EQ(Load(&parser, row.input, how), SUCCESS);
            EXPECT_EQ(parser.ParserMain(), row.code);
            EXPECT_STREQ(parser.GetMessage(), row.message);
            EXPECT_EQ(parser.GetRootElement() != nullptr, row.hasRoot);
        }
    }
}

TEST_F(XmlParserTest, StopsAtFirstErrorKeepingPositionAndPartialTree)
{
    XmlParser_Class parser;
    const std::string doc = "<a>\r\n <b x='1'>\n\tok</b>\n <c>x'</c>\n</a>";
    ASSERT_EQ(Load(&parser, doc, Loader::Borrow), SUCCESS);
    EXPECT_EQ(parser.ParserMain(), XMLPARSER_PARSER_ERROR);
    EXPECT_EQ(parser.GetCurrentAddress().GetLine(), 3);
    EXPECT_EQ(parser.GetCurrentAddress().GetColumn(), 5);
    EXPECT_EQ(parser.GetCurrentAddress().GetOffset(), static_cast<int>(doc.find("x'<") + 1));
    ASSERT_NE(parser.GetRootElement(), nullptr);  // freed with the parser
    EXPECT_EQ(parser.GetRootElement()->GetChildren().GetCount(), 2);
}

TEST_F(XmlParserTest, LoadersRefuseBadArgumentsAndSizes)
{
    const unsigned char byte = '<';
    const std::string big(XMLPARSER_MAX_DOCSIZE + 1, ' ');
    const auto* bigData = reinterpret_cast<const unsigned char*>(big.data());
    XmlParser_Class p;
    EXPECT_EQ(p.ParserMain(), DEBUG_WARNING);
    EXPECT_EQ(p.Construct_FromFileOpen(nullptr), DEBUG_WARNING);
    EXPECT_EQ(p.Construct_FromFileOpen((dir_ + "/missing").c_str()), CANNOT_FILEOPEN);
    EXPECT_EQ(p.Construct_FromFileOpen(WriteFile("empty", "").c_str()), CANNOT_FILEOPEN);
    EXPECT_EQ(p.Construct_FromFileOpen(WriteFile("big", big).c_str()), DATA_LARGE_THEN_BUF);
    EXPECT_EQ(p.Construct_WithMemAlloc_BufferCopy(nullptr, 1), DEBUG_WARNING);
    EXPECT_EQ(p.Construct_WithMemAlloc_BufferCopy(&byte, 0), DEBUG_WARNING);
    EXPECT_EQ(p.Construct_BufferPointerCopy(bigData, static_cast<int>(big.size())), DATA_LARGE_THEN_BUF);
    EXPECT_EQ(p.Construct_WithMemAlloc_BufferCopy(bigData, static_cast<int>(big.size())), DATA_LARGE_THEN_BUF);

    // The largest document loads; a loaded parser refuses a second load.
    ASSERT_EQ(p.Construct_FromFileOpen(WriteFile("largest", "<a/>" + big.substr(5)).c_str()), SUCCESS);
    EXPECT_EQ(p.Construct_WithMemAlloc_BufferCopy(&byte, 1), DEBUG_WARNING);
    EXPECT_EQ(p.ParserMain(), SUCCESS);
    EXPECT_STREQ(p.GetMessage(), "Parser Success.");
}

// Regression: a document of the largest size nesting one element inside
// the next (some 87,000 levels) used to be freed by one destructor call per
// level and overflowed the stack. It is parsed and freed here on a thread
// with a 256 KB stack, far less than that recursion needed.
TEST_F(XmlParserTest, DeeplyNestedDocumentIsFreedOnASmallStack)
{
    struct Job {
        std::string doc;
        int rc = -1;
        int depth = -1;
    } job;
    for (int i = 0; i + 3 <= XMLPARSER_MAX_DOCSIZE; i += 3)
        job.doc += "<a>";
    auto run = [](void* arg) -> void* {
        Job* j = static_cast<Job*>(arg);
        XmlParser_Class p;
        if (p.Construct_WithMemAlloc_BufferCopy(reinterpret_cast<const unsigned char*>(j->doc.data()),
                                                static_cast<int>(j->doc.size())) == SUCCESS) {
            j->rc = p.ParserMain();
            const XmlElement_Class* e = p.GetRootElement();
            while (e != nullptr && e->GetChildren().GetCount() == 1)
                e = e->GetChildren().Get(0);
            j->depth = e != nullptr ? e->GetDepth() : -1;
        }
        return nullptr;
    };
    pthread_attr_t attr;
    ASSERT_EQ(pthread_attr_init(&attr), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attr, 256 * 1024), 0);
    pthread_t t;
    ASSERT_EQ(pthread_create(&t, &attr, run, &job), 0);
    ASSERT_EQ(pthread_join(t, nullptr), 0);
    pthread_attr_destroy(&attr);
    // Unclosed elements still parse (callers judge the tree themselves).
    EXPECT_EQ(job.rc, SUCCESS);
    EXPECT_EQ(job.depth, XMLPARSER_MAX_DOCSIZE / 3 - 1);
}

}  // namespace
