#ifndef OSTREL_CONF_STATES_FILE_H
#define OSTREL_CONF_STATES_FILE_H

#include "common/tokens.h"

class DbPrintf_Class;
class StringBuf_Class;

// PPDStatesFile_Class: the small XML file through which the daemon tells the
// rest of the recording system its state, process id and control port.
//
// The file is rewritten whole (opened "w", no temporary file) at each state
// change, so a reader may briefly see it empty or truncated. A write that
// fails (a full file system) removes the file rather than leave a cut
// document that a later start could read. Deleting the file
// is how other programs ask the daemon to stop (the main loop polls IsFile).
// Element texts are written as given, without escaping. Nothing is logged
// here; callers log failures. Used by one thread at a time.
class PPDStatesFile_Class {
public:
    PPDStatesFile_Class();
    virtual ~PPDStatesFile_Class();

    PPDStatesFile_Class(const PPDStatesFile_Class&) = delete;
    PPDStatesFile_Class& operator=(const PPDStatesFile_Class&) = delete;

    // Copies the path (at most 255 characters), keeps an owned copy of the
    // daemon name, sets the process id to 0 and clears the States text.
    // SUCCESS; DEBUG_WARNING for a null argument.
    int Init(const char* name, const char* path, DbPrintf_Class* pDB = nullptr);

    // SUCCESS when the path can be opened for reading, else NOTFOUND_FILE.
    // A process out of descriptors (EMFILE, ENFILE) cannot open anything:
    // then the file counts as there when access() finds it readable, so
    // that the shortage is not taken for a deletion (a request to stop).
    int IsFile(DbPrintf_Class* pDB = nullptr) const;
    // Removes the file: SUCCESS or SYS_FUNC_ERROR.
    int FileUnLink(DbPrintf_Class* pDB = nullptr) const;

    // Write the document with the given state word (and comment); the file
    // gets mode 0666. SYS_FUNC_ERROR when it cannot be opened or written;
    // a file that could not be written whole is removed.
    // The plain form carries the build time and date in PPD_VersionTime, the
    // comment form the build date alone.
    int StatesWrite(const char* state, DbPrintf_Class* pDB = nullptr);
    int StatesWrite_WithComment(const char* state, const char* comment, DbPrintf_Class* pDB = nullptr);

    // Reads States, ProcessId and Port back from the file. Load and parse
    // failures are returned as they are; a missing root or one not named
    // "PPD.States" gives XMLPARSER_PARSER_ERROR; a missing States gives
    // NOTFOUND_ITEM. ProcessId and Port become -1 when absent. SUCCESS.
    int StatesRead(DbPrintf_Class* pDB = nullptr);

    // Debug dump of the fields.
    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    // The program's file name, written as PPD_Type. SUCCESS or the copy's
    // code (DEBUG_WARNING for an empty or null text).
    int SetType(const char* type, DbPrintf_Class* pDB = nullptr);
    void SetProcessId(int pid) { m_nProcessId = pid; }
    void SetPort(short port) { m_sPort = port; }

    // States text read back by StatesRead (owned, NUL-terminated; empty token
    // when none).
    const OneToken_Class& GetStates() const { return m_States; }
    int GetProcessId() const { return m_nProcessId; }
    short GetPort() const { return m_sPort; }
    const char* GetPath() const { return m_szPath; }

private:
    int WriteDocument(const char* state, const char* comment);

    OneToken_Class m_States;
    int m_nProcessId = 0;
    short m_sPort = 0;
    OneToken_Class m_Name;
    OneToken_Class m_Type;
    char m_szPath[256] = {};
};

// The daemon's states file.
extern PPDStatesFile_Class g_PPDStatesFile;

#endif
