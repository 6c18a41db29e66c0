#ifndef OSTREL_TESTS_CONTROL_CONTROL_TEST_SUPPORT_H
#define OSTREL_TESTS_CONTROL_CONTROL_TEST_SUPPORT_H

// Control-port test set-up: channel settings, the FIFO, a pool of workers
// and a raw HTTP client (on tests/support's sockets) on the channel's own
// address (eth0 in the test namespace) or a foreign one.

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "camera/channel_config.h"
#include "camera/shared_state.h"
#include "common/return_codes.h"
#include "control/control_port_pool.h"
#include "fifo/frame_fifo.h"
#include "net/process_utils.h"
#include "temp_dir.h"
#include "test_sockets.h"

namespace control_test {

constexpr const char* kOwnIp = "192.0.2.1";
constexpr const char* kForeignIp = "127.0.0.1";

inline void write_config(const char* dataType = "Ostrel", const char* postterm = "30")
{
    std::ofstream("conf/Config.txt", std::ios::trunc)
        << "translator_tarndatatype_0001=" << dataType << "\nencoder_ip_0001=192.0.2.50\n"
        << "encoder_port_0001=80\ntranslator_connect_ip_0001=192.0.2.60\ntranslator_connect_port_0001=8080\n"
        << "translator_connect_camerano_0001=1\nchannel_authentic_switch_0001=0\n"
        << "translator_calarm_rec_postterm_0001=" << postterm << "\n";
}

// Once per test program, as the daemon's start-up does: signals, working
// directory, channel 1's settings in memory (myip = eth0) and the FIFO.
inline void ensure_process_setup()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    ASSERT_EQ(SIGUSER1_Ignores(), SUCCESS);
    ASSERT_EQ(SIGPIPE_Ignores(), SUCCESS);
    // The working directory of the whole test program, removed at its exit.
    static TempDir dir("ostrel_control", TempDir::Cwd::Enter);
    ASSERT_EQ(mkdir("conf", 0777), 0);
    write_config();
    g_channelNum.store(1);
    ASSERT_EQ(g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum(1, nullptr), SUCCESS);
    ASSERT_EQ(g_Fifo.Setup(2, 4, 819200, 128, 1), SUCCESS);
}

// A connection from src to the listener (reached at the same address).
inline int connect_from(const char* src, unsigned short port)
{
    return ConnectTo(src, port, src);
}

inline std::string read_to_close(int fd)
{
    std::string out = ReadToClose(fd);
    close(fd);
    return out;
}

// An answer split into head (Date value masked as "*") and body.
struct Reply {
    std::string head, body;
};

inline Reply parse_reply(const std::string& raw)
{
    size_t end = raw.find("\r\n\r\n");
    if (end == std::string::npos)
        return Reply{raw, ""};
    Reply r{raw.substr(0, end + 4), raw.substr(end + 4)};
    size_t date = r.head.find("\r\nDate: ");
    if (date != std::string::npos)
        r.head.replace(date + 8, r.head.find("\r\n", date + 2) - date - 8, "*");
    return r;
}

inline std::string get(const std::string& uri, const char* method = "GET")
{
    return std::string(method) + " " + uri + " HTTP/1.1\r\n\r\n";
}

// Head of a "text/plain" answer with a body of `length` bytes.
inline std::string text_head(const std::string& status, size_t length, const std::string& extra = "")
{
    return "HTTP/1.1 " + status +
           "\r\nDate: *\r\nServer: Ostrel Relay\r\nContent-Type: text/plain\r\n"
           "Pragma: no-cache\r\n" +
           (length ? "Content-Length: " + std::to_string(length) + "\r\n" : "") + extra + "Connection: close\r\n\r\n";
}

// Workers on a listening socket of every address, stopped after the test.
class ServerFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        ensure_process_setup();
        int port = 0;
        listenFd_ = ListenOn("0.0.0.0", 0, 128, &port);
        port_ = static_cast<unsigned short>(port);
        ASSERT_EQ(pool_.Init_ListenFd(listenFd_), SUCCESS);
        for (int i = 0; i < workers(); ++i)
            ASSERT_EQ(pool_.Add_Thread(nullptr), SUCCESS);
    }

    void TearDown() override
    {
        EXPECT_EQ(pool_.All_ThreadDestruct(10000, nullptr), SUCCESS);
        close(listenFd_);
    }

    virtual int workers() const { return 1; }

    // One request (whole, or in two writes split at `split`) and its answer.
    Reply ask(const std::string& request, const char* src = kOwnIp, size_t split = 0)
    {
        int fd = connect_from(src, port_);
        EXPECT_GE(fd, 0);
        if (split == 0)
            EXPECT_TRUE(SendAll(fd, request));
        else
            EXPECT_TRUE(SendAll(fd, request.substr(0, split)) && SendAll(fd, request.substr(split)));
        return parse_reply(read_to_close(fd));
    }

    int listenFd_ = -1;
    unsigned short port_ = 0;
    ControlPort_ServerThread_ControlClass pool_;
};

}  // namespace control_test

#endif
