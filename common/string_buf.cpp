#include "common/string_buf.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "common/return_codes.h"

StringBuf_Class::StringBuf_Class() = default;

StringBuf_Class::StringBuf_Class(char* buf, int size)
{
    ConstructBuf_WithNonMemAlloc(buf, size);
}

StringBuf_Class::StringBuf_Class(int size)
{
    if (size <= 0) {
        return;
    }
    m_pBuf = static_cast<char*>(calloc(static_cast<size_t>(size), 1));
    if (m_pBuf != nullptr) {
        m_nCapacity = size;
        m_nOwned = 1;
    }
}

StringBuf_Class::~StringBuf_Class()
{
    if (m_nOwned == 1) {
        free(m_pBuf);
    }
}

int StringBuf_Class::ConstructBuf_WithNonMemAlloc(char* buf, int size)
{
    if (m_nOwned == 1) {
        free(m_pBuf);
    }
    m_pBuf = buf;
    // A null buffer behaves like the default-constructed one.
    m_nCapacity = (buf != nullptr && size > 0) ? size : 0;
    m_nLength = 0;
    m_nOwned = 0;
    memset(m_nFlagCount, 0, sizeof m_nFlagCount);
    return SUCCESS;
}

int StringBuf_Class::clear()
{
    m_nLength = 0;
    memset(m_nFlagCount, 0, sizeof m_nFlagCount);
    return SUCCESS;
}

int StringBuf_Class::vadd(const char* fmt, va_list ap)
{
    if (m_nCapacity - 1 <= m_nLength) {
        return DATA_LARGE_THEN_BUF;
    }
    if (fmt == nullptr) {
        return DEBUG_WARNING;
    }
    int room = m_nCapacity - m_nLength;
    int n = vsnprintf(m_pBuf + m_nLength, static_cast<size_t>(room), fmt, ap);
    if (n < 0) {
        // An encoding error: keep the text as it was.
        m_pBuf[m_nLength] = '\0';
        return DEBUG_WARNING;
    }
    // vsnprintf reports the length the whole text would have had; a text
    // that did not fit is cut at capacity-1 and the append still succeeds.
    if (static_cast<long long>(m_nLength) + n >= m_nCapacity - 1) {
        m_pBuf[m_nCapacity - 1] = '\0';
        m_nLength = m_nCapacity - 1;
    } else {
        m_nLength += n;
    }
    return SUCCESS;
}

int StringBuf_Class::add(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vadd(fmt, ap);
    va_end(ap);
    return rc;
}

int StringBuf_Class::add(int* len, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int rc = vadd(fmt, ap);
    va_end(ap);
    if (len != nullptr) {
        *len = m_nLength;
    }
    return rc;
}

int StringBuf_Class::add_withFlag(int flag, const char* fmt, ...)
{
    if (flag >= 0 && flag < 10) {
        ++m_nFlagCount[flag];
    }
    va_list ap;
    va_start(ap, fmt);
    int rc = vadd(fmt, ap);
    va_end(ap);
    return rc;
}

int StringBuf_Class::add_FromPtr(const unsigned char* data, int size)
{
    if (m_nCapacity - 1 <= m_nLength) {
        return DATA_LARGE_THEN_BUF;
    }
    if (size < 0 || (data == nullptr && size > 0)) {
        return DEBUG_WARNING;
    }
    int n = size;
    if (static_cast<long long>(m_nLength) + size >= m_nCapacity - 1) {
        n = m_nCapacity - m_nLength - 1;
    }
    if (n > 0) {
        memmove(m_pBuf + m_nLength, data, static_cast<size_t>(n));
    }
    m_nLength += n;
    m_pBuf[m_nLength] = '\0';
    return SUCCESS;
}

int StringBuf_Class::add_FromPtr(int* len, const unsigned char* data, int size)
{
    int rc = add_FromPtr(data, size);
    if (len != nullptr) {
        *len = m_nLength;
    }
    return rc;
}

int StringBuf_Class::add_FromFile(const char* path)
{
    if (m_nCapacity - 1 <= m_nLength) {
        return DATA_LARGE_THEN_BUF;
    }
    if (path == nullptr) {
        return DEBUG_WARNING;
    }
    struct stat st;
    if (stat(path, &st) != 0) {
        return SYS_FUNC_ERROR;
    }
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return SYS_FUNC_ERROR;
    }
    long long want = st.st_size;
    if (m_nLength + want >= m_nCapacity - 1) {
        want = m_nCapacity - m_nLength - 1;
    }
    // One read: a short read is accepted as it is.
    ssize_t got;
    do {
        got = read(fd, m_pBuf + m_nLength, static_cast<size_t>(want));
    } while (got < 0 && errno == EINTR);
    close(fd);
    if (got < 0) {
        m_pBuf[m_nLength] = '\0';
        return SYS_FUNC_ERROR;
    }
    m_nLength += static_cast<int>(got);
    m_pBuf[m_nLength] = '\0';
    return SUCCESS;
}

int StringBuf_Class::getSize(int* len)
{
    if (len != nullptr) {
        *len = m_nLength;
    }
    return SUCCESS;
}

int StringBuf_Class::get_BufPtr(char** buf)
{
    if (buf != nullptr) {
        *buf = m_pBuf;
    }
    return SUCCESS;
}

int StringBuf_Class::PrintfBuffer()
{
    // Bounded by the length: after clear() the old bytes are still there.
    if (m_pBuf != nullptr) {
        printf("%.*s", m_nLength, m_pBuf);
    }
    return SUCCESS;
}

int StringBuf_Class::getFlagCount(int flag) const
{
    return (flag >= 0 && flag < 10) ? m_nFlagCount[flag] : 0;
}
