// The pre-image protocol end to end: workers on a real listening socket,
// a client on the channel's own address, frames committed into the
// process's FIFO by the test acting as the camera thread.

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "control_test_support.h"

using namespace control_test;

namespace {

// Picture of frame n: JPEG markers around bytes that include NUL, CR and LF
// (a text-handling send path would corrupt them); the length varies per
// frame.
std::string frame_bytes(long long n)
{
    size_t len = 3000 + static_cast<size_t>((n * 7919) % 20000);
    std::string b(len, '\0');
    b[0] = static_cast<char>(0xFF);
    b[1] = static_cast<char>(0xD8);
    for (size_t i = 2; i + 2 < len; ++i)
        b[i] = static_cast<char>((n * 131 + static_cast<long long>(i) * 7) & 0xFF);
    b[len - 2] = static_cast<char>(0xFF);
    b[len - 1] = static_cast<char>(0xD9);
    return b;
}

std::string option_text(long long n)
{
    return " frame=" + std::to_string(n);
}

long long fifo_tail()
{
    long long top = 0, tail = -1;
    int rc = g_Fifo.GetTopTailDataNo(&top, &tail);
    return rc == SUCCESS ? tail : -1;
}

// The camera thread's part: writes the next frame in place into the slot
// the FIFO lends and commits it. Returns its data number.
long long commit_frame()
{
    long long n = fifo_tail() + 1;
    std::string pic = frame_bytes(n);
    EXPECT_EQ(g_Fifo.InputDataStart(), SUCCESS);
    char* slot = nullptr;
    int cap = 0, size = 0;
    EXPECT_EQ(g_Fifo.InputDataGet(&slot, &cap, &size), SUCCESS);
    memcpy(slot, pic.data(), pic.size());
    EXPECT_EQ(g_Fifo.InputData(slot, static_cast<int>(pic.size())), SUCCESS);
    char option[128] = {};
    std::string text = option_text(n);
    memcpy(option, text.data(), text.size());
    EXPECT_EQ(g_Fifo.InputDataFinish(option, 128), SUCCESS);
    return n;
}

std::string image_head(long long n, size_t length, const char* statusLine = "HTTP/1.1 200 OK")
{
    return std::string(statusLine) + "\r\nDate: *\r\nServer: Ostrel Relay\r\nContent-Type: image/jpeg\r\n"
           "Pragma: no-cache\r\nContent-Length: " + std::to_string(length) + "\r\n"
           "TarnDataType: Ostrel\r\nIMAGE_ID0000:" + option_text(n) + "\r\nOFFSET_TIME: 0\r\n"
           "Connection: close\r\n\r\n";
}

const std::string kLogin = get("/ptippreimg.cgi?img_login=1");
const std::string kGetImage = get("/ptippreimg.cgi?get_image=1&img_user_id=1");
const std::string kLogout = get("/ptippreimg.cgi?img_logout=1&img_user_id=1");

class PreImageTest : public ServerFixture {
protected:
    void SetUp() override
    {
        ServerFixture::SetUp();
        g_ConnectState.store(1);
        ASSERT_EQ(ask(kLogout).body, "LOGOUT_SUCCESS:1:IMAGE\r\n");
    }

    void ExpectText(const Reply& r, const std::string& body)
    {
        EXPECT_EQ(r.head, text_head("200 OK", body.size()));
        EXPECT_EQ(r.body, body);
    }

    void ExpectImage(const Reply& r, long long n)
    {
        std::string pic = frame_bytes(n);
        EXPECT_EQ(r.head, image_head(n, pic.size()));
        EXPECT_TRUE(r.body == pic) << "picture " << n << " differs (" << r.body.size() << " bytes)";
    }
};

TEST_F(PreImageTest, LoginHandsOutOnlyFramesStoredAfterItInOrder)
{
    commit_frame();
    long long before = commit_frame();

    ExpectText(ask(kLogin), "LOGIN_SUCCESS:1:\r\n");
    EXPECT_EQ(g_flagLoginUserExist.load(), 1);
    EXPECT_EQ(g_NextDataID.load(), before + 1);

    // Frames held before the login are not handed out: the wait runs out.
    ExpectText(ask(kGetImage), "ERROR_TRANSLATOR_RECEIVE:");

    long long a = commit_frame();
    long long b = commit_frame();
    ExpectImage(ask(kGetImage), a);

    // HEAD: the same head with the picture's length, no picture.
    Reply head = ask(get("/ptippreimg.cgi?get_image=1&img_user_id=1", "HEAD"));
    EXPECT_EQ(head.head, image_head(b, frame_bytes(b).size()));
    EXPECT_EQ(head.body, "");

    ExpectText(ask(kGetImage), "ERROR_TRANSLATOR_RECEIVE:");
    long long c = commit_frame();
    ExpectImage(ask(kGetImage), c);
}

TEST_F(PreImageTest, OverwrittenFrameIsReplacedByOldestHeldOne)
{
    ExpectText(ask(kLogin), "LOGIN_SUCCESS:1:\r\n");
    long long first = commit_frame();
    for (int i = 0; i < 4; ++i)
        commit_frame();
    long long last = fifo_tail();
    ASSERT_EQ(last, first + 4);
    // Only two frames stay readable: the asked-for one is gone, the oldest
    // held one comes instead and the cursor follows it.
    ExpectImage(ask(kGetImage), last - 1);
    ExpectImage(ask(kGetImage), last);
    EXPECT_EQ(g_NextDataID.load(), last + 1);
}

TEST_F(PreImageTest, FramesFromAConcurrentCameraArriveInOrderAndIntact)
{
    ExpectText(ask(kLogin), "LOGIN_SUCCESS:1:\r\n");
    const long long start = g_NextDataID.load();
    const int kFrames = 40;

    // The writer keeps at most two frames ahead of what the viewer has
    // received, so the viewer never loses one and a borrowed picture is never
    // overwritten while it is sent.
    std::mutex m;
    std::condition_variable cv;
    long long received = start - 1;
    bool failed = false;
    std::thread camera([&] {
        for (long long n = start; n < start + kFrames; ++n) {
            std::unique_lock<std::mutex> lock(m);
            cv.wait(lock, [&] { return failed || n <= received + 2; });
            if (failed)
                return;
            lock.unlock();
            EXPECT_EQ(commit_frame(), n);
        }
    });

    long long expect = start;
    int waits = 0;
    while (expect < start + kFrames && !failed) {
        Reply r = ask(kGetImage);
        if (r.body == "ERROR_TRANSLATOR_RECEIVE:") {
            ++waits;
            continue;
        }
        ExpectImage(r, expect);
        std::lock_guard<std::mutex> lock(m);
        if (::testing::Test::HasFailure())
            failed = true;
        received = expect++;
        cv.notify_all();
    }
    {
        std::lock_guard<std::mutex> lock(m);
        failed = true;
        cv.notify_all();
    }
    camera.join();
    EXPECT_EQ(expect, start + kFrames);
    EXPECT_EQ(g_NextDataID.load(), start + kFrames);
}

TEST_F(PreImageTest, UserChecksAndCameraState)
{
    // Nobody logged in.
    ExpectText(ask(kGetImage), "ERROR_USER_ID:");

    ExpectText(ask(kLogin), "LOGIN_SUCCESS:1:\r\n");
    ExpectText(ask(get("/ptippreimg.cgi?get_image=1")), "ERROR_SYSTEM:");
    ExpectText(ask(get("/ptippreimg.cgi?get_image=1&img_user_id=2")), "ERROR_USER_ID:");

    g_ConnectState.store(0);
    ExpectText(ask(kGetImage), "ERROR_TRANSLATOR_RECEIVE:");
    g_ConnectState.store(1);

    ExpectText(ask(get("/ptippreimg.cgi?img_logout=1")), "ERROR_SYSTEM:");
    ExpectText(ask(get("/ptippreimg.cgi?img_logout=1&img_user_id=7")), "ERROR_LOGOUT:");
    EXPECT_EQ(g_flagLoginUserExist.load(), 1);
    ExpectText(ask(kLogout), "LOGOUT_SUCCESS:1:IMAGE\r\n");
    EXPECT_EQ(g_flagLoginUserExist.load(), 0);
    // Logging out twice still succeeds; get_image is refused again.
    ExpectText(ask(kLogout), "LOGOUT_SUCCESS:1:IMAGE\r\n");
    ExpectText(ask(kGetImage), "ERROR_USER_ID:");
}

TEST_F(PreImageTest, CommandSelection)
{
    // Login comes first in the order, whatever the query's order.
    ExpectText(ask(get("/ptippreimg.cgi?get_image=1&img_user_id=1&img_login=1")), "LOGIN_SUCCESS:1:\r\n");
    ExpectText(ask(get("/ptippreimg.cgi?img_logout=1&img_user_id=1&get_image=1")), "ERROR_TRANSLATOR_RECEIVE:");
    ExpectText(ask(get("/ptippreimg.cgi?other=1")), "ERROR_SYSTEM:");
    ExpectText(ask(get("/ptippreimg.cgi")), "ERROR_SYSTEM:");

    // Parameters may come in a POST body.
    const std::string body = "img_logout=1&img_user_id=1";
    ExpectText(ask("POST /ptippreimg.cgi HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                   "\r\n\r\n" + body),
               "LOGOUT_SUCCESS:1:IMAGE\r\n");
}

TEST_F(PreImageTest, LoginStampsThePostAlarmReferenceTime)
{
    timeval before;
    gettimeofday(&before, nullptr);
    ExpectText(ask(kLogin), "LOGIN_SUCCESS:1:\r\n");
    timeval after;
    gettimeofday(&after, nullptr);
    timeval stamp = GetNowTimePT();
    long long us = stamp.tv_sec * 1000000LL + stamp.tv_usec;
    EXPECT_GE(us, before.tv_sec * 1000000LL + before.tv_usec);
    EXPECT_LE(us, after.tv_sec * 1000000LL + after.tv_usec);
}

TEST_F(PreImageTest, ForeignAddressIsRefusedWithoutTouchingTheLogin)
{
    for (const std::string& req : {kLogin, kGetImage, kLogout}) {
        Reply r = ask(req, kForeignIp);
        EXPECT_EQ(r.head, text_head("200 OK", 17)) << req;
        EXPECT_EQ(r.body, "ERROR_UNKNOWN_IP:") << req;
    }
    EXPECT_EQ(g_flagLoginUserExist.load(), 0);
}

TEST_F(PreImageTest, UnknownPathIsNotFoundNamingTheUri)
{
    for (const char* src : {kOwnIp, kForeignIp}) {
        Reply r = ask(get("/index.html?a=1&b=2"), src);
        std::string body = "CGI Error.\nRequest Message URI[/index.html?a=1&b=2].not supported.\n";
        EXPECT_EQ(r.head, text_head("404 Not Found", body.size()));
        EXPECT_EQ(r.body, body);
    }
    // The file name must match exactly.
    Reply r = ask(get("/ptippreimg.cgi2?img_login=1"));
    EXPECT_EQ(r.statusLine, "HTTP/1.1 404 Not Found");
}

// Requests the reader refuses are answered with its status and reason text
// and the connection is closed. Each row runs whole and split in two.
TEST_F(PreImageTest, MalformedRequestsGetTheReadersStatus)
{
    struct Row {
        std::string request;
        const char* status;
        std::string body;  // "" : empty body
        const char* note;
    };
    const Row rows[] = {
        {"DELETE /ptippreimg.cgi HTTP/1.1\r\n\r\n", "415 Unsupported Media Type", "Unkown Method.", "method"},
        {"GET /a/../ptippreimg.cgi HTTP/1.1\r\n\r\n", "400 Bad Request", "Syntax error in URI", "dot-dot"},
        {"GET ptippreimg.cgi HTTP/1.1\r\n\r\n", "400 Bad Request", "Syntax error in URI", "no slash"},
        {"GET /ptippreimg.cgi?img_login HTTP/1.1\r\n\r\n", "400 Bad Request",
         "Syntax error in CGI query string.", "parameter without ="},
        {"POST /ptippreimg.cgi HTTP/1.1\r\n\r\n", "411 Length Required", "'Content-Length:' Not found.",
         "POST without length"},
        {"GET /ptippreimg.cgi HTTP/1.1\r\nBad Header\r\n\r\n", "400 Bad Request", "",
         "header fault reaches the server without a text"},
    };
    for (const Row& row : rows) {
        for (size_t split : {size_t(0), row.request.size() / 2}) {
            Reply r = ask(row.request, kOwnIp, split);
            SCOPED_TRACE(std::string(row.note) + (split ? " (split)" : ""));
            EXPECT_EQ(r.head, text_head(row.status, row.body.size()));
            EXPECT_EQ(r.body, row.body);
        }
    }

    // A version-less request line fails before the version is known.
    Reply r = ask("GET /ptippreimg.cgi\r\n\r\n");
    EXPECT_EQ(r.statusLine, "HTTP/1.1 400 Bad Request");
    EXPECT_NE(r.body.find("Syntax error. Not found protocol information."), std::string::npos) << r.body;
}

TEST_F(PreImageTest, Http10RequestIsAnsweredInKind)
{
    Reply r = ask("GET /ptippreimg.cgi?img_logout=1&img_user_id=1 HTTP/1.0\r\n\r\n");
    EXPECT_EQ(r.statusLine, "HTTP/1.0 200 OK");
    EXPECT_EQ(r.body, "LOGOUT_SUCCESS:1:IMAGE\r\n");
}

TEST_F(PreImageTest, SilentClientIsDroppedWithoutAnswerAfterTheReadLimit)
{
    int fd = connect_from(kOwnIp, kOwnIp, port_);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(send_all(fd, "GET /ptippreimg.cgi?img_login=1 HTTP/1.1\r\n"));
    // The head never ends: after its 15 s limit the server closes without a
    // word (the client's own receive limit is 60 s).
    EXPECT_EQ(read_to_close(fd), "");
    close(fd);
    EXPECT_EQ(g_flagLoginUserExist.load(), 0);
}

}  // namespace
