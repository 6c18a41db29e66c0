#ifndef OSTREL_XML_XML_PARSER_H
#define OSTREL_XML_XML_PARSER_H

#include "xml/in_file_address.h"
#include "xml/xml_element.h"

class DbPrintf_Class;
class StringBuf_Class;

// Largest document the reader accepts: 262,143 bytes.
constexpr int XMLPARSER_MAX_DOCSIZE = 0x3FFFF;

// XmlParser_Class: a small, strict, non-validating XML reader.
//
// Load a whole document with exactly one of the three Construct_* calls,
// then call ParserMain() once. The tree (GetRootElement) and every span in it
// borrow the parser's buffer and live as long as the parser; with
// Construct_BufferPointerCopy the caller's buffer must outlive both.
// Entity and character references are not decoded; processing instructions,
// comments, CDATA sections and a DOCTYPE declaration are skipped.
//
// ParserMain returns SUCCESS also when the data ends with elements still
// open or without any element: callers check GetRootElement() themselves.
// On failure GetMessage() holds one text naming the offending character (and
// for mismatched tags the lines and columns, from 0); GetCurrentAddress()
// is where reading stopped. Not thread-safe.
class XmlParser_Class {
public:
    XmlParser_Class() = default;
    virtual ~XmlParser_Class();

    XmlParser_Class(const XmlParser_Class&) = delete;
    XmlParser_Class& operator=(const XmlParser_Class&) = delete;

    // Reads the file into an owned buffer. DEBUG_WARNING for a null path or a
    // parser already loaded; CANNOT_FILEOPEN / SEEK_FAILED from sizing, also
    // CANNOT_FILEOPEN for an empty file; DATA_LARGE_THEN_BUF from 262,144
    // bytes on; MALLOC_ERROR; SYS_FUNC_ERROR for a failed read. A short read
    // leaves zero bytes at the end, which the parse rejects.
    int Construct_FromFileOpen(const char* path, DbPrintf_Class* pDB = nullptr);
    // Owned copy of size bytes. DEBUG_WARNING for null, size < 1 or a parser
    // already loaded; DATA_LARGE_THEN_BUF above 262,143; MALLOC_ERROR.
    int Construct_WithMemAlloc_BufferCopy(const unsigned char* data, int size, DbPrintf_Class* pDB = nullptr);
    // Borrows the caller's bytes (same checks); they must outlive the parser.
    int Construct_BufferPointerCopy(const unsigned char* data, int size, DbPrintf_Class* pDB = nullptr);

    // Parses the loaded buffer. DEBUG_WARNING without a buffer; SUCCESS;
    // XMLPARSER_PARSER_ERROR with the message set; or a code from below
    // (MALLOC_ERROR, ...) with the message "Parser Error.". Data that ends
    // right after "<" or "</" has no construct message of its own: it gives
    // XMLPARSER_PARSER_ERROR with "Parser Error.".
    int ParserMain(DbPrintf_Class* pDB = nullptr);

    // Appends the tree from the root: per element depth tabs, "<name", each
    // attribute as " name=value" (value with quotes), then "/>\n" (empty),
    // ">\n" children "</name>\n" (children) or ">" raw text "</name>\n"
    // (text). Nothing without a root. The first failing append is returned.
    int Output_XMLTree(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    // Null until the first start tag was read. Owned by the parser.
    XmlElement_Class* GetRootElement() const { return m_pRoot; }
    // NUL-terminated, at most 255 characters; empty until set.
    const char* GetMessage() const { return m_szMessage; }
    const InFileAddress_Class& GetCurrentAddress() const { return m_CurAddr; }

private:
    int LoadCheck(const unsigned char* data, int size) const;
    int Move_NextChar();
    int GetToken(const unsigned char** name, int* len);
    int Read_Markup();
    int Read_StartTag();
    int Read_Attributes(XmlElement_Class* elem, bool* pSelfClosing);
    int Read_Attribute(XmlElement_Class* elem);
    int Read_AttributeValue(int* pStart, int* pLen);
    int Place_Element(XmlElement_Class* elem, bool selfClosing);
    int Read_EndTag();
    int Skip_ProcessingInstruction();
    int Skip_Exclamation();
    int Skip_Comment();
    int Skip_CData();
    int Skip_DocType();
    int SkipBlanks();
    int FileEnd(int rc, const char* message);
    void SetMessage(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    unsigned char* m_pBuf = nullptr;
    int m_nSize = 0;
    XmlElement_Class* m_pRoot = nullptr;
    char m_szMessage[256] = {};
    InFileAddress_Class m_CurAddr;
    int m_nBorrowed = 0;
    int m_nCurChar = 0;
    InFileAddress_Class m_NextAddr;
    XmlElement_Class* m_pOpenElement = nullptr;
    InFileAddress_Class m_TagStart;
    InFileAddress_Class m_LastEnd;
};

// Loads the file at path into parser, parses it and hands out its root
// element when the root is named rootName (the element is owned by parser).
// The load's or the parse's own code when either fails;
// XMLPARSER_PARSER_ERROR when there is no root or it has another name.
int XmlParser_ReadRoot(XmlParser_Class* parser, const char* path, const char* rootName, const XmlElement_Class** root,
                       DbPrintf_Class* pDB = nullptr);

#endif
