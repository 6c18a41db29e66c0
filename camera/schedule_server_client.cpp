#include "camera/schedule_server_client.h"

#include <stdio.h>
#include <string.h>

#include "camera/shared_state.h"
#include "common/debug_log.h"
#include "common/figures.h"
#include "common/return_codes.h"

CClient_ScheduleServer::CClient_ScheduleServer()
{
    memset(m_strAnswer, 0, sizeof m_strAnswer);
}

CClient_ScheduleServer::~CClient_ScheduleServer() = default;

int CClient_ScheduleServer::Initialize(int nHTTPBodySize)
{
    return Log().Checked(m_obClient_HTTP.Initialize(nHTTPBodySize), "Initialize", "m_obClient_HTTP.Initialize");
}

int CClient_ScheduleServer::Release()
{
    m_obClient_HTTP.Release();
    return SUCCESS;
}

int CClient_ScheduleServer::SetLog(DbPrintf_Class* pDB, int nLevel)
{
    m_pDB = pDB;
    m_nLogLevel = nLevel;
    m_obClient_HTTP.SetLog(pDB, nLevel);
    return SUCCESS;
}

int CClient_ScheduleServer::SetMyself(const char* pMyselfIp)
{
    if (!Log().Given(pMyselfIp, "SetMyself", "pMyselfIp")) {
        return INVALID_ARGUMENT;
    }
    return Log().Checked(m_obClient_HTTP.SetMyself(pMyselfIp), "SetMyself", "m_obClient_HTTP.SetMyself(%s)", pMyselfIp);
}

int CClient_ScheduleServer::SetTarget(const char* pTargetIp, int port)
{
    if (!Log().Given(pTargetIp, "SetTarget", "pTargetIp")) {
        return INVALID_ARGUMENT;
    }
    int ret = Log().Checked(m_obClient_HTTP.SetTargetIp(pTargetIp), "SetTarget", "m_obClient_HTTP.SetTargetIp(%s)",
                            pTargetIp);
    if (ret != SUCCESS) {
        return ret;
    }
    return Log().Checked(m_obClient_HTTP.SetTargetPort(port), "SetTarget", "m_obClient_HTTP.SetTargetPort(%d)", port);
}

int CClient_ScheduleServer::SetSocketTimeout(int nTimeoutMsec)
{
    return Log().Checked(m_obClient_HTTP.SetSocketTimeout(nTimeoutMsec), "SetSocketTimeout",
                         "m_obClient_HTTP.SetSocketTimeout(%d)", nTimeoutMsec);
}

int CClient_ScheduleServer::SetSocketExitFlag(SockExitFlag* pExitFlag)
{
    if (!Log().Given(pExitFlag, "SetSocketExitFlag", "pExitFlag")) {
        return INVALID_ARGUMENT;
    }
    return Log().Checked(m_obClient_HTTP.SetSocketExitFlag(pExitFlag), "SetSocketExitFlag",
                         "m_obClient_HTTP.SetSocketExitFlag");
}

int CClient_ScheduleServer::SendStop()
{
    TimePrint(m_pDB, m_nLogLevel, "Send[scheduleServer] stop_urgent_storage_wpp_ch\n");

    char path[256];
    snprintf(path, sizeof path,
             "%s?p_name=StorageSchedule&p_version=1&command=stop_urgent_storage_wpp_ch&channel_no=%d",
             "/cgi-bin/scheduleServer.cgi", g_channelNum.load(std::memory_order_relaxed));
    m_obClient_HTTP.ClearAllTag();
    m_obClient_HTTP.SetTargetPath(path);
    m_obClient_HTTP.AddTag("User-Agent", "Tarnmoor");

    int received = 0;
    int ret = m_obClient_HTTP.Get(0, m_strAnswer, sizeof m_strAnswer, &received);
    g_Figures.StopRequestSent(ret);
    return Log().Checked(ret, "Stop", "m_obClient_HTTP.Get");
}
