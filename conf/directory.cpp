#include "conf/directory.h"

#include <stdio.h>
#include <string.h>

#include "common/return_codes.h"
#include "common/string_buf.h"
#include "xml/xml_parser.h"

PPD_Directory_Class g_PPDDirConfig_Base;

namespace {

// Reads the cut text of child `name` into field (256 bytes) with a '/'
// at the end. 0 when present, -1 when missing or empty.
int read_directory(const XmlElement_Class* root, const char* name, char* field, int size, DbPrintf_Class* pDB)
{
    OneToken_Class text;
    int state = -1;
    if (root->Get_ChildElementString(name, &text, 0, pDB) == SUCCESS && text.GetLength() >= 1) {
        // Through a StringBuf over the field: a text too long for it is cut.
        StringBuf_Class sb(field, size);
        sb.add_FromPtr(text.GetPtr(), text.GetLength());
        if (text.GetPtr()[text.GetLength() - 1] != '/') {
            sb.add("/");
        }
        state = 0;
    }
    text.Clear(pDB);
    return state;
}

}  // namespace

PPD_Directory_Class::PPD_Directory_Class()
{
    Clear();
}

int PPD_Directory_Class::Clear(DbPrintf_Class*)
{
    m_nUnixDomainSockDir_State = -1;
    memset(m_szUnixDomainSockDir, 0, sizeof m_szUnixDomainSockDir);
    m_nStatesDir_State = -1;
    memset(m_szStatesDir, 0, sizeof m_szStatesDir);
    return SUCCESS;
}

int PPD_Directory_Class::Parsing_FromFile(const char* path, DbPrintf_Class* pDB)
{
    Clear(pDB);
    XmlParser_Class parser;
    const XmlElement_Class* root = nullptr;
    int rc = XmlParser_ReadRoot(&parser, path, "Directory.Conf", &root, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    m_nUnixDomainSockDir_State = read_directory(root, "UnixDomainSockDir", m_szUnixDomainSockDir,
                                                static_cast<int>(sizeof m_szUnixDomainSockDir), pDB);
    m_nStatesDir_State = read_directory(root, "StatesDir", m_szStatesDir, static_cast<int>(sizeof m_szStatesDir), pDB);
    return SUCCESS;
}

int PPD_Directory_Class::Make_StatesFilePath(const char* name, char* out, int size, DbPrintf_Class*) const
{
    if (name == nullptr || out == nullptr || size < 1) {
        return DEBUG_WARNING;
    }
    int n;
    if (m_nStatesDir_State != 0) {
        n = snprintf(out, static_cast<size_t>(size), "tmp.%s.States", name);
    } else {
        n = snprintf(out, static_cast<size_t>(size), "%s%s.States", m_szStatesDir, name);
    }
    return (n < 0 || n >= size) ? DATA_LARGE_THEN_BUF : SUCCESS;
}

int PPD_Directory_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class*) const
{
    if (buf == nullptr) {
        return DEBUG_WARNING;
    }
    return buf->add("--- Directory.Conf ---\nUnixDomainSockDir(%d)[%s]\nStatesDir(%d)[%s]\n",
                    m_nUnixDomainSockDir_State, m_szUnixDomainSockDir, m_nStatesDir_State, m_szStatesDir);
}
