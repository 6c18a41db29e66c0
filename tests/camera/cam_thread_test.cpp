#include "camera/cam_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "camera/channel_config.h"
#include "camera/camera_test_support.h"
#include "camera/shared_state.h"
#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/time_utils.h"
#include "fifo/frame_fifo.h"
#include "net/process_utils.h"

namespace {

constexpr int kChannel = 4;
constexpr int kVideoSize = 819200;
const char* const kMyIp = "192.0.2.1";  // eth0 of the test's network namespace

// The camera thread with its back-off wait replaced: the first exponents
// are recorded and each wait is cut to a millisecond, so the sequence can
// be checked without waiting 31 seconds.
std::atomic<int> g_backOffCount{0};
std::atomic<int> g_backOffExponent[8];

class RecordingCamThread : public Class_CamThread {
protected:
    void BackOffSleep(int exponent) override
    {
        int n = g_backOffCount++;
        if (n < 8) {
            g_backOffExponent[n].store(exponent);
        }
        UsecSleep(1000);
    }
};

// A camera streaming pictures, parts per connection (0: until the client
// leaves).
FakePeer::Handler CameraStream(int parts)
{
    return [parts](int fd, const std::string&, int) {
        bool ok = SendAll(fd, StreamHead());
        for (int n = 0; ok && (parts == 0 || n < parts); n++) {
            ok = SendAll(fd, PartHead(2000) + Picture(n, 2000) + "\r\n");
            std::this_thread::sleep_for(std::chrono::milliseconds(5));  // a camera's pacing
        }
    };
}

// Each test has a set-up g_Fifo and starts the camera thread in a pool of
// its own.
class CamThreadTest : public ConfDirTest {
protected:
    void SetUp() override
    {
        ASSERT_EQ(SIGUSER1_Ignores(), SUCCESS);
        ConfDirTest::SetUp();
        g_backOffCount.store(0);
        g_channelNum.store(kChannel);
        g_flagLoginUserExist.store(0);
        g_ConnectState.store(1);
        g_lnDiffTimeSumPT.store(0);
        g_flgAlreadySendStop.store(0);
        ASSERT_EQ(g_Fifo.Setup(2, 4, kVideoSize, 128, kChannel), SUCCESS);
    }

    void TearDown() override
    {
        if (m_started) {
            EXPECT_EQ(m_pool.All_ThreadDestruct(10000), SUCCESS);
        }
        g_Fifo.Cleanup();
        g_flagLoginUserExist.store(0);
        ConfDirTest::TearDown();
    }

    void WriteConfig(const std::string& cameraIp, int cameraPort)
    {
        Keys keys = ValidChannelKeys();
        keys["encoder_ip"] = cameraIp;
        keys["encoder_port"] = std::to_string(cameraPort);
        keys["translator_calarm_rec_postterm"] = "3600";
        WriteChannels({{kChannel, keys}});
        ASSERT_EQ(g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum(kChannel), SUCCESS);
    }

    void StartThread(Class_CamThread* thread)
    {
        thread->m_pOwner = &m_pool;
        ASSERT_EQ(m_pool.ExecThread(thread), SUCCESS);
        m_started = true;
    }

    // The newest committed data number, -1 before the first frame.
    static long long Tail()
    {
        long long top = -1;
        long long tail = -1;
        return g_Fifo.GetTopTailDataNo(&top, &tail) == SUCCESS ? tail : -1;
    }

    CamThread_ControlClass m_pool;
    bool m_started = false;
};

TEST_F(CamThreadTest, DroppedConnectionReconnectsAtOnceWithoutBackOff)
{
    FakePeer camera(kMyIp, 0, CameraStream(2));
    WriteConfig(kMyIp, camera.Port());
    g_flagLoginUserExist.store(1);
    StartThread(new RecordingCamThread());

    ASSERT_TRUE(WaitUntil([&] { return camera.Connections() >= 4 && Tail() >= 6; }));
    EXPECT_EQ(g_backOffCount.load(), 0) << "backed off after a dropped stream";
}

TEST_F(CamThreadTest, FailedStartsBackOffDoublingUpToSixteenSeconds)
{
    int closedPort = FakePeer(kMyIp, 0, [](int, const std::string&, int) {}).Port();
    WriteConfig(kMyIp, closedPort);  // nothing listens there any more
    g_flagLoginUserExist.store(1);
    StartThread(new RecordingCamThread());

    ASSERT_TRUE(WaitUntil([] { return g_backOffCount.load() >= 7; }));
    const std::vector<int> first(g_backOffExponent, g_backOffExponent + 7);
    EXPECT_EQ(first, (std::vector<int>{0, 1, 2, 3, 4, 4, 4})) << "waits of 1, 2, 4, 8, 16, 16, 16 s";
    EXPECT_EQ(g_ConnectState.load(), 0);
    EXPECT_EQ(Tail(), -1);
}

TEST_F(CamThreadTest, UnusableFifoEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    FakePeer camera(kMyIp, 0, CameraStream(0));
    WriteConfig(kMyIp, camera.Port());
    EXPECT_EXIT(
        {
            g_Fifo.Cleanup();
            g_flagLoginUserExist.store(1);
            StartThread(new Class_CamThread());
            WaitUntil([] { return false; });
        },
        ::testing::ExitedWithCode(255), "");
}

}  // namespace
