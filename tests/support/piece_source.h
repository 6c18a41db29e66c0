#ifndef OSTREL_TESTS_SUPPORT_PIECE_SOURCE_H
#define OSTREL_TESTS_SUPPORT_PIECE_SOURCE_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "http/byte_source.h"

class HTTPBaseBuffer_Class;

// A byte source that hands an HTTP reader prepared bytes instead of a
// socket. The pieces arrive one after the other as a peer would send them,
// each only after the reader took the one before: a receive never returns
// bytes of two pieces, so a reader really meets a message cut where the
// pieces end. A peek shows what is left of the current piece and takes
// nothing. After the last piece the peer closes (closeAfter: a receive gives
// 0 bytes) or stays silent (every receive is a wait that ran out:
// SOCK_TIMEOUT at once, without waiting).
class PieceSource final : public HttpByteSource {
public:
    PieceSource(std::vector<std::string> pieces, bool closeAfter);
    // data cut at the ascending offsets cuts[] (offsets out of order or past
    // the end are passed over), then closed.
    PieceSource(const uint8_t* data, size_t size, const std::vector<size_t>& cuts);

    int RecvOnce(void* buf, int len, int* got, int timeout_ms, int flags, DbPrintf_Class* pDB) override;
    int RecvFill(void* buf, int len, int* got, int timeout_ms, SockExitFlag* exitFlag, DbPrintf_Class* pDB) override;

    // Bytes no receive has taken yet.
    size_t Left() const;

private:
    std::vector<std::string> m_pieces;
    bool m_closeAfter;
    size_t m_piece = 0;
    size_t m_offset = 0;
};

// The input cut into pieces: at one offset, or byte by byte.
std::vector<std::string> SplitAt(const std::string& s, size_t cut);
std::vector<std::string> Bytewise(const std::string& s);

// Runs read(fd) with buf receiving the pieces from a PieceSource (fd is -1:
// only log lines show it), then takes the source off the buffer again.
void FeedInPieces(HTTPBaseBuffer_Class& buf, const std::vector<std::string>& pieces, bool closeAfter,
                  const std::function<void(int fd)>& read);

#endif
