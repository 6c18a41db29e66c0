// ostrel-refrelay: the smallest relay that does the daemon's job, as a
// yardstick. It waits for one viewer on LISTEN, then pulls the camera's
// multipart stream from CAMERA and writes every part, read by its
// Content-Length, to that viewer as a multipart stream. Nothing else: no
// option record, no ring, no log, no reconnection. Ends when either side
// closes.
//
//   ostrel-refrelay LISTEN_ADDR:PORT CAMERA_ADDR:PORT CAMERA_PATH
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/part_reader.h"
#include "bench/send_all.h"

namespace {

sockaddr_in parse_addr(const char* text)
{
    std::string s(text);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(std::atoi(s.substr(s.find(':') + 1).c_str())));
    inet_pton(AF_INET, s.substr(0, s.find(':')).c_str(), &a.sin_addr);
    return a;
}

bool send_all(int fd, const iovec* iov, int n)
{
    std::vector<iovec> v(iov, iov + n);  // the caller's pieces stay as they are
    return SendAllV(fd, v.data(), n);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s LISTEN_ADDR:PORT CAMERA_ADDR:PORT CAMERA_PATH\n", argv[0]);
        return 2;
    }
    sockaddr_in la = parse_addr(argv[1]), ca = parse_addr(argv[2]);
    int ls = socket(AF_INET, SOCK_STREAM, 0), one = 1;
    setsockopt(ls, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (bind(ls, reinterpret_cast<sockaddr*>(&la), sizeof la) != 0 || listen(ls, 4) != 0) {
        std::perror("refrelay: listen");
        return 2;
    }
    int viewer = accept(ls, nullptr, nullptr);
    char req[4096];
    if (viewer < 0 || recv(viewer, req, sizeof req, 0) <= 0)
        return 1;  // its request is not read further
    const char head[] = "HTTP/1.0 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=myboundary\r\n\r\n";
    iovec hv{const_cast<char*>(head), sizeof head - 1};
    if (!send_all(viewer, &hv, 1))
        return 1;

    PartReader cam{socket(AF_INET, SOCK_STREAM, 0)};
    if (connect(cam.fd, reinterpret_cast<sockaddr*>(&ca), sizeof ca) != 0) {
        std::perror("refrelay: camera");
        return 1;
    }
    std::string get = std::string("GET ") + argv[3] + " HTTP/1.0\r\n\r\n", line;
    if (send(cam.fd, get.data(), get.size(), 0) != static_cast<ssize_t>(get.size()))
        return 1;
    do {  // the camera's response head
        if (!cam.line(&line))
            return 1;
    } while (!line.empty());
    for (;;) {
        size_t length = 0;
        if (!cam.part_head(&length))
            return 0;
        if (length == 0 || !cam.fill(length))
            return 1;
        char partHead[128];
        int n = std::snprintf(partHead, sizeof partHead,
                              "--myboundary\r\nContent-Type: image/jpeg\r\nContent-Length: %zu\r\n\r\n", length);
        iovec v[3] = {
            {partHead, static_cast<size_t>(n)}, {cam.buf.data() + cam.pos, length}, {const_cast<char*>("\r\n"), 2}};
        if (!send_all(viewer, v, 3))
            return 0;
        cam.pos += length;
    }
}
