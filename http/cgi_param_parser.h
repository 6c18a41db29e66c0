#ifndef OSTREL_HTTP_CGI_PARAM_PARSER_H
#define OSTREL_HTTP_CGI_PARAM_PARSER_H

#include "common/tokens.h"

class DbPrintf_Class;
class StringBuf_Class;

// CGIParamParser_Class: name=value&name=value parameters of a query or a
// POST body, taken as they stand (no "+" or "%" decoding) into a table of at
// most 20 pairs; parameters beyond the 20th are ignored.
//
// Each name is stored WITH its "=" (look parameters up as "img_login=").
// An empty value is stored as a one-byte span holding a NUL byte, so every
// stored value has a length of at least 1. Names and values borrow the
// parsed text (the NUL span points to a constant) and stay valid as long as
// the text does. Not thread-safe.
class CGIParamParser_Class {
public:
    static constexpr int PARAMS_MAX = 20;

    explicit CGIParamParser_Class(DbPrintf_Class* pDB = nullptr);
    ~CGIParamParser_Class() = default;

    CGIParamParser_Class(const CGIParamParser_Class&) = delete;
    CGIParamParser_Class& operator=(const CGIParamParser_Class&) = delete;

    // Empties the table and forgets the text. SUCCESS.
    int Clear(DbPrintf_Class* pDB = nullptr);
    int OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB = nullptr);

    // Parses length bytes of text (borrowed), replacing what was parsed
    // before. SUCCESS; CGIPARAMS_SYNTAX_ERR for an empty text or name, a
    // parameter without "=", a second "=" in a value, a trailing "&" or a
    // byte outside the URI characters; DEBUG_WARNING for a null text with a
    // positive length. A CR or LF ends the text (a body's closing line end).
    int Parsing(const unsigned char* text, int length, DbPrintf_Class* pDB = nullptr);

    StaticArr_NameValToken_Class m_Params;
    int m_nPos = 0;
    int m_nLength = 0;
    const unsigned char* m_pText = nullptr;

private:
    // Counts bytes from the position up to stop. SUCCESS (position on
    // stop), END_OF_BUF (end of text, CR or LF), FOUND_ILLIGAL_CHAR (the
    // other separator or a byte outside the URI characters).
    int ScanTo(unsigned char stop, unsigned char other, int* start, int* length);
};

#endif
