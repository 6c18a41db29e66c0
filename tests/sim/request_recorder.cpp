#include "tests/sim/request_recorder.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>

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

std::vector<RecordedRequest> ReadRequestRecords(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<RecordedRequest> out;
    size_t pos = 0;
    while (pos < all.size()) {
        const size_t nl = all.find('\n', pos);
        if (nl == std::string::npos || all.compare(pos, 9, "#REQUEST ") != 0)
            break;
        RecordedRequest r;
        r.header = all.substr(pos, nl - pos);
        const size_t b = r.header.rfind(" bytes=");
        if (b == std::string::npos)
            break;
        const size_t len = std::stoul(r.header.substr(b + 7));
        if (nl + 1 + len + 1 > all.size() || all[nl + 1 + len] != '\n')
            break;
        r.raw = all.substr(nl + 1, len);
        out.push_back(std::move(r));
        pos = nl + 1 + len + 1;
    }
    return out;
}

}  // namespace otools
