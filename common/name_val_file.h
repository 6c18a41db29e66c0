#ifndef OSTREL_COMMON_NAME_VAL_FILE_H
#define OSTREL_COMMON_NAME_VAL_FILE_H

#include "common/tokens.h"

class DbPrintf_Class;
class StringBuf_Class;

// Bytes allowed in a name=value file (1) or not (0): TAB, LF, CR, 0x20-0x5F
// and 0x61-0x7E. The backquote 0x60, the other control bytes, DEL and every
// byte of 0x80 and above are refused.
extern const unsigned char AsciiFile_Char[256];

// Parsing_NameValFile_Class: loads a small name=value file whole into an
// owned image and splits it into name/value pairs that point into that
// image (borrowed spans, valid as long as the object lives). The pairs are
// read through the base table (Get, Search_NameToVal, ...).
//
// A line is "name=value" up to CR or LF. A line is dropped when its name
// holds '#', a CR/LF or a refused byte, or when its value holds a second
// '=' or a refused byte; '#' and blanks are fine inside a value, and an
// empty name or value is kept. Pairs beyond the table's capacity are
// dropped silently.
//
// One object loads once and belongs to one thread; there is no locking.
class Parsing_NameValFile_Class : public StaticArr_NameValToken_Class {
public:
    // A table of 8 pairs.
    Parsing_NameValFile_Class();
    // A table of capacity pairs, for files with more lines than that.
    explicit Parsing_NameValFile_Class(int capacity, DbPrintf_Class* pDB = nullptr);
    ~Parsing_NameValFile_Class() override;

    // Forwards to the base Init, so on a constructed object it reports
    // ALREADY_INITIALIZE.
    int Init(int capacity, DbPrintf_Class* pDB = nullptr);

    // Loads and parses the file. Results: SUCCESS; DEBUG_WARNING for a null
    // path or a second load; GetFileSize's codes; CANNOT_FILEOPEN for an empty
    // or unopenable file; DATA_LARGE_THEN_BUF for 262144 bytes or more;
    // MALLOC_ERROR; SYS_FUNC_ERROR when the read fails.
    int Parsing_FromFile(const char* path, DbPrintf_Class* pDB = nullptr);

    // One line from the read position: SUCCESS (a pair stored or a line
    // dropped), END_OF_BUF at the end of the image, or the store's failure.
    int OneLine_Parser(DbPrintf_Class* pDB = nullptr);
    // Scans a name from the read position up to its '=': SUCCESS with the
    // span (the position left on the '='), FOUND_ILLIGAL_CHAR on '#', CR, LF
    // or a refused byte, END_OF_BUF when the image ends.
    int SkipRead_GetName(const unsigned char** name, int* len, DbPrintf_Class* pDB = nullptr);
    // Scans a value up to CR/LF: SUCCESS (position left on the CR/LF),
    // FOUND_ILLIGAL_CHAR on a second '=' or a refused byte, END_OF_BUF when
    // the image ends (the span then runs to the end).
    int SkipRead_GetVal(const unsigned char** val, int* len, DbPrintf_Class* pDB = nullptr);
    // Moves just past the next LF: SUCCESS, or END_OF_BUF when none is left.
    int SkipRead_NextLineTop(DbPrintf_Class* pDB = nullptr);

    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

private:
    unsigned char* m_pImage = nullptr;
    int m_nImageLen = 0;
    int m_nPos = 0;
};

#endif
