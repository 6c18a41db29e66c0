#include "conf/net_dev_info.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/name_val_file.h"
#include "common/ptr_arr.h"
#include "common/return_codes.h"
#include "common/string_buf.h"

NetDevInfo_Class g_NetDevInfo;

namespace {

constexpr int kGrowth = 8;
// Interface files have a dozen or two lines; the address may be anywhere.
constexpr int kFilePairs = 64;

// Drops one pair of matching quotes around a value.
void strip_quotes(const unsigned char** p, int* len)
{
    if (*len >= 2 && ((*p)[0] == '"' || (*p)[0] == '\'') && (*p)[*len - 1] == (*p)[0]) {
        ++*p;
        *len -= 2;
    }
}

}  // namespace

NetDevInfo_Class::NetDevInfo_Class() : NetDevInfo_Class(NETDEV_CONFIG_DIR)
{
}

NetDevInfo_Class::NetDevInfo_Class(const char* dir, DbPrintf_Class* pDB)
{
    pthread_mutex_init(&m_Mutex, nullptr);
    m_ppArr = static_cast<NetDevInfo_OneElement_Class**>(std::calloc(kGrowth, sizeof *m_ppArr));
    if (m_ppArr != nullptr)
        m_nCapacity = kGrowth;
    SetConfigDir(dir, pDB);
}

NetDevInfo_Class::~NetDevInfo_Class()
{
    for (int i = 0; i < m_nCount; ++i)
        delete m_ppArr[i];
    std::free(m_ppArr);
    pthread_mutex_destroy(&m_Mutex);
}

int NetDevInfo_Class::SetConfigDir(const char* dir, DbPrintf_Class* pDB)
{
    (void)pDB;
    if (dir == nullptr)
        return DEBUG_WARNING;
    size_t len = std::strlen(dir);
    bool slash = len > 0 && dir[len - 1] == '/';
    if (len + (slash ? 0 : 1) >= sizeof m_szDir)
        return DEBUG_WARNING;
    pthread_mutex_lock(&m_Mutex);
    std::snprintf(m_szDir, sizeof m_szDir, "%s%s", dir, slash || len == 0 ? "" : "/");
    pthread_mutex_unlock(&m_Mutex);
    return SUCCESS;
}

int NetDevInfo_Class::GetInfo_IPString(const char* device, OneToken_Class* out, DbPrintf_Class* pDB)
{
    if (device == nullptr || out == nullptr || device[0] == '\0' || std::strchr(device, '/') != nullptr)
        return DEBUG_WARNING;
    out->Clear(pDB);

    pthread_mutex_lock(&m_Mutex);
    int rc = SUCCESS;
    NetDevInfo_OneElement_Class* hit = SearchArr(device, pDB);
    if (hit != nullptr) {
        rc = out->Copy_WithMemAlloc(&hit->m_IPString, pDB);
        goto end;
    }
    {
        char path[256];
        int n = std::snprintf(path, sizeof path, "%sifcfg-%s", m_szDir, device);
        if (n < 0 || n >= static_cast<int>(sizeof path)) {
            rc = DEBUG_WARNING;
            goto end;
        }
        Parsing_NameValFile_Class file(kFilePairs, pDB);
        OneToken_Class* value = nullptr;
        if (file.Parsing_FromFile(path, pDB) != SUCCESS || file.Search_NameToVal("IPADDR", &value, pDB) != SUCCESS) {
            rc = NOTFOUND_ITEM;
            goto end;
        }
        const unsigned char* ip = value->GetPtr();
        int ipLen = value->GetLength();
        strip_quotes(&ip, &ipLen);
        if (ip == nullptr || ipLen <= 0) {
            rc = NOTFOUND_ITEM;
            goto end;
        }
        rc = DeviceAdd(device, ip, ipLen, pDB);
        if (rc == SUCCESS)
            rc = out->Copy_WithMemAlloc(ip, ipLen, pDB);
    }
end:
    pthread_mutex_unlock(&m_Mutex);
    return rc;
}

NetDevInfo_OneElement_Class* NetDevInfo_Class::SearchArr(const char* device, DbPrintf_Class* pDB) const
{
    for (int i = 0; i < m_nCount; ++i) {
        if (m_ppArr[i]->m_DevName.Case_Compear(device, pDB) == SUCCESS)
            return m_ppArr[i];
    }
    return nullptr;
}

int NetDevInfo_Class::DeviceAdd(const char* device, const unsigned char* ip, int ipLen, DbPrintf_Class* pDB)
{
    if (m_ppArr == nullptr)
        return MEM_MAP_ERROR;
    if (PtrArr_MakeRoom(&m_ppArr, m_nCount, &m_nCapacity, kGrowth) != SUCCESS)
        return MALLOC_ERROR;
    NetDevInfo_OneElement_Class* entry = new NetDevInfo_OneElement_Class;
    int rc = entry->m_DevName.Copy_WithMemAlloc(device, pDB);
    if (rc == SUCCESS)
        rc = entry->m_IPString.Copy_WithMemAlloc(ip, ipLen, pDB);
    if (rc != SUCCESS) {
        delete entry;
        return rc;
    }
    m_ppArr[m_nCount++] = entry;
    return SUCCESS;
}

int NetDevInfo_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB)
{
    if (buf == nullptr)
        return DEBUG_WARNING;
    pthread_mutex_lock(&m_Mutex);
    int rc = buf->add("--- NetDevInfo ---\n");
    for (int i = 0; i < m_nCount && rc == SUCCESS; ++i) {
        rc = buf->add(" %d: device[ ", i);
        if (rc == SUCCESS)
            rc = m_ppArr[i]->m_DevName.OutputBuffer(buf, pDB);
        if (rc == SUCCESS)
            rc = buf->add(" ] IP[ ");
        if (rc == SUCCESS)
            rc = m_ppArr[i]->m_IPString.OutputBuffer(buf, pDB);
        if (rc == SUCCESS)
            rc = buf->add(" ]\n");
    }
    pthread_mutex_unlock(&m_Mutex);
    return rc;
}
