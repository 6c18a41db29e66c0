#include "http/multipart_buffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "common/return_codes.h"
#include "piece_source.h"
#include "parse_test_util.h"

namespace {

constexpr int kTimeoutMs = 5000;

std::string StreamHead(const std::string& contentType)
{
    return "HTTP/1.0 200 OK\r\nServer: cam\r\nContent-Type: " + contentType + "\r\n\r\n";
}

std::string Part(const std::string& data, const std::string& boundary = "--myboundary")
{
    return boundary + "\r\nContent-Type: image/jpeg\r\nContent-Length: " + std::to_string(data.size()) + "\r\n\r\n" +
           data + "\r\n";
}

std::string PartData(const HTTPMultiPartResponseBuffer_Class& buf)
{
    return std::string(reinterpret_cast<const char*>(buf.m_pBuffer + buf.m_nBodyStart), buf.m_nContentLength);
}

struct BoundaryRow {
    std::string head;
    int code;
    int status;
    const char* boundary;
    int length;
    const char* note;
};

const BoundaryRow kBoundaryRows[] = {
    {StreamHead("multipart/x-mixed-replace; boundary=myboundary"), SUCCESS, 200, "myboundary", 10, "usual"},
    {StreamHead("multipart/x-mixed-replace;boundary=\"q b\""), SUCCESS, 200, "\"q b\"", 5, "quotes are kept"},
    {StreamHead("multipart/mixed; charset=x;\tboundary=b1; x=y"), SUCCESS, 200, "b1", 2, "among other parameters"},
    {StreamHead("text/plain; boundary=" + std::string(70, 'z')), SUCCESS, 200, "", 64,
     "cut to 64 characters, media type not examined"},
    {StreamHead("multipart/x-mixed-replace; Boundary=x"), NOTFOUND_ITEM, 0, "", 0, "the name is case-sensitive"},
    {StreamHead("multipart/x-mixed-replace; boundary="), NOTFOUND_ITEM, 0, "", 0, "empty boundary"},
    {"HTTP/1.0 200 OK\r\nServer: cam\r\n\r\n", NOTFOUND_ITEM, 0, "", 0, "no Content-Type"},
    {"HTTP/1.0 401 Unauthorized\r\n\r\n", HTTP_INVALID_SYNTAX, 400, "", 0, "camera refuses"},
};

TEST(MultiPartBuffer, BoundaryFromTheResponseHead)
{
    for (const BoundaryRow& row : kBoundaryRows) {
        SCOPED_TRACE(row.note);
        HTTPMultiPartResponseBuffer_Class buf;
        ASSERT_EQ(SUCCESS, buf.Init(1024));
        int rc = 0;
        FeedInPieces(buf, {row.head}, false, [&](int fd) { rc = buf.HttpReadFirst(fd, kTimeoutMs, nullptr); });
        EXPECT_EQ(row.code, rc);
        EXPECT_EQ(row.status, buf.m_nStatus);
        if (rc == SUCCESS) {
            EXPECT_EQ(HTTP_CONNECTIONCLOSE, buf.Is_KeepAlive()) << "a 1.0 stream";
            EXPECT_EQ(row.length, buf.m_nBoundaryLength);
            if (row.length < HTTPMultiPartResponseBuffer_Class::BOUNDARY_SIZE) {
                EXPECT_STREQ(row.boundary, buf.GetBoundary());
            } else {
                EXPECT_EQ(std::string(64, 'z'), std::string(buf.GetBoundary(), 64));
            }
        }
    }
}

// The whole stream in every cut: one write, two pieces split at each
// offset, and byte by byte. Parts that arrived with an earlier receive are
// served from the read-ahead; the peer closes at the end, so any receive
// that was not needed would fail the read.
TEST(MultiPartBuffer, PartsInPlaceHoweverTheStreamArrives)
{
    const std::vector<std::string> data = {"JPEG-1", std::string(40, 'x'), "\r\n\r\n--myboundary\r\n"};
    // The third part is followed by extra line ends, which the next part
    // head skips.
    const std::string stream = StreamHead("multipart/x-mixed-replace; boundary=myboundary") + Part(data[0]) +
                               Part(data[1]) + Part(data[2]) + "\r\n\r\n" + Part("end");

    std::vector<std::vector<std::string>> feeds = {{stream}, Bytewise(stream)};
    for (size_t cut = 1; cut < stream.size(); cut++) {
        feeds.push_back(SplitAt(stream, cut));
    }
    for (size_t f = 0; f < feeds.size(); f++) {
        SCOPED_TRACE("feed " + std::to_string(f) + " of " + std::to_string(feeds.size()));
        HTTPMultiPartResponseBuffer_Class buf;
        ASSERT_EQ(SUCCESS, buf.Init(1024));
        std::vector<std::string> got;
        int first = 0;
        int last = 0;
        FeedInPieces(buf, feeds[f], true, [&](int fd) {
            first = buf.HttpReadFirst(fd, kTimeoutMs, nullptr);
            for (int i = 0; i < 4 && first == SUCCESS; i++) {
                int rc = buf.HttpReadMulti(fd, kTimeoutMs, nullptr);
                if (rc != SUCCESS) {
                    got.push_back("failed " + std::to_string(rc));
                    break;
                }
                EXPECT_EQ(buf.m_nContentLength + 2, buf.m_nBodyLength);
                EXPECT_EQ("--myboundary", span(buf.Parser.m_Text));
                got.push_back(PartData(buf));
            }
            last = buf.HttpReadMulti(fd, kTimeoutMs, nullptr);
        });
        ASSERT_EQ(SUCCESS, first);
        EXPECT_EQ((std::vector<std::string>{data[0], data[1], data[2], "end"}), got);
        EXPECT_EQ(HTTP_HEADER_READ_FAILD, last) << "the stream has ended";
    }
}

// A part whose data and CR LF exactly fill the room after its head is read;
// one byte more is refused before any of its data is received.
TEST(MultiPartBuffer, PartMustFitTheBuffer)
{
    const std::string head = StreamHead("multipart/x-mixed-replace; boundary=b");
    // "--b\r\nContent-Length: NN\r\n\r\n" is 27 bytes: 128 - 27 = 101 = 99 + 2.
    for (int size : {99, 100, 5000}) {
        SCOPED_TRACE("part of " + std::to_string(size) + " bytes");
        std::string part = "--b\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n";
        HTTPMultiPartResponseBuffer_Class buf;
        ASSERT_EQ(SUCCESS, buf.Init(128));
        int rc = 0;
        int filled = 0;
        FeedInPieces(buf, {head, part, std::string(size, 'd') + "\r\n"}, false, [&](int fd) {
            ASSERT_EQ(SUCCESS, buf.HttpReadFirst(fd, kTimeoutMs, nullptr));
            rc = buf.HttpReadMulti(fd, kTimeoutMs, nullptr);
            filled = buf.m_nFilled;
        });
        if (size == 99) {
            EXPECT_EQ(SUCCESS, rc);
            EXPECT_EQ(std::string(99, 'd'), PartData(buf));
            EXPECT_EQ(128, filled);
        } else {
            EXPECT_EQ(HTTP_ERR_CONTENTLENGTH, rc);
            EXPECT_EQ(411, buf.m_nStatus);
            EXPECT_STREQ("'Content-Length:' too large.", buf.m_strError);
            EXPECT_EQ(static_cast<int>(part.size()), filled) << "no data byte was received";
        }
    }
}

TEST(MultiPartBuffer, BadPartHeads)
{
    struct Row {
        std::string part;
        int code;
        int status;
        const char* error;
        const char* note;
    };
    const Row rows[] = {
        {"--b\r\nContent-Type: image/jpeg\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length:' Not found.",
         "no Content-Length"},
        {"--b\r\nContent-Length: 0\r\n\r\n", HTTP_ERR_CONTENTLENGTH, 411, "'Content-Length' Illigal value.",
         "zero length"},
        {"--b\r\nContent-Length: 3\r\nBad Header: 1\r\n\r\n", HTTP_INVALID_SYNTAX, 400,
         "[Offset 27]:Found illigal character. [0x20]", "malformed header line"},
    };
    const std::string head = StreamHead("multipart/x-mixed-replace; boundary=b");
    for (const Row& row : rows) {
        SCOPED_TRACE(row.note);
        HTTPMultiPartResponseBuffer_Class buf;
        ASSERT_EQ(SUCCESS, buf.Init(512));
        int rc = 0;
        FeedInPieces(buf, {head + row.part}, false, [&](int fd) {
            ASSERT_EQ(SUCCESS, buf.HttpReadFirst(fd, kTimeoutMs, nullptr));
            rc = buf.HttpReadMulti(fd, kTimeoutMs, nullptr);
        });
        EXPECT_EQ(row.code, rc);
        EXPECT_EQ(row.status, buf.m_nStatus);
        EXPECT_STREQ(row.error, buf.m_strError);
    }
}

// A frame larger than one receive: it is read with the exact-length body
// read and lands in place behind its head.
TEST(MultiPartBuffer, LargeFrameAcrossManyReceives)
{
    std::string frame(300000, '\0');
    for (size_t i = 0; i < frame.size(); i++) {
        frame[i] = static_cast<char>(i * 7 + 3);
    }
    HTTPMultiPartResponseBuffer_Class buf;
    ASSERT_EQ(SUCCESS, buf.Init(static_cast<int>(frame.size()) + 1024));
    std::string got;
    FeedInPieces(buf, {StreamHead("multipart/x-mixed-replace; boundary=myboundary") + Part(frame) + Part("next")}, true,
                 [&](int fd) {
                     ASSERT_EQ(SUCCESS, buf.HttpReadFirst(fd, kTimeoutMs, nullptr));
                     ASSERT_EQ(SUCCESS, buf.HttpReadMulti(fd, kTimeoutMs, nullptr));
                     got = PartData(buf);
                     ASSERT_EQ(SUCCESS, buf.HttpReadMulti(fd, kTimeoutMs, nullptr));
                     EXPECT_EQ("next", PartData(buf));
                 });
    EXPECT_TRUE(got == frame) << "frame bytes differ";
}

}  // namespace
