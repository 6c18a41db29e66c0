// The viewer against a fake control port that answers the way the relay
// does (one answer per connection, then close), so that its checks and its
// handling of the relay's answer words can be exercised one by one.

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/jpeg_encoder.h"
#include "tools/jpeg_stamp.h"
#include "tools/viewer.h"

namespace otools {
namespace {

std::string text_answer(const std::string& body) {
  return "HTTP/1.0 200 OK\r\nServer: Ostrel Relay\r\nContent-Type: text/plain\r\n"
         "Pragma: no-cache\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

const std::string kOption =
    "0000000000000:00000:00000000000000000000000000000000000000000:0000018c2b3a4f5e";

std::string picture(uint64_t seq) {
  std::vector<uint8_t> j = MakeTestJpeg(32, 24, seq, 50, 0);
  const std::vector<uint8_t> stamp = MakeStampSegment(seq, 1700000000000000);
  j.insert(j.begin() + static_cast<long>(StampInsertOffset(j.data(), j.size())), stamp.begin(),
           stamp.end());
  return std::string(j.begin(), j.end());
}

std::string image_answer(const std::string& jpeg, const std::string& option = kOption,
                         long long length = -1) {
  return "HTTP/1.0 200 OK\r\nServer: Ostrel Relay\r\nContent-Type: image/jpeg\r\n"
         "Pragma: no-cache\r\nContent-Length: " +
         std::to_string(length < 0 ? static_cast<long long>(jpeg.size()) : length) +
         "\r\nTarnDataType: Ostrel\r\nIMAGE_ID0000: " + option +
         "\r\nOFFSET_TIME: 0\r\nConnection: close\r\n\r\n" + jpeg;
}

// Serves one connection at a time on 127.0.0.1; `answer` gets the request
// target and the number of get_image requests so far.
class FakeControlPort {
 public:
  using Answer = std::function<std::string(const std::string& target, int getCount)>;

  explicit FakeControlPort(Answer answer) : answer_(std::move(answer)) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(::bind(fd_, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    EXPECT_EQ(::listen(fd_, 8), 0);
    socklen_t len = sizeof sa;
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&sa), &len);
    port_ = ntohs(sa.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~FakeControlPort() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
  }
  int port() const { return port_; }
  std::vector<std::string> targets() {
    std::lock_guard<std::mutex> lock(mu_);
    return targets_;
  }

 private:
  void run() {
    int gets = 0;
    while (!stop_) {
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) continue;
      const int c = ::accept(fd_, nullptr, nullptr);
      if (c < 0) continue;
      std::string req;
      char buf[4096];
      while (req.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = ::recv(c, buf, sizeof buf, 0);
        if (n <= 0) break;
        req.append(buf, static_cast<size_t>(n));
      }
      const size_t sp = req.find(' ');
      const std::string target = req.substr(sp + 1, req.find(' ', sp + 1) - sp - 1);
      {
        std::lock_guard<std::mutex> lock(mu_);
        targets_.push_back(target);
      }
      if (target.find("get_image=") != std::string::npos) ++gets;
      const std::string out = answer_(target, gets);
      ::send(c, out.data(), out.size(), MSG_NOSIGNAL);
      ::close(c);
    }
  }

  Answer answer_;
  int fd_ = -1, port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mu_;
  std::vector<std::string> targets_;
};

// A relay that has pictures 1, 2, 3, ... but makes the viewer wait once.
std::string good_relay(const std::string& target, int gets) {
  if (target == "/ptippreimg.cgi?img_login=1") return text_answer("LOGIN_SUCCESS:1:\r\n");
  if (target.rfind("/ptippreimg.cgi?img_logout=1", 0) == 0)
    return text_answer("LOGOUT_SUCCESS:1:IMAGE\r\n");
  if (gets == 1) return text_answer("ERROR_TRANSLATOR_RECEIVE:");
  return image_answer(picture(static_cast<uint64_t>(gets - 1)));
}

ViewerConfig config_for(const FakeControlPort& fake) {
  ViewerConfig cfg;
  cfg.host = "127.0.0.1";
  cfg.port = fake.port();
  cfg.quiet = true;
  cfg.count = 5;
  return cfg;
}

// good_relay, except that get_image request number `at` gets bad().
FakeControlPort::Answer bad_get(int at, std::function<std::string()> bad) {
  return [at, bad](const std::string& t, int gets) {
    return t.find("get_image") != std::string::npos && gets == at ? bad() : good_relay(t, gets);
  };
}

// Against the real daemon the viewer's pull is run by the soak test; here
// each check of the viewer must turn a faulty answer into a failed pull.
TEST(ViewerTest, FaultyAnswersFailThePull) {
  struct Row {
    const char* note;
    FakeControlPort::Answer answer;
    int exitStatus;
  } rows[] = {
      {"a relay that makes the viewer wait once", good_relay, 0},
      {"sequence goes backwards", bad_get(4, [] { return image_answer(picture(1)); }), 1},
      {"Content-Length beyond the picture",
       bad_get(3, [] { return image_answer(picture(2), kOption, 100000); }), 1},
      {"picture without EOI", bad_get(3, [] {
         std::string p = picture(2);
         p.resize(p.size() - 2);
         return image_answer(p);
       }), 1},
      {"option text with a short zero field",
       bad_get(2, [] { return image_answer(picture(1), kOption.substr(1)); }), 1},
      {"login dropped by the relay", bad_get(3, [] { return text_answer("ERROR_USER_ID:"); }), 1},
      {"foreign address refused at login",
       [](const std::string&, int) { return text_answer("ERROR_UNKNOWN_IP:"); }, 2},
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

TEST(ViewerTest, CommandModePrintsTheAnswerAndJudgesQueryResult) {
  struct Row {
    std::string command, query, queryResult, expectedTarget;
    int exitStatus;
  } rows[] = {
      {"reset_postterm", "", "1:1",
       "/trcom.cgi?p_name=TrCommunicate&p_version=1&command=reset_postterm", 0},
      {"notice_update", "", "3:27",
       "/trcom.cgi?p_name=TrCommunicate&p_version=1&command=notice_update", 1},
      {"", "p_name=TrCommunicate&p_version=2&command=reset_postterm", "2:2011",
       "/trcom.cgi?p_name=TrCommunicate&p_version=2&command=reset_postterm", 1},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.expectedTarget);
    const std::string answer =
        "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 41\r\n"
        "Protocol_Name: TrCommunicate\r\nProtocol_Version: 1\r\nNode_Id: 16777473\r\n"
        "Query_Result: " + r.queryResult + "\r\nQuery_String: x\r\nConnection: close\r\n\r\n"
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
    while ((n = std::fread(buf, 1, sizeof buf, out)) > 0) printed.append(buf, n);
    std::fclose(out);
    EXPECT_EQ(printed, answer + "\n");  // raw answer, plus a line end for the terminal
    ASSERT_EQ(fake.targets().size(), 1u);
    EXPECT_EQ(fake.targets()[0], r.expectedTarget);
  }
}

}  // namespace
}  // namespace otools
