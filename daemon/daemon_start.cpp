#include "daemon/daemon_start.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include "camera/channel_config.h"
#include "camera/shared_state.h"
#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/string_utils.h"
#include "common/time_utils.h"
#include "conf/directory.h"
#include "conf/listen_port.h"
#include "conf/states_file.h"
#include "daemon/globals.h"
#include "daemon/launcher_answer.h"
#include "daemon/server_life.h"
#include "net/socket_io.h"

namespace {

constexpr char kDirectoryConf[] = "Directory.Conf";
constexpr char kStateRunning[] = "NormalOperating";
constexpr char kStateError[] = "ErrorExit";

// The daemon's answer to the launcher: one NUL-terminated text of at most
// 512 bytes, expected within 2000 ms.
constexpr int kAnswerMaxBytes = 512;
constexpr int kAnswerTimeoutMs = 2000;

// Reads Directory.Conf (a failure leaves the states directory absent) and
// points the states file object at this daemon's file.
void init_states_file(const char* name, DbPrintf_Class* pDB)
{
    g_PPDDirConfig_Base.Parsing_FromFile(kDirectoryConf, pDB);
    char path[256] = {};
    g_PPDDirConfig_Base.Make_StatesFilePath(name, path, sizeof path, pDB);
    g_PPDStatesFile.Init(name, path, pDB);
}

// True when the states file says a daemon of this name is running. Whether
// that process still lives is not checked: a daemon that died without
// clearing its file blocks new starts until the file is removed.
bool already_running(DbPrintf_Class* pDB)
{
    return g_PPDStatesFile.StatesRead(pDB) == SUCCESS &&
           g_PPDStatesFile.GetStates().Case_Compear(kStateRunning, pDB) == SUCCESS;
}

void write_error_exit(const char* comment, DbPrintf_Class* pDB)
{
    g_PPDStatesFile.StatesWrite_WithComment(kStateError, comment, pDB);
}

// The daemon's own checks, configuration and control port (shared by both
// starts; the log texts name the start they belong to). On failure the
// states file says "ErrorExit" with the reason and STARTUP_FAILD is
// returned; on SUCCESS the states file names the port.
int prepare_daemon(const char* name, bool forking, DbPrintf_Class* pDB)
{
    // digit_check may cut its text in place: check a copy.
    char number[256];
    snprintf(number, sizeof number, "%s", name);
    int rc = digit_check(number, 3, 0, 99, 0, pDB);
    if (rc != SUCCESS) {
        if (forking)
            TimePrint(pDB, 1, "[PPDMain_ForkStart] digit_check() failed (for invalid argument) ::%d\n", rc);
        else
            TimePrint(pDB, 1, "[PPDMain_NonForkStart] digit_check() failed (for invalid argument)::%d\n", rc);
        write_error_exit("For invalid argument", pDB);
        return STARTUP_FAILD;
    }

    const int channel = atoi(number);
    g_channelNum.store(channel, std::memory_order_relaxed);
    rc = g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum(channel, pDB);
    if (rc == CHANNEL_CONFIG_TYPE_MISMATCH) {
        if (forking)
            TimePrint(pDB, 1,
                      "[PPDMain_ForkStart] g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum() failed "
                      "for translator_tarndatatype matching::%d\n",
                      rc);
        else
            TimePrint(pDB, 1,
                      "[PPDMain_NonForkStart] g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum() "
                      "failed for translator_tarndatatype matching\n");
        write_error_exit("For translator_tarndatatype matching failed", pDB);
        return STARTUP_FAILD;
    }
    if (rc != SUCCESS) {
        if (forking)
            TimePrint(pDB, 1,
                      "[PPDMain_ForkStart] g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum() failed "
                      "for config file reading::%d\n",
                      rc);
        else
            TimePrint(pDB, 1,
                      "[PPDMain_NonForkStart] g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum() "
                      "failed at config file reading::%d\n",
                      rc);
        write_error_exit("For failed at config file reading", pDB);
        return STARTUP_FAILD;
    }

    configParam_Struct param;
    rc = g_configInfoIOClass.GetParamsFromMem(&param, pDB);
    if (rc != SUCCESS) {
        if (forking) {
            TimePrint(pDB, 1, "[PPDMain_ForkStart] g_configInfoIOClass.GetParamsFromMem() failed ::%d\n", rc);
            write_error_exit("Debug Warning. [PPDMain_ForkStart()]g_configInfoIOClass.GetParamsFromMem() failed",
                             pDB);
        } else {
            TimePrint(pDB, 1, "[PPDMain_NonForkStart] g_configInfoIOClass.GetParamsFromMem() failed ::%d\n", rc);
            write_error_exit(
                "Debug Warning. [PPDMain_NonForkStart()]g_configInfoIOClass.GetParamsFromMem() failed", pDB);
        }
        return STARTUP_FAILD;
    }

    rc = g_ControlListenPort.ListenPort_SetUp(param.encoder_ip, static_cast<short>(param.encoder_port), pDB);
    if (rc != SUCCESS) {
        if (forking)
            TimePrint(pDB, 1, "[PPDMain_ForkStart] g_ControlListenPort.ListenPort_SetUp() failed ::%d\n", rc);
        else
            TimePrint(pDB, 1, "[PPDMain_NonForkStart] g_ControlListenPort.ListenPort_SetUp() failed ::%d\n", rc);
        write_error_exit("Control Listen Port , can not open.", pDB);
        return STARTUP_FAILD;
    }

    g_PPDStatesFile.SetPort(static_cast<short>(g_ControlListenPort.GetPort()));
    g_PPDStatesFile.StatesWrite(kStateRunning, pDB);
    return SUCCESS;
}

// Runs the daemon until it is asked to stop, then takes it down and removes
// the states file.
int run_daemon(int numOfControlPortThread, bool forking, DbPrintf_Class* pDB)
{
    int rc = Server_Construct(numOfControlPortThread, pDB);
    if (rc != SUCCESS) {
        if (forking)
            TimePrint(pDB, 1, "[PPDMain_ForkStart] Server_Construct(numOfControlPortThread %d) failed ::%d\n",
                      numOfControlPortThread, rc);
        else
            TimePrint(pDB, 1, "[PPDMain_NonForkStart] Server_Construct(numOfControlPortThread %d) failed ::%d\n",
                      numOfControlPortThread, rc);
    } else {
        MainWaitLoop(pDB);
    }
    Server_Destruct(pDB);
    g_PPDStatesFile.FileUnLink(pDB);
    return SUCCESS;
}

void close_pair(int pair[2])
{
    for (int i = 0; i < 2; ++i) {
        if (pair[i] >= 0)
            Sock_Close(pair[i]);
        pair[i] = -1;
    }
}

// The launcher-facing process after the fork: passes the daemon's answer
// on, or tells the launcher that none came.
int answer_launcher(int pair[2], pid_t child, DbPrintf_Class* pDB)
{
    // Both ends stay open until the wait is over: a daemon that fails after
    // the fork sends nothing, and the launcher is told so after the whole
    // 2-second wait, not as soon as the daemon's end closes. A silent wait
    // of that length ends the receive with SOCK_TIMEOUT.
    char answer[kAnswerMaxBytes + 1] = {};
    int got = 0;
    int rc = Sock_Recv_TxtMsg(pair[0], answer, kAnswerMaxBytes, &got, kAnswerTimeoutMs, nullptr, pDB);
    int textLen = (rc == SUCCESS && got > 0) ? static_cast<int>(strnlen(answer, static_cast<size_t>(got))) : 0;
    if (textLen > 0) {
        Answer_Text(answer, textLen, pDB);
    } else {
        TimePrint(pDB, 1, "[PPDMain_ForkStart] Fork response time out ::%d\n", rc);
        Answer_StartFailed("Fork response time out", pDB);
    }
    close_pair(pair);
    // The intermediate process ends right after its own fork.
    waitpid(child, nullptr, 0);
    return SUCCESS;
}

// The daemon's answer once its control port is open.
void send_success(int fd, DbPrintf_Class* pDB)
{
    char answer[kAnswerMaxBytes];
    int len = snprintf(answer, sizeof answer,
                       "<Response>\n  <States>Success</States>\n  <Port>%d</Port>\n</Response>\n",
                       g_ControlListenPort.GetPort());
    if (len < 0)
        return;
    if (len >= static_cast<int>(sizeof answer))
        len = static_cast<int>(sizeof answer) - 1;
    int sent = 0;
    Sock_Send(fd, answer, len + 1, &sent, kAnswerTimeoutMs, nullptr, pDB);
}

}  // namespace

int PPDMain_ForkStart(char* name, int numOfControlPortThread, DbPrintf_Class* pDB)
{
    if (name == nullptr)
        return DEBUG_WARNING;
    init_states_file(name, pDB);

    if (already_running(pDB)) {
        Answer_AlreadyWorking(pDB);
        TimePrint(pDB, 1, "%s was alredy started.\n", name);
        return PROCCESS_MULTIPLEX;
    }

    g_PPDStatesFile.SetProcessId(getpid());
    if (g_PPDStatesFile.StatesWrite(kStateRunning, pDB) != SUCCESS) {
        char comment[512];
        const char* dir = g_PPDDirConfig_Base.GetStatesDir();
        if (dir == nullptr)
            snprintf(comment, sizeof comment, "%s",
                     "States file does not create. Prease check a permission PPD's bin directory.");
        else
            snprintf(comment, sizeof comment, "States file does not create. Prease check a permission '%s'", dir);
        Answer_StartFailed(comment, pDB);
        TimePrint(pDB, 1, "[PPDMain_ForkStart] %s\n", comment);
        return STARTUP_FAILD;
    }

    // A failed socketpair is only logged: the launcher then gets the
    // time-out answer and the states file tells how the daemon fared.
    int pair[2] = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) {
        TimePrint(pDB, 1, "[PPDMain_ForkStart] socketpair() failed\n");
        pair[0] = pair[1] = -1;
    }

    // Nothing may sit in a stdio buffer when the process is copied.
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0) {
        TimePrint(pDB, 1, "Fork faild.\n");
        close_pair(pair);
        return SYS_FUNC_ERROR;
    }
    if (pid > 0)
        return answer_launcher(pair, pid, pDB);

    // First child: leave the launcher's session and let the daemon be
    // adopted by init.
    setsid();
    signal(SIGHUP, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);
    pid = fork();
    if (pid < 0) {
        TimePrint(pDB, 1, "Fork faild.\n");
        close_pair(pair);
        return SYS_FUNC_ERROR;
    }
    if (pid > 0) {
        close_pair(pair);
        return SUCCESS;
    }

    // The daemon.
    umask(0);
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        if (g_NullFD >= 0 && g_NullFD != fd)
            dup2(g_NullFD, fd);
    }
    if (pair[0] >= 0)
        Sock_Close(pair[0]);
    pair[0] = -1;
    g_PPDStatesFile.SetProcessId(getpid());

    // A failure here leaves "ErrorExit" in the states file and sends nothing:
    // the launcher reports the time-out and reads the reason from the file.
    if (prepare_daemon(name, true, pDB) != SUCCESS) {
        close_pair(pair);
        return STARTUP_FAILD;
    }
    if (pair[1] >= 0)
        send_success(pair[1], pDB);
    close_pair(pair);

    return run_daemon(numOfControlPortThread, true, pDB);
}

int PPDMain_NonForkStart(char* name, int numOfControlPortThread, DbPrintf_Class* pDB)
{
    if (name == nullptr)
        return DEBUG_WARNING;
    init_states_file(name, pDB);

    if (already_running(pDB)) {
        printf("%s was alredy started.\n", name);
        fflush(stdout);
        TimePrint(pDB, 1, "%s was alredy started.\n", name);
        return PROCCESS_MULTIPLEX;
    }

    g_PPDStatesFile.SetProcessId(getpid());
    int rc = g_PPDStatesFile.StatesWrite(kStateRunning, pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[PPDMain_NonForkStart] g_PPDStatesFile.StatesWrite() failed ::%d\n", rc);
        return STARTUP_FAILD;
    }

    if (prepare_daemon(name, false, pDB) != SUCCESS)
        return STARTUP_FAILD;
    return run_daemon(numOfControlPortThread, false, pDB);
}
