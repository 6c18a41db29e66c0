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
    int ret = m_obClient_HTTP_MultiPart.Initialize(nHTTPBodySize);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::Initialize()] m_obClient_HTTP_MultiPart.Initialize failed ::%d\n", ret);
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
    if (pMyselfIP == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::SetMyself()] pMyselfIP == NULL\n");
        return INVALID_ARGUMENT;
    }
    int ret = m_obClient_HTTP_MultiPart.SetMyself(pMyselfIP);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::SetMyself()] m_obClient_HTTP_MultiPart.SetMyself(%s) failed ::%d\n",
                  pMyselfIP, ret);
        return ret;
    }
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::SetTarget(const char* pTargetIp, int port, const char* pCameraNo)
{
    if (pTargetIp == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::SetTarget()] pTargetIp == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (pCameraNo == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::SetTarget()] pCameraNo == NULL\n");
        return INVALID_ARGUMENT;
    }
    int ret = m_obClient_HTTP_MultiPart.SetTargetIp(pTargetIp);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::SetTarget()] m_obClient_HTTP_MultiPart.SetTargetIp(%s) failed ::%d\n",
                  pTargetIp, ret);
        return ret;
    }
    ret = m_obClient_HTTP_MultiPart.SetTargetPort(port);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::SetTarget()] m_obClient_HTTP_MultiPart.SetTargetPort(%d) failed ::%d\n",
                  port, ret);
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
    if (nAuthOnOff == 1) {
        if (pUserName == nullptr) {
            TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::SetTargetAuth()] pUserName == NULL\n");
            return INVALID_ARGUMENT;
        }
        if (pPassword == nullptr) {
            TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::SetTargetAuth()] pPassword == NULL\n");
            return INVALID_ARGUMENT;
        }
    }
    int ret = m_obClient_HTTP_MultiPart.SetAuth(nAuthOnOff);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::SetTargetAuth()] m_obClient_HTTP_MultiPart.SetAuth(%d) failed ::%d\n",
                  nAuthOnOff, ret);
        return ret;
    }
    if (nAuthOnOff == 1) {
        ret = m_obClient_HTTP_MultiPart.SetAuthString(pUserName, pPassword);
        if (ret != SUCCESS) {
            TimePrint(
                m_pDB, m_nLogLevel,
                "[CClient_AXISJPEGMultiPart::SetTargetAuth()] m_obClient_HTTP_MultiPart.SetAuthString failed ::%d\n",
                ret);
            return ret;
        }
    }
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::SetSocketTimeout(int nTimeoutMsec)
{
    int ret = m_obClient_HTTP_MultiPart.SetSocketTimeout(nTimeoutMsec);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::SetSocketTimeout()] m_obClient_HTTP_MultiPart.SetSocketTimeout(%d) "
                  "failed ::%d\n",
                  nTimeoutMsec, ret);
        return ret;
    }
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::SetSocketExitFlag(SockExitFlag* pExitFlag)
{
    if (pExitFlag == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_AXISJPEGMultiPart::SetSocketExitFlag()] pExitFlag == NULL\n");
        return INVALID_ARGUMENT;
    }
    int ret = m_obClient_HTTP_MultiPart.SetSocketExitFlag(pExitFlag);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::SetSocketExitFlag()] m_obClient_HTTP_MultiPart.SetSocketExitFlag failed "
                  "::%d\n",
                  ret);
        return ret;
    }
    return SUCCESS;
}

int CClient_AXISJPEGMultiPart::Start()
{
    TimePrint(m_pDB, m_nLogLevel, "Capture start\n");

    char path[CClient_HTTP_Common::PATH_SIZE];
    snprintf(path, sizeof path, "/axis-cgi/mjpg/video.cgi?showlength=1&camera=%s", m_strCameraNo);
    m_obClient_HTTP_MultiPart.ClearAllTag();
    m_obClient_HTTP_MultiPart.SetTargetPath(path);
    m_obClient_HTTP_MultiPart.AddTag("User-Agent", "Tarnmoor");

    int ret = m_obClient_HTTP_MultiPart.Get();
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_AXISJPEGMultiPart::Start()] m_obClient_HTTP_MultiPart.Get failed ::%d\n", ret);
        return ret;
    }
    return SUCCESS;
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
