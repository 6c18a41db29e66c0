#ifndef OSTREL_XML_XML_ELEMENT_H
#define OSTREL_XML_XML_ELEMENT_H

#include "common/tokens.h"
#include "xml/element_array.h"
#include "xml/in_file_address.h"

class DbPrintf_Class;
class StringBuf_Class;

// Content kinds of an element.
constexpr int XMLELEMENT_EMPTY = 0;     // self-closing, or nothing between the tags
constexpr int XMLELEMENT_CHILDREN = 1;  // has child elements (text beside them ignored)
constexpr int XMLELEMENT_TEXT = 2;      // text only

// XmlElement_Class: one node of a parsed document.
//
// The name, the attribute spans and the text are borrowed from the parser's
// buffer and stay valid as long as the XmlParser_Class that built the tree
// (and, for a borrowed buffer, the caller's buffer). Children and attribute
// pairs are owned by the element. An attribute value includes its two quote
// characters. Not thread-safe; read-only use of a finished tree from several
// threads is fine.
//
// Name arguments of the queries are a pointer and a length of 1 to 262,143
// bytes: a null name or a length below 1 gives DEBUG_WARNING, a longer one
// DATA_LARGE_THEN_BUF. Names compare byte for byte (case-sensitive).
class XmlElement_Class {
public:
    XmlElement_Class() = default;
    // Frees the subtree without recursion: a document may nest elements as
    // deep as its size allows (some 87,000 levels), far more than a thread's
    // stack holds frames for.
    virtual ~XmlElement_Class();

    XmlElement_Class(const XmlElement_Class&) = delete;
    XmlElement_Class& operator=(const XmlElement_Class&) = delete;

    // The index-th child (from 0) named name into *out: SUCCESS; fewer such
    // children: NOTFOUND_ITEM. An index not below the number of children (of
    // any name) gives NO_MATCH_ARGUMENT.
    int Get_ChildElement(const char* name, int len, int index, XmlElement_Class** out,
                         DbPrintf_Class* pDB = nullptr) const;
    // Number of children named name into *count. SUCCESS.
    int Search_ChildElement(const char* name, int len, int* count, DbPrintf_Class* pDB = nullptr) const;
    // First attribute named name into *out: SUCCESS; none: *out = null and
    // NO_MATCH_ARGUMENT.
    int SearchGet_Attribute(const char* name, int len, NameValToken_Class** out, DbPrintf_Class* pDB = nullptr) const;

    // The text with spacing normalised (outer blanks, tabs, CR and LF
    // dropped; inner runs of blanks/tabs become one blank; CR and CR LF
    // become LF) as an owned copy in *out, which must be empty.
    // STRING_NOT_FOUND when the element is not a text element or nothing is
    // left; DEBUG_WARNING for a missing text, null out or non-empty out;
    // MALLOC_ERROR; else the copy's result.
    int Get_CutSpace_ElementString(OneToken_Class* out, DbPrintf_Class* pDB = nullptr) const;
    // The cut text of the index-th child named name (length by strlen) into
    // *out (must be empty): SUCCESS when that child exists and is a text
    // element, otherwise NOTFOUND_ITEM. A text of blanks only gives SUCCESS
    // with *out left empty.
    int Get_ChildElementString(const char* name, OneToken_Class* out, int index, DbPrintf_Class* pDB = nullptr) const;
    // As Get_ChildElementString, then the cut text converted like atoi
    // (leading sign and digits, 0 when none) into *out. A text element of
    // blanks only converts to 0 with SUCCESS. NOTFOUND_ITEM otherwise.
    int Get_ChildElementValue(const char* name, int* out, int index, DbPrintf_Class* pDB = nullptr) const;

    // Placeholders: SUCCESS and nothing found (*out = null).
    int SearchGet_Element_FromAllUnderElemnt(const char* name, int len, XmlElement_Class** out,
                                             DbPrintf_Class* pDB = nullptr) const;
    int SearchGet_Element_FromChildLayerElemnt(const char* name, int len, XmlElement_Class** out,
                                               DbPrintf_Class* pDB = nullptr) const;

    // Building the tree (used by the parser).
    int Set_StartTag_Start(const InFileAddress_Class* a, DbPrintf_Class* pDB = nullptr);
    int Set_StartTag_End(const InFileAddress_Class* a, DbPrintf_Class* pDB = nullptr);
    int Set_EndTag_Start(const InFileAddress_Class* a, DbPrintf_Class* pDB = nullptr);
    int Set_EndTag_End(const InFileAddress_Class* a, DbPrintf_Class* pDB = nullptr);
    // Takes ownership of child, sets its parent and depth and appends it
    // (codes of Arr_XmlElement_Class::Add_XmlElement_Class).
    int Add_ChildElement(XmlElement_Class* child, DbPrintf_Class* pDB = nullptr);
    // Takes ownership of a heap pair; DEBUG_WARNING for null.
    int Add_Attribute(NameValToken_Class* pair, DbPrintf_Class* pDB = nullptr);
    // Borrowed text span of 1..262,143 bytes; DEBUG_WARNING otherwise.
    int Set_ElementString(const unsigned char* text, int len, DbPrintf_Class* pDB = nullptr);
    // Borrowed name span (codes of OneToken_Class::Copy_OnlyPointer).
    int Set_ElementName(const unsigned char* name, int len, DbPrintf_Class* pDB = nullptr);
    void Set_ContentKind(int kind) { m_nContentKind = kind; }

    // Appends this element and its subtree, indented by depth tabs (the tree
    // output format of XmlParser_Class::Output_XMLTree). The first failing
    // append stops the output and is returned.
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    const OneToken_Class& GetName() const { return m_Name; }
    XmlElement_Class* GetParent() const { return m_pParent; }
    const Arr_XmlElement_Class& GetChildren() const { return m_Children; }
    const Arr_NameValToken_Class& GetAttributes() const { return m_Attributes; }
    const OneToken_Class& GetText() const { return m_Text; }
    const InFileAddress_Class& GetStartTag_Start() const { return m_StartTagStart; }
    const InFileAddress_Class& GetStartTag_End() const { return m_StartTagEnd; }
    const InFileAddress_Class& GetEndTag_Start() const { return m_EndTagStart; }
    const InFileAddress_Class& GetEndTag_End() const { return m_EndTagEnd; }
    int GetContentKind() const { return m_nContentKind; }
    int GetDepth() const { return m_nDepth; }

private:
    OneToken_Class m_Name;
    XmlElement_Class* m_pParent = nullptr;
    Arr_XmlElement_Class m_Children;
    Arr_NameValToken_Class m_Attributes;
    OneToken_Class m_Text;
    InFileAddress_Class m_StartTagStart;
    InFileAddress_Class m_StartTagEnd;
    InFileAddress_Class m_EndTagStart;
    InFileAddress_Class m_EndTagEnd;
    int m_nContentKind = XMLELEMENT_EMPTY;
    int m_nDepth = 0;
};

#endif
