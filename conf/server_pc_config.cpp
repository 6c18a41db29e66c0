#include "conf/server_pc_config.h"

#include <cstring>

#include <arpa/inet.h>

#include "common/return_codes.h"
#include "conf/net_dev_info.h"
#include "xml/xml_element.h"
#include "xml/xml_parser.h"

namespace {

constexpr int kMessageSize = 512;

// The child named name, or null when there is none.
const XmlElement_Class* child_of(const XmlElement_Class* parent, const char* name)
{
    XmlElement_Class* child = nullptr;
    if (parent->Get_ChildElement(name, static_cast<int>(std::strlen(name)), 0, &child) != SUCCESS)
        return nullptr;
    return child;
}

// Address text and its 4-byte form; an entry without an address fails.
bool read_address(const XmlElement_Class* entry, OneToken_Class* text, struct in_addr* addr, DbPrintf_Class* pDB)
{
    int kind = 0;
    if (PPDConfigXmlTree_Get_IPorDevice(entry, text, &kind, pDB) != SUCCESS || kind == 0)
        return false;
    if (text->GetPtr() == nullptr)
        return false;  // a text of blanks only
    if (addr == nullptr)
        return true;
    // Owned token copies end in a NUL, so the text can go to inet_pton.
    return inet_pton(AF_INET, reinterpret_cast<const char*>(text->GetPtr()), addr) == 1;
}

bool read_port_entry(const XmlElement_Class* root, const char* name, OneToken_Class* text, struct in_addr* addr,
                     int* port, DbPrintf_Class* pDB)
{
    const XmlElement_Class* entry = child_of(root, name);
    return entry != nullptr && read_address(entry, text, addr, pDB) &&
           entry->Get_ChildElementValue("IP4_Port", port, 0, pDB) == SUCCESS;
}

int print_port_entry(StringBuf_Class* buf, const char* tag, int state, const OneToken_Class& ip, int port,
                     DbPrintf_Class* pDB)
{
    if (state != 0)
        return buf->add("<%s> Read Faild.\n", tag);
    int rc = buf->add("<%s> IP[ ", tag);
    if (rc == SUCCESS)
        rc = ip.OutputBuffer(buf, pDB);
    if (rc == SUCCESS)
        rc = buf->add(" ] Port[ %d ]\n", port);
    return rc;
}

}  // namespace

int PPDConfigXmlTree_Get_IPorDevice(const XmlElement_Class* entry, OneToken_Class* out, int* kind, DbPrintf_Class* pDB)
{
    if (entry == nullptr || out == nullptr)
        return DEBUG_WARNING;
    out->Clear(pDB);
    if (kind != nullptr)
        *kind = 0;

    const XmlElement_Class* address = child_of(entry, "IP4_Address");
    if (address != nullptr) {
        if (entry->Get_ChildElementString("IP4_Address", out, 0, pDB) != SUCCESS)
            return NOTFOUND_ITEM;
        if (kind != nullptr)
            *kind = 1;
        return SUCCESS;
    }
    const XmlElement_Class* device = child_of(entry, "Device");
    if (device != nullptr) {
        OneToken_Class name;
        if (entry->Get_ChildElementString("Device", &name, 0, pDB) != SUCCESS)
            return NOTFOUND_ITEM;
        if (name.GetPtr() != nullptr &&
            g_NetDevInfo.GetInfo_IPString(reinterpret_cast<const char*>(name.GetPtr()), out, pDB) == SUCCESS &&
            kind != nullptr)
            *kind = 2;
    }
    return SUCCESS;
}

namespace {

// The part both address-and-port entries share, back to "not read".
void clear_port_entry(int* state, OneToken_Class* ip, struct in_addr* addr, int* port)
{
    *state = -1;
    ip->Clear();
    std::memset(addr, 0, sizeof *addr);
    *port = 0;
}

}  // namespace

void PPDServerPC_PortEntry_Class::Clear()
{
    clear_port_entry(&m_nState, &m_IPString, &m_Addr, &m_nPort);
}

void PPDServerPC_MasterEntry_Class::Clear()
{
    m_ExistencePC.Clear();
    clear_port_entry(&m_nState, &m_IPString, &m_Addr, &m_nPort);
}

void PPDServerPC_AddrEntry_Class::Clear()
{
    m_nState = -1;
    m_IPString.Clear();
}

PPD_ServerPCConfig_Class::PPD_ServerPCConfig_Class() : m_Message(kMessageSize)
{
}

void PPD_ServerPCConfig_Class::ClearEntries()
{
    m_MastorControlD.Clear();
    m_PreHTTPD_PublicPort.Clear();
    m_PreHTTPD_ControlPort.Clear();
    m_HTTPD_Port.Clear();
    m_PPD.Clear();
}

int PPD_ServerPCConfig_Class::Parsing_FromFile(const char* path, DbPrintf_Class* pDB)
{
    ClearEntries();
    m_Message.clear();
    if (path == nullptr)
        return DEBUG_WARNING;

    XmlParser_Class parser;
    int rc = parser.Construct_FromFileOpen(path, pDB);
    if (rc != SUCCESS) {
        m_Message.add("[%s] open faild.\n", path);
        return rc;
    }
    rc = parser.ParserMain(pDB);
    if (rc != SUCCESS) {
        const InFileAddress_Class& at = parser.GetCurrentAddress();
        m_Message.add("[%s] XML File. %s\nLine %d:%d (%d)\n", path, parser.GetMessage(), at.GetLine(), at.GetColumn(),
                      at.GetOffset());
        return rc;
    }
    const XmlElement_Class* root = parser.GetRootElement();
    if (root == nullptr || root->GetName().Compare("ServerPC.Conf", pDB) != SUCCESS) {
        m_Message.add("Root class is not [ServerPC.Conf].\n");
        return XMLPARSER_PARSER_ERROR;
    }

    const XmlElement_Class* master = child_of(root, "MastorControlD");
    if (master != nullptr && read_address(master, &m_MastorControlD.m_IPString, &m_MastorControlD.m_Addr, pDB) &&
        master->Get_ChildElementValue("IP4_Port", &m_MastorControlD.m_nPort, 0, pDB) == SUCCESS &&
        master->Get_ChildElementString("ExistencePC", &m_MastorControlD.m_ExistencePC, 0, pDB) == SUCCESS)
        m_MastorControlD.m_nState = 0;

    struct {
        const char* name;
        PPDServerPC_PortEntry_Class* entry;
    } const ports[] = {
        {"PreHTTPD_PublicPort", &m_PreHTTPD_PublicPort},
        {"PreHTTPD_ControlPort", &m_PreHTTPD_ControlPort},
        {"HTTPD_Port", &m_HTTPD_Port},
    };
    for (const auto& p : ports) {
        if (read_port_entry(root, p.name, &p.entry->m_IPString, &p.entry->m_Addr, &p.entry->m_nPort, pDB))
            p.entry->m_nState = 0;
    }

    const XmlElement_Class* ppd = child_of(root, "PPD");
    if (ppd != nullptr && read_address(ppd, &m_PPD.m_IPString, nullptr, pDB))
        m_PPD.m_nState = 0;

    m_Message.add("'%s' read success.\n", path);
    return SUCCESS;
}

int PPD_ServerPCConfig_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    if (buf == nullptr)
        return DEBUG_WARNING;
    // The dump spells the master entry "MasterControlD" although the
    // document's element is "MastorControlD"; both spellings are kept.
    int rc = print_port_entry(buf, "MasterControlD", m_MastorControlD.m_nState, m_MastorControlD.m_IPString,
                              m_MastorControlD.m_nPort, pDB);
    if (rc == SUCCESS)
        rc = print_port_entry(buf, "PreHttpD_PublicPort", m_PreHTTPD_PublicPort.m_nState,
                              m_PreHTTPD_PublicPort.m_IPString, m_PreHTTPD_PublicPort.m_nPort, pDB);
    if (rc == SUCCESS)
        rc = print_port_entry(buf, "PreHttpD_ControlPort", m_PreHTTPD_ControlPort.m_nState,
                              m_PreHTTPD_ControlPort.m_IPString, m_PreHTTPD_ControlPort.m_nPort, pDB);
    if (rc == SUCCESS)
        rc = print_port_entry(buf, "HTTPD_Port", m_HTTPD_Port.m_nState, m_HTTPD_Port.m_IPString, m_HTTPD_Port.m_nPort,
                              pDB);
    if (rc != SUCCESS)
        return rc;
    if (m_PPD.m_nState != 0)
        return buf->add("<PPD> Read Faild.\n");
    rc = buf->add("<PPD> IP[ ");
    if (rc == SUCCESS)
        rc = m_PPD.m_IPString.OutputBuffer(buf, pDB);
    if (rc == SUCCESS)
        rc = buf->add(" ] \n");
    return rc;
}
