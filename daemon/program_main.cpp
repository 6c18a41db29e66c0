#include "daemon/program_main.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <strings.h>

#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/string_buf.h"
#include "common/string_utils.h"
#include "conf/name_check.h"
#include "conf/states_file.h"
#include "daemon/cgi_front.h"
#include "daemon/daemon_start.h"
#include "daemon/globals.h"
#include "daemon/launcher_answer.h"
#include "net/process_utils.h"

namespace {

constexpr char kDisplayName[] = "Ostrel Relay";
constexpr char kVersion[] = "0.2";
constexpr int kAnswerBufferBytes = 16384;
// Threads of the control port for a start from the command line.
constexpr int kCommandLineControlPortThreads = 2;

// -StartUp and -StartUp_NonDeamon: the name check, then the start.
void start_from_command_line(int argc, char** argv, bool forking)
{
    // argc of 2 is stopped before the dispatch; the branch stays as a guard.
    if (argc == 2) {
        printf("Few arguments.\n");
        OptionPrint();
        return;
    }
    if (PPDNameCheck(argv[2], g_pDB) != SUCCESS) {
        TimePrint(g_pDB, 1, "[%s] is illigal name.\n", argv[2]);
        printf("[%s] is illigal name.\n", argv[2]);
        return;
    }
    if (forking)
        PPDMain_ForkStart(argv[2], kCommandLineControlPortThreads, g_pDB);
    else
        PPDMain_NonForkStart(argv[2], kCommandLineControlPortThreads, g_pDB);
}

void dispatch_cgi(const char* method)
{
    if (strcasecmp(method, "POST") == 0) {
        DoCGI_PostCommand(g_pDB);
    } else if (strcasecmp(method, "GET") == 0) {
        DoCGI_GetCommand(g_pDB);
    } else if (strcasecmp(method, "HEAD") == 0) {
        DoCGI_HeadCommand(g_pDB);
    } else {
        TimePrint(g_pDB, 1, "[%s] Unkown Command.\n", method);
        printf("[%s] Unkown Command.", method);
    }
}

void dispatch_command_line(int argc, char** argv)
{
    if (argc < 2) {
        OptionPrint();
        return;
    }
    if (strcasecmp(argv[1], "-StartUp_NonDeamon") == 0) {
        start_from_command_line(argc, argv, false);
    } else if (strcasecmp(argv[1], "-StartUp") == 0) {
        start_from_command_line(argc, argv, true);
    } else if (strcasecmp(argv[1], "-GetConfigTemplate") == 0) {
        OutputBuffer_PPDL2ConfTemplate(g_pDB);
    } else {
        TimePrint(g_pDB, 1, "[%s] Unkown.\n", argv[1]);
        printf("[%s] Unkown.\n", argv[1]);
        OptionPrint();
    }
}

}  // namespace

int ProgramMain(int argc, char** argv)
{
    if (argc <= 2) {
        OptionPrint();
        return 0;
    }
    // digit_check may cut the text in place; it is only cut when it fails.
    if (digit_check(argv[2], 3, 0, 99, 0) != SUCCESS) {
        fprintf(stderr, "Invalid argument\n");
        fflush(stderr);
        OptionPrint();
        return 0;
    }

    // All daemons of one channel number share the log (7 and 07 alike).
    char logName[64];
    snprintf(logName, sizeof logName, "log/Ostrel_%02d", atoi(argv[2]));
    g_pDB = new DbPrintf_Class(logName, 3);
    DebugPrint(g_pDB, 1, "\n-------\n");
    DebugPrint(g_pDB, 1, "%s %s Compile(%s %s)\n", kDisplayName, kVersion, __DATE__, __TIME__);
    for (int i = 0; i < argc; ++i)
        DebugPrint(g_pDB, 1, "%s ", argv[i]);
    DebugPrint(g_pDB, 1, "\n");
    TimePrint(g_pDB, 1, "Start\n");

    g_HTTPD_ResponseBuf = new StringBuf_Class(kAnswerBufferBytes);

    char* fileName = nullptr;
    int fileNameLen = 0;
    if (GetFileNamePtr(argv[0], &fileName, &fileNameLen, g_pDB) != SUCCESS) {
        TimePrint(g_pDB, 1, "[main] Illegal file name in arg[0].\n");
        Answer_StartFailed("Illegal file name in arg[0].", g_pDB);
        // No "End" line on this path; the buffer is still released.
        delete g_HTTPD_ResponseBuf;
        g_HTTPD_ResponseBuf = nullptr;
        return 0;
    }
    g_PPDStatesFile.SetType(fileName, g_pDB);
    snprintf(g_ProccessName, sizeof g_ProccessName, "%s", fileName);

    Set_ProgramTarminateSignal(g_pDB);
    Set_IgnoresSignals_ForThisProgram(g_pDB);
    g_NullFD = open("/dev/null", O_RDWR);

    const char* method = getenv("REQUEST_METHOD");
    if (method != nullptr)
        dispatch_cgi(method);
    else
        dispatch_command_line(argc, argv);
    fflush(stdout);

    delete g_HTTPD_ResponseBuf;
    g_HTTPD_ResponseBuf = nullptr;
    LogTerminateSignals(g_pDB);
    TimePrint(g_pDB, 1, "End\n");
    return 0;
}
