#ifndef OSTREL_COMMON_CFG_FILE_H
#define OSTREL_COMMON_CFG_FILE_H

#include "common/debug_log.h"

// Line-oriented name=value files ("name=value\n" per line, '#' comments)
// read and written through stdio under a System V semaphore, plus the
// semaphore wrappers themselves.
//
// Every co_CfgFile_* function except co_CfgFile_Copy takes the semaphore
// named by sem_key (P) before opening the file and gives it back (V) after
// closing it, so all processes and threads that use the same key and file
// are serialised. The semaphore is created with value 1 by whoever comes
// first and is taken with SEM_UNDO: a holder that dies gives it back.
//
// Diagnostics go to pDB at level 1; pDB defaults to the process log g_pDB
// (read at the call), and an explicit null silences them.

// A file name of more than FNAME_MAXSIZE characters is refused.
constexpr int FNAME_MAXSIZE = 256;
// Lines are read into a buffer of LINE_MAXSIZE bytes: at most 255
// characters per read; a longer physical line comes back in pieces, each
// piece handled as a line of its own.
constexpr int LINE_MAXSIZE = 256;
// The key every process uses for conf/Config.txt.
constexpr int CFGFILE_SEM_KEY = 3223110;

// Opens (creating it when needed) the one-semaphore set of key. A newly
// created set is initialised to 1; an existing one keeps its value.
// SUCCESS with *semid set, or SEMAPHORE_ERROR (null semid, semget or semctl
// failure).
int co_semaphore_getid(int key, int* semid, DbPrintf_Class* pDB = g_pDB);
// P (-1) and V (+1) on semaphore 0 of the set, both with SEM_UNDO. P blocks
// while the value is 0. SUCCESS or SEMAPHORE_ERROR.
int co_semaphore_p(int semid, DbPrintf_Class* pDB = g_pDB);
int co_semaphore_v(int semid, DbPrintf_Class* pDB = g_pDB);

// Reads the value of the first line whose name equals itemname exactly
// (case-sensitive, nothing trimmed) into output: every byte after the '='
// up to the newline, trailing blanks and a CR included. Lines starting with
// '#' or white space are never items. Leading '=' characters of a line are
// skipped before its name.
//
// output must hold outputSize bytes. A value longer than outputSize - 1
// characters is rejected rather than cut (a cut address or password would
// silently point somewhere else): output becomes the empty string and the
// result is DATA_LARGE_THEN_BUF. The default size, LINE_MAXSIZE, holds
// anything one line can yield.
//
// Results: SUCCESS; INVALID_ARGUMENT (null/overlong arguments, outputSize
// below 1); SEMAPHORE_ERROR; CANNOT_FILEOPEN; NOTFOUND_ITEM;
// DATA_LARGE_THEN_BUF.
int co_CfgFile_Read(const char* filename, int sem_key, const char* itemname, char* output,
                    int outputSize = LINE_MAXSIZE, DbPrintf_Class* pDB = g_pDB);

// Replaces the value of every line named itemname with input, rewriting
// the whole file through the temporary "<filename>__", which is left in
// place, and copying it to the file and to the backup "<filename>_".
// Comment and indented lines are copied unchanged; any other line is split
// at its first '=' and written back as name "=" value "\n" (so a line
// without '=' gains a "=" line after it). A missing item is not appended:
// the file is still rewritten and the result is NOTFOUND_ITEM.
// Results: SUCCESS; INVALID_ARGUMENT (also when strlen(itemname) +
// strlen(input) + 2 > LINE_MAXSIZE); SEMAPHORE_ERROR; CANNOT_FILEOPEN;
// NOTFOUND_ITEM; a co_CfgFile_Copy failure code.
int co_CfgFile_Write(const char* filename, int sem_key, const char* itemname, const char* input,
                     DbPrintf_Class* pDB = g_pDB);

// Copies a text file line by line (tofile is truncated). Takes no semaphore:
// co_CfgFile_Write calls it while holding one.
// Results: SUCCESS, INVALID_ARGUMENT (null, equal or overlong names),
// CANNOT_FILEOPEN.
int co_CfgFile_Copy(const char* fromfile, const char* tofile, DbPrintf_Class* pDB = g_pDB);

// *size = the number of single-byte read attempts until end of file, which
// is the file length plus one (an empty file gives 1).
int co_CfgFile_GetSize(const char* filename, int sem_key, int* size, DbPrintf_Class* pDB = g_pDB);

// Reads up to n raw bytes into buf. No terminator is added and the count
// read is not reported.
int co_CfgFile_GetAllContent(const char* filename, int sem_key, int n, char* buf, DbPrintf_Class* pDB = g_pDB);

// Looks among the lines starting with "u_user_name" for one whose value
// equals username; output (LINE_MAXSIZE bytes) receives the part of that
// line's name after its third '_' ("u_user_name_0003=alice" gives "0003").
// Every non-matching candidate line sets output to "-1" on the way.
// Results: SUCCESS, NOT_REGSTERED when no line matched, and the prologue
// codes of co_CfgFile_Read.
int co_CfgFile_UserName_Read(const char* filename, int sem_key, const char* username, char* output,
                             DbPrintf_Class* pDB = g_pDB);

// *size = the file's length by a 64-bit seek to its end, or -1 on failure.
// Results: SUCCESS, CANNOT_FILEOPEN, SEEK_FAILED, DEBUG_WARNING for a null
// argument.
int GetFileSize(const char* path, long long* size, DbPrintf_Class* pDB = nullptr);

#endif
