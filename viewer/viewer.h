#ifndef OSTREL_TOOLS_VIEWER_H
#define OSTREL_TOOLS_VIEWER_H

// The viewer: a client of the relay's control port.
//
// Pull mode logs in ("/ptippreimg.cgi?img_login=1"), fetches pictures with
// "get_image=1&img_user_id=<id>" one request per connection for a time or a
// count, checks each picture, and logs out ("img_logout=1&img_user_id=<id>").
// Checks per picture: status 200 and Content-Type image/jpeg, Content-Length
// equal to the bytes received, a well-formed JPEG (SOI ... EOI), an
// IMAGE_ID0000 option text of the relay's fixed form, and a camera stamp
// (jpeg_stamp.h) whose sequence number is above the previous picture's.
// The latency of a picture is the time it was fully received minus the
// stamp's send time (both CLOCK_REALTIME, so sender and viewer must share a
// clock, as they do on one host).
//
// Command mode sends one "/trcom.cgi" request and prints the answer.
//
// Runs on the calling thread; no shared state.

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "viewer/tool_http.h"

namespace otools {

struct ViewerConfig {
    std::string host;
    int port = 0;
    std::string bindAddr;  // local address to connect from ("" = any)
    // First local port (0 = any). Connection n binds bindPort + n % 10000, so
    // that a redirect matching the ephemeral range leaves the viewer alone.
    int bindPort = 0;
    double seconds = 0;    // pull for this long (0 = no time limit)
    int count = 0;         // stop after this many pictures (0 = no count limit)
    std::string savePath;  // where the last picture is written ("" = nowhere)
    bool quiet = false;    // no line per picture
    bool logout = true;
    int requestTimeoutMs = 5000;  // per request: connect, send, whole answer
    int idleLimitMs = 10000;      // give up when no picture came for this long
    // Command mode: command word, or a complete query that replaces the usual
    // "p_name=TrCommunicate&p_version=1&command=<command>".
    std::string trcomCommand, trcomQuery;
};

struct ViewerReport {
    int pictures = 0;
    int faults = 0;  // pictures that failed a check, and refused requests
    int gaps = 0;    // pictures whose sequence number skipped ahead
    int waits = 0;   // ERROR_TRANSLATOR_RECEIVE answers (picture not there yet)
    double seconds = 0, fps = 0;
    double p50Ms = 0, p99Ms = 0, maxMs = 0;
};

// One answer of the control port.
struct ControlAnswer {
    HttpHead head;
    std::string body;
    bool lengthMatches = true;  // Content-Length, if any, equals the body size
    bool hasLength = false;
};

// One request for `target` on a fresh connection made as `cfg` says (host,
// port, bindAddr, bindPort, requestTimeoutMs); the relay closes after each
// answer. The img_login command may answer twice on one connection, so
// every answer in the received bytes is returned, in order. *receivedUs
// (when given) gets the time the answer was complete, *raw the bytes. False
// with *err set when no complete answer came.
bool ControlExchange(const ViewerConfig& cfg, const std::atomic<bool>& stop, const std::string& target,
                     std::vector<ControlAnswer>* answers, int64_t* receivedUs, std::string* raw, std::string* err);

// The relay's option text as it stands in the IMAGE_ID0000 header (its
// leading blank stripped as header white space): 13 zeros, ':', 5 zeros,
// ':', 41 zeros, ':', at least 12 lowercase hex digits.
bool OptionTextOk(const std::string& text);

// Pull mode. Writes per-picture lines and the summary to `out`, problems to
// stderr. Returns the exit status: 0 all good (at least one picture, and
// `count` pictures when a count was given), 1 a check failed or the pull
// ended early, 2 the control port could not be used at all (no login).
int RunViewer(const ViewerConfig& cfg, const std::atomic<bool>& stop, std::FILE* out, ViewerReport* report);

// Command mode. Prints the raw answer to `out`. Returns 0 when the answer
// has status 200 and its Query_Result reports success (code 1), 1 for any
// other answer, 2 when no answer came.
int RunTrcom(const ViewerConfig& cfg, const std::atomic<bool>& stop, std::FILE* out);

}  // namespace otools

#endif  // OSTREL_TOOLS_VIEWER_H
