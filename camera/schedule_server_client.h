#ifndef OSTREL_CAMERA_SCHEDULE_SERVER_CLIENT_H
#define OSTREL_CAMERA_SCHEDULE_SERVER_CLIENT_H

#include "camera/client_log.h"
#include "http/client_http.h"

class DbPrintf_Class;

// CClient_ScheduleServer: tells the recorder's schedule server (a CGI
// program on this host, port 80) to stop the urgent storage of the daemon's
// channel (g_channelNum).
//
// Setters forward to the HTTP client and log their failures (TimePrint at
// the level of SetLog). Not thread-safe: the camera thread owns the one
// instance. The exit flag belongs to the caller and must outlive its use.
class CClient_ScheduleServer {
public:
    static constexpr int ANSWER_SIZE = 1024;

    CClient_ScheduleServer();
    virtual ~CClient_ScheduleServer();

    CClient_ScheduleServer(const CClient_ScheduleServer&) = delete;
    CClient_ScheduleServer& operator=(const CClient_ScheduleServer&) = delete;

    // Initialises the HTTP client with nHTTPBodySize. Its code on failure.
    int Initialize(int nHTTPBodySize);
    // Releases the HTTP client. SUCCESS.
    int Release();
    int SetLog(DbPrintf_Class* pDB, int nLevel);
    int SetMyself(const char* pMyselfIp);
    int SetTarget(const char* pTargetIp, int port);
    int SetSocketTimeout(int nTimeoutMsec);
    int SetSocketExitFlag(SockExitFlag* pExitFlag);

    // Sends the stop over a new HTTP/1.0 connection and reads the whole
    // answer, whose body is not interpreted. SUCCESS once a response was
    // read; the HTTP client's code otherwise (DATASIZE_LARGE for a body of
    // more than 1024 bytes).
    int SendStop();

    // The request text of the last SendStop (for diagnostics).
    const char* GetRequestText() const { return m_obClient_HTTP.GetRequestText(); }

private:
    ClientLog Log() const { return ClientLog{m_pDB, m_nLogLevel, "CClient_ScheduleServer"}; }

    CClient_HTTP m_obClient_HTTP;
    DbPrintf_Class* m_pDB = nullptr;
    int m_nLogLevel = 0;
    char m_strAnswer[ANSWER_SIZE];
};

#endif
