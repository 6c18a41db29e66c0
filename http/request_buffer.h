#ifndef OSTREL_HTTP_REQUEST_BUFFER_H
#define OSTREL_HTTP_REQUEST_BUFFER_H

#include "http/base_buffer.h"
#include "http/cgi_param_parser.h"
#include "http/request_parser.h"

// HTTPRequestBuffer_Class: reads one request of a control-port connection:
// the head, for POST the body, and the CGI parameters, either from the
// URI's query (GET, HEAD) or from the body (POST). A POST body may carry its
// parameters in one part, located by the headers "NumOfPart:",
// "Part_0_Offset:" and "Part_0_Length:" (offset and length in body bytes);
// only part 0 is ever looked at.
//
// After HttpRead returns SUCCESS the caller reads Parser.Flag_Num, the URI
// pieces (Parser.URIParser.FileName chooses the command), the header lines
// and the parameters in CGIParam.m_Params (names with their "="). They
// borrow the buffer and stay valid until the next HttpRead/ResetBuf/ClearBuf.
// After a failure m_nStatus and m_strError are the answer to send.
// Lifecycle and threading as HTTPBaseBuffer_Class; ClearBuf before reusing
// the buffer for another connection (it drops any read-ahead).
class HTTPRequestBuffer_Class : public HTTPBaseBuffer_Class {
public:
    HTTPRequestBuffer_Class();
    ~HTTPRequestBuffer_Class() override;

    // Clears both parsers and the base fields.
    int ClearBuf(DbPrintf_Class* pDB = nullptr) override;

    // Reads and parses one request. SUCCESS with m_nStatus 200. Failures:
    //   SOCK_TIMEOUT             head not complete in time; 408
    //   HTTP_HEADER_READ_FAILD   other head read failures; 413 when the head
    //                            does not fit the buffer, else 400
    //   HTTP_INVALID_SYNTAX      malformed head; the parser's status and its
    //                            request text (empty for faults inside the
    //                            header lines)
    //   CGIPARAMS_SYNTAX_ERR     malformed parameters; 400
    //   HTTP_ERR_CONTENTLENGTH   POST without a usable "Content-Length:"; 411
    //   HTTP_BODY_READ_FAILD     POST body did not arrive; 400 (408)
    //   PIPP_SYNTAX_ERROR        bad part offset/length headers; 400
    //   HTTP_UNSUPPORT_METHOD    not GET, HEAD or POST; 415
    int HttpRead(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB = nullptr);

    // SUCCESS when the last read succeeded, the version was not exactly 1.0
    // and no "Connection: close" was seen; HTTP_CONNECTIONCLOSE otherwise;
    // NOT_INITIALIZE before any read.
    int Is_KeepAlive(DbPrintf_Class* pDB = nullptr);

    HTTPRequestParser_Class Parser;
    CGIParamParser_Class CGIParam;

private:
    int ReadPostParams(int fd, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB);
    // The parameters of a query or body: SUCCESS with status 200, or
    // CGIPARAMS_SYNTAX_ERR with status 400 and its text.
    int ParseParams(const unsigned char* text, int length, DbPrintf_Class* pDB);
};

#endif
