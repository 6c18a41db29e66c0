#include "camera/axis_jpeg_client.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <atomic>
#include <string>
#include <vector>

#include "camera/fake_peer.h"
#include "common/return_codes.h"
#include "http/client_http_multipart.h"

namespace {

constexpr int kBodySize = 819200;

const std::string kZeroFields = std::string(" ") + std::string(13, '0') + ":" + std::string(5, '0') + ":" +
                                std::string(41, '0') + ":";

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
        {"3", 0, "root", "pass",
         "GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=3 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n",
         "switched off again: no authorisation line"},
        {"12345678901234567890", 0, nullptr, nullptr,
         "GET /axis-cgi/mjpg/video.cgi?showlength=1&camera=123456789012345 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n",
         "a long camera number keeps 15 characters"},
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
        EXPECT_EQ(camera.Requests()[n], row.request);
        n++;
        client.Stop();
    }
}

// Pictures of many sizes, some sharing one send, one trickled in pieces,
// one followed by surplus line ends: each must arrive whole, exactly, and
// nothing may be written past it (its CR LF included).
TEST_F(AxisClientTest, PicturesArriveByteIdenticalInTheCallersBuffer)
{
    const std::vector<size_t> sizes = {1, 2, 100, 5000, 70000, 300000, 3, 819200};
    FakePeer camera("127.0.0.1", 0, [&](int fd, const std::string&, int) {
        std::string batch = StreamHead();
        for (size_t i = 0; i < sizes.size(); i++) {
            batch += PartHead(sizes[i]) + Picture(i, sizes[i]) + "\r\n";
            if (i == 2) {
                batch += "\r\n\r\n"; // surplus line ends before the next boundary
            }
            if (i == 4) {
                // Cut into pieces that split heads, data and line ends.
                for (size_t off = 0; off < batch.size(); off += 997) {
                    if (!SendAll(fd, batch.substr(off, 997))) {
                        return;
                    }
                }
                batch.clear();
            }
        }
        SendAll(fd, batch);
        DrainUntilClosed(fd);
    });
    CClient_AXISJPEGMultiPart client;
    Prepare(client, camera.Port());
    ASSERT_EQ(client.Start(), SUCCESS);

    std::vector<char> buf(kBodySize + 64);
    std::string lastTime;
    for (size_t i = 0; i < sizes.size(); i++) {
        SCOPED_TRACE("picture " + std::to_string(i));
        memset(buf.data(), 0x5a, buf.size());
        int size = -1;
        _Option_AXISJPEGMultiPart option;
        memset(&option, 0x77, sizeof option);
        ASSERT_EQ(client.GetData(buf.data(), kBodySize, &size, &option), SUCCESS);
        ASSERT_EQ(static_cast<size_t>(size), sizes[i]);
        EXPECT_TRUE(std::string(buf.data(), sizes[i]) == Picture(i, sizes[i]));
        EXPECT_EQ(buf[sizes[i]], 0x5a) << "written past the picture";

        const std::string text(option.strOption);
        ASSERT_EQ(text.size(), 75u) << text;
        EXPECT_EQ(text.substr(0, 63), kZeroFields);
        EXPECT_GE(text.substr(63), lastTime) << "arrival times go forward";
        lastTime = text.substr(63);
    }
}

TEST_F(AxisClientTest, PictureLargerThanTheBufferClosesTheStreamAndStartReconnects)
{
    FakePeer camera("127.0.0.1", 0, [](int fd, const std::string&, int) {
        std::string s = StreamHead();
        const size_t sizes[] = {1000, 5000, 1000};
        for (size_t i = 0; i < 3; i++) {
            s += PartHead(sizes[i]) + Picture(i, sizes[i]) + "\r\n";
        }
        SendAll(fd, s);
        DrainUntilClosed(fd);
    });
    CClient_AXISJPEGMultiPart client;
    Prepare(client, camera.Port());
    ASSERT_EQ(client.Start(), SUCCESS);

    std::vector<char> buf(4096);
    int size = 0;
    _Option_AXISJPEGMultiPart option;
    ASSERT_EQ(client.GetData(buf.data(), 4096, &size, &option), SUCCESS);
    EXPECT_EQ(size, 1000);
    size = -7;
    EXPECT_EQ(client.GetData(buf.data(), 4096, &size, &option), DATASIZE_LARGE);
    EXPECT_EQ(size, -7);
    EXPECT_TRUE(WaitUntil([&] { return camera.Finished() == 1; })) << "the connection was not closed";
    EXPECT_NE(client.GetData(buf.data(), 4096, &size, &option), SUCCESS) << "no connection after the failure";

    ASSERT_EQ(client.Start(), SUCCESS);
    ASSERT_EQ(client.GetData(buf.data(), 4096, &size, &option), SUCCESS);
    EXPECT_EQ(camera.Connections(), 2);
    EXPECT_TRUE(std::string(buf.data(), 1000) == Picture(0, 1000));
}

// The reader keeps only part heads: the data go straight from the socket to
// the caller. The camera sends nothing beyond the response head until the
// client has read it, so no picture byte can have been taken in as
// read-ahead.
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
        SendAll(fd, s);
        DrainUntilClosed(fd);
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
        timeval tv{};
        tv.tv_sec = static_cast<time_t>(row.sec);
        tv.tv_usec = row.usec;
        _Option_AXISJPEGMultiPart option;
        memset(&option, 0x77, sizeof option);
        ASSERT_EQ(MakeAXISJPEGOption(&tv, &option), SUCCESS);
        EXPECT_EQ(std::string(option.strOption), kZeroFields + row.field);
        for (size_t k = strlen(option.strOption); k < sizeof option.strOption; k++) {
            ASSERT_EQ(option.strOption[k], '\0') << "byte " << k;
        }
    }
    if (saved != nullptr) {
        setenv("TZ", savedTz.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

} // namespace
