#ifndef OSTREL_TESTS_CAMERA_CAMERA_TEST_SUPPORT_H
#define OSTREL_TESTS_CAMERA_CAMERA_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <string>

#include "common/test_files.h"
#include "test_sockets.h"

// The camera tests' own pieces: a camera's stream head, part heads and
// numbered pictures, and a working directory with channel settings. The
// fake camera and schedule server (FakePeer) come from tests/support.

inline std::string StreamHead()
{
    return "HTTP/1.0 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=myboundary\r\n\r\n";
}

inline std::string PartHead(size_t length)
{
    return "--myboundary\r\nContent-Type: image/jpeg\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
}

// Picture number seq: every byte depends on seq and position, so a picture
// that was cut, shifted or mixed with another is caught.
inline std::string Picture(uint64_t seq, size_t length)
{
    std::string p(length, '\0');
    for (size_t i = 0; i < length; i++) {
        p[i] = static_cast<char>((seq * 131 + i * 7 + (i >> 8)) & 0xff);
    }
    return p;
}

// A test run in a fresh working directory holding conf/, removed afterwards,
// with helpers writing channel settings to conf/Config.txt.
using Keys = std::map<std::string, std::string>;
const char* const kMissing = "\x01missing";  // a value that leaves its key out

inline Keys ValidChannelKeys()
{
    return {
        {"translator_tarndatatype", "ostrel"},
        {"encoder_ip", "10.0.0.7"},
        {"encoder_port", "8080"},
        {"translator_connect_ip", "10.0.0.9"},
        {"translator_connect_port", "9001"},
        {"translator_connect_camerano", "2"},
        {"channel_authentic_switch", "1"},
        {"channel_authentic_user_id", "root"},
        {"channel_authentic_user_password", "pass word"},
        {"translator_calarm_rec_postterm", "30"},
    };
}

class ConfDirTest : public test_files::ScratchDir {
protected:
    ConfDirTest() : ScratchDir(TempDir::Cwd::Enter) {}
    void SetUp() override
    {
        ScratchDir::SetUp();
        ASSERT_EQ(mkdir("conf", 0777), 0);
    }
    static void WriteChannels(const std::map<int, Keys>& channels)
    {
        std::ofstream out("conf/Config.txt", std::ios::trunc);
        out << "# channel settings\n";
        for (const auto& ch : channels) {
            char suffix[8];
            snprintf(suffix, sizeof suffix, "_%04d", ch.first);
            for (const auto& kv : ch.second) {
                if (kv.second != kMissing) {
                    out << kv.first << suffix << "=" << kv.second << "\n";
                }
            }
        }
    }
};

#endif
