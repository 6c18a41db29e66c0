// The pool of control-port workers: all of them accept on one socket, and a
// stop reaches workers blocked in accept() and in the middle of a read.

#include <vector>

#include "control_test_support.h"

using namespace control_test;

namespace {

const std::string kLogoutHead = "GET /ptippreimg.cgi?img_logout=1&img_user_id=1 HTTP/1.1\r\n";

class ControlPortPoolTest : public ServerFixture {
protected:
    int workers() const override { return 3; }

    // One unfinished request per worker, finished in reverse order: a pool
    // serving fewer connections at once would reach the later ones only
    // after the first ones' 15 s read limit had dropped them unanswered.
    void OccupyEveryWorker()
    {
        std::vector<int> fds;
        for (int i = 0; i < workers(); ++i) {
            fds.push_back(connect_from(kOwnIp, port_));
            ASSERT_TRUE(SendAll(fds.back(), kLogoutHead));
        }
        for (auto it = fds.rbegin(); it != fds.rend(); ++it) {
            ASSERT_TRUE(SendAll(*it, "\r\n"));
            EXPECT_EQ(parse_reply(read_to_close(*it)).body, "LOGOUT_SUCCESS:1:IMAGE\r\n");
        }
    }
};

TEST_F(ControlPortPoolTest, StopReachesWorkersWaitingInAccept)
{
    OccupyEveryWorker();
    EXPECT_EQ(pool_.All_ThreadDestruct(10000, nullptr), SUCCESS);
}

TEST_F(ControlPortPoolTest, StopAbandonsARequestBeingReadWithoutAnswering)
{
    OccupyEveryWorker();
    int fd = connect_from(kOwnIp, port_);
    ASSERT_TRUE(SendAll(fd, kLogoutHead));
    EXPECT_EQ(pool_.All_ThreadDestruct(10000, nullptr), SUCCESS);
    // Closing the listener also resets the connection if the stop came
    // before any worker had taken it.
    close(listenFd_);
    listenFd_ = -1;
    EXPECT_EQ(read_to_close(fd), "");
}

TEST(ControlPortPoolSetup, WorkersWithoutAListeningSocketStillStop)
{
    ensure_process_setup();
    ControlPort_ServerThread_ControlClass pool;
    ASSERT_EQ(pool.Add_Thread(nullptr), SUCCESS);
    ASSERT_EQ(pool.Add_Thread(nullptr), SUCCESS);
    EXPECT_EQ(pool.All_ThreadDestruct(10000, nullptr), SUCCESS);
}

}  // namespace
