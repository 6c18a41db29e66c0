// Fuzz target: the line reader of the configuration files on a generated
// file. Input: a selector byte (the output size, 1 to 256 bytes), the item
// name up to the first LF, then the file. The answer is compared with a
// plain reading of the file; the output sits in an exactly sized heap
// buffer, so a write past it is caught.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "common/cfg_file.h"
#include "common/return_codes.h"
#include "fuzz_support.h"

namespace {

// A key of its own, so that fuzzing never waits on a running daemon's lock.
constexpr int kFuzzSemKey = CFGFILE_SEM_KEY + 0x4655;

// The value of the first line of the file, read in pieces of at most
// LINE_MAXSIZE - 1 bytes as the reader does (a piece ends after an LF, and
// a NUL ends what is seen of it), that names item: "[=...]item=value" or a
// bare "[=...]item" (a name never holds '='). False when no line does.
// Lines that start with '#' or a blank are no items.
bool FirstValue(const std::string& file, const std::string& item, std::string* value)
{
    size_t pos = 0;
    while (pos < file.size()) {
        size_t nl = file.find('\n', pos);
        size_t end = std::min(nl == std::string::npos ? file.size() : nl + 1, pos + LINE_MAXSIZE - 1);
        std::string piece = file.substr(pos, end - pos);
        piece.resize(strlen(piece.c_str()));
        pos = end;
        size_t name = piece.find_first_not_of('=');
        if (piece.empty() || name == std::string::npos || piece[0] == '#' ||
            isspace(static_cast<unsigned char>(piece[0]))) {
            continue;
        }
        // The name runs to the first '=' (or is the whole piece, its newline
        // included); the value from there to the newline.
        const std::string rest = piece.substr(name);
        const size_t eq = rest.find('=');
        if (rest.substr(0, eq) != item) {
            continue;
        }
        const std::string v = eq == std::string::npos ? std::string() : rest.substr(eq + 1);
        *value = v.substr(0, v.find('\n'));
        return true;
    }
    return false;
}

}  // namespace

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

    std::string value;
    if (!FirstValue(file, item, &value)) {
        FUZZ_CHECK(rc == NOTFOUND_ITEM);
    } else if (value.size() > static_cast<size_t>(outputSize - 1)) {
        FUZZ_CHECK(rc == DATA_LARGE_THEN_BUF && out[0] == '\0');
    } else {
        FUZZ_CHECK(rc == SUCCESS && std::string(out.data()) == value);
    }
    return 0;
}
