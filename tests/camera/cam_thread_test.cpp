#include "camera/cam_thread.h"

#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <string>
#include <vector>

#include "camera/channel_config.h"
#include "camera/fake_peer.h"
#include "camera/shared_state.h"
#include "common/debug_log.h"
#include "common/return_codes.h"
#include "common/time_utils.h"
#include "fifo/frame_fifo.h"
#include "net/process_utils.h"

namespace {

constexpr int kChannel = 4;
constexpr int kVideoSize = 819200;
const char* const kMyIp = "192.0.2.1"; // eth0 of the test's network namespace

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

// A camera streaming pictures numbered on from *seq across connections,
// partsPerConnection each (0: until the client leaves).
FakePeer::Handler CameraStream(std::atomic<uint64_t>* seq, int partsPerConnection = 0)
{
    return [seq, partsPerConnection](int fd, const std::string&, int) {
        bool ok = SendAll(fd, StreamHead());
        for (int n = 0; ok && (partsPerConnection == 0 || n < partsPerConnection); n++) {
            uint64_t k = (*seq)++;
            ok = SendAll(fd, PartHead(2000 + k % 3000) + Picture(k, 2000 + k % 3000) + "\r\n");
            std::this_thread::sleep_for(std::chrono::milliseconds(5)); // a camera's pacing
        }
    };
}

// Each test runs in a fresh working directory with conf/Config.txt, a set-up
// g_Fifo and a log, and starts the camera thread in a pool of its own.
class CamThreadTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(SIGUSER1_Ignores(), SUCCESS);
        ASSERT_NE(getcwd(m_oldCwd, sizeof m_oldCwd), nullptr);
        char tmpl[] = "/tmp/ostrel_camthreadXXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        m_dir = tmpl;
        ASSERT_EQ(chdir(m_dir.c_str()), 0);
        ASSERT_EQ(mkdir("conf", 0777), 0);
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
        StopThread();
        g_Fifo.Cleanup();
        g_flagLoginUserExist.store(0);
        ASSERT_EQ(chdir(m_oldCwd), 0);
        std::string cmd = "rm -rf '" + m_dir + "'";
        ASSERT_EQ(system(cmd.c_str()), 0);
    }

    void WriteConfig(const std::string& cameraIp, int cameraPort, int postTerm = 3600)
    {
        std::ofstream out("conf/Config.txt", std::ios::trunc);
        auto key = [&](const char* name, const std::string& value) {
            char suffix[8];
            snprintf(suffix, sizeof suffix, "_%04d", kChannel);
            out << name << suffix << "=" << value << "\n";
        };
        key("translator_tarndatatype", "ostrel");
        key("encoder_ip", cameraIp);
        key("encoder_port", std::to_string(cameraPort));
        key("translator_connect_ip", "10.0.0.9");
        key("translator_connect_port", "9001");
        key("translator_connect_camerano", "1");
        key("channel_authentic_switch", "0");
        key("channel_authentic_user_id", "");
        key("channel_authentic_user_password", "");
        key("translator_calarm_rec_postterm", std::to_string(postTerm));
        out.close();
        ASSERT_EQ(g_configInfoIOClass.ReadParamFromFileAndTimeUpdate_WithChNum(kChannel), SUCCESS);
    }

    void StartThread(Class_CamThread* thread)
    {
        thread->m_pOwner = &m_pool;
        ASSERT_EQ(m_pool.ExecThread(thread), SUCCESS);
        m_started = true;
    }

    void StopThread()
    {
        if (m_started) {
            EXPECT_EQ(m_pool.All_ThreadDestruct(10000), SUCCESS);
            m_started = false;
        }
    }

    // The newest committed data number, -1 before the first frame.
    static long long Tail()
    {
        long long top = -1;
        long long tail = -1;
        return g_Fifo.GetTopTailDataNo(&top, &tail) == SUCCESS ? tail : -1;
    }

    // A port on which nothing listens.
    static int ClosedPort(const char* ip)
    {
        FakePeer gone(ip, 0, [](int, const std::string&, int) {});
        return gone.Port();
    }

    char m_oldCwd[4096];
    std::string m_dir;
    CamThread_ControlClass m_pool;
    bool m_started = false;
};

// Every readable frame holds one whole picture of the camera and the option
// record of its arrival. Returns the newest picture's number.
uint64_t CheckReadableFrames()
{
    long long top = -1;
    long long tail = -1;
    EXPECT_EQ(g_Fifo.GetTopTailDataNo(&top, &tail), SUCCESS);
    std::vector<char> video(kVideoSize);
    char option[128];
    uint64_t newest = 0;
    for (long long n = top; n <= tail; n++) {
        _StrOutInfo info{};
        if (g_Fifo.GetData(n, video.data(), kVideoSize, option, sizeof option, &info) != SUCCESS) {
            ADD_FAILURE() << "frame " << n;
            continue;
        }
        uint64_t seq = PictureSeq(video.data());
        EXPECT_TRUE(std::string(video.data(), info.nDataSize_Video) == Picture(seq, 2000 + seq % 3000))
            << "frame " << n << " is not picture " << seq;
        EXPECT_EQ(info.nDataSize_Option, 128);
        EXPECT_EQ(std::string(option).substr(0, 15), " 0000000000000:");
        newest = seq;
    }
    return newest;
}

TEST_F(CamThreadTest, StreamIsOpenOnlyWhileAViewerIsLoggedIn)
{
    std::atomic<uint64_t> seq{0};
    FakePeer camera(kMyIp, 0, CameraStream(&seq));
    WriteConfig(kMyIp, camera.Port());
    StartThread(new Class_CamThread());
    std::this_thread::sleep_for(std::chrono::milliseconds(300)); // a window for a forbidden connection
    EXPECT_EQ(camera.Connections(), 0) << "connected without a viewer";
    EXPECT_EQ(Tail(), -1);

    g_flagLoginUserExist.store(1);
    ASSERT_TRUE(WaitUntil([] { return Tail() >= 5; }));
    EXPECT_EQ(g_ConnectState.load(), 1);
    CheckReadableFrames();

    g_flagLoginUserExist.store(0);
    ASSERT_TRUE(WaitUntil([&] { return camera.Finished() == 1; })) << "stream not closed at logout";
    const long long tailAtLogout = Tail();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(Tail(), tailAtLogout) << "frames stored after logout";
    EXPECT_EQ(camera.Connections(), 1);
}

TEST_F(CamThreadTest, DroppedConnectionReconnectsAtOnceWithoutBackOff)
{
    std::atomic<uint64_t> seq{0};
    FakePeer camera(kMyIp, 0, CameraStream(&seq, 2));
    WriteConfig(kMyIp, camera.Port());
    g_flagLoginUserExist.store(1);
    StartThread(new RecordingCamThread());

    ASSERT_TRUE(WaitUntil([&] { return camera.Connections() >= 4 && Tail() >= 6; }));
    EXPECT_EQ(g_backOffCount.load(), 0) << "backed off after a dropped stream";
    CheckReadableFrames();
}

TEST_F(CamThreadTest, FailedStartsBackOffDoublingUpToSixteenSeconds)
{
    WriteConfig(kMyIp, ClosedPort(kMyIp));
    g_flagLoginUserExist.store(1);
    StartThread(new RecordingCamThread());

    ASSERT_TRUE(WaitUntil([] { return g_backOffCount.load() >= 7; }));
    std::vector<int> first;
    for (int i = 0; i < 7; i++) {
        first.push_back(g_backOffExponent[i].load());
    }
    EXPECT_EQ(first, (std::vector<int>{0, 1, 2, 3, 4, 4, 4})) << "waits of 1, 2, 4, 8, 16, 16, 16 s";
    EXPECT_EQ(g_ConnectState.load(), 0);
    EXPECT_EQ(Tail(), -1);
}

TEST_F(CamThreadTest, PostTermStopIsSentOnceUntilResetAndLogoutClearsIt)
{
    FakePeer scheduler(kMyIp, 80, [](int fd, const std::string&, int) {
        SendAll(fd, "HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nOK");
    });
    WriteConfig(kMyIp, ClosedPort(kMyIp), 1);
    timeval now{};
    gettimeofday(&now, nullptr);
    SetNowTimePT(now);
    g_flagLoginUserExist.store(1);
    StartThread(new RecordingCamThread());

    ASSERT_TRUE(WaitUntil([&] { return scheduler.Requests().size() == 1; }));
    EXPECT_EQ(scheduler.Requests()[0],
              "GET /cgi-bin/scheduleServer.cgi?p_name=StorageSchedule&p_version=1&command=stop_urgent_storage_wpp_ch"
              "&channel_no=4 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n");
    EXPECT_EQ(g_flgAlreadySendStop.load(), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500)); // longer than the term
    EXPECT_EQ(scheduler.Requests().size(), 1u) << "the stop was sent again without a reset";

    // What reset_postterm does: the next term ends with a second stop.
    g_lnDiffTimeSumPT.store(0);
    g_flgAlreadySendStop.store(0);
    ASSERT_TRUE(WaitUntil([&] { return scheduler.Requests().size() == 2; }));

    g_flagLoginUserExist.store(0);
    ASSERT_TRUE(WaitUntil([] { return g_flgAlreadySendStop.load() == 0 && g_lnDiffTimeSumPT.load() == 0; }));
    EXPECT_EQ(scheduler.Requests().size(), 2u);
}

TEST_F(CamThreadTest, ConfigurationChangeReconnectsToTheNewAddress)
{
    std::atomic<uint64_t> seqFirst{0};
    std::atomic<uint64_t> seqSecond{1000000};
    FakePeer first(kMyIp, 0, CameraStream(&seqFirst));
    FakePeer second("127.0.0.1", 0, CameraStream(&seqSecond));
    WriteConfig(kMyIp, first.Port());
    g_flagLoginUserExist.store(1);
    StartThread(new Class_CamThread());
    ASSERT_TRUE(WaitUntil([] { return Tail() >= 2; }));

    WriteConfig("127.0.0.1", second.Port());
    ASSERT_TRUE(WaitUntil([&] { return first.Finished() == 1 && second.Connections() == 1; }));
    ASSERT_TRUE(WaitUntil([] { return CheckReadableFrames() >= 1000000 + 2; }));
    EXPECT_EQ(first.Connections(), 1);
}

TEST_F(CamThreadTest, UnusableFifoEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::atomic<uint64_t> seq{0};
    FakePeer camera(kMyIp, 0, CameraStream(&seq));
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

} // namespace
