#ifndef OSTREL_CONF_SERVER_PC_CONFIG_H
#define OSTREL_CONF_SERVER_PC_CONFIG_H

#include <netinet/in.h>

#include "common/string_buf.h"
#include "common/tokens.h"

class DbPrintf_Class;
class XmlElement_Class;

// Address of an entry element of a recording-system document, given either
// as a child "IP4_Address" (dotted text) or as a child "Device" (a network
// device name, resolved through g_NetDevInfo). *out is cleared first.
//   IP4_Address present: its cut text into *out, *kind = 1;
//   else Device present: its address into *out and *kind = 2 when the
//     device is known, *kind = 0 and *out empty when not;
//   neither: *kind = 0, *out empty.
// kind may be null. Results: SUCCESS; NOTFOUND_ITEM when the child that
// counts is not a text element; DEBUG_WARNING for a null element or out.
int PPDConfigXmlTree_Get_IPorDevice(const XmlElement_Class* entry, OneToken_Class* out, int* kind,
                                    DbPrintf_Class* pDB = nullptr);

// One entry of the document with an address and a port.
class PPDServerPC_PortEntry_Class {
public:
    PPDServerPC_PortEntry_Class() = default;
    virtual ~PPDServerPC_PortEntry_Class() = default;
    PPDServerPC_PortEntry_Class(const PPDServerPC_PortEntry_Class&) = delete;
    PPDServerPC_PortEntry_Class& operator=(const PPDServerPC_PortEntry_Class&) = delete;

    void Clear();

    int m_nState = -1;  // 0 once the entry was read completely
    OneToken_Class m_IPString;
    struct in_addr m_Addr {};  // network order
    int m_nPort = 0;
};

// The "MastorControlD" entry: the same plus its ExistencePC text, which
// comes first.
class PPDServerPC_MasterEntry_Class {
public:
    PPDServerPC_MasterEntry_Class() = default;
    virtual ~PPDServerPC_MasterEntry_Class() = default;
    PPDServerPC_MasterEntry_Class(const PPDServerPC_MasterEntry_Class&) = delete;
    PPDServerPC_MasterEntry_Class& operator=(const PPDServerPC_MasterEntry_Class&) = delete;

    void Clear();

    int m_nState = -1;
    OneToken_Class m_ExistencePC;
    OneToken_Class m_IPString;
    struct in_addr m_Addr {};
    int m_nPort = 0;
};

// The "PPD" entry: an address text only.
class PPDServerPC_AddrEntry_Class {
public:
    PPDServerPC_AddrEntry_Class() = default;
    virtual ~PPDServerPC_AddrEntry_Class() = default;
    PPDServerPC_AddrEntry_Class(const PPDServerPC_AddrEntry_Class&) = delete;
    PPDServerPC_AddrEntry_Class& operator=(const PPDServerPC_AddrEntry_Class&) = delete;

    void Clear();

    int m_nState = -1;
    OneToken_Class m_IPString;
};

// PPD_ServerPCConfig_Class: reader of the server PC document ServerPC.Conf
// (root "ServerPC.Conf" with the entries "MastorControlD",
// "PreHTTPD_PublicPort", "PreHTTPD_ControlPort", "HTTPD_Port" and "PPD").
// Each entry is valid when its state is 0; an entry that is missing or
// faulty keeps state -1 without stopping the others. Texts are owned
// copies. Used by one thread at a time.
class PPD_ServerPCConfig_Class {
public:
    PPD_ServerPCConfig_Class();
    virtual ~PPD_ServerPCConfig_Class() = default;

    PPD_ServerPCConfig_Class(const PPD_ServerPCConfig_Class&) = delete;
    PPD_ServerPCConfig_Class& operator=(const PPD_ServerPCConfig_Class&) = delete;

    // Clears every entry, then loads and reads the document. The message
    // (GetMessage) tells how it went. Results: SUCCESS (whatever the
    // entries' states), the loader's code, the parser's code, or
    // XMLPARSER_PARSER_ERROR for another root (or none).
    int Parsing_FromFile(const char* path, DbPrintf_Class* pDB = nullptr);

    // One line per entry: its address and port, or "Read Faild.".
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    const char* GetMessage() const { return m_Message.c_str(); }

    StringBuf_Class m_Message;  // 512 bytes, owned
    PPDServerPC_MasterEntry_Class m_MastorControlD;
    PPDServerPC_PortEntry_Class m_PreHTTPD_PublicPort;
    PPDServerPC_PortEntry_Class m_PreHTTPD_ControlPort;
    PPDServerPC_PortEntry_Class m_HTTPD_Port;
    PPDServerPC_AddrEntry_Class m_PPD;

private:
    void ClearEntries();
};

#endif
