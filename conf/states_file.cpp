#include "conf/states_file.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/return_codes.h"
#include "common/string_buf.h"
#include "xml/xml_parser.h"

PPDStatesFile_Class g_PPDStatesFile;

namespace {

// The build of the program is identified by the compiler's own stamps:
// __TIME__ is "HH:MM:SS" and __DATE__ is "Mmm dd yyyy" with the day padded
// by a blank, exactly the form the states file carries.
const char kBuildTime[] = __TIME__;
const char kBuildDate[] = __DATE__;

const char* token_text(const OneToken_Class& token)
{
    // Owned tokens are NUL-terminated copies.
    return token.GetPtr() != nullptr ? reinterpret_cast<const char*>(token.GetPtr()) : "";
}

}  // namespace

PPDStatesFile_Class::PPDStatesFile_Class() = default;

PPDStatesFile_Class::~PPDStatesFile_Class()
{
    m_States.Clear();
    m_Name.Clear();
    m_Type.Clear();
}

int PPDStatesFile_Class::Init(const char* name, const char* path, DbPrintf_Class* pDB)
{
    if (name == nullptr || path == nullptr) {
        return DEBUG_WARNING;
    }
    snprintf(m_szPath, sizeof m_szPath, "%s", path);
    m_Name.Clear(pDB);
    m_Name.Copy_WithMemAlloc(name, pDB);  // an empty name simply stays empty
    m_nProcessId = 0;
    m_States.Clear(pDB);
    return SUCCESS;
}

int PPDStatesFile_Class::SetType(const char* type, DbPrintf_Class* pDB)
{
    m_Type.Clear(pDB);
    if (type == nullptr) {
        return DEBUG_WARNING;
    }
    return m_Type.Copy_WithMemAlloc(type, pDB);
}

int PPDStatesFile_Class::IsFile(DbPrintf_Class*) const
{
    FILE* fp = fopen(m_szPath, "r");
    if (fp == nullptr) {
        if ((errno == EMFILE || errno == ENFILE) && access(m_szPath, R_OK) == 0) {
            return SUCCESS;
        }
        return NOTFOUND_FILE;
    }
    fclose(fp);
    return SUCCESS;
}

int PPDStatesFile_Class::FileUnLink(DbPrintf_Class*) const
{
    return unlink(m_szPath) == 0 ? SUCCESS : SYS_FUNC_ERROR;
}

int PPDStatesFile_Class::WriteDocument(const char* state, const char* comment)
{
    if (state == nullptr) {
        return DEBUG_WARNING;
    }
    FILE* fp = fopen(m_szPath, "w");
    if (fp == nullptr) {
        return SYS_FUNC_ERROR;
    }
    int written;
    if (comment == nullptr) {
        written = fprintf(fp,
                          "<PPD.States>\n <PPD_Type>%s</PPD_Type>\n <PPD_VersionTime>%s %s</PPD_VersionTime>\n"
                          " <PPD_Name>%s</PPD_Name>\n <States>%s</States>\n <ProcessId>%d</ProcessId>\n"
                          " <Port>%d</Port>\n</PPD.States>\n",
                          token_text(m_Type), kBuildTime, kBuildDate, token_text(m_Name), state, m_nProcessId, m_sPort);
    } else {
        written = fprintf(fp,
                          "<PPD.States>\n <PPD_Type>%s</PPD_Type>\n <PPD_VersionTime>%s</PPD_VersionTime>\n"
                          " <PPD_Name>%s</PPD_Name>\n <States>%s</States>\n <ProcessId>%d</ProcessId>\n"
                          " <Port>%d</Port>\n <Comment>%s</Comment>\n</PPD.States>\n",
                          token_text(m_Type), kBuildDate, token_text(m_Name), state, m_nProcessId, m_sPort, comment);
    }
    // A full disk shows only at the flush: report it, since readers would
    // otherwise find a cut document.
    const int closed = fclose(fp);
    chmod(m_szPath, 0666);
    if (written < 0 || closed != 0) {
        unlink(m_szPath);
        return SYS_FUNC_ERROR;
    }
    return SUCCESS;
}

int PPDStatesFile_Class::StatesWrite(const char* state, DbPrintf_Class*)
{
    return WriteDocument(state, nullptr);
}

int PPDStatesFile_Class::StatesWrite_WithComment(const char* state, const char* comment, DbPrintf_Class*)
{
    if (comment == nullptr) {
        return DEBUG_WARNING;
    }
    return WriteDocument(state, comment);
}

int PPDStatesFile_Class::StatesRead(DbPrintf_Class* pDB)
{
    XmlParser_Class parser;
    const XmlElement_Class* root = nullptr;
    int rc = XmlParser_ReadRoot(&parser, m_szPath, "PPD.States", &root, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    m_States.Clear(pDB);
    rc = root->Get_ChildElementString("States", &m_States, 0, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    m_nProcessId = -1;
    root->Get_ChildElementValue("ProcessId", &m_nProcessId, 0, pDB);
    m_sPort = -1;
    int port = -1;
    if (root->Get_ChildElementValue("Port", &port, 0, pDB) == SUCCESS) {
        m_sPort = static_cast<short>(port);
    }
    return SUCCESS;
}

int PPDStatesFile_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class*) const
{
    if (buf == nullptr) {
        return DEBUG_WARNING;
    }
    return buf->add("--- PPDStatesFile ---\nPath[%s]\nName[%s] Type[%s]\nStates[%s] ProcessId[%d] Port[%d]\n", m_szPath,
                    token_text(m_Name), token_text(m_Type), token_text(m_States), m_nProcessId, m_sPort);
}
