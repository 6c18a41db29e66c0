// ostrel-refpreimage: the smallest server of the daemon's own pre-image
// protocol, as a yardstick for what that protocol costs by itself. Two
// threads:
//
//  camera   a minimal camera reader: on the first login it opens the
//           camera's multipart stream, reads every part by its
//           Content-Length and copies it once into a ring of four picture
//           slots (the daemon also copies each picture once, into its ring);
//  control  one accept, one read of the request head, one answer and one
//           close per request, the picture sent from memory.
//
// The answers are the daemon's (login, get_image with the same 12 ms wait
// for a picture not yet stored, logout), so the same viewer drives both and
// makes the same mix of exchanges. Nothing else: no configuration, no log, no
// address check, no reconnection, blocking sockets. Threads are named
// "ref-camera" and "ref-control" so that their CPU time can be read apart.
//
//   ostrel-refpreimage LISTEN_ADDR:PORT CAMERA_ADDR:PORT CAMERA_PATH
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/part_reader.h"
#include "bench/ref_io.h"

namespace {

constexpr int kSlots = 4;
constexpr size_t kSlotBytes = 819200;
constexpr auto kFrameWait = std::chrono::microseconds(12000);

struct Ring {
    std::mutex mu;
    std::condition_variable committed;
    std::condition_variable loggedIn;
    long long tail = -1;  // newest stored picture, -1 before the first
    bool login = false;
    std::vector<char> data[kSlots];
    size_t size[kSlots] = {};
    char option[kSlots][128] = {};
};

Ring g_ring;

void camera(const char* camera, std::string path)
{
    {
        std::unique_lock<std::mutex> lk(g_ring.mu);
        g_ring.loggedIn.wait(lk, [] { return g_ring.login; });
    }
    PartReader cam{-1};
    if (!RefOpenStream("refpreimage", camera, "GET " + path + " HTTP/1.0\r\nUser-Agent: Tarnmoor\r\n\r\n", &cam))
        std::exit(1);
    for (long long no = 0;; ++no) {
        size_t length = 0;
        if (!cam.part_head(&length) || length == 0 || length > kSlotBytes || !cam.fill(length))
            std::exit(1);
        const int s = static_cast<int>(no % kSlots);
        std::memcpy(g_ring.data[s].data(), cam.buf.data() + cam.pos, length);
        cam.pos += length;
        // The daemon's option text: three zero fields and the arrival time
        // in local milliseconds.
        timeval tv;
        gettimeofday(&tv, nullptr);
        long long ms = (static_cast<long long>(tv.tv_sec) - timezone) * 1000 + tv.tv_usec / 1000;
        char opt[128] = {};
        std::snprintf(opt, sizeof opt, " %s:%s:%s:%012llx", "0000000000000", "00000",
                      "00000000000000000000000000000000000000000", ms);
        std::lock_guard<std::mutex> lk(g_ring.mu);
        g_ring.size[s] = length;
        std::memcpy(g_ring.option[s], opt, sizeof opt);
        g_ring.tail = no;
        g_ring.committed.notify_all();
    }
}

// The answer head as the daemon writes it.
int make_head(char* out, size_t room, const char* type, size_t length, const char* extra)
{
    char date[64];
    time_t now = time(nullptr);
    tm t;
    gmtime_r(&now, &t);
    strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", &t);
    return std::snprintf(out, room,
                         "HTTP/1.0 200 OK\r\nDate: %s\r\nServer: Ostrel Relay\r\nContent-Type: %s\r\n"
                         "Pragma: no-cache\r\nContent-Length: %zu\r\n%sConnection: close\r\n\r\n",
                         date, type, length, extra);
}

void answer_text(int fd, const char* text)
{
    char head[512];
    iovec v[2] = {{head, static_cast<size_t>(make_head(head, sizeof head, "text/plain", std::strlen(text), ""))},
                  {const_cast<char*>(text), std::strlen(text)}};
    SendAllV(fd, v, 2);
}

void serve(int fd, long long* next)
{
    char req[4096];
    size_t got = 0;
    while (got < sizeof req - 1) {
        ssize_t r = recv(fd, req + got, sizeof req - 1 - got, 0);
        if (r <= 0)
            return;
        got += static_cast<size_t>(r);
        req[got] = '\0';
        if (std::strstr(req, "\r\n\r\n"))
            break;
    }
    const char* line_end = std::strstr(req, "\r\n");
    std::string target = line_end ? std::string(static_cast<const char*>(req), line_end) : std::string();
    if (target.find("img_login=") != std::string::npos) {
        {
            std::lock_guard<std::mutex> lk(g_ring.mu);
            *next = g_ring.tail + 1;
            g_ring.login = true;
            g_ring.loggedIn.notify_all();
        }
        answer_text(fd, "LOGIN_SUCCESS:1:\r\n");
    } else if (target.find("get_image=") != std::string::npos) {
        int slot = -1;
        {
            std::unique_lock<std::mutex> lk(g_ring.mu);
            const long long want = *next;
            if (g_ring.committed.wait_for(lk, kFrameWait, [&] { return g_ring.tail >= want; })) {
                long long no = g_ring.tail - want >= kSlots - 1 ? g_ring.tail : want;
                slot = static_cast<int>(no % kSlots);
                *next = no + 1;
            }
        }
        if (slot < 0) {
            answer_text(fd, "ERROR_TRANSLATOR_RECEIVE:");
            return;
        }
        // The slot is rewritten only kSlots pictures later, long after this
        // answer has left.
        char extra[512], head[1024];
        std::snprintf(extra, sizeof extra, "TarnDataType: %s\r\nIMAGE_ID0000:%s\r\nOFFSET_TIME: 0\r\n", "Ostrel",
                      g_ring.option[slot]);
        iovec v[2] = {{head, static_cast<size_t>(make_head(head, sizeof head, "image/jpeg", g_ring.size[slot], extra))},
                      {g_ring.data[slot].data(), g_ring.size[slot]}};
        SendAllV(fd, v, 2);
    } else if (target.find("img_logout=") != std::string::npos) {
        answer_text(fd, "LOGOUT_SUCCESS:1:IMAGE\r\n");
    } else {
        answer_text(fd, "ERROR_SYSTEM:");
    }
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s LISTEN_ADDR:PORT CAMERA_ADDR:PORT CAMERA_PATH\n", argv[0]);
        return 2;
    }
    tzset();
    for (auto& d : g_ring.data)
        d.resize(kSlotBytes);
    // Both threads are named before the port listens: a listening port
    // tells the benchmark that the threads can be told apart.
    pthread_setname_np(pthread_self(), "ref-control");
    std::thread cam(camera, argv[2], std::string(argv[3]));
    pthread_setname_np(cam.native_handle(), "ref-camera");
    cam.detach();
    const int ls = RefListen("refpreimage", argv[1], 16);
    long long next = 0;
    for (;;) {
        int fd = Tcp_Accept(ls, -1, nullptr);
        if (fd < 0)
            continue;
        serve(fd, &next);
        close(fd);
    }
}
