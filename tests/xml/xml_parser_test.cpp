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
    const char* message;  // a "Parser Error..." is XMLPARSER_PARSER_ERROR, any other SUCCESS
    bool hasRoot;
};

// Documents broken in each way the reader reports (a tab folds to a blank in
// the text, CR LF is one line end and a lone CR one too), and lenient or odd
// documents it accepts. Every row runs through all three loaders.
const std::vector<ParseRow> kRows = {
    {std::string("<a>x\x07</a>"), "Parser Error. Found abnormal character code [0x07] .", true},
    {std::string("<a>x\0</a>", 9), "Parser Error. Found abnormal character code [0x00] .", true},
    {"<a>5 > 4</a>", "Parser Error. Found Syntax error character[>](0x3e) in element content.", true},
    {"<a>it's</a>", "Parser Error. Found Syntax error character['](0x27) in element content.", true},
    {"<a>say \"hi\"</a>", "Parser Error. Found Syntax error character[\"](0x22) in element content.", true},
    {"\"<a/>", "Parser Error. Found Syntax error character[\"](0x22).", false},
    {"<a/>>", "Parser Error. Found Syntax error character[>](0x3e).", true},
    {"< a/>", "Parser Error. Found Syntax error character[ ](0x20) after '<'.", false},
    {"<1a/>", "Parser Error. Found Syntax error character[1](0x31) after '<'.", false},
    {"<a></\tb>", "Parser Error. Found Syntax error character[ ](0x20) after '</'.", true},
    {"<a/ >", "Parser Error. Found Syntax error character [/] in start tag.", false},
    {"<a =\"1\"/>", "Parser Error. Found Syntax error character [=](0x3d) in start tag.", false},
    {"<a x =\"1\"/>", "Parser Error. Found Syntax error character [ ](0x20) in start tag attribute.", false},
    {"<a x= \"1\"/>", "Parser Error. Not found quote character in start tag attribute.", false},
    {"<a x=1/>", "Parser Error. Not found quote character in start tag attribute.", false},
    {"<a x=\"1<2\"/>", "Parser Error.found Syntax error character [<](0x3c) in start tag attribute.", false},
    {"<a x=\"1>2\"/>", "Parser Error.found Syntax error character [>](0x3e) in start tag attribute.", false},
    {"<a x='1\"'/>", "Parser Error.found Syntax error character [\"](0x22) in start tag attribute.", false},
    {"<a x=\"1\"y=\"2\"/>", "Parser Error. Found Syntax error character [y](0x79) after attribute values string.",
     false},
    {"<a x=\"1\" y=\"2\" x='3'/>", "Parser Error. The same attribute name exists.[x].", false},
    {"<a x=\"1", "Parser Error. File end in start tag attribute.", false},
    {"<a x=", "Parser Error. File end in start tag attribute.", false},
    {"<a x=\"1\"", "Parser Error. File end in start tag parsing.", false},
    {"<a  ", "Parser Error. File end in start tag parsing.", false},
    {"<a/", "Parser Error. File end in start tag parsing.", false},
    {"<abc", "Parser Error. File end in token parsing.", false},
    {"<a></a", "Parser Error. File end in token parsing.", true},
    {"<a/><b/>", "Parser Error. Found 2nd root element.", true},
    {"<a></a>\n<b>", "Parser Error. Found 2nd root element.", true},
    {"</a>", "Parser Error. Found illegal EndTag.", false},
    {"<a/></a>", "Parser Error. Found illegal EndTag.", true},
    {"<a>\n  <b>\r\n</c></a>", "Parser Error. Tag name differ with  StartTag[b](Line 1:2) and end EndTag[c](Line 2:0).",
     true},
    {"<a>\r\r\t<b></bb></a>", "Parser Error. Tag name differ with  StartTag[b](Line 2:1) and end EndTag[bb](Line 2:4).",
     true},
    {"<a></a >", "Parser Error. Found Syntax error character[ ](0x20) in EndTag.", true},
    {"<?xml a>b?>", "Parser Error. Found Syntax error character[>](0x3e) in '<? ... ?>' .", false},
    {"<?xml <?>", "Parser Error. Found Syntax error character[<](0x3c) in '<? ... ?>' .", false},
    {"<?xml v='?>", "Parser Error. File end in '<? ... ?>' .", false},
    {"<!x>", "Parser Error. Found Syntax error character[x](0x78) in '<!...!>' .", false},
    {"<!-x-->", "Parser Error. Found Syntax error character[x](0x78) in '<!...!>' .", false},
    {"<!doctype a>", "Parser Error. Found Syntax error character[d](0x64) in '<!...!>' .", false},
    {"<!", "Parser Error. File end in '<!...!>' .", false},
    {"<!-- a -- b -->", "Parser Error. Found '--' in comment.", false},
    {"<!-- a --->", "Parser Error. Found '--' in comment.", false},
    {"<!-- a", "Parser Error. File end in '<-- ... -->' .", false},
    {"<a><![CDATA[ <![CDATA[ ]]></a>", "Parser Error. Found '<![CDATA[' in '<![CDATA[ ... ]]>' .", true},
    {"<a><![CDATA[ x ]]", "Parser Error. File end in '<![CDATA[ ... ]]>' .", true},
    {"<!DOCTYPE a [ <!ENTITY e 'v'> ]x>",
     "Parser Error. Found Syntax error character[x](0x78) after ']'.in '<!DOCTYPE[...]>' .", false},
    {"<!DOCTYPE a", "Parser Error. File end in '<!DOCTYPE ... >' .", false},
    {"<!DOCTYPE a [ x", "Parser Error. File end in '<!DOCTYPE ... >' .", false},
    {"<a>x<", "Parser Error.", true},
    {"<a>x</", "Parser Error.", true},
    // Accepted: blanks only and open elements at the end (the message left
    // untouched), text around the root, references left undecoded, '?>' in a
    // quoted PI string, CDATA hiding markup, whitespace of any kind between
    // attributes, high bytes and ':' '-' '.' digits in names.
    {"   \r\n\t ", "", false},
    {"<a>text", "", true},
    {"<a><b></b>", "", true},
    {"hello <a/> bye", "Parser Success.", true},
    {"<a>&quot;&#39;&gt;</a>", "Parser Success.", true},
    {"<?xml version=\"1.0\" note='?>'?><a/>", "Parser Success.", true},
    {"<!----><a/>", "Parser Success.", true},
    {"<a><![CDATA[ 5 > 4 \"q\" ]]]></a>", "Parser Success.", true},
    {"<!DOCTYPE a [ <!ENTITY e 'v'> ]><a/>", "Parser Success.", true},
    {"<a\tx='1'\r\n  y=\"2\"\n/>", "Parser Success.", true},
    {"<\xC3\xA9:n-1.x\xC3\xA9/>", "Parser Success.", true},
};

TEST_F(XmlParserTest, DocumentTableThroughEveryLoader)
{
    for (Loader how : {Loader::Copy, Loader::Borrow, Loader::File}) {
        for (const ParseRow& row : kRows) {
            SCOPED_TRACE(std::to_string(static_cast<int>(how)) + ": " + row.input);
            XmlParser_Class parser;
            ASSERT_EQ(Load(&parser, row.input, how), SUCCESS);
            const bool refused = strncmp(row.message, "Parser Error", 12) == 0;
            EXPECT_EQ(parser.ParserMain(), refused ? XMLPARSER_PARSER_ERROR : SUCCESS);
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
