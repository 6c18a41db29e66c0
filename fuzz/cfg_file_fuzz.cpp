// Fuzz target: the line reader of the configuration files on a generated
// file. Input: a selector byte (the output size, 1 to 256 bytes), the item
// name up to the first LF, then the file. The output sits in an exactly
// sized heap buffer, so a write past it is caught.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/cfg_file.h"
#include "common/return_codes.h"
#include "fuzz_support.h"

namespace {

// A key of its own, so that fuzzing never waits on a running daemon's lock.
constexpr int kFuzzSemKey = CFGFILE_SEM_KEY + 0x4655;

// Some line of the file, read in pieces of at most LINE_MAXSIZE - 1 bytes as
// the reader does, is "[=...]item=value" ending in LF or the end of the file.
bool HasLine(const std::string& file, const std::string& item, const std::string& value)
{
    size_t pos = 0;
    while (pos < file.size()) {
        size_t nl = file.find('\n', pos);
        size_t end = std::min(nl == std::string::npos ? file.size() : nl + 1, pos + LINE_MAXSIZE - 1);
        std::string piece = file.substr(pos, end - pos);
        piece = piece.substr(0, strlen(piece.c_str())); // a NUL ends what the reader sees
        pos = end;
        size_t name = piece.find_first_not_of('=');
        if (name == std::string::npos || piece[0] == '#' || isspace(static_cast<unsigned char>(piece[0]))) {
            continue;
        }
        std::string rest = piece.substr(name);
        if (rest == item + "=" + value || rest == item + "=" + value + "\n" ||
            (value.empty() && (rest == item || rest == item + "\n"))) {
            return true;
        }
    }
    return false;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 65536) {
        return 0;
    }
    const int outputSize = 1 + data[0];
    const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
    size_t nl = rest.find('\n');
    if (nl == std::string::npos || nl == 0 || nl >= LINE_MAXSIZE) {
        return 0;
    }
    const std::string item = rest.substr(0, nl);
    if (item.find('\0') != std::string::npos) {
        return 0;
    }
    const std::string file = rest.substr(nl + 1);

    char path[] = "/tmp/ostrel-cfg-fuzz-XXXXXX";
    int fd = mkstemp(path);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(write(fd, file.data(), file.size()) == static_cast<ssize_t>(file.size()));
    close(fd);
    std::vector<char> out(static_cast<size_t>(outputSize), '\x55');
    int rc = co_CfgFile_Read(path, kFuzzSemKey, item.c_str(), out.data(), outputSize, nullptr);
    unlink(path);

    if (rc == SUCCESS) {
        size_t len = strnlen(out.data(), out.size());
        FUZZ_CHECK(len < out.size());
        FUZZ_CHECK(HasLine(file, item, std::string(out.data(), len)));
    } else if (rc == DATA_LARGE_THEN_BUF) {
        FUZZ_CHECK(out[0] == '\0');
    } else {
        FUZZ_CHECK(rc == NOTFOUND_ITEM);
    }
    return 0;
}
