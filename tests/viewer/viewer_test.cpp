// The viewer against a fake control port that answers the way the relay
// does (one answer per connection, then close), so that its checks and its
// handling of the relay's answer words can be exercised one by one.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "tests/sim/jpeg_encoder.h"
#include "viewer/jpeg_stamp.h"
#include "viewer/viewer.h"
#include "test_sockets.h"

namespace otools {
namespace {

std::string text_answer(const std::string& body)
{
    return "HTTP/1.0 200 OK\r\nServer: Ostrel Relay\r\nContent-Type: text/plain\r\n"
           "Pragma: no-cache\r\nContent-Length: " +
           std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

const std::string kOption = "0000000000000:00000:00000000000000000000000000000000000000000:0000018c2b3a4f5e";

std::string picture(uint64_t seq)
{
    std::vector<uint8_t> j = MakeTestJpeg(32, 24, seq, 50, 0);
    const std::vector<uint8_t> stamp = MakeStampSegment(seq, 1700000000000000);
    j.insert(j.begin() + static_cast<long>(StampInsertOffset(j.data(), j.size())), stamp.begin(), stamp.end());
    return std::string(j.begin(), j.end());
}

std::string image_answer(const std::string& jpeg, const std::string& option = kOption, long long length = -1)
{
    return "HTTP/1.0 200 OK\r\nServer: Ostrel Relay\r\nContent-Type: image/jpeg\r\n"
           "Pragma: no-cache\r\nContent-Length: " +
           std::to_string(length < 0 ? static_cast<long long>(jpeg.size()) : length) +
           "\r\nTarnDataType: Ostrel\r\nIMAGE_ID0000: " + option + "\r\nOFFSET_TIME: 0\r\nConnection: close\r\n\r\n" +
           jpeg;
}

// Answers each connection's request once, then closes, on 127.0.0.1;
// `answer` gets the request target and the number of get_image requests so
// far. The viewer's connections come one after the other.
class FakeControlPort {
public:
    using Answer = std::function<std::string(const std::string& target, int getCount)>;

    explicit FakeControlPort(Answer answer)
        : peer_("127.0.0.1", 0, [this, answer](int fd, const std::string& request, int) {
              const std::string target = target_of(request);
              if (target.find("get_image=") != std::string::npos)
                  ++gets_;
              SendAll(fd, answer(target, gets_.load()));
          })
    {
    }
    int port() const { return peer_.Port(); }
    std::vector<std::string> targets() const
    {
        std::vector<std::string> out;
        for (const std::string& r : peer_.Requests())
            out.push_back(target_of(r));
        return out;
    }

private:
    static std::string target_of(const std::string& request)
    {
        const size_t sp = request.find(' ');
        return request.substr(sp + 1, request.find(' ', sp + 1) - sp - 1);
    }

    std::atomic<int> gets_{0};
    FakePeer peer_;
};

// A relay that has pictures 1, 2, 3, ... but makes the viewer wait once.
std::string good_relay(const std::string& target, int gets)
{
    if (target == "/ptippreimg.cgi?img_login=1")
        return text_answer("LOGIN_SUCCESS:1:\r\n");
    if (target.rfind("/ptippreimg.cgi?img_logout=1", 0) == 0)
        return text_answer("LOGOUT_SUCCESS:1:IMAGE\r\n");
    if (gets == 1)
        return text_answer("ERROR_TRANSLATOR_RECEIVE:");
    return image_answer(picture(static_cast<uint64_t>(gets - 1)));
}

ViewerConfig config_for(const FakeControlPort& fake)
{
    ViewerConfig cfg;
    cfg.host = "127.0.0.1";
    cfg.port = fake.port();
    cfg.quiet = true;
    cfg.count = 5;
    return cfg;
}

// good_relay, except that get_image request number `at` gets bad().
FakeControlPort::Answer bad_get(int at, std::function<std::string()> bad)
{
    return [at, bad](const std::string& t, int gets) {
        return t.find("get_image") != std::string::npos && gets == at ? bad() : good_relay(t, gets);
    };
}

// Against the real daemon the viewer's pull is run by the soak test; here
// each check of the viewer must turn a faulty answer into a failed pull.
TEST(ViewerTest, FaultyAnswersFailThePull)
{
    struct Row {
        const char* note;
        FakeControlPort::Answer answer;
        int exitStatus;
    } rows[] = {
        {"a relay that makes the viewer wait once", good_relay, 0},
        {"sequence goes backwards", bad_get(4, [] { return image_answer(picture(1)); }), 1},
        {"Content-Length beyond the picture", bad_get(3, [] { return image_answer(picture(2), kOption, 100000); }), 1},
        {"picture without EOI",
         bad_get(3,
                 [] {
                     std::string p = picture(2);
                     p.resize(p.size() - 2);
                     return image_answer(p);
                 }),
         1},
        {"option text with a short zero field", bad_get(2, [] { return image_answer(picture(1), kOption.substr(1)); }),
         1},
        {"login dropped by the relay", bad_get(3, [] { return text_answer("ERROR_USER_ID:"); }), 1},
        {"foreign address refused at login", [](const std::string&, int) { return text_answer("ERROR_UNKNOWN_IP:"); },
         2},
        {"login preceded by a failure answer on the same connection",
         [](const std::string& t, int gets) {
             return t == "/ptippreimg.cgi?img_login=1"
                        ? text_answer("ERROR_SYSTEM:") + text_answer("LOGIN_SUCCESS:1:\r\n")
                        : good_relay(t, gets);
         },
         1},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.note);
        FakeControlPort fake(r.answer);
        std::atomic<bool> stop{false};
        ViewerReport rep;
        std::FILE* out = std::tmpfile();
        EXPECT_EQ(RunViewer(config_for(fake), stop, out, &rep), r.exitStatus);
        std::fclose(out);
        if (r.exitStatus == 0) {
            EXPECT_EQ(rep.pictures, 5);
            EXPECT_EQ(rep.waits, 1);
            EXPECT_EQ(fake.targets().back(), "/ptippreimg.cgi?img_logout=1&img_user_id=1");
        }
    }
}

TEST(ViewerTest, CommandModePrintsTheAnswerAndJudgesQueryResult)
{
    struct Row {
        std::string command, query, queryResult, expectedTarget;
        int exitStatus;
    } rows[] = {
        {"reset_postterm", "", "1:1", "/trcom.cgi?p_name=TrCommunicate&p_version=1&command=reset_postterm", 0},
        {"notice_update", "", "3:27", "/trcom.cgi?p_name=TrCommunicate&p_version=1&command=notice_update", 1},
        {"", "p_name=TrCommunicate&p_version=2&command=reset_postterm", "2:2011",
         "/trcom.cgi?p_name=TrCommunicate&p_version=2&command=reset_postterm", 1},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.expectedTarget);
        const std::string answer = "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 41\r\n"
                                   "Protocol_Name: TrCommunicate\r\nProtocol_Version: 1\r\nNode_Id: 16777473\r\n"
                                   "Query_Result: " +
                                   r.queryResult +
                                   "\r\nQuery_String: x\r\nConnection: close\r\n\r\n"
                                   "<HTML><BODY><H1>200 OK</H1></BODY></HTML>";
        FakeControlPort fake([&](const std::string&, int) { return answer; });
        ViewerConfig cfg = config_for(fake);
        cfg.trcomCommand = r.command;
        cfg.trcomQuery = r.query;
        std::atomic<bool> stop{false};
        std::FILE* out = std::tmpfile();
        EXPECT_EQ(RunTrcom(cfg, stop, out), r.exitStatus);
        std::rewind(out);
        std::string printed;
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, out)) > 0)
            printed.append(buf, n);
        std::fclose(out);
        EXPECT_EQ(printed, answer + "\n");  // raw answer, plus a line end for the terminal
        ASSERT_EQ(fake.targets().size(), 1u);
        EXPECT_EQ(fake.targets()[0], r.expectedTarget);
    }
}

}  // namespace
}  // namespace otools
