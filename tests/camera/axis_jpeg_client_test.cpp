#include "camera/axis_jpeg_client.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <string>
#include <vector>

#include "camera/camera_test_support.h"
#include "common/return_codes.h"
#include "http/client_http_multipart.h"

namespace {

constexpr int kBodySize = 819200;

const std::string kZeroFields =
    std::string(" ") + std::string(13, '0') + ":" + std::string(5, '0') + ":" + std::string(41, '0') + ":";

// A client aimed at the fake camera on 127.0.0.1, no authorisation.
class AxisClientTest : public ::testing::Test {
protected:
    void Prepare(CClient_AXISJPEGMultiPart& client, int port, const char* camera = "1")
    {
        ASSERT_EQ(client.Initialize(kBodySize), SUCCESS);
        ASSERT_EQ(client.SetSocketTimeout(2000), SUCCESS);
        ASSERT_EQ(client.SetSocketExitFlag(&exitFlag_), SUCCESS);
        ASSERT_EQ(client.SetMyself("0.0.0.0"), SUCCESS);
        ASSERT_EQ(client.SetTarget("127.0.0.1", port, camera), SUCCESS);
        ASSERT_EQ(client.SetTargetAuth(0, nullptr, nullptr), SUCCESS);
    }

    SockExitFlag exitFlag_{0};
};

TEST_F(AxisClientTest, RequestCarriesPathUserAgentAndOptionalBasicAuthorisation)
{
    FakePeer camera("127.0.0.1", 0, [](int fd, const std::string&, int) { SendAll(fd, StreamHead()); });
    struct Row {
        const char* cameraNo;
        int auth;
        const char* user;
        const char* password;
        const char* request;
        const char* note;
    } rows[] = {
        {"2", 0, nullptr, nullptr,
         "GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=2 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n", "plain"},
        {"2", 1, "root", "pass",
         "GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=2 HTTP/1.0\r\nAuthorization: Basic cm9vdDpwYXNz\r\n"
         "User-Agent: Tarnmoor\r\n\r\n",
         "Basic credentials before the extra header"},
        {"12345678901234567890", 0, nullptr, nullptr,
         "GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=123456789012345 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n",
         "auth switched off again; a long camera number keeps 15 characters"},
    };
    CClient_AXISJPEGMultiPart client;
    Prepare(client, camera.Port());
    size_t n = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        ASSERT_EQ(client.SetTarget("127.0.0.1", camera.Port(), row.cameraNo), SUCCESS);
        ASSERT_EQ(client.SetTargetAuth(row.auth, row.user, row.password), SUCCESS);
        ASSERT_EQ(client.Start(), SUCCESS);
        ASSERT_TRUE(WaitUntil([&] { return camera.Requests().size() > n; }));
        EXPECT_EQ(camera.Requests()[n++], row.request);
        client.Stop();
    }
}

// A picture followed by surplus line ends arrives whole with nothing written
// past it; one that does not fit fails, closes the stream, and Start
// reconnects.
TEST_F(AxisClientTest, PictureLargerThanTheBufferClosesTheStreamAndStartReconnects)
{
    FakePeer camera("127.0.0.1", 0, [](int fd, const std::string&, int) {
        SendAll(fd, StreamHead() + PartHead(1000) + Picture(0, 1000) + "\r\n\r\n\r\n" + PartHead(5000) +
                        Picture(1, 5000) + "\r\n");
        ReadToClose(fd);
    });
    CClient_AXISJPEGMultiPart client;
    Prepare(client, camera.Port());
    std::vector<char> buf(4096);
    int size = 0;
    _Option_AXISJPEGMultiPart option;
    for (int conn = 1; conn <= 2; conn++) {
        SCOPED_TRACE("connection " + std::to_string(conn));
        ASSERT_EQ(client.Start(), SUCCESS);
        memset(buf.data(), 0x5a, buf.size());
        ASSERT_EQ(client.GetData(buf.data(), 4096, &size, &option), SUCCESS);
        EXPECT_EQ(size, 1000);
        EXPECT_TRUE(std::string(buf.data(), 1000) == Picture(0, 1000));
        EXPECT_EQ(buf[1000], 0x5a) << "written past the picture";
        EXPECT_EQ(strlen(option.strOption), 75u);
        size = -7;
        EXPECT_EQ(client.GetData(buf.data(), 4096, &size, &option), DATASIZE_LARGE);
        EXPECT_EQ(size, -7);
        EXPECT_TRUE(WaitUntil([&] { return camera.Finished() == conn; })) << "the connection was not closed";
        EXPECT_NE(client.GetData(buf.data(), 4096, &size, &option), SUCCESS) << "no connection after the failure";
    }
}

// The reader keeps only part heads: the data go straight from the socket to
// the caller. The camera sends nothing beyond the response head until the
// client has read it, so no picture byte can have been taken in as
// read-ahead; the rest comes in pieces.
TEST(MultiPartClientDirectRead, PictureDataNeverEnterTheReadersBuffer)
{
    std::atomic<bool> started{false};
    const size_t sizes[] = {300000, 200000, 5};
    FakePeer camera("127.0.0.1", 0, [&](int fd, const std::string&, int) {
        SendAll(fd, StreamHead());
        if (!WaitUntil([&] { return started.load(); })) {
            return;
        }
        std::string s;
        for (size_t i = 0; i < 3; i++) {
            s += PartHead(sizes[i]) + Picture(i, sizes[i]) + "\r\n";
        }
        // Pieces that split heads, data and line ends.
        for (size_t off = 0; off < s.size() && SendAll(fd, s.substr(off, 997)); off += 997) {
        }
        ReadToClose(fd);
    });
    SockExitFlag exitFlag{0};
    CClient_HTTP_MultiPart client;
    ASSERT_EQ(client.Initialize(kBodySize), SUCCESS);
    client.SetMyself("0.0.0.0");
    client.SetTargetIp("127.0.0.1");
    client.SetTargetPort(camera.Port());
    client.SetTargetPath("/axis-cgi/mjpg/video.cgi?showlength=1&camera=1");
    client.SetSocketExitFlag(&exitFlag);
    ASSERT_EQ(client.Get(), SUCCESS);
    started.store(true);

    std::vector<char> buf(kBodySize);
    for (size_t i = 0; i < 3; i++) {
        int size = 0;
        ASSERT_EQ(client.Read(buf.data(), kBodySize, &size), SUCCESS);
        ASSERT_EQ(static_cast<size_t>(size), sizes[i]);
        EXPECT_TRUE(std::string(buf.data(), sizes[i]) == Picture(i, sizes[i]));
        EXPECT_LT(client.Response().m_nFilled, 200) << "picture " << i << " passed through the reader";
        EXPECT_EQ(client.Response().m_nStatus, 200);
    }
}

TEST(AxisOptionRecord, TimeFieldIsLocalMillisecondsInHex)
{
    struct Row {
        const char* tz;
        long long sec;
        long usec;
        const char* field;
        const char* note;
    } rows[] = {
        {"UTC0", 1262347200, 250000, "0125e9c1a6fa", "12:00:00.250 on 1 January 2010"},
        {"JST-9", 1262347200 - 9 * 3600, 250999, "0125e9c1a6fa", "east of UTC adds; microseconds cut"},
        {"EST5", 5 * 3600, 0, "000000000000", "west of UTC subtracts"},
        {"UTC0", 0, 999999, "0000000003e7", "zero-padded to 12 digits"},
        {"UTC0", 300000000000LL, 0, "110d9316ec000", "more than 12 digits are kept"},
    };
    const char* saved = getenv("TZ");
    const std::string savedTz = saved != nullptr ? saved : "";
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        setenv("TZ", row.tz, 1);
        timeval tv{static_cast<time_t>(row.sec), row.usec};
        _Option_AXISJPEGMultiPart option;
        memset(&option, 0x77, sizeof option);
        ASSERT_EQ(MakeAXISJPEGOption(&tv, &option), SUCCESS);
        EXPECT_EQ(std::string(option.strOption), kZeroFields + row.field);
        for (size_t k = strlen(option.strOption); k < sizeof option.strOption; k++) {
            ASSERT_EQ(option.strOption[k], '\0') << "byte " << k;
        }
    }
    saved != nullptr ? setenv("TZ", savedTz.c_str(), 1) : unsetenv("TZ");
    tzset();
}

}  // namespace
