#ifndef OSTREL_CONF_IP_ADDR_LIST_H
#define OSTREL_CONF_IP_ADDR_LIST_H

#include <netinet/in.h>

class DbPrintf_Class;
class StringBuf_Class;

// Arr_IpAddr: a list of pointers to IPv4 addresses. An owning list deletes
// its entries (which must come from new); a non-owning one only borrows
// them, and they must outlive the list. The list has no array until the
// first CleanUp. Not thread-safe.
class Arr_IpAddr {
public:
    Arr_IpAddr() = default;
    virtual ~Arr_IpAddr();

    Arr_IpAddr(const Arr_IpAddr&) = delete;
    Arr_IpAddr& operator=(const Arr_IpAddr&) = delete;

    // Frees the old list (MemFree) and starts an empty one of 8 entries;
    // notOwner 1 makes it borrow its entries. SUCCESS or MALLOC_ERROR.
    int CleanUp(int notOwner = 0, DbPrintf_Class* pDB = nullptr);
    // Deletes owned entries and frees the array; the list is then empty and
    // without an array. SUCCESS.
    int MemFree(DbPrintf_Class* pDB = nullptr);
    // Appends (growing by 8). DEBUG_WARNING for null, MEM_MAP_ERROR without
    // an array, MALLOC_ERROR when it cannot grow.
    int Add(struct in_addr* addr, DbPrintf_Class* pDB = nullptr);
    // First entry with the same 4 bytes: *index and SUCCESS; none: *index =
    // -1 and NOTFOUND_ITEM. DEBUG_WARNING for null arguments.
    int Search(const struct in_addr* addr, int* index, DbPrintf_Class* pDB = nullptr) const;
    // "IP4_Arr: Max[<capacity>]\n", then "IP4_Address[<i>]: <dotted>\n" per entry.
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    int GetCount() const { return m_nCount; }
    const struct in_addr* Get(int i) const { return (i >= 0 && i < m_nCount) ? m_ppArr[i] : nullptr; }

private:
    int m_nCount = 0;
    struct in_addr** m_ppArr = nullptr;
    int m_nCapacity = 0;
    int m_nNotOwner = 0;
};

#endif
