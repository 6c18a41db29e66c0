#include "xml/xml_element.h"

#include <stdlib.h>
#include <string.h>

#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {

int check_name(const char* name, int len)
{
    if (name == nullptr || len < 1) {
        return DEBUG_WARNING;
    }
    if (len > ONETOKEN_MAXLEN) {
        return DATA_LARGE_THEN_BUF;
    }
    return SUCCESS;
}

bool span_equals(const OneToken_Class& token, const char* name, int len)
{
    return token.GetLength() == len && memcmp(token.GetPtr(), name, len) == 0;
}

bool is_space(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

int add_tabs(StringBuf_Class* buf, int depth)
{
    for (int i = 0; i < depth; i++) {
        int rc = buf->add("\t");
        if (rc != SUCCESS) {
            return rc;
        }
    }
    return SUCCESS;
}

int add_token(StringBuf_Class* buf, const OneToken_Class& token)
{
    return buf->add_FromPtr(token.GetPtr(), token.GetLength());
}

}  // namespace

XmlElement_Class::~XmlElement_Class()
{
    // Depth-first, one level of the stack at a time: descend to a last
    // child, detach it from its parent and delete it once it has no children
    // left, so each delete frees a leaf and never recurses. The parent links
    // are set on the way down, so the climb back needs no list of its own.
    XmlElement_Class* node = this;
    for (;;) {
        XmlElement_Class* child = node->m_Children.TakeLast();
        if (child != nullptr) {
            child->m_pParent = node;
            node = child;
            continue;
        }
        if (node == this) {
            break;
        }
        XmlElement_Class* parent = node->m_pParent;
        delete node;
        node = parent;
    }
}

int XmlElement_Class::Get_ChildElement(const char* name, int len, int index, XmlElement_Class** out,
                                       DbPrintf_Class*) const
{
    int rc = check_name(name, len);
    if (rc != SUCCESS) {
        return rc;
    }
    if (out == nullptr || index < 0) {
        return DEBUG_WARNING;
    }
    if (index >= m_Children.GetCount()) {
        return NO_MATCH_ARGUMENT;
    }
    int seen = 0;
    for (int i = 0; i < m_Children.GetCount(); i++) {
        XmlElement_Class* child = m_Children.Get(i);
        if (child != nullptr && span_equals(child->m_Name, name, len)) {
            if (seen == index) {
                *out = child;
                return SUCCESS;
            }
            seen++;
        }
    }
    return NOTFOUND_ITEM;
}

int XmlElement_Class::Search_ChildElement(const char* name, int len, int* count, DbPrintf_Class*) const
{
    int rc = check_name(name, len);
    if (rc != SUCCESS) {
        return rc;
    }
    if (count == nullptr) {
        return DEBUG_WARNING;
    }
    int n = 0;
    for (int i = 0; i < m_Children.GetCount(); i++) {
        XmlElement_Class* child = m_Children.Get(i);
        if (child != nullptr && span_equals(child->m_Name, name, len)) {
            n++;
        }
    }
    *count = n;
    return SUCCESS;
}

int XmlElement_Class::SearchGet_Attribute(const char* name, int len, NameValToken_Class** out, DbPrintf_Class*) const
{
    int rc = check_name(name, len);
    if (rc != SUCCESS) {
        return rc;
    }
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    for (int i = 0; i < m_Attributes.GetCount(); i++) {
        NameValToken_Class* pair = m_Attributes.Get(i);
        if (pair != nullptr && span_equals(pair->m_Name, name, len)) {
            *out = pair;
            return SUCCESS;
        }
    }
    *out = nullptr;
    return NO_MATCH_ARGUMENT;
}

int XmlElement_Class::Get_CutSpace_ElementString(OneToken_Class* out, DbPrintf_Class* pDB) const
{
    if (m_nContentKind != XMLELEMENT_TEXT) {
        return STRING_NOT_FOUND;
    }
    if (m_Text.GetPtr() == nullptr || out == nullptr || out->GetPtr() != nullptr) {
        return DEBUG_WARNING;
    }
    const unsigned char* src = m_Text.GetPtr();
    int end = m_Text.GetLength();
    while (end > 0 && is_space(src[end - 1])) {
        end--;
    }
    if (end == 0) {
        return STRING_NOT_FOUND;
    }
    int pos = 0;
    while (is_space(src[pos])) {
        pos++;
    }

    unsigned char* work = static_cast<unsigned char*>(malloc(m_Text.GetLength() + 1));
    if (work == nullptr) {
        return MALLOC_ERROR;
    }
    int n = 0;
    while (pos < end) {
        unsigned char c = src[pos];
        if (c == ' ' || c == '\t') {
            while (pos < end && (src[pos] == ' ' || src[pos] == '\t')) {
                pos++;
            }
            work[n++] = ' ';
        } else if (c == '\r') {
            pos += (pos + 1 < end && src[pos + 1] == '\n') ? 2 : 1;
            work[n++] = '\n';
        } else {
            work[n++] = c;
            pos++;
        }
    }
    int rc = out->Copy_WithMemAlloc(work, n, pDB);
    free(work);
    return rc;
}

int XmlElement_Class::Get_ChildElementString(const char* name, OneToken_Class* out, int index,
                                             DbPrintf_Class* pDB) const
{
    if (name == nullptr || out == nullptr) {
        return DEBUG_WARNING;
    }
    XmlElement_Class* child = nullptr;
    int rc = Get_ChildElement(name, static_cast<int>(strlen(name)), index, &child, pDB);
    if (rc != SUCCESS || child->m_nContentKind != XMLELEMENT_TEXT) {
        return NOTFOUND_ITEM;
    }
    // A text of blanks only cuts to nothing; the element still exists, so
    // the caller gets SUCCESS with an empty token.
    child->Get_CutSpace_ElementString(out, pDB);
    return SUCCESS;
}

int XmlElement_Class::Get_ChildElementValue(const char* name, int* out, int index, DbPrintf_Class* pDB) const
{
    if (name == nullptr || out == nullptr) {
        return DEBUG_WARNING;
    }
    OneToken_Class text;
    int rc = Get_ChildElementString(name, &text, index, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    // An owned copy is NUL-terminated; a blank-only text left the token
    // empty and counts as 0.
    const char* digits = reinterpret_cast<const char*>(text.GetPtr());
    *out = digits != nullptr ? static_cast<int>(strtol(digits, nullptr, 10)) : 0;
    text.Clear(pDB);
    return SUCCESS;
}

int XmlElement_Class::SearchGet_Element_FromAllUnderElemnt(const char*, int, XmlElement_Class** out,
                                                           DbPrintf_Class*) const
{
    if (out != nullptr) {
        *out = nullptr;
    }
    return SUCCESS;
}

int XmlElement_Class::SearchGet_Element_FromChildLayerElemnt(const char*, int, XmlElement_Class** out,
                                                             DbPrintf_Class*) const
{
    if (out != nullptr) {
        *out = nullptr;
    }
    return SUCCESS;
}

int XmlElement_Class::Set_StartTag_Start(const InFileAddress_Class* a, DbPrintf_Class* pDB)
{
    return m_StartTagStart.Copy(a, pDB);
}

int XmlElement_Class::Set_StartTag_End(const InFileAddress_Class* a, DbPrintf_Class* pDB)
{
    return m_StartTagEnd.Copy(a, pDB);
}

int XmlElement_Class::Set_EndTag_Start(const InFileAddress_Class* a, DbPrintf_Class* pDB)
{
    return m_EndTagStart.Copy(a, pDB);
}

int XmlElement_Class::Set_EndTag_End(const InFileAddress_Class* a, DbPrintf_Class* pDB)
{
    return m_EndTagEnd.Copy(a, pDB);
}

int XmlElement_Class::Add_ChildElement(XmlElement_Class* child, DbPrintf_Class* pDB)
{
    if (child == nullptr) {
        return DEBUG_WARNING;
    }
    int rc = m_Children.Add_XmlElement_Class(child, pDB);
    if (rc == SUCCESS) {
        child->m_pParent = this;
        child->m_nDepth = m_nDepth + 1;
    }
    return rc;
}

int XmlElement_Class::Add_Attribute(NameValToken_Class* pair, DbPrintf_Class* pDB)
{
    if (pair == nullptr) {
        return DEBUG_WARNING;
    }
    return m_Attributes.Add_NameValTokenClass(pair, pDB);
}

int XmlElement_Class::Set_ElementString(const unsigned char* text, int len, DbPrintf_Class* pDB)
{
    if (text == nullptr || len < 1 || len > ONETOKEN_MAXLEN) {
        return DEBUG_WARNING;
    }
    return m_Text.Copy_OnlyPointer(text, len, pDB);
}

int XmlElement_Class::Set_ElementName(const unsigned char* name, int len, DbPrintf_Class* pDB)
{
    return m_Name.Copy_OnlyPointer(name, len, pDB);
}

int XmlElement_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    if (buf == nullptr) {
        return DEBUG_WARNING;
    }
    int rc = add_tabs(buf, m_nDepth);
    if (rc == SUCCESS)
        rc = buf->add("<");
    if (rc == SUCCESS)
        rc = add_token(buf, m_Name);
    for (int i = 0; rc == SUCCESS && i < m_Attributes.GetCount(); i++) {
        const NameValToken_Class* pair = m_Attributes.Get(i);
        rc = buf->add(" ");
        if (rc == SUCCESS)
            rc = add_token(buf, pair->m_Name);
        if (rc == SUCCESS)
            rc = buf->add("=");
        if (rc == SUCCESS)
            rc = add_token(buf, pair->m_Val);
    }
    if (rc != SUCCESS) {
        return rc;
    }
    switch (m_nContentKind) {
    case XMLELEMENT_CHILDREN:
        rc = buf->add(">\n");
        for (int i = 0; rc == SUCCESS && i < m_Children.GetCount(); i++) {
            rc = m_Children.Get(i)->OutputBuffer(buf, pDB);
        }
        if (rc == SUCCESS)
            rc = add_tabs(buf, m_nDepth);
        break;
    case XMLELEMENT_TEXT:
        rc = buf->add(">");
        if (rc == SUCCESS)
            rc = add_token(buf, m_Text);
        break;
    default: return buf->add("/>\n");
    }
    if (rc == SUCCESS)
        rc = buf->add("</");
    if (rc == SUCCESS)
        rc = add_token(buf, m_Name);
    if (rc == SUCCESS)
        rc = buf->add(">\n");
    return rc;
}
