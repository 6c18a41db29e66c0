#include "daemon/cgi_front.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/tokens.h"
#include "conf/name_check.h"
#include "daemon/daemon_start.h"
#include "daemon/launcher_answer.h"
#include "http/cgi_param_parser.h"

namespace {

// A body of this many bytes or more is refused.
constexpr int kMaxBodyLength = 65536;

// Answers the launcher with an Err_InvalidArgument comment and logs it.
int refuse(const char* func, const char* comment, DbPrintf_Class* pDB)
{
    TimePrint(pDB, 1, "[%s] %s\n", func, comment);
    Answer_InvalidArgument(comment, pDB);
    return INVALID_ARGUMENT;
}

// Exact comparison of a value token with a text (no prefix matches).
bool value_is(const OneToken_Class* value, const char* text)
{
    size_t len = strlen(text);
    return value->GetPtr() != nullptr && static_cast<size_t>(value->GetLength()) == len &&
           memcmp(value->GetPtr(), text, len) == 0;
}

struct FreeDeleter {
    void operator()(unsigned char* p) const { free(p); }
};

}  // namespace

int DoCGI_PostCommand(DbPrintf_Class* pDB)
{
    const char* lengthText = getenv("CONTENT_LENGTH");
    if (lengthText == nullptr)
        return refuse("DoCGI_PostCommand", "Not found 'Content-Length' in HTTP Header", pDB);

    int length = atoi(lengthText);
    if (length < 1) {
        TimePrint(pDB, 1, "[DoCGI_PostCommand] Invalid value 'Content-Length':%d\n", length);
        Answer_InvalidArgumentValue("Invalid value 'Content-Length'", length, pDB);
        return INVALID_ARGUMENT;
    }
    if (length >= kMaxBodyLength)
        return refuse("DoCGI_PostCommand", "CGI parametar too large.", pDB);

    std::unique_ptr<unsigned char, FreeDeleter> body(
        static_cast<unsigned char*>(calloc(static_cast<size_t>(length) + 1, 1)));
    if (!body) {
        TimePrint(pDB, 1, "[DoCGI_PostCommand] Malloc Error\n");
        Answer_StartFailed("Malloc Error", pDB);
        return MALLOC_ERROR;
    }

    // One read: the web server hands the whole (small) body over at once.
    ssize_t got;
    do {
        got = read(STDIN_FILENO, body.get(), static_cast<size_t>(length));
    } while (got < 0 && errno == EINTR);
    if (got <= 0) {
        TimePrint(pDB, 1, "[DoCGI_PostCommand] HTTP Body read faild\n");
        Answer_StartFailed("HTTP Body read faild", pDB);
        return MALLOC_ERROR;
    }

    CGIParamParser_Class params(pDB);
    int rc = params.Parsing(body.get(), static_cast<int>(got), pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[DoCGI_PostCommand] CGIParamParser_Class::Parsing() failed ::%d\n", rc);
        return refuse("DoCGI_PostCommand", "CGI Parameter parser error", pDB);
    }
    return DoCGI_CGICommand(&params, pDB);
}

int DoCGI_GetCommand(DbPrintf_Class* pDB)
{
    const char* query = getenv("QUERY_STRING");
    if (query == nullptr || query[0] == '\0')
        return refuse("DoCGI_GetCommand", "Not found CGI Argument", pDB);

    // The parser borrows its text; the token keeps the copy alive until the
    // command has run. A text too long for a token leaves it empty, which
    // the parser refuses.
    OneToken_Class text;
    text.Copy_WithMemAlloc(query, pDB);
    CGIParamParser_Class params(pDB);
    int rc = params.Parsing(text.GetPtr(), text.GetLength(), pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[DoCGI_GetCommand] CGIParamParser_Class::Parsing() failed ::%d\n", rc);
        return refuse("DoCGI_GetCommand", "CGI Parameter parser error", pDB);
    }
    DoCGI_CGICommand(&params, pDB);
    return SUCCESS;
}

int DoCGI_HeadCommand(DbPrintf_Class* /*pDB*/)
{
    (void)getenv("QUERY_STRING");
    printf("Content-type: text/plain\n\n");
    fflush(stdout);
    return SUCCESS;
}

int DoCGI_CGICommand(CGIParamParser_Class* params, DbPrintf_Class* pDB)
{
    if (params == nullptr || params->m_Params.GetCount() < 1)
        return refuse("DoCGI_CGICommand", "Not found CGI Argument", pDB);

    OneToken_Class* command = nullptr;
    if (params->m_Params.Search_NameToVal("Command=", &command, pDB) != SUCCESS || command == nullptr)
        return refuse("DoCGI_CGICommand", "Not found 'Command' CGI Argument ", pDB);
    if (command->GetLength() < 2)
        return refuse("DoCGI_CGICommand", "'Command' Length too short", pDB);

    if (value_is(command, "GetConfigTemplate")) {
        OutputBuffer_PPDL2ConfTemplate(pDB);
        return SUCCESS;
    }

    if (value_is(command, "StartUp")) {
        OneToken_Class name;
        int rc = params->m_Params.Search_NameToVal_WithMemAlloc("Name=", &name, 2, 255, pDB);
        switch (rc) {
        case SUCCESS: break;
        case DATASIZE_SHORT: return refuse("DoCGI_CGICommand", "'Name' Length too short", pDB);
        case DATASIZE_LARGE: return refuse("DoCGI_CGICommand", "'Name' Length too large", pDB);
        case NOTFOUND_ITEM: return refuse("DoCGI_CGICommand", "Not found 'Name' CGI Argument ", pDB);
        default:
            TimePrint(pDB, 1, "[DoCGI_CGICommand] Search_NameToVal_WithMemAlloc(Name=) failed ::%d\n", rc);
            Answer_StartFailed("Malloc Error", pDB);
            return rc;
        }
        // The owned copy is NUL-terminated; a NUL inside the value ends the
        // name early, which the later checks then see.
        char* nameText = reinterpret_cast<char*>(const_cast<unsigned char*>(name.GetPtr()));
        if (PPDNameCheck(nameText, pDB) != SUCCESS)
            return refuse("DoCGI_CGICommand", "'Name' have invalid charactor", pDB);

        // Missing or unreadable: one thread; the start clamps the number.
        int threads = 1;
        if (params->m_Params.Search_NameToVal_RtnInt("NumOfControlPortThread=", &threads, pDB) != SUCCESS)
            threads = 1;
        PPDMain_ForkStart(nameText, threads, pDB);
        return SUCCESS;
    }

    TimePrint(pDB, 1, "[DoCGI_CGICommand] Unkown Command\n");
    Answer_UnknownCommand(command->GetPtr(), command->GetLength(), pDB);
    return INVALID_ARGUMENT;
}
