#ifndef OSTREL_CONF_WRITE_IF_CHANGED_H
#define OSTREL_CONF_WRITE_IF_CHANGED_H

class DbPrintf_Class;
class StringBuf_Class;

// Writes content's text to path unless the file already holds exactly
// that text (then nothing is touched: no write, same file, same times).
// A file of the same size but other bytes is removed and written anew. The
// file is opened for writing with creation but WITHOUT truncation, so when
// an existing file of another size is longer than the new text, its old
// tail stays after the new bytes. This is the writer's defined behaviour;
// a caller that shrinks a file removes it first.
// The file's mode is set to 0666.
// Results: SUCCESS; DEBUG_WARNING for null arguments; MALLOC_ERROR;
// SYS_FUNC_ERROR when a read, remove, open, write or mode change fails.
int FileIsNewCheck_AndWrite(const char* path, StringBuf_Class* content, DbPrintf_Class* pDB = nullptr);

#endif
