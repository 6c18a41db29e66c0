#ifndef OSTREL_COMMON_STRING_BUF_H
#define OSTREL_COMMON_STRING_BUF_H

#include <stdarg.h>

// StringBuf_Class: a bounded text buffer that never grows.
//
// Appends keep the text NUL-terminated. An append that does not fit is cut
// at capacity-1 and still returns SUCCESS; the next append then fails with
// DATA_LARGE_THEN_BUF. The buffer is either owned (allocated by the object)
// or borrowed from the caller, who must keep it alive. Not thread-safe.
class StringBuf_Class {
public:
    StringBuf_Class();                     // no buffer: every append fails
    StringBuf_Class(char* buf, int size);  // borrows buf
    explicit StringBuf_Class(int size);    // owns a zeroed buffer of size bytes
    virtual ~StringBuf_Class();

    StringBuf_Class(const StringBuf_Class&) = delete;
    StringBuf_Class& operator=(const StringBuf_Class&) = delete;

    // Frees an owned buffer, then borrows buf (length 0, counters zero).
    int ConstructBuf_WithNonMemAlloc(char* buf, int size);
    // Length 0 and counters zero; the bytes themselves are left as they are.
    int clear();

    // printf-style appends. The second form stores the resulting length
    // through len (also on failure); add_withFlag first counts flag 0..9.
    int add(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    int add(int* len, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
    int add_withFlag(int flag, const char* fmt, ...) __attribute__((format(printf, 3, 4)));

    // Raw bytes, cut like the formatted appends.
    int add_FromPtr(const unsigned char* data, int size);
    int add_FromPtr(int* len, const unsigned char* data, int size);
    // One read() of the file's size (or what fits); SYS_FUNC_ERROR on a
    // failed stat, open or read.
    int add_FromFile(const char* path);

    int getSize(int* len);
    int get_BufPtr(char** buf);
    int PrintfBuffer();

    // Read-only views.
    const char* c_str() const { return m_pBuf; }
    int length() const { return m_nLength; }
    int capacity() const { return m_nCapacity; }
    int getFlagCount(int flag) const;

private:
    int vadd(const char* fmt, va_list ap);

    int m_nFlagCount[10] = {};
    char* m_pBuf = nullptr;
    int m_nCapacity = 0;
    int m_nLength = 0;
    int m_nOwned = 0;
};

#endif
