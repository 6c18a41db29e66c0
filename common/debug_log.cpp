#include "common/debug_log.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "common/return_codes.h"

DbPrintf_Class* g_pDB = nullptr;

namespace {

constexpr int kFuncBit = 0x1000;

// Which bytes the hex dump shows in its character column. One bit per byte
// value, rows of 32 values: 0x20..0x5F and 0x61..0x7E are printable; the
// back-quote 0x60 is left out on purpose, as are controls and bytes >= 0x7F.
bool dump_printable(unsigned char c)
{
    return (c >= 0x20 && c <= 0x5F) || (c >= 0x61 && c <= 0x7E);
}

// The whole text of one log call, composed before the log's mutex is taken:
// the lock then covers only the file's open, one write and its close, and a
// slow format never holds up the other threads' lines. Texts up to 1 KiB
// stay on the stack; longer ones move to the heap.
class LogText {
public:
    void add(const char* s) { append(s, strlen(s)); }
    void tabs(int depth)
    {
        for (int i = 0; i < depth; ++i) {
            append("\t", 1);
        }
    }
    void vaddf(const char* fmt, va_list ap)
    {
        va_list again;
        va_copy(again, ap);
        const size_t room = m_big.empty() ? sizeof m_small - m_len : 0;
        char* at = m_big.empty() ? m_small + m_len : nullptr;
        char scratch[1];
        const int n = vsnprintf(room > 0 ? at : scratch, room > 0 ? room : sizeof scratch, fmt, ap);
        if (n >= 0 && static_cast<size_t>(n) < room) {
            m_len += static_cast<size_t>(n);
        } else if (n > 0) {
            std::string part(static_cast<size_t>(n) + 1, '\0');
            vsnprintf(&part[0], part.size(), fmt, again);
            append(part.data(), static_cast<size_t>(n));
        }
        va_end(again);
    }
    void addf(const char* fmt, ...) __attribute__((format(printf, 2, 3)))
    {
        va_list ap;
        va_start(ap, fmt);
        vaddf(fmt, ap);
        va_end(ap);
    }
    const char* data() const { return m_big.empty() ? m_small : m_big.data(); }
    size_t size() const { return m_big.empty() ? m_len : m_big.size(); }

private:
    void append(const char* s, size_t n)
    {
        if (m_big.empty() && m_len + n <= sizeof m_small) {
            memcpy(m_small + m_len, s, n);
            m_len += n;
            return;
        }
        if (m_big.empty()) {
            m_big.assign(m_small, m_len);
        }
        m_big.append(s, n);
    }

    char m_small[1024];
    size_t m_len = 0;
    std::string m_big;  // the whole text once it outgrew m_small
};

void local_time_text(char* buf, size_t size, long* usec)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tmv;
    localtime_r(&tv.tv_sec, &tmv);
    if (strftime(buf, size, "%Y/%m/%d %H:%M:%S", &tmv) == 0) {
        buf[0] = '\0';
    }
    if (usec != nullptr) {
        *usec = static_cast<long>(tv.tv_usec);
    }
}

int make_generation_path(char* path, size_t size, const char* base, int index)
{
    int n = snprintf(path, size, "%s_log%d.txt", base, index);
    return (n < 0 || static_cast<size_t>(n) >= size) ? CANNOT_FILEOPEN : SUCCESS;
}

FILE* open_0666(const char* path, const char* how)
{
    FILE* fp = fopen(path, how);
    if (fp != nullptr) {
        fchmod(fileno(fp), 0666);
    }
    return fp;
}

// The per-write open of modes 1 to 3: the descriptor form of fopen's "at"
// (append) or "wt" (truncate), with the same explicit change to 0666. A
// plain descriptor spares stdio's buffer, its seek to the end and its stat
// around the one write.
int open_fd_0666(const char* path, bool truncate)
{
    const int fd = open(path, O_WRONLY | O_CREAT | (truncate ? O_TRUNC : O_APPEND), 0666);
    if (fd >= 0) {
        fchmod(fd, 0666);
    }
    return fd;
}

// The whole text in one write() (a regular file takes it at once; the loop
// only guards against a short write). Write errors are not reported, but a
// line is all or nothing: when the file system is full (ENOSPC, EDQUOT) part
// of it may have gone in, and the file is cut back to where it ended, so
// that the log resumes with whole lines once there is room again.
void write_all(int fd, const char* text, size_t len)
{
    const off_t end = lseek(fd, 0, SEEK_END);
    while (len > 0) {
        const ssize_t w = write(fd, text, len);
        if (w < 0 && errno == EINTR) {
            continue;
        }
        if (w <= 0) {
            if (end >= 0) {
                (void)ftruncate(fd, end);
            }
            return;
        }
        text += w;
        len -= static_cast<size_t>(w);
    }
}

bool ctime_later(const struct stat& a, const struct stat& b)
{
    if (a.st_ctim.tv_sec != b.st_ctim.tv_sec) {
        return a.st_ctim.tv_sec > b.st_ctim.tv_sec;
    }
    return a.st_ctim.tv_nsec > b.st_ctim.tv_nsec;
}

}  // namespace

DbPrintf_Class::DbPrintf_Class()
{
    pthread_mutex_init(&m_Mutex, nullptr);
}

DbPrintf_Class::DbPrintf_Class(const char* name, int mode) : DbPrintf_Class()
{
    if (name == nullptr) {
        return;
    }
    m_pFileName = strdup(name);
    if (m_pFileName == nullptr) {
        return;
    }
    m_nMode = mode;
    OpenAtNaming();
}

DbPrintf_Class::~DbPrintf_Class()
{
    free(m_pFileName);
    if (m_pStream != nullptr) {
        fclose(m_pStream);
    }
    pthread_mutex_destroy(&m_Mutex);
}

int DbPrintf_Class::FileOpen(const char* name, int mode)
{
    if (name == nullptr || m_pFileName != nullptr || m_pStream != nullptr) {
        return DEBUG_WARNING;
    }
    m_pFileName = strdup(name);
    if (m_pFileName == nullptr) {
        return MALLOC_ERROR;
    }
    m_nMode = mode;
    return OpenAtNaming();
}

int DbPrintf_Class::OpenAtNaming()
{
    switch (m_nMode) {
    case 0: m_pStream = open_0666(m_pFileName, "wt"); return m_pStream != nullptr ? SUCCESS : CANNOT_FILEOPEN;
    case 1: {
        FILE* fp = open_0666(m_pFileName, "wt");
        if (fp == nullptr) {
            return CANNOT_FILEOPEN;
        }
        fclose(fp);
        return SUCCESS;
    }
    case 2: {
        char path[1024];
        for (int i = 0; i < m_nGenerationCount; ++i) {
            if (make_generation_path(path, sizeof path, m_pFileName, i) != SUCCESS) {
                continue;
            }
            FILE* fp = open_0666(path, "rt");
            if (fp != nullptr) {
                fclose(fp);
                unlink(path);
            }
        }
        m_nGeneration.store(0, std::memory_order_relaxed);
        return SUCCESS;
    }
    case 3: FindNewestGeneration(); return SUCCESS;
    default: return SUCCESS;
    }
}

// The generation written last is the one whose status changed last. The
// full nanosecond ctime is compared, so two files touched within the same
// second are still told apart; ties keep the lower index.
void DbPrintf_Class::FindNewestGeneration()
{
    char path[1024];
    struct stat best;
    int current = 0;
    if (make_generation_path(path, sizeof path, m_pFileName, 0) != SUCCESS || stat(path, &best) != 0) {
        m_nGeneration.store(0, std::memory_order_relaxed);
        return;
    }
    for (int i = 1; i < m_nGenerationCount; ++i) {
        struct stat st;
        if (make_generation_path(path, sizeof path, m_pFileName, i) != SUCCESS || stat(path, &st) != 0) {
            break;
        }
        if (ctime_later(st, best)) {
            best = st;
            current = i;
        }
    }
    m_nGeneration.store(current, std::memory_order_relaxed);
}

int DbPrintf_Class::OpenCheck(int* fd)
{
    *fd = -1;
    switch (m_nMode) {
    case 1:
        if (m_pFileName == nullptr) {
            return CANNOT_FILEOPEN;
        }
        *fd = open_fd_0666(m_pFileName, false);
        return *fd >= 0 ? SUCCESS : CANNOT_FILEOPEN;
    case 2:
    case 3: return GenerationFileCheck(fd);
    default: return SUCCESS;
    }
}

// The size is tested before the write, so a generation exceeds the limit by
// at most one message before the next write moves on.
int DbPrintf_Class::GenerationFileCheck(int* fd)
{
    if (m_pFileName == nullptr || m_nGenerationCount <= 0) {
        return CANNOT_FILEOPEN;
    }
    char path[1024];
    int gen = m_nGeneration.load(std::memory_order_relaxed);
    if (make_generation_path(path, sizeof path, m_pFileName, gen % m_nGenerationCount) != SUCCESS) {
        return CANNOT_FILEOPEN;
    }
    struct stat st;
    if (stat(path, &st) != 0) {
        if (errno != ENOENT) {
            return CANNOT_FILEOPEN;
        }
        *fd = open_fd_0666(path, true);
    } else if (st.st_size > static_cast<off_t>(m_nSizeLimit)) {
        gen = m_nGeneration.fetch_add(1, std::memory_order_relaxed) + 1;
        if (make_generation_path(path, sizeof path, m_pFileName, gen % m_nGenerationCount) != SUCCESS) {
            return CANNOT_FILEOPEN;
        }
        *fd = open_fd_0666(path, true);
    } else {
        *fd = open_fd_0666(path, false);
    }
    return *fd >= 0 ? SUCCESS : CANNOT_FILEOPEN;
}

int DbPrintf_Class::WriteText(const char* text, size_t len, bool lock)
{
    if (lock) {
        pthread_mutex_lock(&m_Mutex);
    }
    int rc = SUCCESS;
    if (m_nMode == 0) {
        // The kept stream stays stdio-buffered; fwrite locks it for the call.
        if (m_pStream == nullptr) {
            rc = CANNOT_FILEOPEN;
        } else {
            fwrite(text, 1, len, m_pStream);
        }
    } else {
        int fd = -1;
        rc = OpenCheck(&fd);
        if (fd >= 0) {
            if (rc == SUCCESS) {
                write_all(fd, text, len);
            }
            close(fd);
        }
    }
    if (lock) {
        pthread_mutex_unlock(&m_Mutex);
    }
    return rc;
}

int DbPrintf_Class::TimePrintf(int level, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = TmP(level, fmt, ap);
    va_end(ap);
    return rc;
}

int DbPrintf_Class::TmP(int level, const char* fmt, va_list ap)
{
    if (level == 0) {
        return SUCCESS;
    }
    char now[48];
    local_time_text(now, sizeof now, nullptr);
    LogText text;
    text.addf("[%s] ", now);
    text.tabs(GetDepth());
    text.vaddf(fmt, ap);
    return WriteText(text.data(), text.size(), true);
}

int DbPrintf_Class::DbPrintf(int level, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = DbP(level, fmt, ap);
    va_end(ap);
    return rc;
}

int DbPrintf_Class::DbP(int level, const char* fmt, va_list ap)
{
    if (level == 0) {
        return SUCCESS;
    }
    LogText text;
    text.tabs(GetDepth());
    text.vaddf(fmt, ap);
    return WriteText(text.data(), text.size(), true);
}

int DbPrintf_Class::DbPrintfNoTab(int level, const char* fmt, ...)
{
    if (level == 0) {
        return SUCCESS;
    }
    LogText text;
    va_list ap;
    va_start(ap, fmt);
    text.vaddf(fmt, ap);
    va_end(ap);
    return WriteText(text.data(), text.size(), true);
}

int DbPrintf_Class::ErrPrintf(int errnum, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = DbPErr(errnum, fmt, ap);
    va_end(ap);
    return rc;
}

int DbPrintf_Class::DbPErr(int errnum, const char* fmt, va_list ap)
{
    if (m_nErrOutput == 0) {
        return SUCCESS;
    }
    char now[48];
    long usec = 0;
    local_time_text(now, sizeof now, &usec);
    char errbuf[256];
    // GNU strerror_r: returns a pointer to the text, which may or may not be
    // errbuf; strerror itself is not thread-safe.
    const char* errtext = strerror_r(errnum, errbuf, sizeof errbuf);
    LogText text;
    text.vaddf(fmt, ap);
    text.add("\n");
    text.addf("->[%s(%d)]:[ErrNo<%d>:%s]\n", now, static_cast<int>(usec / 1000), errnum, errtext);
    return WriteText(text.data(), text.size(), true);
}

int DbPrintf_Class::DbPrintfFunc(int level, const char* fmt, ...)
{
    int depth = m_nDepth.fetch_add(1, std::memory_order_relaxed) + 1;
    if ((level & kFuncBit) == 0) {
        return SUCCESS;
    }
    LogText text;
    text.tabs(depth);
    text.add("--------\n");
    text.tabs(depth);
    va_list ap;
    va_start(ap, fmt);
    text.vaddf(fmt, ap);
    va_end(ap);
    text.add("\n");
    return WriteText(text.data(), text.size(), true);
}

namespace {

// One step down, never below -1. The counter is shared by all threads and
// changed outside the mutex, hence the compare-exchange loop.
void depth_down(std::atomic<int>& depth)
{
    int cur = depth.load(std::memory_order_relaxed);
    while (cur > -1 && !depth.compare_exchange_weak(cur, cur - 1, std::memory_order_relaxed)) {
    }
}

}  // namespace

int DbPrintf_Class::RtnP(int level, bool lock, const char* ending, const char* fmt, va_list ap)
{
    if ((level & kFuncBit) == 0) {
        depth_down(m_nDepth);
        return SUCCESS;
    }
    LogText text;
    text.tabs(GetDepth());
    depth_down(m_nDepth);
    text.vaddf(fmt, ap);
    text.add(ending);
    return WriteText(text.data(), text.size(), lock);
}

int DbPrintf_Class::DbPrintfRtn(int level, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = RtnP(level, true, "\n\n", fmt, ap);
    va_end(ap);
    return rc;
}

// Written without the mutex (a failing function must reach the log even if
// another writer is slow). The stream of modes 1 to 3 is private to this
// call, and mode 0's stream is locked by stdio itself, so the only shared
// state touched is atomic.
int DbPrintf_Class::DbPrintfErrRtn(int level, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = RtnP(level, false, " -!Err!- \n", fmt, ap);
    va_end(ap);
    return rc;
}

int DbPrintf_Class::DbPDunp(int level, const char* data, int size)
{
    if (level == 0) {
        return SUCCESS;
    }
    if (data == nullptr && size > 0) {
        return DEBUG_WARNING;
    }
    LogText text;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
    text.addf("--- %d byte ---\n", size);
    int rows = size > 0 ? (size + 15) / 16 : 0;
    for (int r = 0; r < rows; ++r) {
        int base = r * 16;
        text.addf("[%05d]: ", base);
        for (int c = 0; c < 16; ++c) {
            if (c == 8) {
                text.add(" - ");
            }
            if (base + c < size) {
                text.addf("%02X ", bytes[base + c]);
            } else {
                text.add("   ");
            }
        }
        char chars[19];
        chars[0] = '\t';
        for (int c = 0; c < 16; ++c) {
            int ch = ' ';
            if (base + c < size && dump_printable(bytes[base + c])) {
                ch = bytes[base + c];
            }
            chars[1 + c] = static_cast<char>(ch);
        }
        chars[17] = '\n';
        chars[18] = '\0';
        text.add(chars);
    }
    return WriteText(text.data(), text.size(), true);
}

void TimePrint(DbPrintf_Class* pDB, int level, const char* fmt, ...)
{
    if (pDB == nullptr) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    pDB->TmP(level, fmt, ap);
    va_end(ap);
}

void DebugPrint(DbPrintf_Class* pDB, int level, const char* fmt, ...)
{
    if (pDB == nullptr) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    pDB->DbP(level, fmt, ap);
    va_end(ap);
}

void DebugErrPrint(DbPrintf_Class* pDB, int errnum, const char* fmt, ...)
{
    if (pDB == nullptr) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    pDB->DbPErr(errnum, fmt, ap);
    va_end(ap);
}

void DebugDump(DbPrintf_Class* pDB, int level, const char* data, int size)
{
    if (pDB == nullptr) {
        return;
    }
    pDB->DbPDunp(level, data, size);
}

// The text is written as it is ("%s"), never used as a format: a '%' in a
// caller's name must not read stray arguments.
void DebugFuncStart(DbPrintf_Class* pDB, int level, const char* text)
{
    if (pDB == nullptr) {
        return;
    }
    pDB->DbPrintfFunc(level, "%s", text != nullptr ? text : "");
}

namespace {

void func_return(DbPrintf_Class* pDB, int level, int code, const char* func, const int* line)
{
    if (pDB == nullptr) {
        return;
    }
    char codeText[256];
    getReturnCodeString(code, codeText, sizeof codeText);
    char text[512];
    const char* name = func != nullptr ? func : "";
    if (line != nullptr) {
        snprintf(text, sizeof text, "%s[L:%d] : %s", name, *line, codeText);
    } else {
        snprintf(text, sizeof text, "%s : %s", name, codeText);
    }
    if (code == SUCCESS) {
        pDB->DbPrintfRtn(level, "%s", text);
    } else {
        pDB->DbPrintfErrRtn(level, "%s", text);
    }
}

}  // namespace

void dbFuncReturn(int level, DbPrintf_Class* pDB, int code, const char* func)
{
    func_return(pDB, level, code, func, nullptr);
}

void dbFuncReturnLine(int level, DbPrintf_Class* pDB, int code, const char* func, int line)
{
    func_return(pDB, level, code, func, &line);
}

void DebugFuncRtnLine(DbPrintf_Class* pDB, int level, const char* func, int code, int line)
{
    func_return(pDB, level, code, func, &line);
}
