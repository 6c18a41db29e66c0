#include "temp_dir.h"

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>
#include <vector>

namespace {

[[noreturn]] void fail(const char* what, const std::string& path)
{
    fprintf(stderr, "temp dir: %s %s failed: %s\n", what, path.c_str(), strerror(errno));
    abort();
}

}  // namespace

TempDir::TempDir(const char* prefix, Cwd cwd)
{
    std::string pattern = std::string("/tmp/") + prefix + "_XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) == nullptr)
        fail("mkdtemp", pattern);
    m_path = buf.data();
    if (cwd == Cwd::Enter) {
        char old[PATH_MAX];
        if (getcwd(old, sizeof old) == nullptr)
            fail("getcwd", m_path);
        if (chdir(m_path.c_str()) != 0)
            fail("chdir", m_path);
        m_oldCwd = old;
    }
}

TempDir::~TempDir()
{
    // Back out first: a directory in use as the working directory can be
    // removed, but the process would be left in a deleted one.
    if (!m_oldCwd.empty() && chdir(m_oldCwd.c_str()) != 0)
        fail("chdir", m_oldCwd);
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}
