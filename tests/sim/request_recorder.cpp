#include "tests/sim/request_recorder.h"

#include <cerrno>
#include <cstring>

#include "viewer/tool_net.h"

namespace otools {

RequestRecorder::~RequestRecorder()
{
    if (file_)
        std::fclose(file_);
}

bool RequestRecorder::Open(const std::string& path, bool toStdout, std::string* err)
{
    std::lock_guard<std::mutex> lock(mu_);
    stdout_ = toStdout;
    if (path.empty())
        return true;
    file_ = std::fopen(path.c_str(), "ab");
    if (!file_) {
        *err = "cannot open " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void RequestRecorder::Record(const std::string& peer, const std::string& raw)
{
    std::lock_guard<std::mutex> lock(mu_);
    ++count_;
    const std::string head = "#REQUEST " + std::to_string(count_) + " peer=" + peer +
                             " t_us=" + std::to_string(RealtimeUs()) + " bytes=" + std::to_string(raw.size()) + "\n";
    for (FILE* f : {file_, stdout_ ? stdout : nullptr}) {
        if (!f)
            continue;
        std::fwrite(head.data(), 1, head.size(), f);
        std::fwrite(raw.data(), 1, raw.size(), f);
        std::fputc('\n', f);
        std::fflush(f);
    }
}

int RequestRecorder::Count() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return count_;
}

}  // namespace otools
