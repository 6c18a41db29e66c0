#ifndef OSTREL_HTTP_REQUEST_PARSER_H
#define OSTREL_HTTP_REQUEST_PARSER_H

#include "http/message_parser.h"
#include "http/uri_parser.h"

// HTTPRequestParser_Class: parses a complete request head in place: leading
// CR/LF bytes, the request line "<method> <uri> <proto>/<major>.<minor>",
// the URI's pieces, then the header lines.
//
// Two error texts: the request parser writes the texts of the request line
// and its fallbacks into m_strRequestError; the shared scanner writes its
// own texts into the base m_strError. The request reader reports only
// m_strRequestError, so a fault inside the header lines (including too many
// lines, status 413) reaches a client with its status and an empty text.
// m_nStatus (base) holds the status in both cases.
//
// Tokens borrow the parsed buffer; see HTTPMessageParser_Class.
class HTTPRequestParser_Class : public HTTPMessageParser_Class {
public:
    // Flag_Num values.
    static constexpr int METHOD_OTHER = 0;
    static constexpr int METHOD_GET = 1;
    static constexpr int METHOD_HEAD = 2;
    static constexpr int METHOD_POST = 3;

    explicit HTTPRequestParser_Class(DbPrintf_Class* pDB = nullptr);
    ~HTTPRequestParser_Class() override;

    // Clears the request fields and the base fields, but leaves the base
    // error text as it was.
    int Clear(DbPrintf_Class* pDB = nullptr) override;
    int OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB = nullptr) override;

    // Parses size bytes of buf (borrowed). Returns the failing step's code
    // (HTTP_INVALID_SYNTAX, ...) with m_nStatus set, or SUCCESS. An unknown
    // method is not a parse failure: Flag_Num is then METHOD_OTHER.
    int Parsing(unsigned char* buf, int size, DbPrintf_Class* pDB = nullptr);

    char m_strRequestError[ERROR_TEXT_SIZE];
    OneToken_Class Method;
    int Flag_Num = METHOD_OTHER;
    OneToken_Class URI;
    HTTPURIParser_Class URIParser;

private:
    int ParseRequestLine(DbPrintf_Class* pDB);
    // Status 400 and the request text; returns HTTP_INVALID_SYNTAX.
    int RequestFault(DbPrintf_Class* pDB, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
};

#endif
