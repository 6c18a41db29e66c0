#include "camera/channel_config.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "camera/cam_wakeup.h"
#include "common/cfg_file.h"
#include "common/return_codes.h"
#include "common/string_utils.h"
#include "conf/ip_addr.h"

// The record is compared with memcmp: it must have no padding bytes.
static_assert(sizeof(configParam_Struct) == 7 * 64 + 2 * sizeof(unsigned short) + 2 * sizeof(int),
              "configParam_Struct must not contain padding");

configInfoIO_Class g_configInfoIOClass;

namespace {

constexpr int kFieldSize = 64;

// Reads the channel's key made from fmt into out (outSize bytes).
int read_key(const char* fmt, int channel, char* out, int outSize, DbPrintf_Class* pDB)
{
    char key[kFieldSize];
    std::snprintf(key, sizeof key, fmt, channel);
    return co_CfgFile_Read(CHANNEL_CONFIG_FILE, CFGFILE_SEM_KEY, key, out, outSize, pDB);
}

// As read_key, but a present key with an empty value is a failure too.
int read_required(const char* fmt, int channel, char* out, int outSize, DbPrintf_Class* pDB)
{
    int rc = read_key(fmt, channel, out, outSize, pDB);
    if (rc != SUCCESS)
        return rc;
    if (out[0] == '\0') {
        char key[kFieldSize];
        std::snprintf(key, sizeof key, fmt, channel);
        TimePrint(pDB, 1, "[configInfoIO_Class::mutex_ReadParamFromConfigFile_WithChNum()] %s is empty\n", key);
        return READ_FAILED;
    }
    return SUCCESS;
}

// Ports have no range test: the decimal value is kept in 16 bits, so it
// wraps modulo 65536 (70000 becomes 4464).
int read_port(const char* fmt, int channel, unsigned short* port, DbPrintf_Class* pDB)
{
    char scratch[kFieldSize];
    int rc = read_required(fmt, channel, scratch, sizeof scratch, pDB);
    if (rc != SUCCESS)
        return rc;
    *port = static_cast<unsigned short>(std::atoi(scratch));
    return SUCCESS;
}

std::int64_t now_stamp()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    return static_cast<std::int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

}  // namespace

configInfoIO_Class::configInfoIO_Class()
{
    pthread_mutex_init(&m_Mutex, nullptr);
    std::memset(&m_Param, 0, sizeof m_Param);
}

configInfoIO_Class::~configInfoIO_Class()
{
    pthread_mutex_destroy(&m_Mutex);
}

int configInfoIO_Class::ReadParamFromFileAndTimeUpdate_WithChNum(int channel, DbPrintf_Class* pDB)
{
    pthread_mutex_lock(&m_Mutex);
    int rc = mutex_ReadParamFromFileAndTimeUpdate_WithChNum(channel, pDB);
    pthread_mutex_unlock(&m_Mutex);
    return rc;
}

int configInfoIO_Class::mutex_ReadParamFromFileAndTimeUpdate_WithChNum(int channel, DbPrintf_Class* pDB)
{
    configParam_Struct next;
    std::memset(&next, 0, sizeof next);
    int rc = mutex_ReadParamFromConfigFile_WithChNum(channel, &next, pDB);
    if (rc != SUCCESS) {
        if (rc == CHANNEL_CONFIG_TYPE_MISMATCH)
            TimePrint(pDB, 1, "translator_tarndatatype mismatch\n");
        return rc;
    }
    if (std::memcmp(&next, &m_Param, sizeof next) == 0)
        return SUCCESS;

    LogChanges(next, pDB);
    std::memcpy(&m_Param, &next, sizeof next);
    std::int64_t stamp = now_stamp();
    std::int64_t old = m_lnUpdateTime.load(std::memory_order_relaxed);
    if (stamp <= old)
        stamp = old + 1;
    m_lnUpdateTime.store(stamp, std::memory_order_relaxed);
    NotifyCamThread();
    return SUCCESS;
}

int configInfoIO_Class::mutex_ReadParamFromConfigFile_WithChNum(int channel, configParam_Struct* out,
                                                                DbPrintf_Class* pDB)
{
    if (out == nullptr || channel < 0 || channel > 9999)
        return INVALID_ARGUMENT;
    // Zero first: the record is compared byte for byte with the one in use.
    std::memset(out, 0, sizeof *out);

    // The type value is read into a line-sized buffer so that a long wrong
    // name still reports the mismatch rather than its length.
    char scratch[LINE_MAXSIZE];
    int rc = read_key("translator_tarndatatype_%04d", channel, scratch, sizeof scratch, pDB);
    if (rc != SUCCESS)
        return rc;
    if (strncasecmp(scratch, OSTREL_TYPE_NAME, kFieldSize) != 0) {
        TimePrint(
            pDB, 1,
            "[configInfoIO_Class::mutex_ReadParamFromConfigFile_WithChNum()] translator_tarndatatype_ do not match.\n");
        return CHANNEL_CONFIG_TYPE_MISMATCH;
    }

    // The camera's address and port, then the ones it is reached through.
    const struct {
        const char* ipKey;
        char* ip;
        const char* portKey;
        unsigned short* port;
    } addresses[] = {
        {"encoder_ip_%04d", out->encoder_ip, "encoder_port_%04d", &out->encoder_port},
        {"translator_connect_ip_%04d", out->translator_connect_ip, "translator_connect_port_%04d",
         &out->translator_connect_port},
    };
    for (const auto& a : addresses) {
        rc = read_required(a.ipKey, channel, a.ip, kFieldSize, pDB);
        if (rc != SUCCESS)
            return rc;
        rc = read_port(a.portKey, channel, a.port, pDB);
        if (rc != SUCCESS)
            return rc;
    }

    rc = co_getipaddr("eth0", out->eth0_ip, nullptr, pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1,
                  "[configInfoIO_Class::mutex_ReadParamFromConfigFile_WithChNum()] co_getipaddr(eth0) failed ::%d\n",
                  rc);
        return rc;
    }
    std::memcpy(out->myip, out->eth0_ip, sizeof out->myip);

    rc = read_required("translator_connect_camerano_%04d", channel, out->translator_connect_camerano, kFieldSize, pDB);
    if (rc != SUCCESS)
        return rc;

    char number[kFieldSize];
    rc = read_required("channel_authentic_switch_%04d", channel, number, sizeof number, pDB);
    if (rc != SUCCESS)
        return rc;
    out->channel_authentic_switch = std::atoi(number);
    if (out->channel_authentic_switch != 0) {
        rc = read_required("channel_authentic_user_id_%04d", channel, out->channel_authentic_user_id, kFieldSize, pDB);
        if (rc != SUCCESS)
            return rc;
        rc = read_required("channel_authentic_user_password_%04d", channel, out->channel_authentic_user_password,
                           kFieldSize, pDB);
        if (rc != SUCCESS)
            return rc;
    } else {
        out->channel_authentic_user_id[0] = '\0';
        out->channel_authentic_user_password[0] = '\0';
    }

    // Read into a line-sized buffer: the digit checker itself reports a
    // value of 64 characters or more (OVER_CHAR).
    rc = read_key("translator_calarm_rec_postterm_%04d", channel, scratch, sizeof scratch, pDB);
    if (rc != SUCCESS)
        return rc;
    rc = digit_check(scratch, kFieldSize, 1, 86400, 0, pDB);
    if (rc != SUCCESS) {
        TimePrint(
            pDB, 1,
            "[configInfoIO_Class::mutex_ReadParamFromConfigFile_WithChNum()] translator_calarm_rec_postterm_%04d invalid ::%d\n",
            channel, rc);
        return rc;
    }
    out->translator_calarm_rec_postterm = std::atoi(scratch);
    return SUCCESS;
}

void configInfoIO_Class::LogChanges(const configParam_Struct& next, DbPrintf_Class* pDB) const
{
    const configParam_Struct& old = m_Param;
    TimePrint(pDB, 1, "myip %s -> %s\n", old.myip, next.myip);
    TimePrint(pDB, 1, "encoder_ip %s -> %s\n", old.encoder_ip, next.encoder_ip);
    TimePrint(pDB, 1, "encoder_port %d -> %d\n", old.encoder_port, next.encoder_port);
    TimePrint(pDB, 1, "translator_connect_ip %s -> %s\n", old.translator_connect_ip, next.translator_connect_ip);
    TimePrint(pDB, 1, "translator_connect_port %d -> %d\n", old.translator_connect_port, next.translator_connect_port);
    TimePrint(pDB, 1, "translator_connect_camarano %s -> %s\n", old.translator_connect_camerano,
              next.translator_connect_camerano);
    TimePrint(pDB, 1, "channel_authentic_switch %d -> %d\n", old.channel_authentic_switch,
              next.channel_authentic_switch);
    // Only a switch of exactly 1 shows the credentials (in clear).
    if (next.channel_authentic_switch == 1) {
        TimePrint(pDB, 1, "channel_authentic_user_id %s -> %s\n", old.channel_authentic_user_id,
                  next.channel_authentic_user_id);
        TimePrint(pDB, 1, "channel_authentic_user_passwd %s -> %s\n", old.channel_authentic_user_password,
                  next.channel_authentic_user_password);
    }
    TimePrint(pDB, 1, "translator_calarm_rec_postterm %d -> %d\n", old.translator_calarm_rec_postterm,
              next.translator_calarm_rec_postterm);
}

int configInfoIO_Class::GetParamsFromMem(configParam_Struct* out, DbPrintf_Class* pDB)
{
    return GetParamsFromMem_WithStamp(out, nullptr, pDB);
}

int configInfoIO_Class::GetParamsFromMem_WithStamp(configParam_Struct* out, std::int64_t* stamp, DbPrintf_Class* pDB)
{
    (void)pDB;
    if (out == nullptr)
        return INVALID_ARGUMENT;
    pthread_mutex_lock(&m_Mutex);
    std::memcpy(out, &m_Param, sizeof *out);
    if (stamp != nullptr)
        *stamp = m_lnUpdateTime.load(std::memory_order_relaxed);
    pthread_mutex_unlock(&m_Mutex);
    return SUCCESS;
}

int configInfoIO_Class::GetUpdateTime(timeval* out, DbPrintf_Class* pDB)
{
    (void)pDB;
    if (out == nullptr)
        return INVALID_ARGUMENT;
    std::int64_t stamp = m_lnUpdateTime.load(std::memory_order_relaxed);
    out->tv_sec = static_cast<time_t>(stamp / 1000000);
    out->tv_usec = static_cast<suseconds_t>(stamp % 1000000);
    return SUCCESS;
}
