#ifndef OSTREL_COMMON_TOKENS_H
#define OSTREL_COMMON_TOKENS_H

class DbPrintf_Class;
class StringBuf_Class;

// Largest span a token may describe: 262,143 bytes.
constexpr int ONETOKEN_MAXLEN = 0x3FFFF;

// OneToken_Class: one span of bytes, borrowed (points into someone else's
// memory, not terminated) or owned (a heap copy with one extra NUL byte).
// Spans are 1 to ONETOKEN_MAXLEN bytes; an empty token has a null pointer.
// A borrowed span is valid only while the memory it points into is.
class OneToken_Class {
public:
    OneToken_Class() = default;
    virtual ~OneToken_Class();

    OneToken_Class(const OneToken_Class&) = delete;
    OneToken_Class& operator=(const OneToken_Class&) = delete;

    // Owned copies. DEBUG_WARNING for a length outside 1..ONETOKEN_MAXLEN,
    // MALLOC_ERROR when allocation fails. The previous contents are not
    // released: Clear() a token before reusing it.
    int Copy_WithMemAlloc(const unsigned char* data, int len, DbPrintf_Class* pDB = nullptr);
    int Copy_WithMemAlloc(const char* text, DbPrintf_Class* pDB = nullptr);
    int Copy_WithMemAlloc(const OneToken_Class* other, DbPrintf_Class* pDB = nullptr);
    // Borrowed span; same bounds.
    int Copy_OnlyPointer(const unsigned char* data, int len, DbPrintf_Class* pDB = nullptr);
    // Frees owned bytes; pointer null, length 0. SUCCESS.
    int Clear(DbPrintf_Class* pDB = nullptr);

    // SUCCESS when both are non-empty and byte-equal, else NO_MATCH_ARGUMENT.
    int Compare(const OneToken_Class* other, DbPrintf_Class* pDB = nullptr) const;
    int Compare(const unsigned char* data, int len, DbPrintf_Class* pDB = nullptr) const;
    // Null/empty text or empty token: DEBUG_WARNING; else SUCCESS or
    // NO_MATCH_ARGUMENT. Case_Compear ignores ASCII case.
    int Compare(const char* text, DbPrintf_Class* pDB = nullptr) const;
    int Case_Compear(const char* text, DbPrintf_Class* pDB = nullptr) const;

    // Decimal conversion: leading blanks, an optional '-', digits; anything
    // after is ignored. NOT_INITIALIZE for an empty token; OUT_OF_RANGE when a
    // step wraps below the previous value (the result then holds the wrapped
    // value).
    int Atoi(int* out, DbPrintf_Class* pDB = nullptr) const;
    int Atoll(long long* out, DbPrintf_Class* pDB = nullptr) const;

    // Appends the bytes; a single NUL byte is written as "\0".
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;
    void DebugOut(DbPrintf_Class* pDB = nullptr) const;

    const unsigned char* GetPtr() const { return m_pData; }
    int GetLength() const { return m_nLength; }
    int IsMemAlloc() const { return m_nMemAlloc; }

private:
    int m_nMemAlloc = 0;
    const unsigned char* m_pData = nullptr;
    int m_nLength = 0;
};

// A name/value pair of spans.
class NameValToken_Class {
public:
    NameValToken_Class() = default;
    virtual ~NameValToken_Class() = default;

    NameValToken_Class(const NameValToken_Class&) = delete;
    NameValToken_Class& operator=(const NameValToken_Class&) = delete;

    // Clears both tokens; returns 0 (the result is never tested).
    int Clear(DbPrintf_Class* pDB = nullptr);
    // "[ name ]:[ value ]"
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    OneToken_Class m_Name;
    OneToken_Class m_Val;
};

// Growable arrays owning heap tokens: 8 entries at first, +8 when full.
class Arr_OneToken_Class {
public:
    Arr_OneToken_Class();
    virtual ~Arr_OneToken_Class();

    Arr_OneToken_Class(const Arr_OneToken_Class&) = delete;
    Arr_OneToken_Class& operator=(const Arr_OneToken_Class&) = delete;

    // Takes ownership of a heap token (new). DEBUG_WARNING for null,
    // MEM_MAP_ERROR when the array was never allocated, MALLOC_ERROR when it
    // cannot grow.
    int Add_OneToken_Class(OneToken_Class* token, DbPrintf_Class* pDB = nullptr);
    // FOUND_DUPLICATION when an entry compares equal, else SUCCESS.
    int DupulicationCheck(const OneToken_Class* token, DbPrintf_Class* pDB = nullptr) const;
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    int GetCount() const { return m_nCount; }
    int GetCapacity() const { return m_nCapacity; }
    OneToken_Class* Get(int i) const { return (i >= 0 && i < m_nCount) ? m_ppArr[i] : nullptr; }

private:
    int m_nCount = 0;
    OneToken_Class** m_ppArr = nullptr;
    int m_nCapacity = 0;
};

class Arr_NameValToken_Class {
public:
    Arr_NameValToken_Class();
    virtual ~Arr_NameValToken_Class();

    Arr_NameValToken_Class(const Arr_NameValToken_Class&) = delete;
    Arr_NameValToken_Class& operator=(const Arr_NameValToken_Class&) = delete;

    int Add_NameValTokenClass(NameValToken_Class* pair, DbPrintf_Class* pDB = nullptr);
    // First entry whose name equals the new name: *which = 1; else whose
    // value equals the new value: *which = 2; either returns
    // FOUND_DUPLICATION. An entry's name is tested before its value.
    int DupulicationCheck_NameAndVal(const NameValToken_Class* pair, int* which, DbPrintf_Class* pDB = nullptr) const;
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    int GetCount() const { return m_nCount; }
    int GetCapacity() const { return m_nCapacity; }
    NameValToken_Class* Get(int i) const { return (i >= 0 && i < m_nCount) ? m_ppArr[i] : nullptr; }

private:
    int m_nCount = 0;
    NameValToken_Class** m_ppArr = nullptr;
    int m_nCapacity = 0;
};

// Fixed-capacity table of pairs, filled in order and searched by exact
// (case-sensitive) name; the first match wins. The HTTP parsers store header
// names with their colon and CGI names with their "=", so lookups use keys
// such as "Content-Length:" and "img_login=".
class StaticArr_NameValToken_Class {
public:
    StaticArr_NameValToken_Class() = default;
    virtual ~StaticArr_NameValToken_Class();

    StaticArr_NameValToken_Class(const StaticArr_NameValToken_Class&) = delete;
    StaticArr_NameValToken_Class& operator=(const StaticArr_NameValToken_Class&) = delete;

    // ALREADY_INITIALIZE when already made; MALLOC_ERROR; else SUCCESS.
    int Init(int capacity, DbPrintf_Class* pDB = nullptr);
    // Clears the used pairs (they stay allocated) and empties the table.
    int Clear(DbPrintf_Class* pDB = nullptr);

    // NOT_FOUND_FREE_BUF when full. The token copies' own results are
    // ignored, so an empty value still takes an entry.
    int Set_NameValToken_OnlyPointer(const unsigned char* name, int nameLen, const unsigned char* val, int valLen,
                                     DbPrintf_Class* pDB = nullptr);
    int Set_NameValToken_WithMemAlloc(const unsigned char* name, int nameLen, const unsigned char* val, int valLen,
                                      DbPrintf_Class* pDB = nullptr);

    // *val points to the stored value token; NOTFOUND_ITEM when absent.
    int Search_NameToVal(const char* name, OneToken_Class** val, DbPrintf_Class* pDB = nullptr) const;
    // Owned copy of the value with length checks (DATASIZE_SHORT,
    // DATASIZE_LARGE); out is cleared first.
    int Search_NameToVal_WithMemAlloc(const char* name, OneToken_Class* out, int minLen, int maxLen,
                                      DbPrintf_Class* pDB = nullptr) const;
    // Atoi of the value.
    int Search_NameToVal_RtnInt(const char* name, int* out, DbPrintf_Class* pDB = nullptr) const;

    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    int GetCount() const { return m_nCount; }
    int GetCapacity() const { return m_nCapacity; }
    NameValToken_Class* Get(int i) const { return (i >= 0 && i < m_nCount) ? m_ppArr[i] : nullptr; }

private:
    // The next free pair takes name and value, as owned copies or borrowed.
    int SetNext(const unsigned char* name, int nameLen, const unsigned char* val, int valLen, bool alloc,
                DbPrintf_Class* pDB);

    int m_nCount = 0;
    NameValToken_Class** m_ppArr = nullptr;
    int m_nCapacity = 0;
};

#endif
