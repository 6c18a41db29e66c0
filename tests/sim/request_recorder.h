#ifndef OSTREL_TOOLS_REQUEST_RECORDER_H
#define OSTREL_TOOLS_REQUEST_RECORDER_H

// Records the raw requests a simulator received, one record each:
//
//   "#REQUEST <n> peer=<a.b.c.d:port> t_us=<realtime us> bytes=<len>\n"
//   <len raw bytes exactly as received>
//   "\n"
//
// to a file (appended, flushed per record) and/or to standard output, so
// that tests and operators can compare them byte for byte (the tests read
// them back with the harness, tests/harness).
//
// Thread-safe: Record may be called from several connection threads.

#include <cstdio>
#include <mutex>
#include <string>

namespace otools {

class RequestRecorder {
public:
    RequestRecorder() = default;
    ~RequestRecorder();
    RequestRecorder(const RequestRecorder&) = delete;
    RequestRecorder& operator=(const RequestRecorder&) = delete;

    // path empty = no file. False (with *err) if the file cannot be opened.
    bool Open(const std::string& path, bool toStdout, std::string* err);
    void Record(const std::string& peer, const std::string& raw);
    int Count() const;

private:
    mutable std::mutex mu_;
    FILE* file_ = nullptr;  // guarded by mu_
    bool stdout_ = false;
    int count_ = 0;  // guarded by mu_
};

}  // namespace otools

#endif  // OSTREL_TOOLS_REQUEST_RECORDER_H
