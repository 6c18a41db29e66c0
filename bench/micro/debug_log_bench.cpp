// Log lines: one TimePrint of a typical failure line, in the daemon's mode 3
// (every write opens, appends and closes a rotating generation file), in
// mode 0 (one kept, stdio-buffered stream), and with level 0 (suppressed).
// The files go to a fresh directory under /tmp.
#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "common/debug_log.h"
#include "common/return_codes.h"

namespace {

std::string temp_dir()
{
    char templ[] = "/tmp/ostrel-logbench-XXXXXX";
    const char* dir = mkdtemp(templ);
    return dir ? dir : "/tmp";
}

void remove_dir(const std::string& dir)
{
    std::string cmd = "rm -rf '" + dir + "'";
    if (system(cmd.c_str()) != 0) {
        // leaves a directory under /tmp behind; nothing else to do
    }
}

void run_log(benchmark::State& state, int mode, int level)
{
    std::string dir = temp_dir();
    std::string name = dir + (mode == 0 ? "/log.txt" : "/Ostrel_01");
    DbPrintf_Class log(name.c_str(), mode);
    long long n = 0;
    for (auto _ : state) {
        TimePrint(&log, level, "[CAxisJpegClient::GetImage] RecvMultiPartData failed ::%d frame %lld\n", TIMEOUT, n++);
    }
    remove_dir(dir);
}

void BM_LogLine_Rotating(benchmark::State& state)
{
    run_log(state, 3, 1);
}
void BM_LogLine_KeptStream(benchmark::State& state)
{
    run_log(state, 0, 1);
}
void BM_LogLine_LevelZero(benchmark::State& state)
{
    run_log(state, 3, 0);
}

}  // namespace

BENCHMARK(BM_LogLine_Rotating);
BENCHMARK(BM_LogLine_KeptStream);
BENCHMARK(BM_LogLine_LevelZero);
