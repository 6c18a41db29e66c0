#include "http/multipart_parser.h"

#include "common/return_codes.h"

HTTPMultiPartResponseParser_Class::HTTPMultiPartResponseParser_Class(DbPrintf_Class* pDB)
    : HTTPResponseParser_Class(pDB)
{
}

HTTPMultiPartResponseParser_Class::~HTTPMultiPartResponseParser_Class() = default;

int HTTPMultiPartResponseParser_Class::ParsingMulti(unsigned char* buf, int size, DbPrintf_Class* pDB)
{
    SetBuffer(buf, size);
    // Extra line ends before the boundary line are skipped, so a stream that
    // puts more than CR LF after a part's data still parses.
    int rc = SkipRead_BeforeHTTPHeader_ReturnCode(pDB);
    if (rc != SUCCESS) {
        return FailedStep(rc, pDB, "HTTPMultiPartResponseParser_Class::ParsingMulti",
                          "Syntax error before HTTP Header.");
    }
    rc = ReadLineText(pDB);
    if (rc != SUCCESS) {
        return rc;
    }
    rc = Parsing_HedderLine(pDB);
    if (rc != SUCCESS) {
        return FailedStep(rc, pDB, "HTTPMultiPartResponseParser_Class::ParsingMulti", "Syntax error in HTTP header.");
    }
    return SUCCESS;
}
