#include "camera/schedule_server_client.h"

#include <gtest/gtest.h>

#include <string>

#include "camera/fake_peer.h"
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

TEST_F(ScheduleClientTest, StopRequestNamesTheChannelUnpadded)
{
    AnsweringServer server(Answer("HTTP/1.0 200 OK", "OK"));
    CClient_ScheduleServer client;
    Prepare(client, server.peer.Port());
    const int channels[] = {3, 12, 0};
    for (int ch : channels) {
        g_channelNum.store(ch);
        ASSERT_EQ(client.SendStop(), SUCCESS) << ch;
    }
    const std::string stem =
        "GET /cgi-bin/scheduleServer.cgi?p_name=StorageSchedule&p_version=1&command=stop_urgent_storage_wpp_ch"
        "&channel_no=";
    ASSERT_TRUE(WaitUntil([&] { return server.peer.Requests().size() == 3; }));
    const auto requests = server.peer.Requests();
    EXPECT_EQ(requests[0], stem + "3 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n");
    EXPECT_EQ(requests[1], stem + "12 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n");
    EXPECT_EQ(requests[2], stem + "0 HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n");
    EXPECT_EQ(server.peer.Connections(), 3) << "each stop uses a connection of its own";
}

TEST_F(ScheduleClientTest, AnswerRules)
{
    struct Row {
        std::string response;
        int code;
        const char* note;
    } rows[] = {
        {Answer("HTTP/1.0 200 OK", std::string(1024, 'x')), SUCCESS, "a body of 1024 bytes fits"},
        {Answer("HTTP/1.0 200 OK", std::string(1025, 'x')), DATASIZE_LARGE, "one byte more does not"},
        {Answer("HTTP/1.1 200 OK", "<html>stopped</html>"), SUCCESS, "the body is not interpreted"},
        {Answer("HTTP/1.0 404 Not Found", "no"), HTTP_INVALID_SYNTAX, "only status 200 is an answer"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        AnsweringServer server(row.response);
        CClient_ScheduleServer client;
        Prepare(client, server.peer.Port());
        EXPECT_EQ(client.SendStop(), row.code);
    }
}

} // namespace
