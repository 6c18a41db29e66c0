#include "camera/schedule_server_client.h"

#include <gtest/gtest.h>

#include <string>

#include "camera/camera_test_support.h"
#include "camera/shared_state.h"
#include "common/return_codes.h"

namespace {

// A schedule server answering every request with the given response.
struct AnsweringServer {
    explicit AnsweringServer(std::string answer)
        : response(std::move(answer)),
          peer("127.0.0.1", 0, [this](int fd, const std::string&, int) { SendAll(fd, response); })
    {
    }
    std::string response;
    FakePeer peer;
};

std::string Answer(const std::string& statusLine, const std::string& body)
{
    return statusLine + "\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
}

class ScheduleClientTest : public ::testing::Test {
protected:
    void SetUp() override { saved_ = g_channelNum.load(); }
    void TearDown() override { g_channelNum.store(saved_); }
    void Prepare(CClient_ScheduleServer& client, int port)
    {
        ASSERT_EQ(client.Initialize(256), SUCCESS);
        ASSERT_EQ(client.SetSocketTimeout(2000), SUCCESS);
        ASSERT_EQ(client.SetSocketExitFlag(&exitFlag_), SUCCESS);
        ASSERT_EQ(client.SetMyself("127.0.0.1"), SUCCESS);
        ASSERT_EQ(client.SetTarget("127.0.0.1", port), SUCCESS);
    }
    SockExitFlag exitFlag_{0};
    int saved_ = 0;
};

// Each row's stop names its channel unpadded and gets the row's answer.
TEST_F(ScheduleClientTest, StopRequestAndAnswerRules)
{
    struct Row {
        int channel;
        std::string response;
        int code;
        const char* note;
    } rows[] = {
        {3, Answer("HTTP/1.0 200 OK", std::string(1024, 'x')), SUCCESS, "a body of 1024 bytes fits"},
        {12, Answer("HTTP/1.0 200 OK", std::string(1025, 'x')), DATASIZE_LARGE, "one byte more does not"},
        {0, Answer("HTTP/1.1 200 OK", "<html>stopped</html>"), SUCCESS, "the body is not interpreted"},
        {7, Answer("HTTP/1.0 404 Not Found", "no"), HTTP_INVALID_SYNTAX, "only status 200 is an answer"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        AnsweringServer server(row.response);
        CClient_ScheduleServer client;
        Prepare(client, server.peer.Port());
        g_channelNum.store(row.channel);
        EXPECT_EQ(client.SendStop(), row.code);
        ASSERT_EQ(server.peer.Requests().size(), 1u);
        EXPECT_EQ(server.peer.Requests()[0], "GET /cgi-bin/scheduleServer.cgi?p_name=StorageSchedule&p_version=1"
                                             "&command=stop_urgent_storage_wpp_ch&channel_no=" +
                                                 std::to_string(row.channel) +
                                                 " HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n");
    }
}

}  // namespace
