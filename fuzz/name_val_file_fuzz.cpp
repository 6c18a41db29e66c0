// Fuzz target: the name=value file reader. The first byte is the table's
// capacity (1 to 256 pairs); the rest is the file. Every pair kept must be a
// line of the file as the reader defines it, in file order.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/name_val_file.h"
#include "common/return_codes.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size > 300000) {
        return 0;
    }
    const int capacity = 1 + data[0];
    const std::string file(reinterpret_cast<const char*>(data + 1), size - 1);

    char path[] = "/tmp/ostrel-nameval-fuzz-XXXXXX";
    int fd = mkstemp(path);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(write(fd, file.data(), file.size()) == static_cast<ssize_t>(file.size()));
    close(fd);
    Parsing_NameValFile_Class table(capacity);
    int rc = table.Parsing_FromFile(path);
    unlink(path);

    if (file.empty()) {
        FUZZ_CHECK(rc == CANNOT_FILEOPEN);
        return 0;
    }
    if (file.size() >= 262144) {
        FUZZ_CHECK(rc == DATA_LARGE_THEN_BUF);
        return 0;
    }
    FUZZ_CHECK(rc == SUCCESS);
    FUZZ_CHECK(table.GetCount() <= capacity);

    size_t searchFrom = 0;
    for (int i = 0; i < table.GetCount(); i++) {
        const std::string name = fuzz::Str(table.Get(i)->m_Name);
        const std::string val = fuzz::Str(table.Get(i)->m_Val);
        for (unsigned char c : name) {
            FUZZ_CHECK(AsciiFile_Char[c] == 1 && c != '#' && c != '=' && c != '\r' && c != '\n');
        }
        for (unsigned char c : val) {
            FUZZ_CHECK(AsciiFile_Char[c] == 1 && c != '=' && c != '\r' && c != '\n');
        }
        // The pair stands in the file at a line start, after the previous
        // pair, and its value runs to a line end or the end of the file.
        const std::string line = name + "=" + val;
        size_t at = searchFrom;
        bool found = false;
        while ((at = file.find(line, at)) != std::string::npos) {
            bool lineStart = at == 0 || file[at - 1] == '\n';
            size_t end = at + line.size();
            bool lineEnd = end == file.size() || file[end] == '\r' || file[end] == '\n';
            if (lineStart && lineEnd) {
                found = true;
                break;
            }
            at++;
        }
        FUZZ_CHECK(found);
        searchFrom = at + line.size();
    }
    return 0;
}
