#include "conf/update_stamp.h"

#include <cstdlib>

#include "common/ptr_arr.h"
#include "common/return_codes.h"
#include "common/time_utils.h"

namespace {
constexpr int kGrowth = 8;
}  // namespace

int PPD_ConfUpdateInfo::Set(const OneToken_Class* name, const timeval* time, int seq, DbPrintf_Class* pDB)
{
    if (name == nullptr || time == nullptr)
        return DEBUG_WARNING;
    m_Time = *time;
    m_nSeq = seq;
    if (name == &m_FileName)
        return SUCCESS;
    m_FileName.Clear(pDB);
    return m_FileName.Copy_WithMemAlloc(name, pDB);
}

int PPD_ConfUpdateInfo::Is_Accept_ConfUpdate(const OneToken_Class* name, const timeval* time, int seq,
                                             DbPrintf_Class* pDB) const
{
    if (name == nullptr || time == nullptr)
        return DEBUG_WARNING;
    if (m_FileName.Compare(name, pDB) != SUCCESS)
        return NO_MATCH_ARGUMENT;
    long long d = GetDifftime64(&m_Time, time, pDB);
    if (d > 0)
        return NEED_UPDATE;
    if (d < 0)
        return NON_UPDATE;
    return seq == m_nSeq ? NON_UPDATE : NEED_UPDATE;
}

Arr_PPDUpdateFileInfo::Arr_PPDUpdateFileInfo()
{
    pthread_mutex_init(&m_Mutex, nullptr);
    m_ppArr = static_cast<PPD_ConfUpdateInfo**>(std::calloc(kGrowth, sizeof *m_ppArr));
    if (m_ppArr != nullptr)
        m_nCapacity = kGrowth;
}

Arr_PPDUpdateFileInfo::~Arr_PPDUpdateFileInfo()
{
    for (int i = 0; i < m_nCount; ++i)
        delete m_ppArr[i];
    std::free(m_ppArr);
    pthread_mutex_destroy(&m_Mutex);
}

int Arr_PPDUpdateFileInfo::Is_Accept_ConfUpdate(const OneToken_Class* name, const timeval* time, int seq,
                                                DbPrintf_Class* pDB)
{
    if (name == nullptr || time == nullptr)
        return DEBUG_WARNING;
    pthread_mutex_lock(&m_Mutex);
    int verdict = NEED_UPDATE;
    for (int i = 0; i < m_nCount; ++i) {
        int rc = m_ppArr[i]->Is_Accept_ConfUpdate(name, time, seq, pDB);
        if (rc != NO_MATCH_ARGUMENT) {
            verdict = rc;
            break;
        }
    }
    pthread_mutex_unlock(&m_Mutex);
    return verdict;
}

int Arr_PPDUpdateFileInfo::Update_ConfUpdateInfo(const OneToken_Class* name, const timeval* time, int seq,
                                                 DbPrintf_Class* pDB)
{
    if (name == nullptr || time == nullptr)
        return DEBUG_WARNING;
    pthread_mutex_lock(&m_Mutex);
    PPD_ConfUpdateInfo* entry = nullptr;
    for (int i = 0; i < m_nCount && entry == nullptr; ++i) {
        if (m_ppArr[i]->m_FileName.Compare(name, pDB) == SUCCESS)
            entry = m_ppArr[i];
    }
    int rc;
    if (entry != nullptr) {
        rc = entry->Set(name, time, seq, pDB);
    } else if (m_ppArr == nullptr) {
        rc = MEM_MAP_ERROR;
    } else {
        rc = PtrArr_MakeRoom(&m_ppArr, m_nCount, &m_nCapacity, kGrowth);
        if (rc == SUCCESS) {
            entry = new PPD_ConfUpdateInfo;
            rc = entry->Set(name, time, seq, pDB);
            if (rc == SUCCESS)
                m_ppArr[m_nCount++] = entry;
            else
                delete entry;
        }
    }
    pthread_mutex_unlock(&m_Mutex);
    return rc;
}

int Arr_PPDUpdateFileInfo::GetCount()
{
    pthread_mutex_lock(&m_Mutex);
    int n = m_nCount;
    pthread_mutex_unlock(&m_Mutex);
    return n;
}
