#include "http/uri_parser.h"

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {

void set_span(OneToken_Class* token, const unsigned char* p, int len)
{
    token->Clear();
    if (len > 0) {
        token->Copy_OnlyPointer(p, len);
    }
}

}  // namespace

int HTTPURIParser_Class::Clear(DbPrintf_Class*)
{
    Flag_URI_States = 0;
    Flag_Have_CGIParam = 0;
    Protocol.Clear();
    Path.Clear();
    FileName.Clear();
    CGIParam.Clear();
    m_nURILength = 0;
    m_pURI = nullptr;
    return SUCCESS;
}

int HTTPURIParser_Class::OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB)
{
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    out->add("--- URI Parser ---\nFlag_URI_States %d , Flag_Have_CGIParam %d\n", Flag_URI_States, Flag_Have_CGIParam);
    if (Flag_URI_States == 1) {
        out->add("Protocol[ ");
        Protocol.OutputBuffer(out, pDB);
        out->add(" ]\n");
    }
    out->add("Path[ ");
    Path.OutputBuffer(out, pDB);
    out->add(" ]\n");
    out->add("FileName[ ");
    FileName.OutputBuffer(out, pDB);
    out->add(" ]\n");
    if (Flag_Have_CGIParam == 2) {
        out->add("CGIParam[ ");
        CGIParam.OutputBuffer(out, pDB);
        out->add(" ]\n");
    }
    return SUCCESS;
}

int HTTPURIParser_Class::Parsing(const OneToken_Class* uri, DbPrintf_Class* pDB)
{
    if (uri == nullptr) {
        return DEBUG_WARNING;
    }
    Clear(pDB);
    const unsigned char* u = uri->GetPtr();
    int len = uri->GetLength();
    m_pURI = u;
    m_nURILength = len;

    int query = -1;
    int pathStart = -1;
    int lastSlash = -1;
    int schemeEnd = -1;
    for (int i = 0; i < len && u != nullptr; i++) {
        if (u[i] == '?') {
            query = i;
            break;
        }
        if (u[i] != '/') {
            continue;
        }
        if (i == 0) {
            pathStart = 0;
        } else if (pathStart < 0) {
            if (u[i - 1] == ':') {
                schemeEnd = i - 1;
            } else if (u[i - 1] != '/') {
                // The first slash after "scheme://host" starts the path.
                pathStart = i;
            }
        }
        if (pathStart >= 0) {
            lastSlash = i;
        }
        if (i > 2 && u[i - 3] == '/' && u[i - 2] == '.' && u[i - 1] == '.') {
            TimePrint(pDB, 1, "[HTTPURIParser_Class::Parsing()] \"/../\" at offset %d ::%d\n", i - 3,
                      HTTP_INVALID_SYNTAX);
            return HTTP_INVALID_SYNTAX;
        }
    }
    // Without a path slash there is no file name to serve ("x.cgi",
    // "http://host"): refused rather than guessed.
    if (pathStart < 0) {
        TimePrint(pDB, 1, "[HTTPURIParser_Class::Parsing()] no path ::%d\n", HTTP_INVALID_SYNTAX);
        return HTTP_INVALID_SYNTAX;
    }

    set_span(&Path, u + pathStart, lastSlash - pathStart + 1);
    int nameEnd = query >= 0 ? query : len;
    set_span(&FileName, u + lastSlash, nameEnd - lastSlash);
    if (query >= 0) {
        Flag_Have_CGIParam = 2;
        set_span(&CGIParam, u + query + 1, len - query - 1);
    } else {
        Flag_Have_CGIParam = 1;
    }
    if (schemeEnd >= 0) {
        Flag_URI_States = 1;
        set_span(&Protocol, u, schemeEnd);
    } else {
        Flag_URI_States = 2;
    }
    return SUCCESS;
}
