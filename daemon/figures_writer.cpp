#include "daemon/figures_writer.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <new>

#include "camera/shared_state.h"
#include "common/figures.h"
#include "common/return_codes.h"

FiguresWriter_ControlClass g_FiguresWriter;

namespace {

constexpr int kTextSize = 4096;

// Words for the last camera failure's text, by FigureFault.
const char* fault_words(int kind)
{
    static const char* const kWords[FAULT_KINDS] = {"refused credentials", "HTTP error", "time-out",
                                                    "connection refused or reset", "other failure"};
    return kind >= 0 && kind < FAULT_KINDS ? kWords[kind] : kWords[FAULT_OTHER];
}

// Appends to a text being built; remembers whether it ever overflowed.
class TextOut {
public:
    TextOut(char* buf, int size) : m_pBuf(buf), m_nSize(size) { m_pBuf[0] = '\0'; }

    template <typename... Args>
    void add(const char* format, Args... args)
    {
        if (m_bCut)
            return;
        const int n = snprintf(m_pBuf + m_nLen, static_cast<size_t>(m_nSize - m_nLen), format, args...);
        if (n < 0 || n >= m_nSize - m_nLen) {
            m_bCut = true;
            m_pBuf[m_nLen] = '\0';
            return;
        }
        m_nLen += n;
    }
    void counter(const char* name, const std::atomic<unsigned long long>& value)
    {
        add("%s=%llu\n", name, value.load(std::memory_order_relaxed));
    }
    // An age in seconds from a monotonic time, or an empty value for never.
    void age(const char* name, long long thenMono, long long nowMono)
    {
        if (thenMono == 0) {
            add("%s=\n", name);
            return;
        }
        const long long us = nowMono > thenMono ? nowMono - thenMono : 0;
        add("%s=%lld.%03lld\n", name, us / 1000000LL, (us % 1000000LL) / 1000LL);
    }
    int result() const { return m_bCut ? -1 : m_nLen; }

private:
    char* m_pBuf;
    int m_nSize;
    int m_nLen = 0;
    bool m_bCut = false;
};

// "start: refused credentials, HTTP 401 ([2042]HTTP_INVALID_SYNTAX)".
void error_text(FigurePhase phase, int rc, int status, char* buf, int size)
{
    char name[128];
    getReturnCodeString(rc, name, sizeof name);
    const char* where = phase == PHASE_START ? "start" : "stream";
    const char* words = fault_words(FigureFaultOf(rc, status));
    if (status != 0)
        snprintf(buf, static_cast<size_t>(size), "%s: %s, HTTP %d (%s)", where, words, status, name);
    else
        snprintf(buf, static_cast<size_t>(size), "%s: %s (%s)", where, words, name);
}

}  // namespace

// ---------------------------------------------------------------------------
// FigureRates

void FigureRates::Add(long long monoUs, unsigned long long pictures, unsigned long long bytes)
{
    m_Samples[m_nNext] = Sample{monoUs, pictures, bytes};
    m_nNext = (m_nNext + 1) % SAMPLES;
    if (m_nCount < SAMPLES)
        m_nCount++;
}

double FigureRates::Rate(unsigned long long Sample::*field) const
{
    if (m_nCount < 2)
        return 0.0;
    const Sample& newest = m_Samples[(m_nNext + SAMPLES - 1) % SAMPLES];
    const Sample& oldest = m_Samples[(m_nNext + SAMPLES - m_nCount) % SAMPLES];
    const long long span = newest.mono - oldest.mono;
    if (span <= 0 || newest.*field < oldest.*field)
        return 0.0;
    return static_cast<double>(newest.*field - oldest.*field) * 1e6 / static_cast<double>(span);
}

double FigureRates::PicturesPerSecond() const
{
    return Rate(&Sample::pictures);
}

double FigureRates::BytesPerSecond() const
{
    return Rate(&Sample::bytes);
}

// ---------------------------------------------------------------------------
// The file

int FormatFigures(const Figures_Class& f, const FiguresContext& c, char* buf, int size)
{
    if (buf == nullptr || size < 1)
        return -1;
    TextOut out(buf, size);
    out.add("pid=%d\n", c.pid);
    out.add("channel=%d\n", c.channel);
    out.add("time=%lld.%03lld\n", c.wallUs / 1000000LL, (c.wallUs % 1000000LL) / 1000LL);
    out.add("viewer=%d\n", c.viewer);
    out.add("camera_delivering=%d\n", c.connectState);
    out.add("camera_streaming=%d\n", f.cameraStreaming.load(std::memory_order_relaxed));
    out.counter("camera_connects", f.cameraConnects);
    for (int kind = 0; kind < FAULT_KINDS; ++kind)
        out.add("camera_start_failures_%s=%llu\n", FigureFaultName(kind),
                f.startFailures[kind].load(std::memory_order_relaxed));
    for (int kind = 0; kind < FAULT_KINDS; ++kind)
        out.add("camera_stream_failures_%s=%llu\n", FigureFaultName(kind),
                f.streamFailures[kind].load(std::memory_order_relaxed));
    out.counter("pictures", f.pictures);
    out.counter("picture_bytes", f.pictureBytes);
    out.add("pictures_per_second=%.2f\n", c.picturesPerSecond);
    out.add("bytes_per_second=%.0f\n", c.bytesPerSecond);
    out.age("last_picture_age", f.lastPictureMono.load(std::memory_order_relaxed), c.monoUs);
    out.counter("pictures_out", f.picturesOut);
    out.counter("picture_bytes_out", f.pictureBytesOut);
    out.counter("not_yet", f.notYet);
    out.counter("logins", f.logins);
    out.age("last_login_age", f.lastLoginMono.load(std::memory_order_relaxed), c.monoUs);
    out.counter("logouts", f.logouts);
    out.counter("notice_updates", f.noticeUpdates);
    out.counter("reset_postterms", f.resetPostterms);
    out.counter("stop_requests", f.stopRequests);
    out.counter("stop_request_failures", f.stopRequestFailures);
    const long long packed = f.lastError.load(std::memory_order_relaxed);
    char text[256] = "";
    const char* kind = "";
    if (packed != 0) {
        FigurePhase phase = PHASE_START;
        int rc = 0;
        int status = 0;
        Figures_Class::UnpackError(packed, &phase, &rc, &status);
        error_text(phase, rc, status, text, sizeof text);
        kind = FigureFaultName(FigureFaultOf(rc, status));
    }
    out.add("last_error=%s\n", text);
    out.add("last_error_kind=%s\n", kind);
    out.age("last_error_age", packed != 0 ? f.lastErrorMono.load(std::memory_order_relaxed) : 0, c.monoUs);
    return out.result();
}

int WriteFileWhole(const char* path, const char* text, int length)
{
    char tmp[FiguresWriter_Thread::PATH_SIZE + 8];
    if (path == nullptr || text == nullptr || snprintf(tmp, sizeof tmp, "%s.tmp", path) >= static_cast<int>(sizeof tmp))
        return DEBUG_WARNING;
    const int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
        return CANNOT_FILEOPEN;
    int rc = SUCCESS;
    fchmod(fd, 0666);
    for (int done = 0; done < length && rc == SUCCESS;) {
        const ssize_t n = write(fd, text + done, static_cast<size_t>(length - done));
        if (n > 0)
            done += static_cast<int>(n);
        else if (n < 0 && errno == EINTR)
            continue;
        else
            rc = WRITE_FAILED;
    }
    if (close(fd) != 0 && rc == SUCCESS)
        rc = WRITE_FAILED;
    if (rc == SUCCESS && rename(tmp, path) != 0)
        rc = WRITE_FAILED;
    if (rc != SUCCESS)
        unlink(tmp);
    return rc;
}

// ---------------------------------------------------------------------------
// The thread and its pool

FiguresWriter_Thread::FiguresWriter_Thread() : m_strPath{}
{
    m_pName = "FiguresWriter_Thread";
}

int FiguresWriter_Thread::WriteOnce()
{
    const long long mono = FiguresNowMono();
    m_Rates.Add(mono, g_Figures.pictures.load(std::memory_order_relaxed),
                g_Figures.pictureBytes.load(std::memory_order_relaxed));
    FiguresContext context{};
    context.pid = static_cast<int>(getpid());
    context.channel = g_channelNum.load(std::memory_order_relaxed);
    timeval wall{};
    gettimeofday(&wall, nullptr);
    context.wallUs = static_cast<long long>(wall.tv_sec) * 1000000LL + wall.tv_usec;
    context.monoUs = mono;
    context.viewer = g_flagLoginUserExist.load(std::memory_order_relaxed);
    context.connectState = g_ConnectState.load(std::memory_order_relaxed);
    context.picturesPerSecond = m_Rates.PicturesPerSecond();
    context.bytesPerSecond = m_Rates.BytesPerSecond();
    char text[kTextSize];
    const int length = FormatFigures(g_Figures, context, text, sizeof text);
    if (length < 0)
        return DATA_LARGE_THEN_BUF;
    return WriteFileWhole(m_strPath, text, length);
}

int FiguresWriter_Thread::ThreadMain(DbPrintf_Class* /*pDB*/)
{
    // Named, so that whoever measures the daemon's threads (bench/) can
    // leave this one out of the control port's and the camera's figures.
    pthread_setname_np(pthread_self(), THREAD_NAME);
    do {
        WriteOnce();
    } while (!WaitForStop(PERIOD_USEC));
    unlink(m_strPath);
    m_nExitMark.store(-1, std::memory_order_relaxed);
    return SUCCESS;
}

int FiguresWriter_ControlClass::Add_Writer(int channel, DbPrintf_Class* pDB)
{
    FiguresWriter_Thread* thread = new (std::nothrow) FiguresWriter_Thread();
    if (thread == nullptr)
        return MALLOC_ERROR;
    snprintf(thread->m_strPath, sizeof thread->m_strPath, "%s%02d%s", "mem/Ostrel_", channel, ".figures");
    const int rc = ExecThread(thread, pDB);
    if (rc == DEBUG_WARNING || rc == MEM_MAP_ERROR || rc == MALLOC_ERROR)
        delete thread;  // not taken by the pool
    return rc;
}
