#ifndef OSTREL_HTTP_URI_PARSER_H
#define OSTREL_HTTP_URI_PARSER_H

#include "common/tokens.h"

class DbPrintf_Class;
class StringBuf_Class;

// HTTPURIParser_Class: splits a request target into its pieces, without
// copying and without any percent-decoding.
//
//   /ptippreimg.cgi?img_login=1        Path "/", FileName "/ptippreimg.cgi",
//                                      CGIParam "img_login=1"
//   /cgi-bin/scheduleServer.cgi        Path "/cgi-bin/", FileName
//                                      "/scheduleServer.cgi"
//   http://host:80/a/b.cgi             Protocol "http", Path "/a/",
//                                      FileName "/b.cgi" (the host is dropped)
//
// Path runs from the first path slash to the last slash, both included;
// FileName from the last slash (included) to the "?" or the end; CGIParam is
// everything after the first "?" (possibly empty). A "/../" anywhere before
// the query is refused, and so is a target without a path slash.
//
// The tokens borrow the parsed span and are valid as long as it is.
// Not thread-safe.
class HTTPURIParser_Class {
public:
    HTTPURIParser_Class() = default;
    ~HTTPURIParser_Class() = default;

    HTTPURIParser_Class(const HTTPURIParser_Class&) = delete;
    HTTPURIParser_Class& operator=(const HTTPURIParser_Class&) = delete;

    // Everything back to "not parsed". SUCCESS.
    int Clear(DbPrintf_Class* pDB = nullptr);
    // "--- URI Parser ---" dump of the pieces.
    int OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB = nullptr);

    // SUCCESS, HTTP_INVALID_SYNTAX (no path slash, a "/../", or an empty
    // target), DEBUG_WARNING for a null token.
    int Parsing(const OneToken_Class* uri, DbPrintf_Class* pDB = nullptr);

    int Flag_URI_States = 0;     // 1: scheme present; 2: no scheme; 0: not parsed
    int Flag_Have_CGIParam = 0;  // 2: a "?" was present; 1: none; 0: not parsed
    OneToken_Class Protocol;     // the scheme without its colon
    OneToken_Class Path;
    OneToken_Class FileName;
    OneToken_Class CGIParam;
    int m_nURILength = 0;
    const unsigned char* m_pURI = nullptr;
};

#endif
