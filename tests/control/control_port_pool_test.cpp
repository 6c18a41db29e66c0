// The pool of control-port workers: all of them accept on one socket, and
// a stop reaches workers blocked in accept() and in the middle of a read.

#include <string>
#include <vector>

#include "control_test_support.h"

using namespace control_test;

namespace {

const std::string kLogoutHead = "GET /ptippreimg.cgi?img_logout=1&img_user_id=1 HTTP/1.1\r\n";

class ControlPortPoolTest : public ServerFixture {
protected:
    int workers() const override { return 3; }

    // Opens one connection per worker and leaves each request unfinished, so
    // that every worker has taken one and waits in its read; then finishes
    // them in reverse order. A pool that served fewer connections at once
    // would answer the later ones only after the first ones' 15 s read
    // limit, and those would be dropped without an answer.
    void OccupyEveryWorker()
    {
        std::vector<int> fds;
        for (int i = 0; i < workers(); ++i) {
            int fd = connect_from(kOwnIp, kOwnIp, port_);
            ASSERT_GE(fd, 0);
            ASSERT_TRUE(send_all(fd, kLogoutHead));
            fds.push_back(fd);
        }
        for (auto it = fds.rbegin(); it != fds.rend(); ++it) {
            ASSERT_TRUE(send_all(*it, "\r\n"));
            Reply r = parse_reply(read_to_close(*it));
            EXPECT_EQ(r.body, "LOGOUT_SUCCESS:1:IMAGE\r\n");
            close(*it);
        }
    }
};

TEST_F(ControlPortPoolTest, WorkersServeConnectionsAtTheSameTime)
{
    OccupyEveryWorker();
}

TEST_F(ControlPortPoolTest, StopReachesWorkersWaitingInAccept)
{
    OccupyEveryWorker();
    EXPECT_EQ(pool_->All_ThreadDestruct(10000, nullptr), SUCCESS);
    // The listening socket stays open (it is the caller's) but nobody
    // accepts on it any more: a connection is queued and never answered.
}

TEST_F(ControlPortPoolTest, StopAbandonsARequestBeingRead)
{
    OccupyEveryWorker();
    int fd = connect_from(kOwnIp, kOwnIp, port_);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(send_all(fd, kLogoutHead));
    EXPECT_EQ(pool_->All_ThreadDestruct(10000, nullptr), SUCCESS);
    // The worker closed the connection without answering.
    EXPECT_EQ(read_to_close(fd), "");
    close(fd);
}

TEST(ControlPortPoolSetup, WorkersWithoutAListeningSocketStillStop)
{
    ensure_process_setup();
    // A pool whose descriptor was never handed over: workers keep failing
    // in accept() and must still stop on request.
    ControlPort_ServerThread_ControlClass pool;
    ASSERT_EQ(pool.Add_Thread(nullptr), SUCCESS);
    ASSERT_EQ(pool.Add_Thread(nullptr), SUCCESS);
    EXPECT_EQ(pool.All_ThreadDestruct(10000, nullptr), SUCCESS);
}

}  // namespace
