#include "control/tr_communicate.h"

#include <stdio.h>
#include <string.h>

#include "camera/channel_config.h"
#include "camera/shared_state.h"
#include "common/debug_log.h"
#include "common/return_codes.h"
#include "control/control_connection.h"
#include "control/request_view.h"
#include "net/process_utils.h"

namespace {

constexpr int kQueryStringMax = 512;
constexpr int kAnswerHeadersMax = 1023;
// The configuration reader's result when the file now names another data
// type for this channel.
constexpr int kDataTypeMismatch = 27;

// A received value matches when it is a prefix of the expected word (an
// empty value matches every word). The value ends at its first NUL, so the
// one-byte NUL span that stands for an empty parameter is empty here.
bool value_is_prefix_of(const OneToken_Class* value, const char* word)
{
    int len = Strnlen(value->GetPtr(), value->GetLength());
    if (len > static_cast<int>(strlen(word)))
        return false;
    return memcmp(value->GetPtr(), word, len) == 0;
}

// A decimal integer: optional blanks, an optional '-', at least one digit;
// what follows the digits is ignored.
bool parse_integer(const OneToken_Class* value, int* out)
{
    const unsigned char* p = value->GetPtr();
    int len = Strnlen(p, value->GetLength());
    int i = 0;
    while (i < len && (p[i] == ' ' || p[i] == '\t'))
        ++i;
    if (i < len && p[i] == '-')
        ++i;
    if (i >= len || p[i] < '0' || p[i] > '9')
        return false;
    return value->Atoi(out) == SUCCESS;
}

}  // namespace

int TrCommunicate_Protocol::Handle(ControlPort_Connection& conn, DbPrintf_Class* pDB)
{
    return TrCommunicate_Protocol(conn).DoCommand_TrCommunicate(pDB);
}

int TrCommunicate_Protocol::DoCommand_TrCommunicate(DbPrintf_Class* pDB)
{
    int result = DEBUG_WARNING;

    char query[kQueryStringMax + 1] = {};
    const OneToken_Class* queryToken = request_query(m_Conn.Request());
    if (queryToken != nullptr && queryToken->GetLength() > 0) {
        int n = queryToken->GetLength() < kQueryStringMax ? queryToken->GetLength() : kQueryStringMax;
        memcpy(query, queryToken->GetPtr(), n);
    }

    configParam_Struct cfg;
    const OneToken_Class* value = nullptr;
    int version = 0;
    if (g_configInfoIOClass.GetParamsFromMem(&cfg, pDB) != SUCCESS) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:trcom.cgi failed at GetParamsFromMem[200]\n");
        result = DEBUG_WARNING;
    } else if (!m_Conn.PeerIsMyIp(cfg.myip)) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:trcom.cgi invalid access[200]\n");
        result = INVALID_ACCESS;
    } else if ((value = request_param(m_Conn.Request(), "p_name=")) == nullptr) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:trcom.cgi not found p_name[200]\n");
        result = NOTFOUND_PROTOCOLINFO;
    } else if (!value_is_prefix_of(value, "TrCommunicate")) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:trcom.cgi p_name is not match[200]\n");
        result = UNSUPPORTED_PROTOCOL;
    } else if ((value = request_param(m_Conn.Request(), "p_version=")) == nullptr || !parse_integer(value, &version)) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:trcom.cgi not found p_version[200]\n");
        result = NOTFOUND_PROTOCOLINFO;
    } else if (version != 1) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:trcom.cgi p_version is not match[200]\n");
        result = OUT_OF_RANGE;
    } else if ((value = request_param(m_Conn.Request(), "command=")) == nullptr) {
        TimePrint(pDB, 1, "ControlPort_ServerThread:trcom.cgi not found command[200]\n");
        result = NOTFOUND_COMMAND;
    } else if (value_is_prefix_of(value, "notice_update")) {
        result = DoCommand_TrCommunicate__notice_update(pDB);
    } else if (value_is_prefix_of(value, "reset_postterm")) {
        result = DoCommand_TrCommunicate__reset_postterm(pDB);
    } else {
        TimePrint(pDB, 1, "ControlPort_ServerThread:trcom.cgi undeclared command[200]\n");
        result = UNDECLARED_COMMAND;
    }

    char extra[kAnswerHeadersMax + 1];
    snprintf(
        extra, sizeof(extra),
        "Protocol_Name: TrCommunicate\r\nProtocol_Version: 1\r\nNode_Id: %d\r\nQuery_Result: %d:%d\r\nQuery_String: %s\r\n",
        kNodeId, GetErrGeneralCode(result), result, query);
    m_Conn.Header().clear();
    m_Conn.Body().clear();
    m_Conn.Body().add("<HTML><BODY><H1>200 OK</H1></BODY></HTML>");
    m_Conn.ResponceSend_ConnectionClose(200, extra, pDB);
    return HTTP_CONNECTIONCLOSE;
}

int TrCommunicate_Protocol::DoCommand_TrCommunicate__notice_update(DbPrintf_Class* pDB)
{
    TimePrint(pDB, 1, "[ControlPort_ServerThread::DoCommand_TrCommunicate()] notice_update received\n");
    int rc =
        g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum(g_channelNum.load(std::memory_order_relaxed), pDB);
    if (rc == SUCCESS)
        return rc;
    if (rc == kDataTypeMismatch) {
        fprintf(stderr, "PROGRAM_COMMAND_DESTRUCT for translator_tarndatatype changed\n");
        TimePrint(
            pDB, 1,
            "[ControlPort_ServerThread::DoCommand_TrCommunicate()] set PROGRAM_COMMAND_DESTRUCT for translator_tarndatatype changed\n");
    } else {
        fprintf(stderr, "PROGRAM_COMMAND_DESTRUCT for failed at config file reading\n");
        TimePrint(
            pDB, 1,
            "[ControlPort_ServerThread::DoCommand_TrCommunicate()] set PROGRAM_COMMAND_DESTRUCT for failed at config file reading\n");
    }
    g_Program_Command.store(-1, std::memory_order_relaxed);
    return rc;
}

int TrCommunicate_Protocol::DoCommand_TrCommunicate__reset_postterm(DbPrintf_Class* pDB)
{
    TimePrint(pDB, 1, "[ControlPort_ServerThread::DoCommand_TrCommunicate()] reset_postterm received\n");
    g_lnDiffTimeSumPT.store(0, std::memory_order_relaxed);
    g_flgAlreadySendStop.store(0, std::memory_order_relaxed);
    return SUCCESS;
}
