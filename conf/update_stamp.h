#ifndef OSTREL_CONF_UPDATE_STAMP_H
#define OSTREL_CONF_UPDATE_STAMP_H

#include <pthread.h>
#include <sys/time.h>

#include "common/tokens.h"

class DbPrintf_Class;

// PPD_ConfUpdateInfo: the stamp of the last accepted update of one
// configuration file: a time, a sequence number and the file's name (owned
// copy). Not thread-safe on its own.
class PPD_ConfUpdateInfo {
public:
    PPD_ConfUpdateInfo() = default;
    virtual ~PPD_ConfUpdateInfo() = default;

    PPD_ConfUpdateInfo(const PPD_ConfUpdateInfo&) = delete;
    PPD_ConfUpdateInfo& operator=(const PPD_ConfUpdateInfo&) = delete;

    // Replaces name, time and sequence. DEBUG_WARNING for null arguments,
    // else the name copy's result.
    int Set(const OneToken_Class* name, const timeval* time, int seq, DbPrintf_Class* pDB = nullptr);

    // Whether an update stamped (time, seq) for name is newer than this
    // stamp: NO_MATCH_ARGUMENT for another name; NEED_UPDATE for a later
    // time; NON_UPDATE for an earlier one; at the same time NON_UPDATE for
    // the same sequence and NEED_UPDATE for another. DEBUG_WARNING for null
    // arguments.
    int Is_Accept_ConfUpdate(const OneToken_Class* name, const timeval* time, int seq,
                             DbPrintf_Class* pDB = nullptr) const;

    timeval m_Time{};
    int m_nSeq = 0;
    OneToken_Class m_FileName;
};

// Arr_PPDUpdateFileInfo: the stamps of several files, one per name.
// Thread-safe: each query and update holds the list's mutex.
class Arr_PPDUpdateFileInfo {
public:
    Arr_PPDUpdateFileInfo();
    virtual ~Arr_PPDUpdateFileInfo();

    Arr_PPDUpdateFileInfo(const Arr_PPDUpdateFileInfo&) = delete;
    Arr_PPDUpdateFileInfo& operator=(const Arr_PPDUpdateFileInfo&) = delete;

    // The verdict of the entry with that name, or NEED_UPDATE when no entry
    // has it.
    int Is_Accept_ConfUpdate(const OneToken_Class* name, const timeval* time, int seq, DbPrintf_Class* pDB = nullptr);
    // Replaces the stamp of the entry with that name or appends one (growth
    // by 8). SUCCESS, DEBUG_WARNING, MEM_MAP_ERROR or MALLOC_ERROR.
    int Update_ConfUpdateInfo(const OneToken_Class* name, const timeval* time, int seq, DbPrintf_Class* pDB = nullptr);

    int GetCount();

private:
    pthread_mutex_t m_Mutex;
    int m_nCount = 0;
    PPD_ConfUpdateInfo** m_ppArr = nullptr;
    int m_nCapacity = 0;
};

#endif
