#include "daemon/launcher_answer.h"

#include <stdio.h>

#include "common/return_codes.h"
#include "common/string_buf.h"
#include "daemon/globals.h"

int HTTPD_Responce(StringBuf_Class* buf, DbPrintf_Class* /*pDB*/)
{
    if (buf == nullptr)
        return DEBUG_WARNING;
    int len = buf->length();
    printf("Content-Length: %d\n", len);
    printf("Content-type: text/plain\n\n");
    if (len > 0)
        fwrite(buf->c_str(), 1, static_cast<size_t>(len), stdout);
    fflush(stdout);
    return SUCCESS;
}

int OptionPrint(DbPrintf_Class* /*pDB*/)
{
    printf("\t-StartUp Name : PP Start (for Debug).\n");
    printf("\t-StartUp_NonDeamon Name : PP Start (for Debug).\n");
    printf("\t-GetConfigTemplate\n");
    fflush(stdout);
    return SUCCESS;
}

namespace {

// The answer buffer, emptied, or null when the entry has not created it.
StringBuf_Class* fresh_answer()
{
    if (g_HTTPD_ResponseBuf != nullptr)
        g_HTTPD_ResponseBuf->clear();
    return g_HTTPD_ResponseBuf;
}

}  // namespace

int OutputBuffer_PPDL2ConfTemplate(DbPrintf_Class* pDB)
{
    StringBuf_Class* buf = fresh_answer();
    if (buf == nullptr)
        return DEBUG_WARNING;
    buf->add("%s%s%s", "<L2Config_Template>\n", "\t<Sample />\n", "</L2Config_Template>\n");
    HTTPD_Responce(buf, pDB);
    return SUCCESS;
}

int Answer_InvalidArgument(const char* comment, DbPrintf_Class* pDB)
{
    StringBuf_Class* buf = fresh_answer();
    if (buf != nullptr)
        buf->add("<Response>\n  <States>Err_InvalidArgument</States>\n  <Comment>%s</Comment>\n</Response>\n", comment);
    return HTTPD_Responce(buf, pDB);
}

int Answer_InvalidArgumentValue(const char* comment, int value, DbPrintf_Class* pDB)
{
    StringBuf_Class* buf = fresh_answer();
    if (buf != nullptr)
        buf->add("<Response>\n  <States>Err_InvalidArgument</States>\n  <Comment>%s:%d</Comment>\n</Response>\n",
                 comment, value);
    return HTTPD_Responce(buf, pDB);
}

int Answer_UnknownCommand(const unsigned char* command, int len, DbPrintf_Class* pDB)
{
    StringBuf_Class* buf = fresh_answer();
    if (buf != nullptr) {
        buf->add("<Response>\n  <States>Err_InvalidArgument</States>\n  <Comment>%s", "Unkown Command '");
        if (command != nullptr && len > 0)
            buf->add_FromPtr(command, len);
        buf->add("'</Comment>\n</Response>\n");
    }
    return HTTPD_Responce(buf, pDB);
}

int Answer_StartFailed(const char* comment, DbPrintf_Class* pDB)
{
    StringBuf_Class* buf = fresh_answer();
    if (buf != nullptr)
        buf->add("<Response>\n  <States>Err_StartFaild</States>\n  <Comment>%s</Comment>\n</Response>\n", comment);
    return HTTPD_Responce(buf, pDB);
}

int Answer_AlreadyWorking(DbPrintf_Class* pDB)
{
    StringBuf_Class* buf = fresh_answer();
    if (buf != nullptr)
        buf->add("<Response>\n  <States>Err_AlreadyWorking</States>\n</Response>\n");
    return HTTPD_Responce(buf, pDB);
}

int Answer_Text(const char* text, int len, DbPrintf_Class* pDB)
{
    StringBuf_Class* buf = fresh_answer();
    if (buf != nullptr && text != nullptr && len > 0)
        buf->add_FromPtr(reinterpret_cast<const unsigned char*>(text), len);
    return HTTPD_Responce(buf, pDB);
}
