#ifndef OSTREL_TESTS_SUPPORT_TEMP_DIR_H
#define OSTREL_TESTS_SUPPORT_TEMP_DIR_H

#include <string>

// The tests' one scratch directory: a fresh directory under /tmp
// (/tmp/<prefix>_XXXXXX), removed with everything in it when the object is
// destroyed. With Cwd::Enter the process's working directory moves into it
// until then, for code that reads and writes relative to it (conf/, log/,
// the states file), as the daemon does. A directory that cannot be made or
// entered is reported on standard error and aborts the test program.
// Not thread-safe: make and destroy it on the test's own thread.
class TempDir {
public:
    enum class Cwd { Stay, Enter };

    explicit TempDir(const char* prefix = "ostrel_test", Cwd cwd = Cwd::Stay);
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    // Path() + "/" + name.
    std::string File(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
    std::string m_oldCwd;  // empty unless entered
};

#endif
