#include "common/tokens.h"

#include <string.h>
#include <strings.h>

#include <cstdlib>
#include <new>

#include "common/debug_log.h"
#include "common/ptr_arr.h"
#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {

bool span_len_ok(int len)
{
    return len >= 1 && len <= ONETOKEN_MAXLEN;
}

bool is_blank(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Shared by Atoi and Atoll. Each digit step is computed in the unsigned
// type (so a wrap is defined behaviour) and read back as signed; a step that
// lands below the previous value is reported as OUT_OF_RANGE with the
// wrapped value left in *out. A wrap that lands above the previous value
// goes unnoticed; callers rely on the check being exactly this.
template <typename T, typename U> int span_to_number(const unsigned char* p, int len, T* out)
{
    if (p == nullptr) {
        return NOT_INITIALIZE;
    }
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    *out = 0;
    int i = 0;
    while (i < len && is_blank(p[i])) {
        ++i;
    }
    if (i == len) {
        return SUCCESS;
    }
    bool negative = false;
    if (p[i] == '-') {
        negative = true;
        ++i;
    }
    T value = 0;
    for (; i < len && p[i] >= '0' && p[i] <= '9'; ++i) {
        T next = static_cast<T>(static_cast<U>(value) * 10u + static_cast<U>(p[i] - '0'));
        if (next < value) {
            *out = next;
            return OUT_OF_RANGE;
        }
        value = next;
    }
    *out = negative ? static_cast<T>(U(0) - static_cast<U>(value)) : value;
    return SUCCESS;
}

}  // namespace

// ---------------------------------------------------------------- OneToken

OneToken_Class::~OneToken_Class()
{
    Clear();
}

int OneToken_Class::Copy_WithMemAlloc(const unsigned char* data, int len, DbPrintf_Class* pDB)
{
    if (!span_len_ok(len) || data == nullptr) {
        return DEBUG_WARNING;
    }
    unsigned char* copy = static_cast<unsigned char*>(calloc(static_cast<size_t>(len) + 1, 1));
    if (copy == nullptr) {
        TimePrint(pDB, 1, "[OneToken_Class::Copy_WithMemAlloc] calloc failed ::%d\n", MALLOC_ERROR);
        return MALLOC_ERROR;
    }
    memcpy(copy, data, static_cast<size_t>(len));
    m_nMemAlloc = 1;
    m_pData = copy;
    m_nLength = len;
    return SUCCESS;
}

int OneToken_Class::Copy_WithMemAlloc(const char* text, DbPrintf_Class* pDB)
{
    int len = Strnlen(text, ONETOKEN_MAXLEN + 1);
    return Copy_WithMemAlloc(reinterpret_cast<const unsigned char*>(text), len, pDB);
}

int OneToken_Class::Copy_WithMemAlloc(const OneToken_Class* other, DbPrintf_Class* pDB)
{
    if (other == nullptr) {
        return DEBUG_WARNING;
    }
    return Copy_WithMemAlloc(other->m_pData, other->m_nLength, pDB);
}

int OneToken_Class::Copy_OnlyPointer(const unsigned char* data, int len, DbPrintf_Class* /*pDB*/)
{
    if (!span_len_ok(len) || data == nullptr) {
        return DEBUG_WARNING;
    }
    m_nMemAlloc = 0;
    m_pData = data;
    m_nLength = len;
    return SUCCESS;
}

int OneToken_Class::Clear(DbPrintf_Class* /*pDB*/)
{
    if (m_nMemAlloc == 1 && m_pData != nullptr) {
        free(const_cast<unsigned char*>(m_pData));
    }
    m_pData = nullptr;
    m_nLength = 0;
    return SUCCESS;
}

int OneToken_Class::Compare(const OneToken_Class* other, DbPrintf_Class* pDB) const
{
    if (other == nullptr) {
        return NO_MATCH_ARGUMENT;
    }
    return Compare(other->m_pData, other->m_nLength, pDB);
}

int OneToken_Class::Compare(const unsigned char* data, int len, DbPrintf_Class* /*pDB*/) const
{
    if (m_nLength == 0 || len == 0 || len != m_nLength || data == nullptr || m_pData == nullptr) {
        return NO_MATCH_ARGUMENT;
    }
    return memcmp(m_pData, data, static_cast<size_t>(len)) == 0 ? SUCCESS : NO_MATCH_ARGUMENT;
}

int OneToken_Class::Compare(const char* text, DbPrintf_Class* /*pDB*/) const
{
    if (text == nullptr || text[0] == '\0' || m_pData == nullptr || m_nLength == 0) {
        return DEBUG_WARNING;
    }
    if (Strnlen(text, m_nLength + 1) != m_nLength) {
        return NO_MATCH_ARGUMENT;
    }
    return memcmp(m_pData, text, static_cast<size_t>(m_nLength)) == 0 ? SUCCESS : NO_MATCH_ARGUMENT;
}

int OneToken_Class::Case_Compear(const char* text, DbPrintf_Class* /*pDB*/) const
{
    if (text == nullptr || text[0] == '\0' || m_pData == nullptr || m_nLength == 0) {
        return DEBUG_WARNING;
    }
    if (Strnlen(text, m_nLength + 1) != m_nLength) {
        return NO_MATCH_ARGUMENT;
    }
    return strncasecmp(reinterpret_cast<const char*>(m_pData), text, static_cast<size_t>(m_nLength)) == 0
               ? SUCCESS
               : NO_MATCH_ARGUMENT;
}

int OneToken_Class::Atoi(int* out, DbPrintf_Class* /*pDB*/) const
{
    return span_to_number<int, unsigned int>(m_pData, m_nLength, out);
}

int OneToken_Class::Atoll(long long* out, DbPrintf_Class* /*pDB*/) const
{
    return span_to_number<long long, unsigned long long>(m_pData, m_nLength, out);
}

int OneToken_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* /*pDB*/) const
{
    if (buf == nullptr) {
        return DEBUG_WARNING;
    }
    if (m_pData == nullptr || m_nLength == 0) {
        return SUCCESS;
    }
    if (m_nLength == 1 && m_pData[0] == '\0') {
        return buf->add("\\0");
    }
    return buf->add_FromPtr(m_pData, m_nLength);
}

void OneToken_Class::DebugOut(DbPrintf_Class* /*pDB*/) const
{
}

// ------------------------------------------------------------ NameValToken

int NameValToken_Class::Clear(DbPrintf_Class* pDB)
{
    m_Name.Clear(pDB);
    m_Val.Clear(pDB);
    return 0;
}

int NameValToken_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    if (buf == nullptr) {
        return DEBUG_WARNING;
    }
    int rc = buf->add("[ ");
    int r = m_Name.OutputBuffer(buf, pDB);
    rc = rc == SUCCESS ? r : rc;
    r = buf->add(" ]:[ ");
    rc = rc == SUCCESS ? r : rc;
    r = m_Val.OutputBuffer(buf, pDB);
    rc = rc == SUCCESS ? r : rc;
    r = buf->add(" ]");
    return rc == SUCCESS ? r : rc;
}

// ----------------------------------------------------------------- arrays

namespace {

constexpr int kArrStep = 8;

template <typename T> T** alloc_entries(int* capacity)
{
    T** arr = static_cast<T**>(calloc(kArrStep, sizeof(T*)));
    *capacity = arr != nullptr ? kArrStep : 0;
    return arr;
}

template <typename T>
int append_entry(T*** arr, int* count, int* capacity, T* item, DbPrintf_Class* pDB, const char* who)
{
    if (item == nullptr) {
        return DEBUG_WARNING;
    }
    if (*arr == nullptr) {
        TimePrint(pDB, 1, "[%s] array not allocated ::%d\n", who, MEM_MAP_ERROR);
        return MEM_MAP_ERROR;
    }
    if (PtrArr_MakeRoom(arr, *count, capacity, kArrStep) != SUCCESS) {
        TimePrint(pDB, 1, "[%s] realloc failed ::%d\n", who, MALLOC_ERROR);
        return MALLOC_ERROR;
    }
    (*arr)[(*count)++] = item;
    return SUCCESS;
}

template <typename T> void free_entries(T** arr, int count)
{
    if (arr == nullptr) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        delete arr[i];
    }
    free(arr);
}

}  // namespace

// Assigned in the body: the capacity's own member initializer runs after
// the array's and would reset it.
Arr_OneToken_Class::Arr_OneToken_Class()
{
    m_ppArr = alloc_entries<OneToken_Class>(&m_nCapacity);
}

Arr_OneToken_Class::~Arr_OneToken_Class()
{
    free_entries(m_ppArr, m_nCount);
}

int Arr_OneToken_Class::Add_OneToken_Class(OneToken_Class* token, DbPrintf_Class* pDB)
{
    return append_entry(&m_ppArr, &m_nCount, &m_nCapacity, token, pDB, "Arr_OneToken_Class::Add_OneToken_Class");
}

int Arr_OneToken_Class::DupulicationCheck(const OneToken_Class* token, DbPrintf_Class* pDB) const
{
    if (token == nullptr) {
        return DEBUG_WARNING;
    }
    for (int i = 0; i < m_nCount; ++i) {
        if (m_ppArr[i] != nullptr && m_ppArr[i]->Compare(token, pDB) == SUCCESS) {
            return FOUND_DUPLICATION;
        }
    }
    return SUCCESS;
}

int Arr_OneToken_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    if (buf == nullptr) {
        return DEBUG_WARNING;
    }
    int rc = SUCCESS;
    for (int i = 0; i < m_nCount; ++i) {
        int r;
        if (m_ppArr[i] == nullptr) {
            r = buf->add("Arr[%d]: NULL\n", i);
        } else {
            r = buf->add("Arr[%d]: [", i);
            int r2 = m_ppArr[i]->OutputBuffer(buf, pDB);
            r = r == SUCCESS ? r2 : r;
            r2 = buf->add("]\n");
            r = r == SUCCESS ? r2 : r;
        }
        rc = rc == SUCCESS ? r : rc;
    }
    return rc;
}

Arr_NameValToken_Class::Arr_NameValToken_Class()
{
    m_ppArr = alloc_entries<NameValToken_Class>(&m_nCapacity);
}

Arr_NameValToken_Class::~Arr_NameValToken_Class()
{
    free_entries(m_ppArr, m_nCount);
}

int Arr_NameValToken_Class::Add_NameValTokenClass(NameValToken_Class* pair, DbPrintf_Class* pDB)
{
    return append_entry(&m_ppArr, &m_nCount, &m_nCapacity, pair, pDB, "Arr_NameValToken_Class::Add_NameValTokenClass");
}

int Arr_NameValToken_Class::DupulicationCheck_NameAndVal(const NameValToken_Class* pair, int* which,
                                                         DbPrintf_Class* pDB) const
{
    if (which != nullptr) {
        *which = 0;
    }
    if (pair == nullptr) {
        return DEBUG_WARNING;
    }
    for (int i = 0; i < m_nCount; ++i) {
        const NameValToken_Class* e = m_ppArr[i];
        if (e == nullptr) {
            continue;
        }
        if (e->m_Name.Compare(&pair->m_Name, pDB) == SUCCESS) {
            if (which != nullptr) {
                *which = 1;
            }
            return FOUND_DUPLICATION;
        }
        if (e->m_Val.Compare(&pair->m_Val, pDB) == SUCCESS) {
            if (which != nullptr) {
                *which = 2;
            }
            return FOUND_DUPLICATION;
        }
    }
    return SUCCESS;
}

int Arr_NameValToken_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    if (buf == nullptr) {
        return DEBUG_WARNING;
    }
    int rc = SUCCESS;
    for (int i = 0; i < m_nCount; ++i) {
        int r = buf->add("Arr[%d]:", i);
        int r2 = m_ppArr[i] != nullptr ? m_ppArr[i]->OutputBuffer(buf, pDB) : buf->add("NULL");
        r = r == SUCCESS ? r2 : r;
        r2 = buf->add("\n");
        r = r == SUCCESS ? r2 : r;
        rc = rc == SUCCESS ? r : rc;
    }
    return rc;
}

// ------------------------------------------------------------ StaticArr

// All created pairs are deleted here, used or not: the table is made per
// request, so leaving the unused ones behind would leak on every request.
StaticArr_NameValToken_Class::~StaticArr_NameValToken_Class()
{
    free_entries(m_ppArr, m_ppArr != nullptr ? m_nCapacity : 0);
}

int StaticArr_NameValToken_Class::Init(int capacity, DbPrintf_Class* pDB)
{
    if (m_ppArr != nullptr) {
        return ALREADY_INITIALIZE;
    }
    if (capacity <= 0) {
        return DEBUG_WARNING;
    }
    NameValToken_Class** arr =
        static_cast<NameValToken_Class**>(calloc(static_cast<size_t>(capacity), sizeof(NameValToken_Class*)));
    if (arr == nullptr) {
        TimePrint(pDB, 1, "[StaticArr_NameValToken_Class::Init] calloc failed ::%d\n", MALLOC_ERROR);
        return MALLOC_ERROR;
    }
    for (int i = 0; i < capacity; ++i) {
        arr[i] = new (std::nothrow) NameValToken_Class;
        if (arr[i] == nullptr) {
            free_entries(arr, i);
            TimePrint(pDB, 1, "[StaticArr_NameValToken_Class::Init] new failed ::%d\n", MALLOC_ERROR);
            return MALLOC_ERROR;
        }
    }
    m_ppArr = arr;
    m_nCapacity = capacity;
    m_nCount = 0;
    return SUCCESS;
}

int StaticArr_NameValToken_Class::Clear(DbPrintf_Class* pDB)
{
    for (int i = 0; i < m_nCount; ++i) {
        m_ppArr[i]->Clear(pDB);
    }
    m_nCount = 0;
    return SUCCESS;
}

int StaticArr_NameValToken_Class::SetNext(const unsigned char* name, int nameLen, const unsigned char* val, int valLen,
                                          bool alloc, DbPrintf_Class* pDB)
{
    if (m_ppArr == nullptr || m_nCount >= m_nCapacity) {
        return NOT_FOUND_FREE_BUF;
    }
    NameValToken_Class* pair = m_ppArr[m_nCount];
    if (alloc) {
        pair->m_Name.Copy_WithMemAlloc(name, nameLen, pDB);
        pair->m_Val.Copy_WithMemAlloc(val, valLen, pDB);
    } else {
        pair->m_Name.Copy_OnlyPointer(name, nameLen, pDB);
        pair->m_Val.Copy_OnlyPointer(val, valLen, pDB);
    }
    ++m_nCount;
    return SUCCESS;
}

int StaticArr_NameValToken_Class::Set_NameValToken_OnlyPointer(const unsigned char* name, int nameLen,
                                                               const unsigned char* val, int valLen,
                                                               DbPrintf_Class* pDB)
{
    return SetNext(name, nameLen, val, valLen, false, pDB);
}

int StaticArr_NameValToken_Class::Set_NameValToken_WithMemAlloc(const unsigned char* name, int nameLen,
                                                                const unsigned char* val, int valLen,
                                                                DbPrintf_Class* pDB)
{
    return SetNext(name, nameLen, val, valLen, true, pDB);
}

int StaticArr_NameValToken_Class::Search_NameToVal(const char* name, OneToken_Class** val, DbPrintf_Class* pDB) const
{
    if (val == nullptr) {
        return DEBUG_WARNING;
    }
    for (int i = 0; i < m_nCount; ++i) {
        if (m_ppArr[i]->m_Name.Compare(name, pDB) == SUCCESS) {
            *val = &m_ppArr[i]->m_Val;
            return SUCCESS;
        }
    }
    return NOTFOUND_ITEM;
}

int StaticArr_NameValToken_Class::Search_NameToVal_WithMemAlloc(const char* name, OneToken_Class* out, int minLen,
                                                                int maxLen, DbPrintf_Class* pDB) const
{
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    out->Clear(pDB);
    OneToken_Class* val = nullptr;
    int rc = Search_NameToVal(name, &val, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    if (val->GetLength() < minLen) {
        return DATASIZE_SHORT;
    }
    if (val->GetLength() > maxLen) {
        return DATASIZE_LARGE;
    }
    return out->Copy_WithMemAlloc(val, pDB);
}

int StaticArr_NameValToken_Class::Search_NameToVal_RtnInt(const char* name, int* out, DbPrintf_Class* pDB) const
{
    OneToken_Class* val = nullptr;
    int rc = Search_NameToVal(name, &val, pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    return val->Atoi(out, pDB);
}

int StaticArr_NameValToken_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    if (buf == nullptr) {
        return DEBUG_WARNING;
    }
    int rc = SUCCESS;
    for (int i = 0; i < m_nCount; ++i) {
        int r = buf->add(" %d:", i);
        int r2 = m_ppArr[i]->OutputBuffer(buf, pDB);
        r = r == SUCCESS ? r2 : r;
        r2 = buf->add("\n");
        r = r == SUCCESS ? r2 : r;
        rc = rc == SUCCESS ? r : rc;
    }
    return rc;
}
