#ifndef OSTREL_CONF_NET_DEV_INFO_H
#define OSTREL_CONF_NET_DEV_INFO_H

#include <pthread.h>

#include "common/tokens.h"

class DbPrintf_Class;
class StringBuf_Class;

// Where the distribution keeps its interface files "ifcfg-<device>".
constexpr char NETDEV_CONFIG_DIR[] = "/etc/sysconfig/network-scripts/";

// One cached device: its name and address text, both owned copies.
class NetDevInfo_OneElement_Class {
public:
    NetDevInfo_OneElement_Class() = default;
    virtual ~NetDevInfo_OneElement_Class() = default;

    NetDevInfo_OneElement_Class(const NetDevInfo_OneElement_Class&) = delete;
    NetDevInfo_OneElement_Class& operator=(const NetDevInfo_OneElement_Class&) = delete;

    OneToken_Class m_DevName;
    OneToken_Class m_IPString;
};

// NetDevInfo_Class: the configured IPv4 address of a network device, read
// from the IPADDR line of its interface file and then cached for the life
// of the process (entries are never removed or refreshed). Device names
// compare without regard to case.
//
// Thread-safety: every public member takes the object's mutex; a lookup
// holds it for the whole time, file reading included.
class NetDevInfo_Class {
public:
    // Interface files are looked up in dir (a trailing '/' is added when
    // missing); the default is NETDEV_CONFIG_DIR.
    NetDevInfo_Class();
    explicit NetDevInfo_Class(const char* dir, DbPrintf_Class* pDB = nullptr);
    virtual ~NetDevInfo_Class();

    NetDevInfo_Class(const NetDevInfo_Class&) = delete;
    NetDevInfo_Class& operator=(const NetDevInfo_Class&) = delete;

    // Changes the directory for lookups not yet cached. DEBUG_WARNING for a
    // null or overlong (255 characters or more) directory, else SUCCESS.
    int SetConfigDir(const char* dir, DbPrintf_Class* pDB = nullptr);

    // The device's address text into *out (cleared first, then an owned
    // copy). Results: SUCCESS; NOTFOUND_ITEM when the file is missing or
    // unreadable or has no non-empty IPADDR; DEBUG_WARNING for null
    // arguments, a device name holding '/', or a file path of more than 255
    // characters; the cache's failure codes. One pair of quotes around the
    // value, as shell-style interface files write it, is removed.
    int GetInfo_IPString(const char* device, OneToken_Class* out, DbPrintf_Class* pDB = nullptr);

    // Appends "--- NetDevInfo ---\n" and one line per cached device.
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr);

private:
    // REQUIRES: m_Mutex held. The cached entry of device, or null.
    NetDevInfo_OneElement_Class* SearchArr(const char* device, DbPrintf_Class* pDB) const;
    // REQUIRES: m_Mutex held. Appends a new entry (growth by 8).
    int DeviceAdd(const char* device, const unsigned char* ip, int ipLen, DbPrintf_Class* pDB);

    pthread_mutex_t m_Mutex;
    int m_nCount = 0;
    NetDevInfo_OneElement_Class** m_ppArr = nullptr;
    int m_nCapacity = 0;
    char m_szDir[256] = {};
};

// The process's cache.
extern NetDevInfo_Class g_NetDevInfo;

#endif
