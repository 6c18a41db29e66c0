#ifndef OSTREL_CONTROL_REQUEST_VIEW_H
#define OSTREL_CONTROL_REQUEST_VIEW_H

#include "common/return_codes.h"
#include "common/tokens.h"
#include "http/request_buffer.h"

// What the control port reads out of a request reader, in one place. All
// results borrow the reader's buffer: valid until its next read or clear.

// HTTP status and reason text of the last failed read (0 / "" when none).
inline int request_status(const HTTPRequestBuffer_Class& r)
{
    return r.m_nStatus;
}
inline const char* request_error_text(const HTTPRequestBuffer_Class& r)
{
    return r.m_strError;
}

// Method number: 1 GET, 2 HEAD, 3 POST, 0 other.
inline int request_method(const HTTPRequestBuffer_Class& r)
{
    return r.Parser.Flag_Num;
}
// Minor HTTP version, -1 when the request line was not read that far.
inline int request_minor_version(const HTTPRequestBuffer_Class& r)
{
    return r.Parser.m_nMinorVersion;
}

// The request URI as received and its file name ("/ptippreimg.cgi").
inline const OneToken_Class& request_uri(const HTTPRequestBuffer_Class& r)
{
    return r.Parser.URI;
}
inline const OneToken_Class& request_file_name(const HTTPRequestBuffer_Class& r)
{
    return r.Parser.URIParser.FileName;
}
// The query text after "?" (an empty token when there is none).
inline const OneToken_Class* request_query(const HTTPRequestBuffer_Class& r)
{
    return &r.Parser.URIParser.CGIParam;
}

// The value of CGI parameter `name` (given with its "="), null when absent.
// An empty value is a one-byte span holding a NUL.
inline const OneToken_Class* request_param(const HTTPRequestBuffer_Class& r, const char* name)
{
    OneToken_Class* value = nullptr;
    if (r.CGIParam.m_Params.Search_NameToVal(name, &value) != SUCCESS)
        return nullptr;
    return value;
}

// The parameter as a decimal integer; false when it is absent or does not
// convert.
inline bool request_param_int(const HTTPRequestBuffer_Class& r, const char* name, int* out)
{
    const OneToken_Class* value = request_param(r, name);
    return value != nullptr && value->Atoi(out) == SUCCESS;
}

#endif
