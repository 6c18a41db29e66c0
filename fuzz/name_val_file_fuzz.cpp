// Fuzz target: the name=value file reader. The first byte is the table's
// capacity (1 to 256 pairs); the rest is the file. The pairs kept are
// compared with a plain line-by-line reading of the file.
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

    // The pairs a reading of the file line by line (LF ends a line) keeps:
    // "name=value" with the value ending at a CR or the line's end; a name
    // with '#', CR or a refused byte, a value with '=' or a refused byte, and
    // a line without '=' are dropped. The table holds the first of them.
    std::vector<std::string> expected;
    size_t from = 0;
    while (from < file.size()) {
        size_t lf = file.find('\n', from);
        const std::string line = file.substr(from, lf == std::string::npos ? std::string::npos : lf - from);
        from = lf == std::string::npos ? file.size() : lf + 1;
        size_t eq = line.find('=');
        if (eq == std::string::npos) {
            continue;
        }
        const std::string name = line.substr(0, eq);
        const std::string val = line.substr(eq + 1, line.find('\r', eq + 1) - (eq + 1));
        bool keep = true;
        for (unsigned char c : name) {
            keep = keep && AsciiFile_Char[c] == 1 && c != '#' && c != '\r';
        }
        for (unsigned char c : val) {
            keep = keep && AsciiFile_Char[c] == 1 && c != '=';
        }
        if (keep) {
            expected.push_back(name + "|" + val + "\n");
        }
    }
    std::string want;
    for (size_t i = 0; i < expected.size() && i < static_cast<size_t>(capacity); i++) {
        want += expected[i];
    }
    const std::string got = fuzz::Pairs(table);
    if (got != want) {
        fprintf(stderr, "got:\n%s\nwant:\n%s\n", got.c_str(), want.c_str());
    }
    FUZZ_CHECK(got == want);
    return 0;
}
