#ifndef OSTREL_BENCH_PART_READER_H
#define OSTREL_BENCH_PART_READER_H

#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Buffered reader of a multipart HTTP stream for the bench tools: heads are
// read line by line; a part's data is made available in place at
// buf[pos .. pos + length) by fill(length) and consumed by advancing pos.
// One thread, one socket (not owned). With chunked set (after a head that
// announced "Transfer-Encoding: chunked", as ffmpeg's HTTP server sends) the
// chunk framing is removed as the bytes arrive.
struct PartReader {
    int fd;
    std::vector<char> buf = std::vector<char>(1 << 20);
    size_t pos = 0;
    size_t end = 0;
    bool chunked = false;
    std::vector<char> raw = std::vector<char>(1 << 20);  // undecoded chunk framing
    size_t rawPos = 0;
    size_t rawEnd = 0;
    size_t chunkLeft = 0;

    // Up to room bytes into dst: straight from the socket, or de-chunked.
    ssize_t receive(char* dst, size_t room)
    {
        if (!chunked)
            return recv(fd, dst, room, 0);
        for (;;) {
            if (chunkLeft > 0 && rawPos < rawEnd) {
                size_t n = std::min(std::min(chunkLeft, rawEnd - rawPos), room);
                std::memcpy(dst, raw.data() + rawPos, n);
                rawPos += n;
                chunkLeft -= n;
                return static_cast<ssize_t>(n);
            }
            if (chunkLeft == 0) {  // "[CRLF]<hex size>CRLF" before each chunk
                char* nl = static_cast<char*>(std::memchr(raw.data() + rawPos, '\n', rawEnd - rawPos));
                while (nl) {
                    std::string l(raw.data() + rawPos, nl);
                    rawPos = static_cast<size_t>(nl - raw.data()) + 1;
                    if (l.empty() || l == "\r") {
                        nl = static_cast<char*>(std::memchr(raw.data() + rawPos, '\n', rawEnd - rawPos));
                        continue;
                    }
                    chunkLeft = std::strtoul(l.c_str(), nullptr, 16);
                    if (chunkLeft == 0)
                        return 0;
                    break;
                }
                if (chunkLeft > 0)
                    continue;
            }
            if (rawPos > 0) {
                std::memmove(raw.data(), raw.data() + rawPos, rawEnd - rawPos);
                rawEnd -= rawPos;
                rawPos = 0;
            }
            if (rawEnd == raw.size())
                return -1;
            ssize_t r = recv(fd, raw.data() + rawEnd, raw.size() - rawEnd, 0);
            if (r <= 0)
                return r;
            rawEnd += static_cast<size_t>(r);
        }
    }

    // At least want unread bytes; compacts first. False on close, error or
    // a part larger than the buffer.
    bool fill(size_t want)
    {
        if (pos > 0 && end - pos < want) {
            std::memmove(buf.data(), buf.data() + pos, end - pos);
            end -= pos;
            pos = 0;
        }
        while (end - pos < want) {
            if (end == buf.size())
                return false;
            ssize_t r = receive(buf.data() + end, buf.size() - end);
            if (r <= 0)
                return false;
            end += static_cast<size_t>(r);
        }
        return true;
    }

    // One line without its CR LF.
    bool line(std::string* out)
    {
        for (;;) {
            char* nl = static_cast<char*>(std::memchr(buf.data() + pos, '\n', end - pos));
            if (nl) {
                out->assign(buf.data() + pos, nl);
                pos = static_cast<size_t>(nl - buf.data()) + 1;
                if (!out->empty() && out->back() == '\r')
                    out->pop_back();
                return true;
            }
            if (!fill(end - pos + 1))
                return false;
        }
    }

    // Skips the response head: lines up to the first blank one. Switches
    // to de-chunking when the head says so; bytes already read past the
    // head are then moved back to the undecoded side.
    bool skip_head()
    {
        std::string l;
        bool chunkedHead = false;
        do {
            if (!line(&l))
                return false;
            if (strncasecmp(l.c_str(), "Transfer-Encoding:", 18) == 0 && l.find("chunked") != std::string::npos) {
                chunkedHead = true;
            }
        } while (!l.empty());
        if (chunkedHead) {
            std::memcpy(raw.data(), buf.data() + pos, end - pos);
            rawEnd = end - pos;
            pos = end = 0;
            chunked = true;
        }
        return true;
    }

    // Blank lines, the boundary line, the part's header lines and the blank
    // line after them; *length from Content-Length (any letter case), 0 when
    // absent.
    bool part_head(size_t* length)
    {
        std::string l;
        bool inHead = false;
        *length = 0;
        for (;;) {
            if (!line(&l))
                return false;
            if (l.empty() && inHead)
                return true;
            if (!l.empty())
                inHead = true;
            if (strncasecmp(l.c_str(), "Content-Length:", 15) == 0) {
                *length = std::strtoul(l.c_str() + 15, nullptr, 10);
            }
        }
    }
};

#endif
