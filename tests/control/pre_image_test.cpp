// The pre-image protocol end to end: workers on a real listening socket,
// frames committed into the process's FIFO by the test acting as the camera.
// Pictures from a running camera arriving in order and intact, and a slow
// viewer handed the oldest picture still held, are end-to-end tests.

#include "control_test_support.h"

using namespace control_test;

namespace {

// Picture of frame n: JPEG markers around varying bytes with NUL, CR and LF
// among them (a text-handling send path would corrupt them).
std::string frame_bytes(long long n)
{
    std::string b(3000 + static_cast<size_t>(n * 7919 % 20000), '\0');
    for (size_t i = 0; i < b.size(); ++i)
        b[i] = static_cast<char>((n * 131 + static_cast<long long>(i) * 7) & 0xFF);
    b[0] = b[b.size() - 2] = static_cast<char>(0xFF);
    b[1] = static_cast<char>(0xD8);
    b.back() = static_cast<char>(0xD9);
    return b;
}

long long fifo_tail()
{
    long long top, tail;
    return g_Fifo.GetTopTailDataNo(&top, &tail) == SUCCESS ? tail : -1;
}

// The camera thread's part: writes the next frame in place into the slot
// the FIFO lends and commits it with its option text. Returns its number.
long long commit_frame()
{
    long long n = fifo_tail() + 1;
    std::string pic = frame_bytes(n);
    char* slot = nullptr;
    int cap = 0, size = 0;
    EXPECT_EQ(g_Fifo.InputDataStart(), SUCCESS);
    EXPECT_EQ(g_Fifo.InputDataGet(&slot, &cap, &size), SUCCESS);
    memcpy(slot, pic.data(), pic.size());
    EXPECT_EQ(g_Fifo.InputData(slot, static_cast<int>(pic.size())), SUCCESS);
    char option[128] = {};
    snprintf(option, sizeof(option), " frame=%lld", n);
    EXPECT_EQ(g_Fifo.InputDataFinish(option, 128), SUCCESS);
    return n;
}

std::string image_head(long long n)
{
    return "HTTP/1.1 200 OK\r\nDate: *\r\nServer: Ostrel Relay\r\nContent-Type: image/jpeg\r\n"
           "Pragma: no-cache\r\nContent-Length: " +
           std::to_string(frame_bytes(n).size()) +
           "\r\nTarnDataType: Ostrel\r\nIMAGE_ID0000: frame=" + std::to_string(n) +
           "\r\nOFFSET_TIME: 0\r\nConnection: close\r\n\r\n";
}

const std::string kLogin = get("/ptippreimg.cgi?img_login=1");
const std::string kGetImage = get("/ptippreimg.cgi?get_image=1&img_user_id=1");
const std::string kLogout = get("/ptippreimg.cgi?img_logout=1&img_user_id=1");
const std::string kWaitedOut = "ERROR_TRANSLATOR_RECEIVE:";

class PreImageTest : public ServerFixture {
protected:
    void SetUp() override
    {
        ServerFixture::SetUp();
        EXPECT_EQ(ask(kLogout).body, "LOGOUT_SUCCESS:1:IMAGE\r\n");
        EXPECT_EQ(ask(kGetImage).body, "ERROR_USER_ID:");
        EXPECT_EQ(ask(kLogin).body, "LOGIN_SUCCESS:1:\r\n");
    }

    void ExpectImage(const Reply& r, long long n)
    {
        EXPECT_EQ(r.head, image_head(n));
        EXPECT_TRUE(r.body == frame_bytes(n)) << "picture " << n << " differs";
    }
};

TEST_F(PreImageTest, LoginHandsOutOnlyFramesStoredAfterItInOrder)
{
    long long held = commit_frame();
    SetNowTimePT(timeval{1, 0});
    EXPECT_EQ(ask(kLogin).head, text_head("200 OK", 18));
    EXPECT_EQ(g_NextDataID.load(), held + 1);
    EXPECT_GT(GetNowTimePT().tv_sec, 1) << "login starts the post-alarm term";
    EXPECT_EQ(ask(kGetImage).body, kWaitedOut);

    long long a = commit_frame(), b = commit_frame();
    ExpectImage(ask(kGetImage), a);
    Reply head = ask(get("/ptippreimg.cgi?get_image=1&img_user_id=1", "HEAD"));
    EXPECT_EQ(head.head, image_head(b));
    EXPECT_EQ(head.body, "");
    EXPECT_EQ(ask(kGetImage).body, kWaitedOut);

    g_ConnectState.store(0);
    commit_frame();
    EXPECT_EQ(ask(kGetImage).body, kWaitedOut) << "camera not delivering";
    g_ConnectState.store(1);
    ExpectImage(ask(kGetImage), b + 1);
}

// Text answers in order (the login state carries from row to row); each
// row runs whole and split in two.
TEST_F(PreImageTest, TextAnswers)
{
    const struct {
        std::string request;
        const char* src;
        std::string status, body;
    } rows[] = {
        {get("/ptippreimg.cgi?get_image=1"), kOwnIp, "200 OK", "ERROR_SYSTEM:"},
        {get("/ptippreimg.cgi?get_image=1&img_user_id=2"), kOwnIp, "200 OK", "ERROR_USER_ID:"},
        {get("/ptippreimg.cgi?other=1&img_user_id=1"), kOwnIp, "200 OK", "ERROR_SYSTEM:"},
        {get("/ptippreimg.cgi?img_logout=1"), kOwnIp, "200 OK", "ERROR_SYSTEM:"},
        {get("/ptippreimg.cgi?img_logout=1&img_user_id=7"), kOwnIp, "200 OK", "ERROR_LOGOUT:"},
        {kLogout, kForeignIp, "200 OK", "ERROR_UNKNOWN_IP:"},
        {get("/ptippreimg.cgi?img_logout=1&img_user_id=1&get_image=1"), kOwnIp, "200 OK", kWaitedOut},
        {"POST /ptippreimg.cgi HTTP/1.1\r\nContent-Length: 26\r\n\r\nimg_logout=1&img_user_id=1", kOwnIp, "200 OK",
         "LOGOUT_SUCCESS:1:IMAGE\r\n"},
        {kGetImage, kOwnIp, "200 OK", "ERROR_USER_ID:"},
        {get("/ptippreimg.cgi?get_image=1&img_user_id=1&img_login=1"), kOwnIp, "200 OK", "LOGIN_SUCCESS:1:\r\n"},
        {get("/index.html?a=1"), kForeignIp, "404 Not Found",
         "CGI Error.\nRequest Message URI[/index.html?a=1].not supported.\n"},
        {get("/ptippreimg.cgi/"), kOwnIp, "404 Not Found",
         "CGI Error.\nRequest Message URI[/ptippreimg.cgi/].not supported.\n"},
        {"DELETE /ptippreimg.cgi HTTP/1.1\r\n\r\n", kOwnIp, "415 Unsupported Media Type", "Unkown Method."},
        {get("/a/../ptippreimg.cgi"), kOwnIp, "400 Bad Request", "Syntax error in URI"},
        {"POST /ptippreimg.cgi HTTP/1.1\r\n\r\n", kOwnIp, "411 Length Required", "'Content-Length:' Not found."},
        {"GET /ptippreimg.cgi HTTP/1.1\r\nNo colon\r\n\r\n", kOwnIp, "400 Bad Request", ""},
        // Exactly the buffer's 65536 bytes, so that all of it is read when
        // the answer goes (unread bytes would turn the close into a reset).
        {"GET /" + std::string(65536 - 16, 'a') + " HTTP/1.0\r\n", kOwnIp, "413 Request Entity Too Large",
         "HTTP header read faild."},
    };
    for (const auto& row : rows) {
        for (size_t split : {size_t(0), row.request.size() / 2}) {
            SCOPED_TRACE(row.request.substr(0, 60) + (split ? " (split)" : ""));
            Reply r = ask(row.request, row.src, split);
            EXPECT_EQ(r.head, text_head(row.status, row.body.size()));
            EXPECT_EQ(r.body, row.body);
        }
    }
    EXPECT_EQ(ask("GET /x.cgi HTTP/1.0\r\n\r\n").head.substr(0, 24), "HTTP/1.0 404 Not Found\r\n");
}

}  // namespace
