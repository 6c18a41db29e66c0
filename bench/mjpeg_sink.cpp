// ostrel-mjpegsink: the viewer side for relays that serve an MJPEG stream
// (the reference relay, ffmpeg, motion). Reads the stream for a while and
// prints, like viewer/ostrel-viewer, one line per picture and a summary:
//   picture N seq=S bytes=B latency_ms=L     (seq/latency only when stamped)
//   summary: pictures=N seconds=S fps=F stamped=K gaps=G
// Latency is the time the whole picture was read minus the camera
// simulator's stamp (CLOCK_REALTIME, same machine).
//
//   ostrel-mjpegsink ADDR:PORT PATH SECONDS
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/ref_io.h"

namespace {

int64_t now_us(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// The comment segment "ostrel-stamp seq=S t_us=T" among the segments after SOI.
bool find_stamp(const unsigned char* p, size_t n, unsigned long long* seq, unsigned long long* tUs)
{
    size_t pos = 2;
    while (pos + 4 <= n && p[pos] == 0xFF && p[pos + 1] != 0xDA) {
        size_t len = (static_cast<size_t>(p[pos + 2]) << 8) | p[pos + 3];
        if (p[pos + 1] == 0xFE && len > 2 && pos + 2 + len <= n) {
            std::string seg(reinterpret_cast<const char*>(p + pos + 4), len - 2);
            if (std::sscanf(seg.c_str(), "ostrel-stamp seq=%llu t_us=%llu", seq, tUs) == 2)
                return true;
        }
        pos += 2 + len;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s ADDR:PORT PATH SECONDS\n", argv[0]);
        return 2;
    }
    const sockaddr_in a = RefAddress(argv[1]);
    double seconds = std::atof(argv[3]);

    // The relay may still be starting (motion answers only once it has a
    // picture): try for up to 20 s.
    PartReader in{-1};
    std::string req = std::string("GET ") + argv[2] + " HTTP/1.0\r\nHost: " + argv[1] + "\r\n\r\n";
    int64_t giveUp = now_us(CLOCK_MONOTONIC) + 20000000;
    for (;;) {
        in.fd = Tcp_Connect(&a, nullptr, 5000);
        timeval tv{15, 0};  // a stalled relay ends the run
        if (in.fd >= 0 && setsockopt(in.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
            send(in.fd, req.data(), req.size(), 0) == static_cast<ssize_t>(req.size()) && in.skip_head()) {
            break;
        }
        if (in.fd >= 0)
            close(in.fd);
        in.pos = in.end = 0;
        if (now_us(CLOCK_MONOTONIC) > giveUp) {
            std::fprintf(stderr, "mjpegsink: no stream from %s\n", argv[1]);
            return 1;
        }
        usleep(100000);
    }
    int64_t start = now_us(CLOCK_MONOTONIC);
    int64_t stop = start + static_cast<int64_t>(seconds * 1e6);
    long pictures = 0, stamped = 0, gaps = 0;
    unsigned long long lastSeq = 0;
    size_t length = 0;
    while (now_us(CLOCK_MONOTONIC) < stop && in.part_head(&length) && length > 0 && in.fill(length)) {
        int64_t got = now_us(CLOCK_REALTIME);
        const unsigned char* pic = reinterpret_cast<const unsigned char*>(in.buf.data() + in.pos);
        unsigned long long seq = 0, tUs = 0;
        ++pictures;
        if (find_stamp(pic, length, &seq, &tUs)) {
            if (stamped > 0 && seq > lastSeq + 1)
                gaps += static_cast<long>(seq - lastSeq - 1);
            lastSeq = seq;
            ++stamped;
            std::printf("picture %ld seq=%llu bytes=%zu latency_ms=%.3f\n", pictures, seq, length,
                        static_cast<double>(got - static_cast<int64_t>(tUs)) / 1000.0);
        } else {
            std::printf("picture %ld bytes=%zu\n", pictures, length);
        }
        in.pos += length;
    }
    double took = static_cast<double>(now_us(CLOCK_MONOTONIC) - start) / 1e6;
    std::printf("summary: pictures=%ld seconds=%.3f fps=%.2f stamped=%ld gaps=%ld\n", pictures, took,
                took > 0 ? static_cast<double>(pictures) / took : 0.0, stamped, gaps);
    return 0;
}
