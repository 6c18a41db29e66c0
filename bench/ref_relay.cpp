// ostrel-refrelay: the smallest relay that does the daemon's job, as a
// yardstick. It waits for one viewer on LISTEN, then pulls the camera's
// multipart stream from CAMERA and writes every part, read by its
// Content-Length, to that viewer as a multipart stream. Nothing else: no
// option record, no ring, no log, no reconnection. Ends when either side
// closes.
//
//   ostrel-refrelay LISTEN_ADDR:PORT CAMERA_ADDR:PORT CAMERA_PATH
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bench/part_reader.h"
#include "bench/ref_io.h"

namespace {

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
    const int ls = RefListen("refrelay", argv[1], 4);
    int viewer = Tcp_Accept(ls, -1, nullptr);
    char req[4096];
    if (viewer < 0 || recv(viewer, req, sizeof req, 0) <= 0)
        return 1;  // its request is not read further
    const char head[] = "HTTP/1.0 200 OK\r\nContent-Type: multipart/x-mixed-replace; boundary=myboundary\r\n\r\n";
    iovec hv{const_cast<char*>(head), sizeof head - 1};
    if (!send_all(viewer, &hv, 1))
        return 1;

    PartReader cam{-1};
    if (!RefOpenStream("refrelay", argv[2], std::string("GET ") + argv[3] + " HTTP/1.0\r\n\r\n", &cam))
        return 1;
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
