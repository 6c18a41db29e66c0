#include "http/cgi_param_parser.h"

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/string_buf.h"
#include "http/char_tables.h"

namespace {

// The value of an empty parameter: one NUL byte, so its length is 1.
const unsigned char kEmptyValue[1] = {0};

}  // namespace

CGIParamParser_Class::CGIParamParser_Class(DbPrintf_Class* pDB)
{
    m_Params.Init(PARAMS_MAX, pDB);
}

int CGIParamParser_Class::Clear(DbPrintf_Class* pDB)
{
    m_Params.Clear(pDB);
    m_nPos = 0;
    m_nLength = 0;
    m_pText = nullptr;
    return SUCCESS;
}

int CGIParamParser_Class::OutputBuffer(StringBuf_Class* out, DbPrintf_Class* pDB)
{
    if (out == nullptr) {
        return DEBUG_WARNING;
    }
    out->add("--- CGI Param %d ---\n", m_Params.GetCount());
    return m_Params.OutputBuffer(out, pDB);
}

int CGIParamParser_Class::ScanTo(unsigned char stop, unsigned char other, int* start, int* length)
{
    *start = m_nPos;
    *length = 0;
    while (m_nPos < m_nLength) {
        unsigned char c = m_pText[m_nPos];
        if (c == stop) {
            return SUCCESS;
        }
        if (c == '\r' || c == '\n') {
            return END_OF_BUF;
        }
        if (c == other || HTTP_URI[c] == 0) {
            return FOUND_ILLIGAL_CHAR;
        }
        m_nPos++;
        (*length)++;
    }
    return END_OF_BUF;
}

int CGIParamParser_Class::Parsing(const unsigned char* text, int length, DbPrintf_Class* pDB)
{
    if (text == nullptr && length > 0) {
        return DEBUG_WARNING;
    }
    Clear(pDB);
    m_pText = text;
    m_nLength = length < 0 ? 0 : length;

    for (;;) {
        if (m_Params.GetCount() >= PARAMS_MAX) {
            return SUCCESS;  // the rest is ignored
        }
        int nameStart = 0;
        int nameLen = 0;
        int rc = ScanTo('=', '&', &nameStart, &nameLen);
        if (rc != SUCCESS || nameLen == 0) {
            TimePrint(pDB, 1, "[CGIParamParser_Class::Parsing()] name at offset %d ::%d\n", nameStart, rc);
            return CGIPARAMS_SYNTAX_ERR;
        }
        nameLen++;  // the name keeps its "="
        m_nPos++;

        int valStart = 0;
        int valLen = 0;
        rc = ScanTo('&', '=', &valStart, &valLen);
        if (rc != SUCCESS && rc != END_OF_BUF) {
            TimePrint(pDB, 1, "[CGIParamParser_Class::Parsing()] value at offset %d ::%d\n", valStart, rc);
            return CGIPARAMS_SYNTAX_ERR;
        }
        const unsigned char* val = valLen > 0 ? m_pText + valStart : kEmptyValue;
        m_Params.Set_NameValToken_OnlyPointer(m_pText + nameStart, nameLen, val, valLen > 0 ? valLen : 1, pDB);

        // END_OF_BUF: the end of the text, or a CR/LF that closes it.
        if (rc == END_OF_BUF) {
            return SUCCESS;
        }
        m_nPos++;  // past "&"
    }
}
