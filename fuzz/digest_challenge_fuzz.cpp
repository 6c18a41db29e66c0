// Fuzz target: the "WWW-Authenticate:" values of a camera's 401 and the
// Digest answer built from them. The first byte selects:
//   bit 0     0: the rest is one header value; 1: each line of the rest is
//             the value of one more header line
//   bits 1-2  the answer's output size: exact, one short, 64, 2048 bytes
// Whatever parses must respect the limits (at most 8 challenges, realm,
// nonce and opaque at most 200 characters and terminated); a refusal must
// say why. A picked challenge is answered, and the answer, itself a list of
// auth-params, must parse back to the same realm, nonce and opaque.
#include <cstring>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "fuzz_support.h"
#include "http/digest_auth.h"

namespace {

void CheckSet(const AuthChallenges& set)
{
    FUZZ_CHECK(set.count >= 0 && set.count <= AUTH_MAX_CHALLENGES);
    for (int i = 0; i < set.count; ++i) {
        const DigestChallenge& c = set.items[i];
        FUZZ_CHECK(strnlen(c.realm, sizeof c.realm) <= static_cast<size_t>(DIGEST_FIELD_MAX));
        FUZZ_CHECK(strnlen(c.nonce, sizeof c.nonce) <= static_cast<size_t>(DIGEST_FIELD_MAX));
        FUZZ_CHECK(strnlen(c.opaque, sizeof c.opaque) <= static_cast<size_t>(DIGEST_FIELD_MAX));
    }
}

void Answer(const DigestChallenge& ch, uint8_t sel)
{
    char probe[4096];
    int rc = DigestBuildAuthorization(ch, "user", "pass", "GET", "/axis-cgi/mjpg/video.cgi?camera=1", 1,
                                      "0123456789abcdef", probe, sizeof probe);
    FUZZ_CHECK(rc == SUCCESS);
    const size_t need = strlen(probe) + 1;
    const size_t sizes[] = {need, need - 1, 64, 2048};
    const size_t size = sizes[(sel >> 1) & 3];
    std::vector<char> out(size);  // exactly sized: a write past it is caught
    rc = DigestBuildAuthorization(ch, "user", "pass", "GET", "/axis-cgi/mjpg/video.cgi?camera=1", 1,
                                  "0123456789abcdef", out.data(), static_cast<int>(size));
    if (size >= need) {
        FUZZ_CHECK(rc == SUCCESS && strcmp(out.data(), probe) == 0);
    } else {
        FUZZ_CHECK(rc == DATA_LARGE_THEN_BUF && out[0] == '\0');
    }

    // The answer is "Digest" and auth-params: it parses as a challenge.
    AuthChallenges back;
    char reason[AUTH_REASON_SIZE];
    rc = AuthParseChallenges(probe, static_cast<int>(need - 1), &back, reason);
    FUZZ_CHECK(rc == SUCCESS && back.count == 1);
    const DigestChallenge& b = back.items[0];
    FUZZ_CHECK(strcmp(b.realm, ch.realm) == 0 && strcmp(b.nonce, ch.nonce) == 0);
    FUZZ_CHECK(b.hasOpaque == ch.hasOpaque && strcmp(b.opaque, ch.opaque) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    uint8_t sel = 0;
    if (!fuzz::TakeSelector(&data, &size, 16384, &sel)) {
        return 0;
    }
    const std::string rest(reinterpret_cast<const char*>(data), size);
    std::vector<std::string> values;
    if ((sel & 1) != 0) {
        size_t start = 0;
        for (size_t nl; (nl = rest.find('\n', start)) != std::string::npos; start = nl + 1) {
            values.push_back(rest.substr(start, nl - start));
        }
        values.push_back(rest.substr(start));
    } else {
        values.push_back(rest);
    }

    AuthChallenges set;
    char reason[AUTH_REASON_SIZE];
    int rc = SUCCESS;
    for (const std::string& v : values) {
        std::vector<char> exact(v.begin(), v.end());  // a read past the value is caught
        rc = AuthParseChallenges(exact.empty() ? "" : exact.data(), static_cast<int>(exact.size()), &set, reason);
        CheckSet(set);
        if (rc != SUCCESS) {
            FUZZ_CHECK(rc == HTTP_INVALID_SYNTAX || rc == DATASIZE_LARGE || rc == OVER_PARAM);
            FUZZ_CHECK(reason[0] != '\0' && strnlen(reason, sizeof reason) < sizeof reason);
            return 0;
        }
    }
    DigestChallenge ch;
    rc = DigestPickChallenge(set, &ch, reason);
    if (rc == SUCCESS) {
        FUZZ_CHECK(ch.scheme == AUTH_SCHEME_DIGEST);
        Answer(ch, sel);
    } else {
        FUZZ_CHECK(rc == NOTFOUND_ITEM || (rc == UNSUPPORTED_PROTOCOL && reason[0] != '\0'));
    }
    return 0;
}
