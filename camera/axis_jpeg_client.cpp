#include "camera/axis_jpeg_client.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>

#include "common/debug_log.h"
#include "common/return_codes.h"

namespace {

// tzset() before each picture's time, but not the whole of it every time:
// with TZ unset (the daemon's case) glibc's tzset stats /etc/localtime on
// every call, a system call per picture. The zone is read again whenever TZ
// changes, and otherwise once per second of picture time, so a new zone file
// shows from the next second's pictures on. Per thread: no lock, and each
// thread's first picture reads the zone.
void refresh_zone(time_t sec)
{
    thread_local time_t lastSec = -1;
    thread_local bool lastHadTz = false;
    thread_local std::string lastTz;
    const char* tz = getenv("TZ");
    const bool tzChanged = (tz != nullptr) != lastHadTz || (tz != nullptr && lastTz != tz);
    if (sec == lastSec && !tzChanged) {
        return;
    }
    tzset();
    lastSec = sec;
    lastHadTz = tz != nullptr;
    lastTz = tz != nullptr ? tz : "";
}

}  // namespace

int MakeAXISJPEGOption(const timeval* tv, _Option_AXISJPEGMultiPart* pOption, DbPrintf_Class*)
{
    if (tv == nullptr || pOption == nullptr) {
        return INVALID_ARGUMENT;
    }
    // timezone counts seconds west of UTC, so subtracting it turns UTC
    // seconds into local seconds (zones east of UTC add to the count).
    refresh_zone(tv->tv_sec);
    const long long localMs =
        (static_cast<long long>(tv->tv_sec) - static_cast<long long>(timezone)) * 1000LL + tv->tv_usec / 1000;
    memset(pOption->strOption, 0, sizeof pOption->strOption);
    char timeField[24];
    snprintf(timeField, sizeof timeField, "%012llx", static_cast<unsigned long long>(localMs));
    snprintf(pOption->strOption, sizeof pOption->strOption, " %s:%s:%s:%s", "0000000000000", "00000",
             "00000000000000000000000000000000000000000", timeField);
    return SUCCESS;
}

CClient_AXISJPEGMultiPart::CClient_AXISJPEGMultiPart()
{
    memset(m_strCameraNo, 0, sizeof m_strCameraNo);
}

CClient_AXISJPEGMultiPart::~CClient_AXISJPEGMultiPart() = default;

int CClient_AXISJPEGMultiPart::Initialize(int nHTTPBodySize)
{
    const int ret = Log().Checked(m_obClient_HTTP_MultiPart.Initialize(nHTTPBodySize), "Initialize",
                                  "m_obClient_HTTP_MultiPart.Initialize");
    if (ret != SUCCESS) {
        return ret;
    }
    memset(m_strCameraNo, 0, sizeof m_strCameraNo);
    m_strCameraNo[0] = '1';
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::Release()
{
    m_obClient_HTTP_MultiPart.Release();
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::SetLog(DbPrintf_Class* pDB, int nLevel)
{
    m_pDB = pDB;
    m_nLogLevel = nLevel;
    m_obClient_HTTP_MultiPart.SetLog(pDB, nLevel);
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::SetMyself(const char* pMyselfIP)
{
    if (!Log().Given(pMyselfIP, "SetMyself", "pMyselfIP")) {
        return INVALID_ARGUMENT;
    }
    return Log().Checked(m_obClient_HTTP_MultiPart.SetMyself(pMyselfIP), "SetMyself",
                         "m_obClient_HTTP_MultiPart.SetMyself(%s)", pMyselfIP);
}

int CClient_AXISJPEGMultiPart::SetTarget(const char* pTargetIp, int port, const char* pCameraNo)
{
    if (!Log().Given(pTargetIp, "SetTarget", "pTargetIp") || !Log().Given(pCameraNo, "SetTarget", "pCameraNo")) {
        return INVALID_ARGUMENT;
    }
    int ret = Log().Checked(m_obClient_HTTP_MultiPart.SetTargetIp(pTargetIp), "SetTarget",
                            "m_obClient_HTTP_MultiPart.SetTargetIp(%s)", pTargetIp);
    if (ret == SUCCESS) {
        ret = Log().Checked(m_obClient_HTTP_MultiPart.SetTargetPort(port), "SetTarget",
                            "m_obClient_HTTP_MultiPart.SetTargetPort(%d)", port);
    }
    if (ret != SUCCESS) {
        return ret;
    }
    // A number of 16 characters or more would fill the field without a
    // terminator: keep 15 and terminate.
    memset(m_strCameraNo, 0, sizeof m_strCameraNo);
    memcpy(m_strCameraNo, pCameraNo, strnlen(pCameraNo, sizeof m_strCameraNo - 1));
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::SetTargetAuth(int nAuthOnOff, const char* pUserName, const char* pPassword)
{
    if (nAuthOnOff != 0 && nAuthOnOff != 1) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::SetTargetAuth()] nAuthOnOff(%d) is invalid\n",
                  nAuthOnOff);
        return INVALID_ARGUMENT;
    }
    if (nAuthOnOff == 1 && (!Log().Given(pUserName, "SetTargetAuth", "pUserName") ||
                            !Log().Given(pPassword, "SetTargetAuth", "pPassword"))) {
        return INVALID_ARGUMENT;
    }
    int ret = Log().Checked(m_obClient_HTTP_MultiPart.SetAuth(nAuthOnOff), "SetTargetAuth",
                            "m_obClient_HTTP_MultiPart.SetAuth(%d)", nAuthOnOff);
    if (ret == SUCCESS && nAuthOnOff == 1) {
        ret = Log().Checked(m_obClient_HTTP_MultiPart.SetAuthString(pUserName, pPassword), "SetTargetAuth",
                            "m_obClient_HTTP_MultiPart.SetAuthString");
    }
    return ret;
}

int CClient_AXISJPEGMultiPart::SetSocketTimeout(int nTimeoutMsec)
{
    return Log().Checked(m_obClient_HTTP_MultiPart.SetSocketTimeout(nTimeoutMsec), "SetSocketTimeout",
                         "m_obClient_HTTP_MultiPart.SetSocketTimeout(%d)", nTimeoutMsec);
}

int CClient_AXISJPEGMultiPart::SetSocketExitFlag(SockExitFlag* pExitFlag)
{
    if (!Log().Given(pExitFlag, "SetSocketExitFlag", "pExitFlag")) {
        return INVALID_ARGUMENT;
    }
    return Log().Checked(m_obClient_HTTP_MultiPart.SetSocketExitFlag(pExitFlag), "SetSocketExitFlag",
                         "m_obClient_HTTP_MultiPart.SetSocketExitFlag");
}

int CClient_AXISJPEGMultiPart::Start()
{
    TimePrint(m_pDB, m_nLogLevel, "Capture start\n");

    char path[CClient_HTTP_Common::PATH_SIZE];
    snprintf(path, sizeof path, "/axis-cgi/mjpg/video.cgi?showlength=1&camera=%s", m_strCameraNo);
    m_obClient_HTTP_MultiPart.ClearAllTag();
    m_obClient_HTTP_MultiPart.SetTargetPath(path);
    m_obClient_HTTP_MultiPart.AddTag("User-Agent", "Tarnmoor");

    return Log().Checked(m_obClient_HTTP_MultiPart.Get(), "Start", "m_obClient_HTTP_MultiPart.Get");
}

int CClient_AXISJPEGMultiPart::Stop()
{
    TimePrint(m_pDB, m_nLogLevel, "Capture stop\n");
    m_obClient_HTTP_MultiPart.Close();
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::GetData(char* pBuf, int nBufSize, int* nDataSize, _Option_AXISJPEGMultiPart* strOption)
{
    if (pBuf == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::GetData()] pBuf == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (nDataSize == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::GetData()] nDataSize == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (strOption == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::GetData()] strOption == NULL\n");
        return INVALID_ARGUMENT;
    }

    int ret = m_obClient_HTTP_MultiPart.Read(pBuf, nBufSize, nDataSize);
    timeval now{};
    gettimeofday(&now, nullptr);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::GetData()] m_obClient_HTTP_MultiPart.Read failed ::%d\n", ret);
        return ret;
    }
    MakeAXISJPEGOption(&now, strOption, m_pDB);
    return SUCCESS;
}
