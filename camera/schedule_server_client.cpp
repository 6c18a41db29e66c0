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
    int ret = m_obClient_HTTP.Initialize(nHTTPBodySize);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_ScheduleServer::Initialize()] m_obClient_HTTP.Initialize failed ::%d\n",
                  ret);
        return ret;
    }
    return SUCCESS;
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
    if (pMyselfIp == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_ScheduleServer::SetMyself()] pMyselfIp == NULL\n");
        return INVALID_ARGUMENT;
    }
    int ret = m_obClient_HTTP.SetMyself(pMyselfIp);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_ScheduleServer::SetMyself()] m_obClient_HTTP.SetMyself(%s) failed ::%d\n", pMyselfIp, ret);
        return ret;
    }
    return SUCCESS;
}

int CClient_ScheduleServer::SetTarget(const char* pTargetIp, int port)
{
    if (pTargetIp == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_ScheduleServer::SetTarget()] pTargetIp == NULL\n");
        return INVALID_ARGUMENT;
    }
    int ret = m_obClient_HTTP.SetTargetIp(pTargetIp);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_ScheduleServer::SetTarget()] m_obClient_HTTP.SetTargetIp(%s) failed ::%d\n", pTargetIp,
                  ret);
        return ret;
    }
    ret = m_obClient_HTTP.SetTargetPort(port);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_ScheduleServer::SetTarget()] m_obClient_HTTP.SetTargetPort(%d) failed ::%d\n", port, ret);
        return ret;
    }
    return SUCCESS;
}

int CClient_ScheduleServer::SetSocketTimeout(int nTimeoutMsec)
{
    int ret = m_obClient_HTTP.SetSocketTimeout(nTimeoutMsec);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_ScheduleServer::SetSocketTimeout()] m_obClient_HTTP.SetSocketTimeout(%d) failed ::%d\n",
                  nTimeoutMsec, ret);
        return ret;
    }
    return SUCCESS;
}

int CClient_ScheduleServer::SetSocketExitFlag(SockExitFlag* pExitFlag)
{
    if (pExitFlag == nullptr) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_ScheduleServer::SetSocketExitFlag()] pExitFlag == NULL\n");
        return INVALID_ARGUMENT;
    }
    int ret = m_obClient_HTTP.SetSocketExitFlag(pExitFlag);
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel,
                  "[CClient_ScheduleServer::SetSocketExitFlag()] m_obClient_HTTP.SetSocketExitFlag failed ::%d\n", ret);
        return ret;
    }
    return SUCCESS;
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
    if (ret != SUCCESS) {
        TimePrint(m_pDB, m_nLogLevel, "[CClient_ScheduleServer::Stop()] m_obClient_HTTP.Get failed ::%d\n", ret);
        return ret;
    }
    return SUCCESS;
}
