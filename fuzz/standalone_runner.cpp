// Replays stored fuzz inputs without libFuzzer: every regular file of each
// directory (or each file) named on the command line is passed once to
// LLVMFuzzerTestOneInput. A fault aborts the run like any failed test; the
// file being replayed is printed first so that it can be found.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool is_regular(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// Regular files of dir in name order (so a replay is reproducible), or the
// path itself when it names a file.
std::vector<std::string> list_inputs(const std::string& path)
{
    std::vector<std::string> files;
    if (is_regular(path)) {
        files.push_back(path);
        return files;
    }
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr) {
        return files;
    }
    while (dirent* e = readdir(dir)) {
        std::string full = path + "/" + e->d_name;
        if (e->d_name[0] != '.' && is_regular(full)) {
            files.push_back(full);
        }
    }
    closedir(dir);
    std::sort(files.begin(), files.end());
    return files;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s DIR|FILE...\n", argv[0]);
        return 2;
    }
    int replayed = 0;
    for (int i = 1; i < argc; i++) {
        std::vector<std::string> files = list_inputs(argv[i]);
        if (files.empty()) {
            std::fprintf(stderr, "%s: no inputs in %s\n", argv[0], argv[i]);
            return 1;
        }
        for (const std::string& f : files) {
            std::ifstream in(f, std::ios::binary);
            std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            std::fprintf(stderr, "replay %s (%zu bytes)\n", f.c_str(), bytes.size());
            // An exactly sized heap copy, so that a sanitizer sees any read
            // past the input's end.
            uint8_t* copy = new uint8_t[bytes.empty() ? 1 : bytes.size()];
            std::copy(bytes.begin(), bytes.end(), copy);
            LLVMFuzzerTestOneInput(copy, bytes.size());
            delete[] copy;
            replayed++;
        }
    }
    std::fprintf(stderr, "%d inputs replayed\n", replayed);
    return 0;
}
