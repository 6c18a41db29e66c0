#include "piece_source.h"

#include <string.h>

#include "common/return_codes.h"
#include "http/base_buffer.h"

PieceSource::PieceSource(std::vector<std::string> pieces, bool closeAfter)
    : m_pieces(std::move(pieces)), m_closeAfter(closeAfter)
{
}

PieceSource::PieceSource(const uint8_t* data, size_t size, const std::vector<size_t>& cuts) : m_closeAfter(true)
{
    const char* text = reinterpret_cast<const char*>(data);
    size_t from = 0;
    for (size_t to : cuts) {
        if (to > from && to <= size) {
            m_pieces.emplace_back(text + from, to - from);
            from = to;
        }
    }
    m_pieces.emplace_back(text + from, size - from);
}

size_t PieceSource::Left() const
{
    size_t left = 0;
    for (size_t i = m_piece; i < m_pieces.size(); i++) {
        left += m_pieces[i].size() - (i == m_piece ? m_offset : 0);
    }
    return left;
}

int PieceSource::RecvOnce(void* buf, int len, int* got, int, int flags, DbPrintf_Class*)
{
    while (m_piece < m_pieces.size() && m_offset == m_pieces[m_piece].size()) {
        m_piece++;
        m_offset = 0;
    }
    if (m_piece == m_pieces.size()) {
        if (!m_closeAfter) {
            return SOCK_TIMEOUT;
        }
        if (got != nullptr) {
            *got = 0;
        }
        return SUCCESS;
    }
    const std::string& piece = m_pieces[m_piece];
    size_t n = piece.size() - m_offset;
    if (len >= 0 && n > static_cast<size_t>(len)) {
        n = static_cast<size_t>(len);
    }
    memcpy(buf, piece.data() + m_offset, n);
    if ((flags & MSG_PEEK) == 0) {
        m_offset += n;
    }
    if (got != nullptr) {
        *got = static_cast<int>(n);
    }
    return SUCCESS;
}

int PieceSource::RecvFill(void* buf, int len, int* got, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB)
{
    int rc = SUCCESS;
    int n = 1;
    for (*got = 0; rc == SUCCESS && n > 0 && *got < len; *got += n) {
        n = 0;
        rc = Sock_ExitRequested(exitFlag)
                 ? LOOP_INTERRUPTED
                 : RecvOnce(static_cast<char*>(buf) + *got, len - *got, &n, timeout_ms, SOCK_FIXED_FLAGS, pDB);
    }
    return rc;
}

std::vector<std::string> SplitAt(const std::string& s, size_t cut)
{
    return {s.substr(0, cut), s.substr(cut)};
}

std::vector<std::string> Bytewise(const std::string& s)
{
    std::vector<std::string> out;
    for (char c : s) {
        out.emplace_back(1, c);
    }
    return out;
}

void FeedInPieces(HTTPBaseBuffer_Class& buf, const std::vector<std::string>& pieces, bool closeAfter,
                  const std::function<void(int fd)>& read)
{
    PieceSource source(pieces, closeAfter);
    buf.SetByteSource(&source);
    read(-1);
    buf.SetByteSource(nullptr);
}
