#ifndef OSTREL_CAMERA_AXIS_JPEG_CLIENT_H
#define OSTREL_CAMERA_AXIS_JPEG_CLIENT_H

#include <sys/time.h>

#include "camera/client_log.h"
#include "http/client_http_multipart.h"

class DbPrintf_Class;

// The option record stored with every picture: a NUL-terminated text with
// zero bytes after it, always handled as the whole 128 bytes.
struct _Option_AXISJPEGMultiPart {
    static constexpr int SIZE = 128;
    char strOption[SIZE];
};
static_assert(sizeof(_Option_AXISJPEGMultiPart) == _Option_AXISJPEGMultiPart::SIZE,
              "the option record is stored as exactly 128 bytes");

// Fills *pOption for a picture that arrived at tv (wall-clock time): zeroes
// the record and writes " <13 zeros>:<5 zeros>:<41 zeros>:<ms>", where <ms>
// is the local time in milliseconds since 1970-01-01 00:00:00 local time,
// lowercase hexadecimal, at least 12 digits. The zone is the process's (TZ,
// through tzset; read again when TZ changes, else once per second of tv).
// INVALID_ARGUMENT for null arguments, else SUCCESS.
int MakeAXISJPEGOption(const timeval* tv, _Option_AXISJPEGMultiPart* pOption, DbPrintf_Class* pDB = nullptr);

// CClient_AXISJPEGMultiPart: one AXIS camera's motion-JPEG stream. Start
// opens /axis-cgi/mjpg/video.cgi?showlength=1&camera=<n>; each GetData hands
// out the next picture, received straight into the caller's buffer, with its
// option record.
//
// Setters copy what they are given. Failures are logged (TimePrint at the
// level of SetLog) and returned; the object stays usable. After a failed
// Start or GetData the connection is closed: call Stop, then Start again.
//
// Not thread-safe: one object belongs to one thread (the camera thread).
// The exit flag belongs to the caller and must outlive the object's use.
class CClient_AXISJPEGMultiPart {
public:
    static constexpr int CAMERA_NO_SIZE = 16;

    CClient_AXISJPEGMultiPart();
    virtual ~CClient_AXISJPEGMultiPart();

    CClient_AXISJPEGMultiPart(const CClient_AXISJPEGMultiPart&) = delete;
    CClient_AXISJPEGMultiPart& operator=(const CClient_AXISJPEGMultiPart&) = delete;

    // Sizes the HTTP client for parts of up to nHTTPBodySize bytes; the
    // camera number becomes "1". The HTTP client's code on failure.
    int Initialize(int nHTTPBodySize);
    // Closes the connection and releases the HTTP client. SUCCESS.
    int Release();
    // Log and level for this object and its HTTP client. SUCCESS.
    int SetLog(DbPrintf_Class* pDB, int nLevel);

    // Local address to bind to.
    int SetMyself(const char* pMyselfIP);
    // Camera address, port and camera number (at most 15 characters are
    // kept: a longer number is cut and stays terminated).
    int SetTarget(const char* pTargetIp, int port, const char* pCameraNo);
    // nAuthOnOff 0 or 1; with 1 user and password are required and Basic
    // authorisation is sent with every request.
    int SetTargetAuth(int nAuthOnOff, const char* pUserName, const char* pPassword);
    int SetSocketTimeout(int nTimeoutMsec);
    int SetSocketExitFlag(SockExitFlag* pExitFlag);

    // Opens a new connection (closing any old one), sends the request and
    // reads the response head and the first boundary. SUCCESS or the HTTP
    // client's code.
    int Start();
    // Closes the connection. Always SUCCESS.
    int Stop();
    // Receives the next picture into pBuf (at most nBufSize bytes; its length
    // in *nDataSize) and fills *strOption with the time it arrived.
    // INVALID_ARGUMENT for null arguments; the HTTP client's code on failure
    // (DATASIZE_LARGE when the picture is longer than nBufSize), after which
    // the connection is closed.
    int GetData(char* pBuf, int nBufSize, int* nDataSize, _Option_AXISJPEGMultiPart* strOption);

    // Status code of the camera's last answer head (0 when none was read).
    int GetStatusCode() const { return m_obClient_HTTP_MultiPart.Response().Parser.m_nStatusCode; }
    // The request text of the last Start (for diagnostics).
    const char* GetRequestText() const { return m_obClient_HTTP_MultiPart.GetRequestText(); }

private:
    ClientLog Log() const { return ClientLog{m_pDB, m_nLogLevel, "CClient_AXISJPEGMultiPart"}; }

    CClient_HTTP_MultiPart m_obClient_HTTP_MultiPart;
    DbPrintf_Class* m_pDB = nullptr;
    int m_nLogLevel = 0;
    char m_strCameraNo[CAMERA_NO_SIZE];
};

#endif
