#include "camera/cam_thread.h"

#include <stdio.h>
#include <sys/time.h>
#include <unistd.h>

#include <new>

#include "camera/axis_jpeg_client.h"
#include "camera/cam_wakeup.h"
#include "camera/channel_config.h"
#include "camera/schedule_server_client.h"
#include "camera/shared_state.h"
#include "common/debug_log.h"
#include "common/figures.h"
#include "common/return_codes.h"
#include "common/time_utils.h"
#include "fifo/frame_fifo.h"

CamThread_ControlClass g_Control_CamThread;

namespace {

constexpr int kStateStreaming = 11;
constexpr int kStateDisconnected = 12;

// A FIFO that fails its writer operations is unusable: the process ends.
// _exit, not exit: the other threads are still running, and static
// destructors (the FIFO, the pools) must not pull memory from under them.
//
// The printf lines of this loop (failures, the camera target) are the
// thread's console report beside the log, kept on purpose: a foreground run
// (-StartUp_NonDeamon) shows them; a forked daemon's standard output is
// /dev/null. The flush makes the last of them reach the console before the
// process ends without running stdio's own exit flush.
[[noreturn]] void end_process()
{
    fflush(nullptr);
    _exit(-1);
}

// Now on the monotonic clock, the post-alarm term's clock.
long long now_usec()
{
    timeval tv{};
    GetMonotonicTime(&tv);
    return static_cast<long long>(tv.tv_sec) * 1000000LL + tv.tv_usec;
}

// The loop's state, as locals of one ThreadMain run.
class CamLoop {
public:
    explicit CamLoop(SockExitFlag* command) : m_pCommand(command) {}

    void Prepare();
    void ApplyConfigChange(int* exitMark);
    void PostTermTick();
    // True when the stream was opened; false after a failed start.
    bool Connect();
    void Disconnect();
    void OneFrame();
    void Leave();

    bool Streaming() const { return m_nState == kStateStreaming; }
    bool ConfigChanged() const { return m_lnSavedStamp != g_configInfoIOClass.GetUpdateStamp(); }
    int BackOffExponent() const { return m_nBackOff; }
    void NextBackOff()
    {
        if (m_nBackOff < Class_CamThread::MAX_BACKOFF_EXPONENT) {
            m_nBackOff++;
        }
    }

private:
    void StopAxis();
    void StartSlot();
    void CancelFrame();

    SockExitFlag* m_pCommand;
    CClient_AXISJPEGMultiPart m_obAXISJPEGMultiPart;
    CClient_ScheduleServer m_obScheduleServer;
    int m_nState = kStateDisconnected;
    int m_nBackOff = 0;
    std::int64_t m_lnSavedStamp = 0;
    configParam_Struct m_Param{};
    long long m_lnPostTerm = 0;
    _Option_AXISJPEGMultiPart m_Option{};
};

void CamLoop::Prepare()
{
    m_obAXISJPEGMultiPart.SetLog(g_pDB, 1);
    m_obAXISJPEGMultiPart.Initialize(Class_CamThread::CAMERA_BODY_SIZE);
    m_obAXISJPEGMultiPart.SetSocketTimeout(Class_CamThread::SOCKET_TIMEOUT_MS);
    m_obAXISJPEGMultiPart.SetSocketExitFlag(m_pCommand);

    m_obScheduleServer.SetLog(g_pDB, 1);
    m_obScheduleServer.Initialize(Class_CamThread::SCHEDULE_BODY_SIZE);
    m_obScheduleServer.SetSocketTimeout(Class_CamThread::SOCKET_TIMEOUT_MS);
    m_obScheduleServer.SetSocketExitFlag(m_pCommand);
}

void CamLoop::StopAxis()
{
    int ret = m_obAXISJPEGMultiPart.Stop();
    if (ret != SUCCESS) {
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] obAXISJPEGMultiPart.Stop failed ::%d\n", ret);
        printf("obAXISJPEGMultiPart.Stop failed\n");
    }
}

// Opens the FIFO slot the next picture is received into; a FIFO that cannot
// open one ends the process.
void CamLoop::StartSlot()
{
    const int ret = g_Fifo.InputDataStart();
    if (ret != SUCCESS) {
        StopAxis();
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] g_Fifo.InputDataStart failed ::%d\n", ret);
        printf("g_Fifo.InputDataStart failed\n");
        end_process();
    }
}

void CamLoop::CancelFrame()
{
    int ret = g_Fifo.InputDataCancel();
    if (ret != SUCCESS) {
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] g_Fifo.InputDataCancel failed ::%d\n", ret);
        printf("g_Fifo.InputDataCancel failed\n");
        end_process();
    }
}

void CamLoop::Disconnect()
{
    StopAxis();
    CancelFrame();
    m_nState = kStateDisconnected;
    g_Figures.CameraDisconnected();
}

void CamLoop::ApplyConfigChange(int* exitMark)
{
    if (Streaming()) {
        Disconnect();
    }
    std::int64_t stamp = 0;
    int ret = g_configInfoIOClass.GetParamsFromMem_WithStamp(&m_Param, &stamp);
    if (ret != SUCCESS) {
        printf("g_configInfoIOClass.GetParamsFromMem failed\n");
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain]GetParamsFromMem failed :%d\n", ret);
        *exitMark = -1;
        return;  // the stamp is kept, so the copy is tried again next pass
    }
    // The stamp that belongs to the copy: a change made right after it is
    // seen on the next pass.
    m_lnSavedStamp = stamp;

    m_obAXISJPEGMultiPart.SetMyself(m_Param.myip);
    m_obAXISJPEGMultiPart.SetTarget(m_Param.encoder_ip, m_Param.encoder_port, m_Param.translator_connect_camerano);
    printf("SetMyself(%s) SetTarget(%s:%d,%s)\n", m_Param.myip, m_Param.encoder_ip, m_Param.encoder_port,
           m_Param.translator_connect_camerano);
    TimePrint(g_pDB, 1, "SetMyself(%s) SetTarget(%s:%d,%s)\n", m_Param.myip, m_Param.encoder_ip, m_Param.encoder_port,
              m_Param.translator_connect_camerano);

    m_obAXISJPEGMultiPart.SetTargetAuth(m_Param.channel_authentic_switch, m_Param.channel_authentic_user_id,
                                        m_Param.channel_authentic_user_password);
    if (m_Param.channel_authentic_switch == 1) {
        printf("SetTargetAuth(%d,%s,%s)\n", m_Param.channel_authentic_switch, m_Param.channel_authentic_user_id,
               m_Param.channel_authentic_user_password);
        TimePrint(g_pDB, 1, "SetTargetAuth(%d,%s,%s)\n", m_Param.channel_authentic_switch,
                  m_Param.channel_authentic_user_id, m_Param.channel_authentic_user_password);
    } else {
        printf("SetTargetAuth(OFF)\n");
        TimePrint(g_pDB, 1, "SetTargetAuth(OFF)\n");
    }

    m_lnPostTerm = static_cast<long long>(m_Param.translator_calarm_rec_postterm) * 1000000LL;

    // The schedule server runs on this host, on the HTTP port.
    m_obScheduleServer.SetMyself(m_Param.myip);
    m_obScheduleServer.SetTarget(m_Param.myip, 80);
}

void CamLoop::PostTermTick()
{
    if (g_flgAlreadySendStop.load(std::memory_order_relaxed) != 0) {
        return;
    }
    const long long now = now_usec();
    const long long diff = now - g_strNowTimePT.exchange(now, std::memory_order_relaxed);
    bool sendStop = false;
    if (diff > 0 && diff < m_lnPostTerm) {
        long long sum = g_lnDiffTimeSumPT.fetch_add(diff, std::memory_order_relaxed) + diff;
        sendStop = sum > m_lnPostTerm;
    } else if (diff >= m_lnPostTerm) {
        // One gap as long as the whole term (a pass that blocked).
        sendStop = true;
    }
    if (sendStop) {
        g_flgAlreadySendStop.store(1, std::memory_order_relaxed);
        // Not retried: the flag stays set until a reset or a logout.
        m_obScheduleServer.SendStop();
    }
}

bool CamLoop::Connect()
{
    int ret = m_obAXISJPEGMultiPart.Start();
    if (ret != SUCCESS) {
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] obAXISJPEGMultiPart.Start failed ::%d\n", ret);
        g_Figures.CameraFailed(PHASE_START, ret, m_obAXISJPEGMultiPart.GetStatusCode());
        g_ConnectState.store(0, std::memory_order_relaxed);
        printf("Waiting 2^%d[sec] for obAXISJPEGMultiPart.Start failed\n", m_nBackOff);
        return false;
    }
    m_nBackOff = 0;
    StartSlot();
    m_nState = kStateStreaming;
    g_ConnectState.store(1, std::memory_order_relaxed);
    g_Figures.CameraConnected();
    return true;
}

void CamLoop::OneFrame()
{
    char* slot = nullptr;
    int capacity = 0;
    int filled = 0;
    int ret = g_Fifo.InputDataGet(&slot, &capacity, &filled);
    if (ret != SUCCESS) {
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] g_Fifo.InputDataGet failed ::%d\n", ret);
        printf("g_Fifo.InputDataGet failed\n");
        end_process();
    }

    // The picture is received straight into the slot, after whatever the
    // slot already holds (nothing, in this loop's use).
    char* dst = slot + filled;
    int size = 0;
    ret = m_obAXISJPEGMultiPart.GetData(dst, capacity - filled, &size, &m_Option);
    if (ret != SUCCESS) {
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] obAXISJPEGMultiPart.GetData failed ::%d\n", ret);
        g_Figures.CameraFailed(PHASE_STREAM, ret, 0);
        if (ret == CAMERA_NOT_LOGIN) {
            printf("obAXISJPEGMultiPart.GetData failed for CAMERA_NOT_LOGIN\n");
            g_ConnectState.store(1, std::memory_order_relaxed);
        } else {
            g_ConnectState.store(0, std::memory_order_relaxed);
        }
        // Reconnected on the next pass, without back-off.
        Disconnect();
        return;
    }

    // Frame statistics are not kept: nothing reads them.
    if (size < 1 || size >= Class_CamThread::CAMERA_BODY_SIZE) {
        TimePrint(g_pDB, 1, "invalid GetData size. %d byte\n", size);
        return;  // the slot is filled again by the next picture
    }
    ret = g_Fifo.InputData(dst, size);  // in place: nothing is copied
    if (ret != SUCCESS) {
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] g_Fifo.InputData failed ::%d\n", ret);
        printf("g_Fifo.InputData failed\n");
        CancelFrame();
        return;
    }
    ret = g_Fifo.InputDataFinish(m_Option.strOption, _Option_AXISJPEGMultiPart::SIZE);
    if (ret != SUCCESS) {
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] g_Fifo.InputDataFinish failed ::%d\n", ret);
        printf("g_Fifo.InputDataFinish failed\n");
        end_process();
    }
    StartSlot();
    g_ConnectState.store(1, std::memory_order_relaxed);
    g_Figures.Picture(size);
}

void CamLoop::Leave()
{
    if (Streaming()) {
        Disconnect();
    }
    m_obAXISJPEGMultiPart.Release();
    m_obScheduleServer.Release();
}

}  // namespace

Class_CamThread::Class_CamThread()
{
    m_pName = "Class_CamThread";
}

Class_CamThread::~Class_CamThread() = default;

void Class_CamThread::BackOffSleep(int exponent)
{
    constexpr long long kSliceUsec = 100000;
    const long long total = (1LL << exponent) * 1000000LL;
    timeval start{};
    GetMonotonicTime(&start);
    for (;;) {
        if (m_nCommand.load(std::memory_order_relaxed) == -1) {
            return;
        }
        timeval now{};
        GetMonotonicTime(&now);
        const long long left = total - GetDifftime64(&start, &now);
        if (left <= 0) {
            return;
        }
        UsecSleep(left < kSliceUsec ? left : kSliceUsec);
    }
}

int Class_CamThread::ThreadMain(DbPrintf_Class*)
{
    CamLoop loop(&m_nCommand);
    g_lnDiffTimeSumPT.store(0, std::memory_order_relaxed);
    g_flgAlreadySendStop.store(0, std::memory_order_relaxed);

    if (m_pOwner == nullptr) {
        TimePrint(g_pDB, 1, "[Class_CamThread::ThreadMain] Parent_ControlClass == NULL\n");
        m_nExitMark.store(-1, std::memory_order_relaxed);
        return DEBUG_WARNING;
    }
    loop.Prepare();

    int exitMark = 0;
    for (;;) {
        const unsigned long long wake = CamThreadWakeSeq();
        if (!loop.Streaming() && g_flagLoginUserExist.load(std::memory_order_relaxed) == 0 && !loop.ConfigChanged()) {
            // Nobody is logged in and nothing is streaming: the pass would
            // only look for a settings change and a stop. Wait for a login
            // or a settings change (both wake this at once), looking for a
            // stop every idle slice.
            WaitCamThreadWake(wake, kIdleSliceUsec);
        } else {
            UsecSleep(500);
        }

        if (loop.ConfigChanged()) {
            loop.ApplyConfigChange(&exitMark);
            if (exitMark == -1) {
                m_nExitMark.store(-1, std::memory_order_relaxed);
            }
        }
        if (m_nCommand.load(std::memory_order_relaxed) == -1) {
            break;
        }

        const int login = g_flagLoginUserExist.load(std::memory_order_relaxed);
        if (login == 1) {
            loop.PostTermTick();
            if (!loop.Streaming() && !loop.Connect()) {
                BackOffSleep(loop.BackOffExponent());
                loop.NextBackOff();
            }
        } else if (login == 0) {
            g_lnDiffTimeSumPT.store(0, std::memory_order_relaxed);
            g_flgAlreadySendStop.store(0, std::memory_order_relaxed);
            if (loop.Streaming()) {
                loop.Disconnect();
            }
        }

        if (!loop.Streaming()) {
            continue;
        }
        loop.OneFrame();
    }

    loop.Leave();
    m_nExitMark.store(-1, std::memory_order_relaxed);
    return SUCCESS;
}

int CamThread_ControlClass::Add_Thread(DbPrintf_Class* pDB)
{
    Class_CamThread* thread = new (std::nothrow) Class_CamThread();
    if (thread == nullptr) {
        TimePrint(pDB, 1, "[CamThread_ControlClass::Add_Thread] new Class_CamThread failed\n");
        return MALLOC_ERROR;
    }
    thread->m_pOwner = this;
    int ret = ExecThread(thread, pDB);
    if (ret == DEBUG_WARNING || ret == MEM_MAP_ERROR || ret == MALLOC_ERROR) {
        // Not taken by the pool: still ours.
        delete thread;
    }
    return ret;
}
