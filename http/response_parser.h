#ifndef OSTREL_HTTP_RESPONSE_PARSER_H
#define OSTREL_HTTP_RESPONSE_PARSER_H

#include "http/message_parser.h"

// HTTPResponseParser_Class: parses a complete response head in place:
// leading CR/LF bytes, the status line "<proto>/<major>.<minor> <code>
// <reason>", then the header lines. Only status code 200 is accepted: any
// other code fails with HTTP_ACCESS_FAILD, m_nStatus 400 and the text
// "[Offset %d]:HTTP error status. code[%lld].", and the code stays readable in
// m_nStatusCode.
//
// Tokens (protocol, reason phrase, header lines) borrow the parsed buffer;
// see HTTPMessageParser_Class for lifetime, results and threading.
class HTTPResponseParser_Class : public HTTPMessageParser_Class {
public:
    explicit HTTPResponseParser_Class(DbPrintf_Class* pDB = nullptr);
    ~HTTPResponseParser_Class() override;

    // The base fields plus the status code and the text token.
    int Clear(DbPrintf_Class* pDB = nullptr) override;
    int OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB = nullptr) override;

    // Parses size bytes of buf (borrowed; normally exactly the head found by
    // the reader). Returns the code of the failing step (HTTP_INVALID_SYNTAX,
    // NOTFOUND_PROTOCOLINFO, HTTP_ACCESS_FAILD, ...) with m_nStatus and
    // m_strError set, or SUCCESS.
    int Parsing(unsigned char* buf, int size, DbPrintf_Class* pDB = nullptr);

    // After Parsing refused a status other than 200 (HTTP_ACCESS_FAILD; the
    // position is still just after the code): reads the reason phrase and
    // the header lines of that response too, so that a caller can look at
    // what an error answer carries (a 401's "WWW-Authenticate:" lines).
    // m_nStatus and m_strError keep the refusal unless these lines are
    // themselves malformed. SUCCESS, NOT_INITIALIZE when the last Parsing did
    // not end that way, or the failing step's code.
    int ParsingErrorHead(DbPrintf_Class* pDB = nullptr);

    int m_nStatusCode = 0;  // the status line's code
    OneToken_Class m_Text;  // the reason phrase (or, for a part head, its boundary line)

protected:
    // The status line, from the current position up to and past its LF.
    int ParseStatusLine(DbPrintf_Class* pDB);
    // The rest of the current line, up to and past its LF, as m_Text (the
    // reason phrase, or a part head's boundary line).
    int ReadLineText(DbPrintf_Class* pDB);

private:
    int m_nErrorHeadPos = -1;  // where a refused status line's code ended
};

#endif
