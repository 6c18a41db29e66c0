#include "daemon/daemon_start.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
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
#include "net/local_pair.h"
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

// The step at which prepare_daemon stopped.
enum class PrepareFailure { kNone, kName, kConfigType, kConfigRead, kParams, kListenPort, kStatesWrite };

// The daemon's own checks, configuration and control port, shared by both
// starts. On success the states file names the port. On failure the code of
// the failed step is left in *pRc and nothing is logged: each start logs the
// failure in its own words (fail_preparation_*), then writes "ErrorExit".
PrepareFailure prepare_daemon(const char* name, int* pRc, DbPrintf_Class* pDB)
{
    // digit_check may cut its text in place: check a copy.
    char number[256];
    snprintf(number, sizeof number, "%s", name);
    *pRc = digit_check(number, 3, 0, 99, 0, pDB);
    if (*pRc != SUCCESS)
        return PrepareFailure::kName;

    const int channel = atoi(number);
    g_channelNum.store(channel, std::memory_order_relaxed);
    *pRc = g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum(channel, pDB);
    if (*pRc == CHANNEL_CONFIG_TYPE_MISMATCH)
        return PrepareFailure::kConfigType;
    if (*pRc != SUCCESS)
        return PrepareFailure::kConfigRead;

    configParam_Struct param;
    *pRc = g_configInfoIOClass.GetParamsFromMem(&param, pDB);
    if (*pRc != SUCCESS)
        return PrepareFailure::kParams;

    *pRc = g_ControlListenPort.ListenPort_SetUp(param.encoder_ip, static_cast<short>(param.encoder_port), pDB);
    if (*pRc != SUCCESS)
        return PrepareFailure::kListenPort;

    // The states file now names the port. A file system that has filled up
    // since the launcher's write makes this a failed start, not a daemon
    // that nobody can find (the failed write has removed the file).
    g_PPDStatesFile.SetPort(static_cast<short>(g_ControlListenPort.GetPort()));
    *pRc = g_PPDStatesFile.StatesWrite(kStateRunning, pDB);
    if (*pRc != SUCCESS)
        return PrepareFailure::kStatesWrite;
    return PrepareFailure::kNone;
}

// Leaves "ErrorExit" with the reason for a failed preparation. The
// GetParamsFromMem comment names the start, so each start passes its own.
void write_preparation_error(PrepareFailure failure, const char* paramsComment, DbPrintf_Class* pDB)
{
    switch (failure) {
    case PrepareFailure::kNone: return;
    case PrepareFailure::kName: write_error_exit("For invalid argument", pDB); return;
    case PrepareFailure::kConfigType: write_error_exit("For translator_tarndatatype matching failed", pDB); return;
    case PrepareFailure::kConfigRead: write_error_exit("For failed at config file reading", pDB); return;
    case PrepareFailure::kParams: write_error_exit(paramsComment, pDB); return;
    case PrepareFailure::kListenPort: write_error_exit("Control Listen Port , can not open.", pDB); return;
    case PrepareFailure::kStatesWrite: write_error_exit("States file does not create.", pDB); return;
    }
}

// The forking start's account of a failed preparation. The two starts'
// texts differ on purpose (blanks before "::", "for"/"at", a missing code).
void fail_preparation_forked(PrepareFailure failure, int rc, DbPrintf_Class* pDB)
{
    switch (failure) {
    case PrepareFailure::kNone: return;
    case PrepareFailure::kName:
        TimePrint(pDB, 1, "[PPDMain_ForkStart] digit_check() failed (for invalid argument) ::%d\n", rc);
        break;
    case PrepareFailure::kConfigType:
        TimePrint(pDB, 1,
                  "[PPDMain_ForkStart] g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum() failed "
                  "for translator_tarndatatype matching::%d\n",
                  rc);
        break;
    case PrepareFailure::kConfigRead:
        TimePrint(pDB, 1,
                  "[PPDMain_ForkStart] g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum() failed "
                  "for config file reading::%d\n",
                  rc);
        break;
    case PrepareFailure::kParams:
        TimePrint(pDB, 1, "[PPDMain_ForkStart] g_configInfoIOClass.GetParamsFromMem() failed ::%d\n", rc);
        break;
    case PrepareFailure::kListenPort:
        TimePrint(pDB, 1, "[PPDMain_ForkStart] g_ControlListenPort.ListenPort_SetUp() failed ::%d\n", rc);
        break;
    case PrepareFailure::kStatesWrite:
        TimePrint(pDB, 1, "[PPDMain_ForkStart] g_PPDStatesFile.StatesWrite() failed ::%d\n", rc);
        break;
    }
    write_preparation_error(failure,
                            "Debug Warning. [PPDMain_ForkStart()]g_configInfoIOClass.GetParamsFromMem() failed", pDB);
}

// The foreground start's account of a failed preparation.
void fail_preparation_foreground(PrepareFailure failure, int rc, DbPrintf_Class* pDB)
{
    switch (failure) {
    case PrepareFailure::kNone: return;
    case PrepareFailure::kName:
        TimePrint(pDB, 1, "[PPDMain_NonForkStart] digit_check() failed (for invalid argument)::%d\n", rc);
        break;
    case PrepareFailure::kConfigType:
        TimePrint(pDB, 1,
                  "[PPDMain_NonForkStart] g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum() "
                  "failed for translator_tarndatatype matching\n");
        break;
    case PrepareFailure::kConfigRead:
        TimePrint(pDB, 1,
                  "[PPDMain_NonForkStart] g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum() "
                  "failed at config file reading::%d\n",
                  rc);
        break;
    case PrepareFailure::kParams:
        TimePrint(pDB, 1, "[PPDMain_NonForkStart] g_configInfoIOClass.GetParamsFromMem() failed ::%d\n", rc);
        break;
    case PrepareFailure::kListenPort:
        TimePrint(pDB, 1, "[PPDMain_NonForkStart] g_ControlListenPort.ListenPort_SetUp() failed ::%d\n", rc);
        break;
    case PrepareFailure::kStatesWrite:
        TimePrint(pDB, 1, "[PPDMain_NonForkStart] g_PPDStatesFile.StatesWrite() failed ::%d\n", rc);
        break;
    }
    write_preparation_error(
        failure, "Debug Warning. [PPDMain_NonForkStart()]g_configInfoIOClass.GetParamsFromMem() failed", pDB);
}

// Takes the daemon down after MainWaitLoop (or a failed Server_Construct)
// and removes the states file.
int take_down(DbPrintf_Class* pDB)
{
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
    int len =
        snprintf(answer, sizeof answer, "<Response>\n  <States>Success</States>\n  <Port>%d</Port>\n</Response>\n",
                 g_ControlListenPort.GetPort());
    if (len < 0)
        return;
    if (len >= static_cast<int>(sizeof answer))
        len = static_cast<int>(sizeof answer) - 1;
    int sent = 0;
    Sock_Send(fd, answer, len + 1, &sent, kAnswerTimeoutMs, nullptr, pDB);
}

// The launcher's answer when the launcher-facing process cannot write the
// states file.
void answer_states_unwritable(DbPrintf_Class* pDB)
{
    char comment[512];
    const char* dir = g_PPDDirConfig_Base.GetStatesDir();
    if (dir == nullptr)
        snprintf(comment, sizeof comment, "%s",
                 "States file does not create. Prease check a permission PPD's bin directory.");
    else
        snprintf(comment, sizeof comment, "States file does not create. Prease check a permission '%s'", dir);
    Answer_StartFailed(comment, pDB);
    TimePrint(pDB, 1, "[PPDMain_ForkStart] %s\n", comment);
}

int fork_failed(int pair[2], DbPrintf_Class* pDB)
{
    TimePrint(pDB, 1, "Fork faild.\n");
    close_pair(pair);
    return SYS_FUNC_ERROR;
}

// The daemon process: quiet descriptors, its own checks and port, the
// answer to the launcher, then the daemon's life.
int run_forked_daemon(char* name, int numOfControlPortThread, int pair[2], DbPrintf_Class* pDB)
{
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
    int rc = SUCCESS;
    const PrepareFailure failure = prepare_daemon(name, &rc, pDB);
    if (failure != PrepareFailure::kNone) {
        fail_preparation_forked(failure, rc, pDB);
        close_pair(pair);
        return STARTUP_FAILD;
    }
    if (pair[1] >= 0)
        send_success(pair[1], pDB);
    close_pair(pair);

    rc = Server_Construct(numOfControlPortThread, pDB);
    if (rc != SUCCESS)
        TimePrint(pDB, 1, "[PPDMain_ForkStart] Server_Construct(numOfControlPortThread %d) failed ::%d\n",
                  numOfControlPortThread, rc);
    else
        MainWaitLoop(pDB);
    return take_down(pDB);
}

// The first child: leaves the launcher's session and forks the daemon, which
// init then adopts; the first child itself ends at once.
int fork_daemon(char* name, int numOfControlPortThread, int pair[2], DbPrintf_Class* pDB)
{
    setsid();
    signal(SIGHUP, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);
    const pid_t pid = fork();
    if (pid < 0)
        return fork_failed(pair, pDB);
    if (pid > 0) {
        close_pair(pair);
        return SUCCESS;
    }
    return run_forked_daemon(name, numOfControlPortThread, pair, pDB);
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
        answer_states_unwritable(pDB);
        return STARTUP_FAILD;
    }

    // A failed socketpair is only logged: the launcher then gets the
    // time-out answer and the states file tells how the daemon fared.
    int pair[2] = {-1, -1};
    if (Sock_OpenLocalPair(pair) != SUCCESS)
        TimePrint(pDB, 1, "[PPDMain_ForkStart] socketpair() failed\n");

    // Nothing may sit in a stdio buffer when the process is copied.
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid < 0)
        return fork_failed(pair, pDB);
    if (pid > 0)
        return answer_launcher(pair, pid, pDB);
    return fork_daemon(name, numOfControlPortThread, pair, pDB);
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

    const PrepareFailure failure = prepare_daemon(name, &rc, pDB);
    if (failure != PrepareFailure::kNone) {
        fail_preparation_foreground(failure, rc, pDB);
        return STARTUP_FAILD;
    }

    rc = Server_Construct(numOfControlPortThread, pDB);
    if (rc != SUCCESS)
        TimePrint(pDB, 1, "[PPDMain_NonForkStart] Server_Construct(numOfControlPortThread %d) failed ::%d\n",
                  numOfControlPortThread, rc);
    else
        MainWaitLoop(pDB);
    return take_down(pDB);
}
