#include "common/name_val_file.h"

#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

#include "common/byte_class.h"
#include "common/cfg_file.h"
#include "common/return_codes.h"

namespace {

// Tab, LF, CR, 0x20..0x5F and 0x61..0x7E: the backquote is refused on purpose,
// as are DEL and every byte of 0x80 and above.
constexpr bool ascii_file(int c)
{
    return c == 0x09 || c == 0x0A || c == 0x0D || byte_class::in(c, 0x20, 0x5F) || byte_class::in(c, 0x61, 0x7E);
}

}  // namespace

const unsigned char AsciiFile_Char[256] = {OSTREL_BYTE_CLASS(ascii_file)};
namespace {

// Images are below this size, so every span fits a token.
constexpr long long kImageLimit = 0x40000;

}  // namespace

Parsing_NameValFile_Class::Parsing_NameValFile_Class() : Parsing_NameValFile_Class(8, nullptr)
{
}

Parsing_NameValFile_Class::Parsing_NameValFile_Class(int capacity, DbPrintf_Class* pDB)
{
    StaticArr_NameValToken_Class::Init(capacity, pDB);
}

Parsing_NameValFile_Class::~Parsing_NameValFile_Class()
{
    std::free(m_pImage);
    m_pImage = nullptr;
}

int Parsing_NameValFile_Class::Init(int capacity, DbPrintf_Class* pDB)
{
    return StaticArr_NameValToken_Class::Init(capacity, pDB);
}

int Parsing_NameValFile_Class::Parsing_FromFile(const char* path, DbPrintf_Class* pDB)
{
    if (path == nullptr || m_pImage != nullptr)
        return DEBUG_WARNING;

    long long size = -1;
    int rc = GetFileSize(path, &size, pDB);
    if (rc != SUCCESS)
        return rc;
    if (size <= 0)
        return CANNOT_FILEOPEN;
    if (size >= kImageLimit)
        return DATA_LARGE_THEN_BUF;

    m_pImage = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(size), 1));
    if (m_pImage == nullptr)
        return MALLOC_ERROR;
    m_nImageLen = static_cast<int>(size);
    m_nPos = 0;

    int fd = open(path, O_RDONLY);
    if (fd == -1)
        return CANNOT_FILEOPEN;
    // A file that shrank since it was measured leaves zero bytes at the end,
    // which the parser refuses like any other illegal byte.
    int got = 0;
    while (got < m_nImageLen) {
        ssize_t n = read(fd, m_pImage + got, static_cast<size_t>(m_nImageLen - got));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            close(fd);
            return SYS_FUNC_ERROR;
        }
        if (n == 0)
            break;
        got += static_cast<int>(n);
    }
    close(fd);

    while (OneLine_Parser(pDB) != END_OF_BUF) {
    }
    return SUCCESS;
}

int Parsing_NameValFile_Class::OneLine_Parser(DbPrintf_Class* pDB)
{
    const unsigned char* name = nullptr;
    int nameLen = 0;
    int rc = SkipRead_GetName(&name, &nameLen, pDB);
    if (rc == END_OF_BUF)
        return END_OF_BUF;
    if (rc == FOUND_ILLIGAL_CHAR)
        return SkipRead_NextLineTop(pDB);

    ++m_nPos;  // the '='
    const unsigned char* val = nullptr;
    int valLen = 0;
    rc = SkipRead_GetVal(&val, &valLen, pDB);
    if (rc == FOUND_ILLIGAL_CHAR)
        return SkipRead_NextLineTop(pDB);

    int stored = Set_NameValToken_OnlyPointer(name, nameLen, val, valLen, pDB);
    if (stored != SUCCESS)
        return stored;
    if (rc == END_OF_BUF && valLen > 0)
        return END_OF_BUF;
    return SkipRead_NextLineTop(pDB);
}

int Parsing_NameValFile_Class::SkipRead_GetName(const unsigned char** name, int* len, DbPrintf_Class* pDB)
{
    (void)pDB;
    int start = m_nPos;
    while (m_nPos < m_nImageLen) {
        unsigned char c = m_pImage[m_nPos];
        if (c == '#')
            return FOUND_ILLIGAL_CHAR;
        if (c == '=') {
            *name = m_pImage + start;
            *len = m_nPos - start;
            return SUCCESS;
        }
        if (AsciiFile_Char[c] == 0 || c == '\r' || c == '\n')
            return FOUND_ILLIGAL_CHAR;
        ++m_nPos;
    }
    return END_OF_BUF;
}

int Parsing_NameValFile_Class::SkipRead_GetVal(const unsigned char** val, int* len, DbPrintf_Class* pDB)
{
    (void)pDB;
    int start = m_nPos;
    *val = m_pImage + start;
    while (m_nPos < m_nImageLen) {
        unsigned char c = m_pImage[m_nPos];
        if (c == '\n' || c == '\r') {
            *len = m_nPos - start;
            return SUCCESS;
        }
        if (AsciiFile_Char[c] == 0 || c == '=')
            return FOUND_ILLIGAL_CHAR;
        ++m_nPos;
    }
    *len = m_nPos - start;
    return END_OF_BUF;
}

int Parsing_NameValFile_Class::SkipRead_NextLineTop(DbPrintf_Class* pDB)
{
    (void)pDB;
    while (m_nPos < m_nImageLen) {
        if (m_pImage[m_nPos++] == '\n')
            return SUCCESS;
    }
    return END_OF_BUF;
}

int Parsing_NameValFile_Class::OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB) const
{
    return StaticArr_NameValToken_Class::OutputBuffer(buf, pDB);
}
