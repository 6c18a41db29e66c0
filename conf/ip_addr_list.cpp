#include "conf/ip_addr_list.h"

#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>

#include "common/ptr_arr.h"
#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {
constexpr int kGrowth = 8;
}  // namespace

Arr_IpAddr::~Arr_IpAddr()
{
    MemFree();
}

int Arr_IpAddr::CleanUp(int notOwner, DbPrintf_Class* pDB)
{
    MemFree(pDB);
    m_nNotOwner = notOwner == 1 ? 1 : 0;
    m_ppArr = static_cast<struct in_addr**>(std::calloc(kGrowth, sizeof *m_ppArr));
    if (m_ppArr == nullptr)
        return MALLOC_ERROR;
    m_nCapacity = kGrowth;
    return SUCCESS;
}

int Arr_IpAddr::MemFree(DbPrintf_Class* pDB)
{
    (void)pDB;
    if (m_nNotOwner == 0) {
        for (int i = 0; i < m_nCount; ++i)
            delete m_ppArr[i];
    }
    std::free(m_ppArr);
    m_ppArr = nullptr;
    m_nCount = 0;
    m_nCapacity = 0;
    return SUCCESS;
}

int Arr_IpAddr::Add(struct in_addr* addr, DbPrintf_Class* pDB)
{
    (void)pDB;
    if (addr == nullptr)
        return DEBUG_WARNING;
    if (m_ppArr == nullptr)
        return MEM_MAP_ERROR;
    if (PtrArr_MakeRoom(&m_ppArr, m_nCount, &m_nCapacity, kGrowth) != SUCCESS)
        return MALLOC_ERROR;
    m_ppArr[m_nCount++] = addr;
    return SUCCESS;
}

int Arr_IpAddr::Search(const struct in_addr* addr, int* index, DbPrintf_Class* pDB) const
{
    (void)pDB;
    if (addr == nullptr || index == nullptr)
        return DEBUG_WARNING;
    for (int i = 0; i < m_nCount; ++i) {
        if (std::memcmp(m_ppArr[i], addr, 4) == 0) {
            *index = i;
            return SUCCESS;
        }
    }
    *index = -1;
    return NOTFOUND_ITEM;
}

int Arr_IpAddr::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    (void)pDB;
    if (buf == nullptr)
        return DEBUG_WARNING;
    int rc = buf->add("IP4_Arr: Max[%d]\n", m_nCapacity);
    for (int i = 0; i < m_nCount && rc == SUCCESS; ++i) {
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, m_ppArr[i], text, sizeof text);
        rc = buf->add("IP4_Address[%d]: %s\n", i, text);
    }
    return rc;
}
