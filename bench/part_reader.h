#ifndef OSTREL_BENCH_PART_READER_H
#define OSTREL_BENCH_PART_READER_H

#include <strings.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

// Buffered reader of a multipart HTTP stream for the bench tools: heads are
// read line by line; a part's data is made available in place at
// buf[pos .. pos + length) by fill(length) and consumed by advancing pos.
// One thread, one socket (not owned).
struct PartReader {
    int fd;
    std::vector<char> buf = std::vector<char>(4 << 20);
    size_t pos = 0;
    size_t end = 0;

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
            if (end == buf.size()) return false;
            ssize_t r = recv(fd, buf.data() + end, buf.size() - end, 0);
            if (r <= 0) return false;
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
                if (!out->empty() && out->back() == '\r') out->pop_back();
                return true;
            }
            if (!fill(end - pos + 1)) return false;
        }
    }

    // Skips the response head: lines up to the first blank one.
    bool skip_head()
    {
        std::string l;
        do {
            if (!line(&l)) return false;
        } while (!l.empty());
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
            if (!line(&l)) return false;
            if (l.empty() && inHead) return true;
            if (!l.empty()) inHead = true;
            if (strncasecmp(l.c_str(), "Content-Length:", 15) == 0) {
                *length = std::strtoul(l.c_str() + 15, nullptr, 10);
            }
        }
    }
};

#endif
