#include "xml/xml_parser.h"

#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "common/cfg_file.h"
#include "common/return_codes.h"
#include "common/string_buf.h"
#include "xml/char_tables.h"

namespace {

// Names quoted in messages are cut to this many bytes.
constexpr int MESSAGE_NAME_MAX = 255;

// The two ways a document can end inside a start tag.
constexpr char kTagEnd[] = "Parser Error. File end in start tag parsing.";
constexpr char kAttrEnd[] = "Parser Error. File end in start tag attribute.";

int cut_name_length(int len)
{
    return len < MESSAGE_NAME_MAX ? len : MESSAGE_NAME_MAX;
}

}  // namespace

XmlParser_Class::~XmlParser_Class()
{
    delete m_pRoot;
    if (m_nBorrowed == 0) {
        free(m_pBuf);
    }
}

int XmlParser_Class::LoadCheck(const unsigned char* data, int size) const
{
    if (m_pBuf != nullptr || data == nullptr || size < 1) {
        return DEBUG_WARNING;
    }
    if (size > XMLPARSER_MAX_DOCSIZE) {
        return DATA_LARGE_THEN_BUF;
    }
    return SUCCESS;
}

int XmlParser_Class::Construct_FromFileOpen(const char* path, DbPrintf_Class* pDB)
{
    if (path == nullptr || m_pBuf != nullptr) {
        return DEBUG_WARNING;
    }
    long long size = 0;
    int rc = GetFileSize(path, &size, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    if (size <= 0) {
        return CANNOT_FILEOPEN;
    }
    if (size > XMLPARSER_MAX_DOCSIZE) {
        return DATA_LARGE_THEN_BUF;
    }
    unsigned char* buf = static_cast<unsigned char*>(calloc(1, static_cast<size_t>(size)));
    if (buf == nullptr) {
        return MALLOC_ERROR;
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        free(buf);
        return CANNOT_FILEOPEN;
    }
    // One read: a file that shrank meanwhile leaves zero bytes at the end,
    // which the parse then rejects as abnormal characters.
    ssize_t got = read(fd, buf, static_cast<size_t>(size));
    close(fd);
    if (got < 0) {
        free(buf);
        return SYS_FUNC_ERROR;
    }
    m_pBuf = buf;
    m_nSize = static_cast<int>(size);
    m_nBorrowed = 0;
    return SUCCESS;
}

int XmlParser_Class::Construct_WithMemAlloc_BufferCopy(const unsigned char* data, int size, DbPrintf_Class*)
{
    int rc = LoadCheck(data, size);
    if (rc != SUCCESS) {
        return rc;
    }
    unsigned char* buf = static_cast<unsigned char*>(malloc(static_cast<size_t>(size)));
    if (buf == nullptr) {
        return MALLOC_ERROR;
    }
    memcpy(buf, data, static_cast<size_t>(size));
    m_pBuf = buf;
    m_nSize = size;
    m_nBorrowed = 0;
    return SUCCESS;
}

int XmlParser_Class::Construct_BufferPointerCopy(const unsigned char* data, int size, DbPrintf_Class*)
{
    int rc = LoadCheck(data, size);
    if (rc != SUCCESS) {
        return rc;
    }
    // The buffer is never written through; the pointer is non-const only so
    // that owned and borrowed buffers share one field.
    m_pBuf = const_cast<unsigned char*>(data);
    m_nSize = size;
    m_nBorrowed = 1;
    return SUCCESS;
}

void XmlParser_Class::SetMessage(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(m_szMessage, sizeof m_szMessage, fmt, ap);
    va_end(ap);
}

int XmlParser_Class::FileEnd(int rc, const char* message)
{
    if (rc == XMLPARSER_END_OF_FILE) {
        SetMessage("%s", message);
        return XMLPARSER_PARSER_ERROR;
    }
    return rc;
}

int XmlParser_Class::Move_NextChar()
{
    m_CurAddr = m_NextAddr;
    const int off = m_CurAddr.GetOffset();
    if (off >= m_nSize) {
        return XMLPARSER_END_OF_FILE;
    }
    const unsigned char byte = m_pBuf[off];
    if (!TextFileChar[byte]) {
        SetMessage("Parser Error. Found abnormal character code [0x%02x] .", byte);
        return XMLPARSER_PARSER_ERROR;
    }
    const int line = m_CurAddr.GetLine();
    const int col = m_CurAddr.GetColumn();
    switch (byte) {
    case '\t':
        m_nCurChar = ' ';
        m_NextAddr.Set_Address(off + 1, line, col + 1);
        break;
    case '\n':
        m_nCurChar = ' ';
        m_NextAddr.Set_Address(off + 1, line + 1, 0);
        break;
    case '\r': {
        // CR LF is one line end; a lone CR is one too.
        const int step = (off + 1 < m_nSize && m_pBuf[off + 1] == '\n') ? 2 : 1;
        m_nCurChar = ' ';
        m_NextAddr.Set_Address(off + step, line + 1, 0);
        break;
    }
    default:
        m_nCurChar = byte;
        m_NextAddr.Set_Address(off + 1, line, col + 1);
        break;
    }
    return SUCCESS;
}

int XmlParser_Class::SkipBlanks()
{
    while (m_nCurChar == ' ') {
        int rc = Move_NextChar();
        if (rc != SUCCESS) {
            return rc;
        }
    }
    return SUCCESS;
}

int XmlParser_Class::GetToken(const unsigned char** name, int* len)
{
    if (!NameTokenChar1[m_nCurChar]) {
        return DEBUG_WARNING;
    }
    const int start = m_CurAddr.GetOffset();
    for (;;) {
        int rc = Move_NextChar();
        if (rc != SUCCESS) {
            return FileEnd(rc, "Parser Error. File end in token parsing.");
        }
        if (!NameTokenChar2[m_nCurChar]) {
            break;
        }
    }
    *name = m_pBuf + start;
    *len = m_CurAddr.GetOffset() - start;
    return SUCCESS;
}

int XmlParser_Class::ParserMain(DbPrintf_Class*)
{
    if (m_pBuf == nullptr) {
        return DEBUG_WARNING;
    }
    for (;;) {
        int rc = Move_NextChar();
        if (rc == XMLPARSER_END_OF_FILE) {
            // Lenient end: open elements or no element at all still give
            // SUCCESS; only a complete tree says so in the message.
            if (m_pRoot != nullptr && m_pOpenElement == nullptr) {
                SetMessage("Parser Success.");
            }
            return SUCCESS;
        }
        if (rc == SUCCESS) {
            const int c = m_nCurChar;
            if (c == '<') {
                rc = Read_Markup();
            } else if (c == '>' || c == '"' || c == '\'') {
                if (m_pOpenElement != nullptr) {
                    SetMessage("Parser Error. Found Syntax error character[%c](0x%02x) in element content.", c, c);
                } else {
                    SetMessage("Parser Error. Found Syntax error character[%c](0x%02x).", c, c);
                }
                rc = XMLPARSER_PARSER_ERROR;
            }
        }
        if (rc == XMLPARSER_PARSER_ERROR) {
            return rc;
        }
        if (rc == XMLPARSER_END_OF_FILE) {
            // The data ended right after "<" or "</": no construct of its
            // own to name, but still a broken document.
            SetMessage("Parser Error.");
            return XMLPARSER_PARSER_ERROR;
        }
        if (rc != SUCCESS) {
            SetMessage("Parser Error.");
            return rc;
        }
    }
}

int XmlParser_Class::Read_Markup()
{
    m_TagStart = m_CurAddr;
    int rc = Move_NextChar();
    if (rc != SUCCESS) {
        return rc;
    }
    const int c = m_nCurChar;
    if (c == '?' || c == '!') {
        rc = (c == '?') ? Skip_ProcessingInstruction() : Skip_Exclamation();
        if (rc == SUCCESS) {
            m_LastEnd = m_CurAddr;
        }
        return rc;
    }
    if (c == '/') {
        rc = Move_NextChar();
        if (rc != SUCCESS) {
            return rc;
        }
        if (!NameTokenChar1[m_nCurChar]) {
            SetMessage("Parser Error. Found Syntax error character[%c](0x%02x) after '</'.", m_nCurChar, m_nCurChar);
            return XMLPARSER_PARSER_ERROR;
        }
        return Read_EndTag();
    }
    if (NameTokenChar1[c]) {
        return Read_StartTag();
    }
    SetMessage("Parser Error. Found Syntax error character[%c](0x%02x) after '<'.", c, c);
    return XMLPARSER_PARSER_ERROR;
}

int XmlParser_Class::Read_StartTag()
{
    std::unique_ptr<XmlElement_Class> elem(new (std::nothrow) XmlElement_Class);
    if (!elem) {
        return MALLOC_ERROR;
    }
    const unsigned char* name = nullptr;
    int len = 0;
    int rc = GetToken(&name, &len);
    if (rc != SUCCESS) {
        return rc;
    }
    rc = elem->Set_ElementName(name, len);
    if (rc != SUCCESS) {
        return rc;
    }
    bool selfClosing = false;
    rc = Read_Attributes(elem.get(), &selfClosing);
    if (rc != SUCCESS) {
        return rc;
    }
    elem->Set_StartTag_Start(&m_TagStart);
    elem->Set_StartTag_End(&m_CurAddr);
    m_LastEnd = m_CurAddr;
    if (selfClosing) {
        elem->Set_ContentKind(XMLELEMENT_EMPTY);
    }
    rc = Place_Element(elem.get(), selfClosing);
    if (rc == SUCCESS) {
        elem.release();
    }
    return rc;
}

// Reads the attributes after the element name up to the '>' that ends the
// start tag, or its "/>" (*pSelfClosing).
int XmlParser_Class::Read_Attributes(XmlElement_Class* elem, bool* pSelfClosing)
{
    for (;;) {
        int rc = SkipBlanks();
        if (rc != SUCCESS) {
            return FileEnd(rc, kTagEnd);
        }
        if (m_nCurChar == '/') {
            rc = Move_NextChar();
            if (rc != SUCCESS) {
                return FileEnd(rc, kTagEnd);
            }
            if (m_nCurChar != '>') {
                SetMessage("Parser Error. Found Syntax error character [/] in start tag.");
                return XMLPARSER_PARSER_ERROR;
            }
            *pSelfClosing = true;
            return SUCCESS;
        }
        if (m_nCurChar == '>') {
            return SUCCESS;
        }
        if (!NameTokenChar1[m_nCurChar]) {
            SetMessage("Parser Error. Found Syntax error character [%c](0x%02x) in start tag.", m_nCurChar, m_nCurChar);
            return XMLPARSER_PARSER_ERROR;
        }
        rc = Read_Attribute(elem);
        if (rc != SUCCESS) {
            return rc;
        }
    }
}

// One name="value" (or name='value') attribute, added to elem. The parser
// stands on the character after the closing quote.
int XmlParser_Class::Read_Attribute(XmlElement_Class* elem)
{
    const unsigned char* attrName = nullptr;
    int attrLen = 0;
    int rc = GetToken(&attrName, &attrLen);
    if (rc != SUCCESS) {
        return rc;
    }
    if (m_nCurChar != '=') {
        SetMessage("Parser Error. Found Syntax error character [%c](0x%02x) in start tag attribute.", m_nCurChar,
                   m_nCurChar);
        return XMLPARSER_PARSER_ERROR;
    }
    int valStart = 0;
    int valLen = 0;
    rc = Read_AttributeValue(&valStart, &valLen);
    if (rc != SUCCESS) {
        return rc;
    }
    rc = Move_NextChar();
    if (rc != SUCCESS) {
        return FileEnd(rc, kTagEnd);
    }
    if (m_nCurChar != ' ' && m_nCurChar != '/' && m_nCurChar != '>') {
        SetMessage("Parser Error. Found Syntax error character [%c](0x%02x) after attribute values string.", m_nCurChar,
                   m_nCurChar);
        return XMLPARSER_PARSER_ERROR;
    }
    NameValToken_Class* existing = nullptr;
    if (elem->SearchGet_Attribute(reinterpret_cast<const char*>(attrName), attrLen, &existing) == SUCCESS) {
        SetMessage("Parser Error. The same attribute name exists.[%.*s].", cut_name_length(attrLen),
                   reinterpret_cast<const char*>(attrName));
        return XMLPARSER_PARSER_ERROR;
    }
    std::unique_ptr<NameValToken_Class> pair(new (std::nothrow) NameValToken_Class);
    if (!pair) {
        return MALLOC_ERROR;
    }
    rc = pair->m_Name.Copy_OnlyPointer(attrName, attrLen);
    if (rc == SUCCESS) {
        rc = pair->m_Val.Copy_OnlyPointer(m_pBuf + valStart, valLen);
    }
    if (rc == SUCCESS) {
        rc = elem->Add_Attribute(pair.get());
    }
    if (rc != SUCCESS) {
        return rc;
    }
    pair.release();
    return SUCCESS;
}

// The quoted value after an attribute's '=': *pStart and *pLen span it from
// the opening quote to the closing one, both included, and the parser stands
// on the closing quote.
int XmlParser_Class::Read_AttributeValue(int* pStart, int* pLen)
{
    int rc = Move_NextChar();
    if (rc != SUCCESS) {
        return FileEnd(rc, kAttrEnd);
    }
    const int quote = m_nCurChar;
    if (quote != '"' && quote != '\'') {
        SetMessage("Parser Error. Not found quote character in start tag attribute.");
        return XMLPARSER_PARSER_ERROR;
    }
    const int other = (quote == '"') ? '\'' : '"';
    *pStart = m_CurAddr.GetOffset();
    for (;;) {
        rc = Move_NextChar();
        if (rc != SUCCESS) {
            return FileEnd(rc, kAttrEnd);
        }
        if (m_nCurChar == quote) {
            break;
        }
        if (m_nCurChar == '<' || m_nCurChar == '>' || m_nCurChar == other) {
            SetMessage("Parser Error.found Syntax error character [%c](0x%02x) in start tag attribute.", m_nCurChar,
                       m_nCurChar);
            return XMLPARSER_PARSER_ERROR;
        }
    }
    *pLen = m_CurAddr.GetOffset() - *pStart + 1;
    return SUCCESS;
}

// Hangs a finished start tag's element into the tree: under the open
// element, or as the root. On SUCCESS the tree owns elem, and an element
// that is not self-closing becomes the open one.
int XmlParser_Class::Place_Element(XmlElement_Class* elem, bool selfClosing)
{
    if (m_pOpenElement != nullptr) {
        const int rc = m_pOpenElement->Add_ChildElement(elem);
        if (rc != SUCCESS) {
            return rc;
        }
    } else if (m_pRoot != nullptr) {
        SetMessage("Parser Error. Found 2nd root element.");
        return XMLPARSER_PARSER_ERROR;
    } else {
        m_pRoot = elem;
    }
    if (!selfClosing) {
        m_pOpenElement = elem;
    }
    return SUCCESS;
}

int XmlParser_Class::Read_EndTag()
{
    if (m_pOpenElement == nullptr) {
        SetMessage("Parser Error. Found illegal EndTag.");
        return XMLPARSER_PARSER_ERROR;
    }
    const unsigned char* name = nullptr;
    int len = 0;
    int rc = GetToken(&name, &len);
    if (rc != SUCCESS) {
        return rc;
    }
    XmlElement_Class* open = m_pOpenElement;
    const OneToken_Class& openName = open->GetName();
    if (openName.GetLength() != len || memcmp(openName.GetPtr(), name, len) != 0) {
        SetMessage("Parser Error. Tag name differ with  StartTag[%.*s](Line %d:%d) and end EndTag[%.*s](Line %d:%d).",
                   cut_name_length(openName.GetLength()), reinterpret_cast<const char*>(openName.GetPtr()),
                   open->GetStartTag_Start().GetLine(), open->GetStartTag_Start().GetColumn(), cut_name_length(len),
                   reinterpret_cast<const char*>(name), m_TagStart.GetLine(), m_TagStart.GetColumn());
        return XMLPARSER_PARSER_ERROR;
    }
    if (m_nCurChar != '>') {
        SetMessage("Parser Error. Found Syntax error character[%c](0x%02x) in EndTag.", m_nCurChar, m_nCurChar);
        return XMLPARSER_PARSER_ERROR;
    }
    open->Set_EndTag_Start(&m_TagStart);
    open->Set_EndTag_End(&m_CurAddr);
    m_LastEnd = m_CurAddr;
    if (open->GetChildren().GetCount() > 0) {
        open->Set_ContentKind(XMLELEMENT_CHILDREN);
    } else {
        const int textStart = open->GetStartTag_End().GetOffset() + 1;
        const int textLen = m_TagStart.GetOffset() - textStart;
        if (textLen > 0) {
            open->Set_ContentKind(XMLELEMENT_TEXT);
            rc = open->Set_ElementString(m_pBuf + textStart, textLen);
            if (rc != SUCCESS) {
                return rc;
            }
        }
    }
    m_pOpenElement = open->GetParent();
    return SUCCESS;
}

int XmlParser_Class::Skip_ProcessingInstruction()
{
    static const char kEnd[] = "Parser Error. File end in '<? ... ?>' .";
    int prev = 0;
    for (;;) {
        int rc = Move_NextChar();
        if (rc != SUCCESS) {
            return FileEnd(rc, kEnd);
        }
        const int c = m_nCurChar;
        if (c == '"' || c == '\'') {
            // Quoted strings may hold '<', '>' and "?>".
            do {
                rc = Move_NextChar();
                if (rc != SUCCESS) {
                    return FileEnd(rc, kEnd);
                }
            } while (m_nCurChar != c);
        } else if (c == '>' && prev == '?') {
            return SUCCESS;
        } else if (c == '<' || c == '>') {
            SetMessage("Parser Error. Found Syntax error character[%c](0x%02x) in '<? ... ?>' .", c, c);
            return XMLPARSER_PARSER_ERROR;
        }
        prev = c;
    }
}

int XmlParser_Class::Skip_Exclamation()
{
    static const char kEnd[] = "Parser Error. File end in '<!...!>' .";
    int rc = Move_NextChar();
    if (rc != SUCCESS) {
        return FileEnd(rc, kEnd);
    }
    const char* rest = nullptr;
    int (XmlParser_Class::*skip)() = nullptr;
    switch (m_nCurChar) {
    case '-':
        rest = "-";
        skip = &XmlParser_Class::Skip_Comment;
        break;
    case '[':
        rest = "CDATA[";
        skip = &XmlParser_Class::Skip_CData;
        break;
    case 'D':
        rest = "OCTYPE";
        skip = &XmlParser_Class::Skip_DocType;
        break;
    default: break;
    }
    if (rest != nullptr) {
        for (; *rest != '\0'; rest++) {
            rc = Move_NextChar();
            if (rc != SUCCESS) {
                return FileEnd(rc, kEnd);
            }
            if (m_nCurChar != static_cast<unsigned char>(*rest)) {
                break;
            }
        }
        if (*rest == '\0') {
            return (this->*skip)();
        }
    }
    SetMessage("Parser Error. Found Syntax error character[%c](0x%02x) in '<!...!>' .", m_nCurChar, m_nCurChar);
    return XMLPARSER_PARSER_ERROR;
}

int XmlParser_Class::Skip_Comment()
{
    static const char kEnd[] = "Parser Error. File end in '<-- ... -->' .";
    int dashes = 0;
    for (;;) {
        int rc = Move_NextChar();
        if (rc != SUCCESS) {
            return FileEnd(rc, kEnd);
        }
        if (m_nCurChar != '-') {
            dashes = 0;
            continue;
        }
        if (++dashes < 2) {
            continue;
        }
        rc = Move_NextChar();
        if (rc != SUCCESS) {
            return FileEnd(rc, kEnd);
        }
        if (m_nCurChar != '>') {
            SetMessage("Parser Error. Found '--' in comment.");
            return XMLPARSER_PARSER_ERROR;
        }
        return SUCCESS;
    }
}

int XmlParser_Class::Skip_CData()
{
    static const char kEnd[] = "Parser Error. File end in '<![CDATA[ ... ]]>' .";
    static const char kNested[] = "![CDATA[";
    const int nestedLen = static_cast<int>(sizeof kNested - 1);
    int brackets = 0;
    for (;;) {
        int rc = Move_NextChar();
        if (rc != SUCCESS) {
            return FileEnd(rc, kEnd);
        }
        if (m_nCurChar == '>' && brackets >= 2) {
            return SUCCESS;
        }
        if (m_nCurChar == ']') {
            brackets++;
            continue;
        }
        brackets = 0;
        const int next = m_NextAddr.GetOffset();
        if (m_nCurChar == '<' && m_nSize - next >= nestedLen && memcmp(m_pBuf + next, kNested, nestedLen) == 0) {
            SetMessage("Parser Error. Found '<![CDATA[' in '<![CDATA[ ... ]]>' .");
            return XMLPARSER_PARSER_ERROR;
        }
    }
}

int XmlParser_Class::Skip_DocType()
{
    static const char kEnd[] = "Parser Error. File end in '<!DOCTYPE ... >' .";
    for (;;) {
        int rc = Move_NextChar();
        if (rc != SUCCESS) {
            return FileEnd(rc, kEnd);
        }
        if (m_nCurChar == '>') {
            return SUCCESS;
        }
        if (m_nCurChar != '[') {
            continue;
        }
        do {
            rc = Move_NextChar();
            if (rc != SUCCESS) {
                return FileEnd(rc, kEnd);
            }
        } while (m_nCurChar != ']');
        rc = Move_NextChar();
        if (rc != SUCCESS) {
            return FileEnd(rc, kEnd);
        }
        if (m_nCurChar != '>') {
            SetMessage("Parser Error. Found Syntax error character[%c](0x%02x) after ']'.in '<!DOCTYPE[...]>' .",
                       m_nCurChar, m_nCurChar);
            return XMLPARSER_PARSER_ERROR;
        }
        return SUCCESS;
    }
}

int XmlParser_Class::Output_XMLTree(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    if (m_pRoot == nullptr) {
        return SUCCESS;
    }
    return m_pRoot->OutputBuffer(buf, pDB);
}

int XmlParser_ReadRoot(XmlParser_Class* parser, const char* path, const char* rootName, const XmlElement_Class** root,
                       DbPrintf_Class* pDB)
{
    int rc = parser->Construct_FromFileOpen(path, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    rc = parser->ParserMain(pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    *root = parser->GetRootElement();
    if (*root == nullptr || (*root)->GetName().Compare(rootName, pDB) != SUCCESS) {
        return XMLPARSER_PARSER_ERROR;
    }
    return SUCCESS;
}
