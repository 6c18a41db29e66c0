#ifndef OSTREL_CAMERA_CHANNEL_CONFIG_H
#define OSTREL_CAMERA_CHANNEL_CONFIG_H

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <cstdint>

#include "common/debug_log.h"

// The program's type name: the channel's "translator_tarndatatype_%04d" key
// must name it (letter case aside).
constexpr char OSTREL_TYPE_NAME[] = "Ostrel";

// The channel configuration file, relative to the daemon's working
// directory, and the result code of a type mismatch (it has no name).
constexpr char CHANNEL_CONFIG_FILE[] = "conf/Config.txt";
constexpr int CHANNEL_CONFIG_TYPE_MISMATCH = 27;

// One channel's settings. Text fields are NUL-terminated and zero-filled
// behind the text, so two records with the same settings compare equal
// byte for byte (the layout has no padding).
struct configParam_Struct {
    char myip[64];                           // this host's address: eth0_ip
    char encoder_ip[64];                     // camera address
    unsigned short encoder_port;             // camera HTTP port (wraps mod 65536)
    char translator_connect_ip[64];          // translator peer address
    unsigned short translator_connect_port;  // its port (wraps mod 65536)
    char eth0_ip[64];                        // address of device "eth0"
    char translator_connect_camerano[64];    // camera= argument, verbatim
    int channel_authentic_switch;            // 0: no camera authentication
    char channel_authentic_user_id[64];      // empty when the switch is 0
    char channel_authentic_user_password[64];
    int translator_calarm_rec_postterm;  // post-alarm term, 1..86400 s
};

// configInfoIO_Class: the current settings of the daemon's channel, read
// from CHANNEL_CONFIG_FILE (under the file's cross-process semaphore) and
// kept behind a mutex, with a stamp of the last change.
//
// The record in memory is replaced only by a complete, successful read
// whose content differs from it; the update time then moves to now. A
// failed or unchanged read leaves record and time as they were.
//
// Thread-safety: every public member but the mutex_ ones takes the mutex.
// GetUpdateStamp reads the time without it (one atomic 64-bit word), as a
// cheap "did anything change" test before a locked copy.
class configInfoIO_Class {
public:
    configInfoIO_Class();
    virtual ~configInfoIO_Class();

    configInfoIO_Class(const configInfoIO_Class&) = delete;
    configInfoIO_Class& operator=(const configInfoIO_Class&) = delete;

    // Locks, reads the channel's keys and updates record and time.
    // Results: SUCCESS (changed or not) or the reader's code.
    int ReadParamFromFileAndTimeUpdate_WithChNum(int channel, DbPrintf_Class* pDB = nullptr);
    // The same without taking the mutex. REQUIRES: the mutex is held.
    int mutex_ReadParamFromFileAndTimeUpdate_WithChNum(int channel, DbPrintf_Class* pDB = nullptr);

    // Reads the keys of channel (0..9999, suffix "_%04d") into *out; takes
    // no lock of its own. *out is fully written only on SUCCESS. Results:
    //   INVALID_ARGUMENT     null out or channel out of range;
    //   27                   the type key names another program;
    //   READ_FAILED          a required value is empty;
    //   DATA_LARGE_THEN_BUF  a value longer than its 63-character field
    //                        (long values are refused, never cut);
    //   the file reader's codes (NOTFOUND_ITEM, CANNOT_FILEOPEN,
    //   SEMAPHORE_ERROR), co_getipaddr's codes for "eth0", and digit_check's
    //   codes for the post-term (SHORTAGE_VALUE, OVER_CHAR, INVALID_CODE,
    //   OUT_OF_RANGE).
    int mutex_ReadParamFromConfigFile_WithChNum(int channel, configParam_Struct* out, DbPrintf_Class* pDB = nullptr);

    // Copies the current record. INVALID_ARGUMENT for null out.
    int GetParamsFromMem(configParam_Struct* out, DbPrintf_Class* pDB = nullptr);
    // The same, also giving the update stamp that belongs to the copy, so a
    // change made right after the copy is not missed.
    int GetParamsFromMem_WithStamp(configParam_Struct* out, std::int64_t* stamp, DbPrintf_Class* pDB = nullptr);

    // The update time as microseconds since the epoch (0 before the first
    // successful read). Lock-free; any thread.
    std::int64_t GetUpdateStamp() const { return m_lnUpdateTime.load(std::memory_order_relaxed); }
    // The update time as gettimeofday gave it. SUCCESS; INVALID_ARGUMENT for
    // null out.
    int GetUpdateTime(timeval* out, DbPrintf_Class* pDB = nullptr);

private:
    void LogChanges(const configParam_Struct& next, DbPrintf_Class* pDB) const;

    // The update time, seconds * 1000000 + microseconds. Written under the
    // mutex, read without it: one atomic word, so a reader never sees half
    // of a time. Each change gives a strictly larger value, even if the
    // clock steps back.
    std::atomic<std::int64_t> m_lnUpdateTime{0};
    pthread_mutex_t m_Mutex;
    configParam_Struct m_Param;
};

// The daemon's one configuration object.
extern configInfoIO_Class g_configInfoIOClass;

#endif
