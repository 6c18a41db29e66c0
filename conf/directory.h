#ifndef OSTREL_CONF_DIRECTORY_H
#define OSTREL_CONF_DIRECTORY_H

class DbPrintf_Class;
class StringBuf_Class;

// PPD_Directory_Class: the recording system's directory document
// (Directory.Conf), root "Directory.Conf" with the optional children
// "UnixDomainSockDir" and "StatesDir", each a directory path. A present
// directory is stored with surrounding whitespace cut and a '/' appended
// where missing (a text cut at 255 bytes has no room left for it).
// Used by one thread at a time.
class PPD_Directory_Class {
public:
    PPD_Directory_Class();
    virtual ~PPD_Directory_Class() = default;

    PPD_Directory_Class(const PPD_Directory_Class&) = delete;
    PPD_Directory_Class& operator=(const PPD_Directory_Class&) = delete;

    // Both directories absent. SUCCESS.
    int Clear(DbPrintf_Class* pDB = nullptr);

    // Clears, then reads the file. Load and parse failures are returned as
    // they are; a missing root or one of another name gives
    // XMLPARSER_PARSER_ERROR. Missing or empty children leave that directory
    // absent and are not errors: SUCCESS. Texts longer than 255 bytes are
    // cut to the field.
    int Parsing_FromFile(const char* path, DbPrintf_Class* pDB = nullptr);

    // The states file path for a daemon name: "tmp.<name>.States" in the
    // working directory without StatesDir, else "<StatesDir><name>.States".
    // SUCCESS; DATA_LARGE_THEN_BUF when it does not fit in size bytes (out
    // then holds the cut text); DEBUG_WARNING for null arguments or size < 1.
    int Make_StatesFilePath(const char* name, char* out, int size, DbPrintf_Class* pDB = nullptr) const;

    int OutputBuffer(StringBuf_Class* buf, DbPrintf_Class* pDB = nullptr) const;

    // The directory text, or null when absent.
    const char* GetUnixDomainSockDir() const
    {
        return m_nUnixDomainSockDir_State == 0 ? m_szUnixDomainSockDir : nullptr;
    }
    const char* GetStatesDir() const { return m_nStatesDir_State == 0 ? m_szStatesDir : nullptr; }

private:
    int m_nUnixDomainSockDir_State = -1;
    char m_szUnixDomainSockDir[256] = {};
    int m_nStatesDir_State = -1;
    char m_szStatesDir[256] = {};
};

// Contents of the daemon's Directory.Conf.
extern PPD_Directory_Class g_PPDDirConfig_Base;

#endif
