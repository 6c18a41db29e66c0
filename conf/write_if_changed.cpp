#include "conf/write_if_changed.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/return_codes.h"
#include "common/string_buf.h"

namespace {

// Moves exactly len bytes with op (read or write), going on after EINTR;
// false on an error or a short file.
template <typename Op, typename Buf> bool move_all(Op op, int fd, Buf* buf, size_t len)
{
    size_t done = 0;
    while (done < len) {
        ssize_t n = op(fd, buf + done, len - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// 1: the file holds exactly text; 0: it differs; -1: failure.
int same_content(const char* path, const char* text, size_t len)
{
    char* old = static_cast<char*>(std::malloc(len + 1));
    if (old == nullptr)
        return -2;
    int result = -1;
    int fd = open(path, O_RDONLY);
    if (fd != -1) {
        if (move_all(read, fd, old, len))
            result = std::memcmp(old, text, len) == 0 ? 1 : 0;
        close(fd);
    }
    std::free(old);
    return result;
}

}  // namespace

int FileIsNewCheck_AndWrite(const char* path, StringBuf_Class* content, DbPrintf_Class* pDB)
{
    (void)pDB;
    if (path == nullptr || content == nullptr)
        return DEBUG_WARNING;
    const char* text = content->c_str() != nullptr ? content->c_str() : "";
    const size_t len = static_cast<size_t>(content->length());

    struct stat st;
    if (stat(path, &st) == 0 && static_cast<size_t>(st.st_size) == len) {
        int same = same_content(path, text, len);
        if (same == -2)
            return MALLOC_ERROR;
        if (same == -1)
            return SYS_FUNC_ERROR;
        if (same == 1)
            return SUCCESS;
        if (unlink(path) == -1)
            return SYS_FUNC_ERROR;
    }

    int fd = open(path, O_WRONLY | O_CREAT, 0666);
    if (fd == -1)
        return SYS_FUNC_ERROR;
    bool ok = move_all(write, fd, text, len);
    if (close(fd) == -1)
        ok = false;
    if (!ok || chmod(path, 0666) == -1)
        return SYS_FUNC_ERROR;
    return SUCCESS;
}
