#include "daemon/server_life.h"

#include <stdio.h>

#include "camera/cam_thread.h"
#include "camera/shared_state.h"
#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/time_utils.h"
#include "conf/listen_port.h"
#include "conf/states_file.h"
#include "daemon/figures_writer.h"
#include "daemon/globals.h"
#include "fifo/frame_fifo.h"
#include "net/process_utils.h"

namespace {

// Frame FIFO shape: readable frames, write-only slots, picture and option
// record capacity per slot.
constexpr int kFifoFrames = 2;
constexpr int kFifoWriteOnlySlots = 4;
constexpr int kFifoPictureBytes = 819200;
constexpr int kFifoOptionBytes = 128;

constexpr long long kWaitLoopSleepUsec = 5000000;
constexpr int kThreadStopLimitMs = 2000;

}  // namespace

int Server_Construct(int numOfControlPortThread, DbPrintf_Class* pDB)
{
    int threads = numOfControlPortThread;
    if (threads < kMinControlPortThreads)
        threads = kMinControlPortThreads;
    if (threads > kMaxControlPortThreads)
        threads = kMaxControlPortThreads;

    const int channel = g_channelNum.load(std::memory_order_relaxed);
    // The figures writer comes first: the camera thread stays the newest
    // thread (the benchmarks find it so), and once the pid file exists every
    // thread of the daemon does.
    g_FiguresWriter.Add_Writer(channel, pDB);

    int rc = g_Fifo.Setup(kFifoFrames, kFifoWriteOnlySlots, kFifoPictureBytes, kFifoOptionBytes, channel);
    if (rc != SUCCESS) {
        // Without a FIFO the control port still answers (every picture
        // request fails), so the daemon stays reachable and stoppable.
        TimePrint(pDB, 1, "[Server_Construct] g_Fifo.Setup failed ::%d\n", rc);
        fprintf(stderr, "Debug Warning! FIFO Setup Failed\n");
        g_Fifo.Cleanup();
    }

    g_PiPPControlPort.Init_ListenFd(g_ControlListenPort.GetSocket(), pDB);
    for (int i = 0; i < threads; ++i)
        g_PiPPControlPort.Add_Thread(pDB);
    g_Control_CamThread.Add_Thread(pDB);

    char pidFile[256];
    snprintf(pidFile, sizeof pidFile, "%s%02d%s", "mem/Ostrel_", channel, ".pid");
    rc = gg_writePid(pidFile, pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[Server_Construct] writePid(pid_file_name_tmp %s) failed ::%d\n", pidFile, rc);
        return rc;
    }
    return SUCCESS;
}

int MainWaitLoop(DbPrintf_Class* pDB)
{
    for (;;) {
        LogTerminateSignals(pDB);
        if (g_Program_Command.load(std::memory_order_relaxed) == -1)
            return SUCCESS;
        if (g_PPDStatesFile.IsFile(pDB) == NOTFOUND_FILE) {
            TimePrint(pDB, 1, "States file deleted\n");
            return SUCCESS;
        }
        // The terminate handler is installed without SA_RESTART, so a
        // SIGINT or SIGTERM delivered to this thread cuts the sleep short.
        UsecSleep(kWaitLoopSleepUsec, pDB);
    }
}

int Server_Destruct(DbPrintf_Class* pDB)
{
    // The figures file goes first: a reader sees the channel leave at once.
    g_FiguresWriter.All_ThreadDestruct(kThreadStopLimitMs, pDB);
    // The camera thread goes next, so that nothing writes into the FIFO
    // while the control-port threads leave it.
    int camRc = g_Control_CamThread.All_ThreadDestruct(kThreadStopLimitMs, pDB);
    if (camRc != SUCCESS)
        TimePrint(pDB, 1, "[Server_Destruct] g_Control_CamThread.All_ThreadDestruct() failed ::%d\n", camRc);
    int portRc = g_PiPPControlPort.All_ThreadDestruct(kThreadStopLimitMs, pDB);
    if (portRc != SUCCESS)
        TimePrint(pDB, 1, "[Server_Destruct] g_PiPPControlPort.All_ThreadDestruct() failed ::%d\n", portRc);
    // A thread that did not stop in time may still hold a borrowed picture:
    // the FIFO is then left to the end of the process instead of being freed
    // under it.
    if (camRc == SUCCESS && portRc == SUCCESS)
        g_Fifo.Cleanup();
    return SUCCESS;
}
