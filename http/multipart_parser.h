#ifndef OSTREL_HTTP_MULTIPART_PARSER_H
#define OSTREL_HTTP_MULTIPART_PARSER_H

#include "http/response_parser.h"

// HTTPMultiPartResponseParser_Class: parses the heads of a multipart stream.
// Parsing (inherited) reads the response head that opens the stream;
// ParsingMulti reads one part head: leading CR/LF bytes, the boundary line
// (kept in m_Text as it stands, not compared with anything) and the part's
// header lines.
// Tokens borrow the parsed buffer; see HTTPMessageParser_Class.
class HTTPMultiPartResponseParser_Class : public HTTPResponseParser_Class {
public:
    explicit HTTPMultiPartResponseParser_Class(DbPrintf_Class* pDB = nullptr);
    ~HTTPMultiPartResponseParser_Class() override;

    // SUCCESS, or HTTP_INVALID_SYNTAX (or the scanner's code) with m_nStatus
    // and m_strError set.
    int ParsingMulti(unsigned char* buf, int size, DbPrintf_Class* pDB = nullptr);
};

#endif
