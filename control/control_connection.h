#ifndef OSTREL_CONTROL_CONTROL_CONNECTION_H
#define OSTREL_CONTROL_CONTROL_CONNECTION_H

#include <netinet/in.h>

#include <functional>

#include <atomic>

#include "common/string_buf.h"
#include "http/request_buffer.h"
#include "net/socket_io.h"

class DbPrintf_Class;

// ControlPort_Connection: one control-port worker's connection, as the
// protocol handlers see it: the request read off it, the peer's address, the
// answer's head and body texts, and the sends. The memory (a 65536-byte
// request reader, a 4096-byte head and a 512-byte body) is set up once per
// worker and used again for every connection.
//
// Threads: belongs to the worker's own thread. The command word and exit
// mark are the worker's (they outlive this object); the command word, -1
// when a stop is asked, cuts every read and send short.
class ControlPort_Connection {
public:
    static constexpr int kRequestBufferSize = 65536;
    static constexpr int kSendTimeoutMs = 4000;
    static constexpr int kHeaderMemSize = 4096;
    static constexpr int kBodyMemSize = 512;

    ControlPort_Connection(SockExitFlag* command, std::atomic<int>* exitMark);
    ~ControlPort_Connection();

    ControlPort_Connection(const ControlPort_Connection&) = delete;
    ControlPort_Connection& operator=(const ControlPort_Connection&) = delete;

    // The reader's and the texts' memory. SUCCESS, the reader's code or
    // MALLOC_ERROR (logged).
    int SetupMemory(DbPrintf_Class* pDB);

    // Takes a freshly accepted descriptor (not owned: the caller closes it)
    // and records its peer. Detach forgets both.
    void Attach(int fd, DbPrintf_Class* pDB);
    void Detach();

    // Empties the request reader (before the next accept).
    void ClearRequest(DbPrintf_Class* pDB);
    // Empties the answer texts and reads one request within timeoutMs: the
    // request reader's result.
    int ReadRequest(int timeoutMs, DbPrintf_Class* pDB);
    // The request read last; valid until the next read or clear.
    const HTTPRequestBuffer_Class& Request() const { return m_Request; }
    // SUCCESS when the request asks to keep the connection open.
    int Is_KeepAlive(DbPrintf_Class* pDB);

    bool StopRequested() const;
    // Sets the worker's exit mark to -1 (the worker is leaving).
    void MarkExit();
    // True when the peer's address equals the dotted IPv4 text myip.
    bool PeerIsMyIp(const char* myip) const;
    bool IsHeadRequest() const;
    // The answer's minor HTTP version: the request's own when it was read
    // (0 or 1), else 1.
    int MinorVersion() const;

    // The answer texts (cut at their capacity, never grown).
    StringBuf_Class& Header() { return m_Header; }
    StringBuf_Class& Body() { return m_Body; }

    // Builds a "text/plain" head with the status, "Connection: close", the
    // body text's length and (second form) extra header lines, then sends
    // head and body (only the head for HEAD) within 4000 ms that the command
    // word can cut short. SUCCESS whatever the send did.
    int ResponceSend_ConnectionClose(int status, DbPrintf_Class* pDB);
    int ResponceSend_ConnectionClose(int status, const char* extraHeaders, DbPrintf_Class* pDB);
    // Answers status 200 with text as the whole body. The send's result.
    int AnswerText(const char* text, DbPrintf_Class* pDB);
    // Sends the head text built in Header() and then size bytes of data
    // (none for HEAD), within 4000 ms. The send's result.
    int SendHeadAndData(const char* data, int size, DbPrintf_Class* pDB);
    // The same for data that may be overwritten while sent (a picture
    // borrowed from the frame ring): cut off before its end once intact()
    // says it changed (HttpResponse_SendMessage_WhileIntact).
    int SendHeadAndData_WhileIntact(const char* data, int size, const std::function<bool()>& intact,
                                    DbPrintf_Class* pDB);

private:
    int SendAnswer(int status, const char* extraHeaders, DbPrintf_Class* pDB);

    SockExitFlag* m_pCommand;
    std::atomic<int>* m_pExitMark;
    HTTPRequestBuffer_Class m_Request;
    char* m_pHeaderMem = nullptr;
    char* m_pBodyMem = nullptr;
    int m_nConnectFd = -1;
    in_addr m_PeerAddr{};
    unsigned short m_nPeerPort = 0;
    StringBuf_Class m_Header;
    StringBuf_Class m_Body;
};

#endif
