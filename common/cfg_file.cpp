#include "common/cfg_file.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include "common/return_codes.h"

namespace {

// semctl's fourth argument; the caller has to declare it on Linux.
union semun_arg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

int sem_add(int semid, short delta)
{
    struct sembuf op;
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    // A signal (SIGUSR1 wakes workers at shutdown) must not turn a short
    // wait for the file into a failed configuration read.
    int rc;
    do {
        rc = semop(semid, &op, 1);
    } while (rc == -1 && errno == EINTR);
    return rc;
}

// Opens and takes the file's semaphore for the function named by tag.
int file_lock_take(const char* tag, int key, int* semid, DbPrintf_Class* pDB)
{
    int rc = co_semaphore_getid(key, semid, pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[%s] co_semaphore_getid(sem_key %d) failed ::%d\n", tag, key, rc);
        return rc;
    }
    rc = co_semaphore_p(*semid, pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[%s] co_semaphore_p(semaphore_id %d) failed ::%d\n", tag, *semid, rc);
        return rc;
    }
    return SUCCESS;
}

// Gives the semaphore back. A failed release replaces the caller's result.
int file_lock_give(const char* tag, int semid, int result, DbPrintf_Class* pDB)
{
    int rc = co_semaphore_v(semid, pDB);
    if (rc != SUCCESS) {
        TimePrint(pDB, 1, "[%s] co_semaphore_v(semaphore_id %d) failed ::%d\n", tag, semid, rc);
        return rc;
    }
    return result;
}

// The file-name tests every semaphore-guarded function opens with; tag
// names the function in the log lines.
bool file_name_ok(const char* tag, const char* filename, DbPrintf_Class* pDB)
{
    if (filename == nullptr) {
        TimePrint(pDB, 1, "[%s] filename == NULL\n", tag);
        return false;
    }
    if (std::strlen(filename) > FNAME_MAXSIZE) {
        TimePrint(pDB, 1, "[%s] strlen(filename %s) > FNAME_MAXSIZE\n", tag, filename);
        return false;
    }
    return true;
}

// The frame of every semaphore-guarded function: takes the semaphore of
// key, opens filename for reading, runs work(fp) for the function's result,
// closes the file and gives the semaphore back (a failed release replaces
// the result). tag names the function in the log lines.
template <typename Work>
int with_locked_file(const char* tag, int key, const char* filename, DbPrintf_Class* pDB, Work work)
{
    int semid = -1;
    int rc = file_lock_take(tag, key, &semid, pDB);
    if (rc != SUCCESS)
        return rc;
    FILE* fp = std::fopen(filename, "r");
    if (fp == nullptr) {
        TimePrint(pDB, 1, "[%s] fopen(filename %s) failed\n", tag, filename);
        return file_lock_give(tag, semid, CANNOT_FILEOPEN, pDB);
    }
    const int result = work(fp);
    std::fclose(fp);
    return file_lock_give(tag, semid, result, pDB);
}

// Comment lines and lines starting with white space are never items.
bool is_skipped_line(const char* line)
{
    return line[0] == '#' || std::isspace(static_cast<unsigned char>(line[0]));
}

// Bytes of text up to (not including) a newline or the end.
size_t to_line_end(const char* text)
{
    return std::strcspn(text, "\n");
}

bool name_equals(const char* name, size_t len, const char* wanted)
{
    return std::strlen(wanted) == len && std::memcmp(name, wanted, len) == 0;
}

// co_CfgFile_Read's search: the value of the first line named itemname.
int read_item(FILE* fp, const char* itemname, char* output, int outputSize, DbPrintf_Class* pDB)
{
    char line[LINE_MAXSIZE];
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        if (is_skipped_line(line))
            continue;
        // The name is the first '='-delimited token: leading '=' are skipped.
        const char* name = line;
        while (*name == '=')
            ++name;
        if (*name == '\0')
            continue;
        const char* eq = std::strchr(name, '=');
        size_t nameLen = eq != nullptr ? static_cast<size_t>(eq - name) : std::strlen(name);
        if (!name_equals(name, nameLen, itemname))
            continue;

        const char* value = eq != nullptr ? eq + 1 : "";
        size_t valueLen = to_line_end(value);
        if (valueLen > static_cast<size_t>(outputSize - 1)) {
            TimePrint(pDB, 1, "[co_CfgFile_Read] value of itemname %s longer than %d\n", itemname, outputSize - 1);
            output[0] = '\0';
            return DATA_LARGE_THEN_BUF;
        }
        std::memcpy(output, value, valueLen);
        output[valueLen] = '\0';
        return SUCCESS;
    }
    TimePrint(pDB, 1, "[co_CfgFile_Read] not found itemname %s\n", itemname);
    return NOTFOUND_ITEM;
}

// co_CfgFile_Write's rewrite of fp into ft: every line named itemname gets
// input as its value. True when such a line was found.
bool rewrite_item(FILE* fp, FILE* ft, const char* itemname, const char* input)
{
    bool found = false;
    char line[LINE_MAXSIZE];
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        if (is_skipped_line(line)) {
            std::fputs(line, ft);
            continue;
        }
        // Split at the first '='. Without one the whole piece, newline
        // included, is the name, so such a line is followed by a "=" line.
        const char* eq = std::strchr(line, '=');
        size_t nameLen = eq != nullptr ? static_cast<size_t>(eq - line) : std::strlen(line);
        std::fwrite(line, 1, nameLen, ft);
        std::fputs("=", ft);
        if (name_equals(line, nameLen, itemname)) {
            std::fputs(input, ft);
            found = true;
        } else if (eq != nullptr) {
            std::fwrite(eq + 1, 1, to_line_end(eq + 1), ft);
        }
        std::fputs("\n", ft);
    }
    return found;
}

// co_CfgFile_UserName_Read's search: output receives the number of the
// "u_user_name" line whose value is username.
int read_user_number(FILE* fp, const char* username, char* output)
{
    static const char kPrefix[] = "u_user_name";
    char line[LINE_MAXSIZE];
    while (std::fgets(line, sizeof line, fp) != nullptr) {
        if (is_skipped_line(line) || std::strncmp(line, kPrefix, sizeof kPrefix - 1) != 0)
            continue;
        const char* eq = std::strchr(line, '=');
        const char* value = eq != nullptr ? eq + 1 : "";
        if (!name_equals(value, to_line_end(value), username)) {
            std::strcpy(output, "-1");
            continue;
        }
        // The number is what follows the third '_' of the name: u, user,
        // name, then the rest up to the '='.
        const char* nameEnd = eq != nullptr ? eq : line + std::strlen(line);
        const char* p = line;
        for (int i = 0; i < 3 && p != nullptr; ++i) {
            p = static_cast<const char*>(std::memchr(p, '_', static_cast<size_t>(nameEnd - p)));
            if (p != nullptr)
                ++p;
        }
        size_t len = p != nullptr ? static_cast<size_t>(nameEnd - p) : 0;
        if (p != nullptr)
            std::memcpy(output, p, len);
        output[len] = '\0';
        return SUCCESS;
    }
    return NOT_REGSTERED;
}

}  // namespace

int co_semaphore_getid(int key, int* semid, DbPrintf_Class* pDB)
{
    if (semid == nullptr) {
        TimePrint(pDB, 1, "[co_semaphore_getid] sem_id == NULL\n");
        return SEMAPHORE_ERROR;
    }
    int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
    if (id != -1) {
        // A process that opens the set between our create and this SETVAL
        // finds the value 0 and simply waits in P until it becomes 1.
        semun_arg arg;
        arg.val = 1;
        if (semctl(id, 0, SETVAL, arg) == -1) {
            TimePrint(pDB, 1, "[co_semaphore_getid] semctl failed\n");
            return SEMAPHORE_ERROR;
        }
    } else {
        id = semget(key, 1, IPC_CREAT | 0666);
        if (id == -1) {
            TimePrint(pDB, 1, "[co_semaphore_getid] semget failed\n");
            return SEMAPHORE_ERROR;
        }
    }
    *semid = id;
    return SUCCESS;
}

int co_semaphore_p(int semid, DbPrintf_Class* pDB)
{
    if (sem_add(semid, -1) == -1) {
        TimePrint(pDB, 1, "[co_semaphore_p] semop(sem_id %d) failed\n", semid);
        return SEMAPHORE_ERROR;
    }
    return SUCCESS;
}

int co_semaphore_v(int semid, DbPrintf_Class* pDB)
{
    if (sem_add(semid, 1) == -1) {
        TimePrint(pDB, 1, "[co_semaphore_v] semop(sem_id %d) failed\n", semid);
        return SEMAPHORE_ERROR;
    }
    return SUCCESS;
}

int co_CfgFile_Read(const char* filename, int sem_key, const char* itemname, char* output, int outputSize,
                    DbPrintf_Class* pDB)
{
    if (!file_name_ok("co_CfgFile_Read", filename, pDB))
        return INVALID_ARGUMENT;
    if (itemname == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_Read] itemname == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (output == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_Read] output == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (outputSize < 1) {
        TimePrint(pDB, 1, "[co_CfgFile_Read] outputSize %d < 1\n", outputSize);
        return INVALID_ARGUMENT;
    }

    return with_locked_file("co_CfgFile_Read", sem_key, filename, pDB,
                            [&](FILE* fp) { return read_item(fp, itemname, output, outputSize, pDB); });
}

int co_CfgFile_Write(const char* filename, int sem_key, const char* itemname, const char* input, DbPrintf_Class* pDB)
{
    if (!file_name_ok("co_CfgFile_Write", filename, pDB))
        return INVALID_ARGUMENT;
    if (itemname == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_Write] itemname == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (input == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_Write] input == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (std::strlen(itemname) + std::strlen(input) + 2 > LINE_MAXSIZE) {
        TimePrint(pDB, 1, "[co_CfgFile_Write] LINE_MAXSIZE over(itemname %s,input %s)\n", itemname, input);
        return INVALID_ARGUMENT;
    }

    char filename_b[FNAME_MAXSIZE + 2];
    char filename_t[FNAME_MAXSIZE + 3];
    std::snprintf(filename_b, sizeof filename_b, "%s_", filename);
    std::snprintf(filename_t, sizeof filename_t, "%s__", filename);

    return with_locked_file("co_CfgFile_Write", sem_key, filename, pDB, [&](FILE* fp) {
        FILE* ft = std::fopen(filename_t, "w");
        if (ft == nullptr) {
            TimePrint(pDB, 1, "[co_CfgFile_Write] fopen(filename_t %s) failed\n", filename_t);
            return CANNOT_FILEOPEN;
        }
        const bool found = rewrite_item(fp, ft, itemname, input);
        std::fclose(ft);

        // The temporary stays in place; the backup receives the new content too.
        int rc = co_CfgFile_Copy(filename_t, filename, pDB);
        if (rc != SUCCESS) {
            TimePrint(pDB, 1, "[co_CfgFile_Write] co_CfgFile_Copy(filename_t %s,filename %s) failed ::%d\n", filename_t,
                      filename, rc);
            return rc;
        }
        rc = co_CfgFile_Copy(filename_t, filename_b, pDB);
        if (rc != SUCCESS) {
            TimePrint(pDB, 1, "[co_CfgFile_Write] co_CfgFile_Copy(filename_t %s,filename_b %s) failed ::%d\n",
                      filename_t, filename_b, rc);
            return rc;
        }
        if (!found) {
            TimePrint(pDB, 1, "[co_CfgFile_Write] not found itemname %s\n", itemname);
            return NOTFOUND_ITEM;
        }
        return SUCCESS;
    });
}

int co_CfgFile_Copy(const char* fromfile, const char* tofile, DbPrintf_Class* pDB)
{
    if (fromfile == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_Copy] fromfile == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (tofile == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_Copy] tofile == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (std::strcmp(fromfile, tofile) == 0) {
        TimePrint(pDB, 1, "[co_CfgFile_Copy] fromfile(%s) == tofileto\n", fromfile);
        return INVALID_ARGUMENT;
    }
    if (std::strlen(fromfile) > FNAME_MAXSIZE) {
        TimePrint(pDB, 1, "[co_CfgFile_Copy] strlen(fromfile %s) > FNAME_MAXSIZE\n", fromfile);
        return INVALID_ARGUMENT;
    }
    if (std::strlen(tofile) > FNAME_MAXSIZE) {
        TimePrint(pDB, 1, "[co_CfgFile_Copy] strlen(tofile %s) > FNAME_MAXSIZE\n", tofile);
        return INVALID_ARGUMENT;
    }

    FILE* from = std::fopen(fromfile, "r");
    if (from == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_Copy] fopen(fromfile %s) failed\n", fromfile);
        return CANNOT_FILEOPEN;
    }
    FILE* to = std::fopen(tofile, "w");
    if (to == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_Copy] fopen(tofile %s) failed\n", tofile);
        std::fclose(from);
        return CANNOT_FILEOPEN;
    }
    char line[LINE_MAXSIZE];
    while (std::fgets(line, sizeof line, from) != nullptr)
        std::fputs(line, to);
    std::fclose(from);
    // A full disk shows only here; a half-written configuration must not
    // pass for a copied one.
    bool failed = std::ferror(to) != 0;
    if (std::fclose(to) != 0)
        failed = true;
    if (failed) {
        TimePrint(pDB, 1, "[co_CfgFile_Copy] write(tofile %s) failed\n", tofile);
        return WRITE_FAILED;
    }
    return SUCCESS;
}

int co_CfgFile_GetSize(const char* filename, int sem_key, int* size, DbPrintf_Class* pDB)
{
    if (!file_name_ok("co_CfgFile_GetSize", filename, pDB))
        return INVALID_ARGUMENT;
    if (size == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_GetSize] size == NULL\n");
        return INVALID_ARGUMENT;
    }

    return with_locked_file("co_CfgFile_GetSize", sem_key, filename, pDB, [&](FILE* fp) {
        // Every attempt counts, the one that meets the end included: the
        // reported size is the length plus one.
        int count = 0;
        while (!std::feof(fp)) {
            std::fgetc(fp);
            ++count;
            if (std::ferror(fp))
                break;
        }
        *size = count;
        return SUCCESS;
    });
}

int co_CfgFile_GetAllContent(const char* filename, int sem_key, int n, char* buf, DbPrintf_Class* pDB)
{
    if (!file_name_ok("co_CfgFile_GetAllContent", filename, pDB))
        return INVALID_ARGUMENT;
    if (buf == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_GetAllContent] Output == NULL\n");
        return INVALID_ARGUMENT;
    }

    return with_locked_file("co_CfgFile_GetAllContent", sem_key, filename, pDB, [&](FILE* fp) {
        if (n > 0)
            std::fread(buf, 1, static_cast<size_t>(n), fp);
        return SUCCESS;
    });
}

int co_CfgFile_UserName_Read(const char* filename, int sem_key, const char* username, char* output, DbPrintf_Class* pDB)
{
    if (!file_name_ok("co_CfgFile_UserName_Read", filename, pDB))
        return INVALID_ARGUMENT;
    if (username == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_UserName_Read] itemname == NULL\n");
        return INVALID_ARGUMENT;
    }
    if (output == nullptr) {
        TimePrint(pDB, 1, "[co_CfgFile_UserName_Read] output == NULL\n");
        return INVALID_ARGUMENT;
    }

    return with_locked_file("co_CfgFile_UserName_Read", sem_key, filename, pDB, [&](FILE* fp) {
        const int rc = read_user_number(fp, username, output);
        if (rc != SUCCESS)
            TimePrint(pDB, 1, "[co_CfgFile_UserName_Read] not found itemname %s\n", username);
        return rc;
    });
}

int GetFileSize(const char* path, long long* size, DbPrintf_Class* pDB)
{
    (void)pDB;
    if (size != nullptr)
        *size = -1;
    if (path == nullptr || size == nullptr)
        return DEBUG_WARNING;
    int fd = open(path, O_RDONLY);
    if (fd == -1)
        return CANNOT_FILEOPEN;
    off64_t end = lseek64(fd, 0, SEEK_END);
    close(fd);
    if (end == -1)
        return SEEK_FAILED;
    *size = end;
    return SUCCESS;
}
