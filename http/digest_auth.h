#ifndef OSTREL_HTTP_DIGEST_AUTH_H
#define OSTREL_HTTP_DIGEST_AUTH_H

// Digest access authentication (RFC 7616, with RFC 2617's MD5 forms and
// RFC 2069's answer without qop) as pure functions over bytes: parse the
// values of a 401 response's "WWW-Authenticate:" lines, pick the challenge
// to answer, build the answer. No sockets, no clock, no randomness: the
// caller supplies the client nonce and the nonce count.
//
// Every stored field is bounded: realm, nonce and opaque at most 200
// characters each, at most 8 challenges over all of a response's lines.
// Anything longer, or malformed, is refused with a code and a one-line
// English reason; nothing is cut.
//
// Thread-safety: none needed; the functions touch only their arguments.

class StaticArr_NameValToken_Class;

constexpr int DIGEST_FIELD_MAX = 200;
constexpr int AUTH_MAX_CHALLENGES = 8;
constexpr int AUTH_REASON_SIZE = 160;

enum DigestAlgorithm {
    DIGEST_MD5 = 0,
    DIGEST_MD5_SESS,
    DIGEST_SHA256,
    DIGEST_SHA256_SESS,
    DIGEST_ALGORITHM_UNKNOWN,
};

enum AuthScheme {
    AUTH_SCHEME_OTHER = 0,
    AUTH_SCHEME_BASIC,
    AUTH_SCHEME_DIGEST,
};

// One challenge. Texts are NUL-terminated, unescaped (quoted-pair
// backslashes removed). For schemes other than Digest only the scheme is
// kept.
struct DigestChallenge {
    int scheme = AUTH_SCHEME_OTHER;
    char realm[DIGEST_FIELD_MAX + 1] = {};
    char nonce[DIGEST_FIELD_MAX + 1] = {};
    char opaque[DIGEST_FIELD_MAX + 1] = {};
    int hasRealm = 0;
    int hasNonce = 0;
    int hasOpaque = 0;
    int algorithm = DIGEST_MD5;  // MD5 when the challenge names none
    int algorithmNamed = 0;      // the challenge carried algorithm=
    int hasQop = 0;              // the challenge carried qop=
    int qopAuth = 0;             // "auth" is among the offered qop values
    int qopAuthInt = 0;          // "auth-int" is among them
    int stale = 0;               // stale=true
    int userhash = 0;            // userhash=true
};

// The challenges of one response, in the order they came.
struct AuthChallenges {
    int count = 0;
    DigestChallenge items[AUTH_MAX_CHALLENGES];
};

// Parses one header value (len bytes, no NUL needed) and appends its
// challenges to *set; call once per "WWW-Authenticate:" line. Scheme and
// parameter names are matched ignoring case; unknown parameters are skipped;
// values may be tokens or quoted strings.
// SUCCESS; HTTP_INVALID_SYNTAX for a malformed value; DATASIZE_LARGE for a
// realm, nonce or opaque over 200 characters; OVER_PARAM for a ninth
// challenge. On failure reason (AUTH_REASON_SIZE bytes) says what and where
// and *set holds the challenges before the faulty one.
int AuthParseChallenges(const char* value, int len, AuthChallenges* set, char* reason);

// Collects the challenges of every "WWW-Authenticate:" line among a
// response's header lines (names matched exactly, with the colon, as the
// reader matches all header names), in their order. SUCCESS (also when
// there are none: set->count is then 0) or AuthParseChallenges's failure.
int AuthParseHeaderLines(const StaticArr_NameValToken_Class& lines, AuthChallenges* set, char* reason);

// Picks the challenge to answer: among the usable Digest challenges the
// strongest (SHA-256 and SHA-256-sess before MD5 and MD5-sess), the first
// of equal strength. Usable: a nonce, a known algorithm, qop absent or
// offering "auth", and no "-sess" algorithm without qop.
// SUCCESS with *out; NOTFOUND_ITEM when there is no Digest challenge;
// UNSUPPORTED_PROTOCOL when none of them is usable, with the first one's
// reason in reason (e.g. only qop auth-int offered).
int DigestPickChallenge(const AuthChallenges& set, DigestChallenge* out, char* reason);

// The name of an algorithm as sent ("MD5", "SHA-256-sess", ...).
const char* DigestAlgorithmName(int algorithm);

// Writes the value of the "Authorization:" line answering ch for one
// request: 'Digest username="..", realm="..", uri="..", algorithm=..,
// nonce="..", nc=.., cnonce="..", qop=auth, response="..", opaque=".."'
// (algorithm only when the challenge named one; nc, cnonce and qop only when
// it offered qop; opaque when it had one; userhash=true last when asked
// for). uri is the request target exactly as sent; nc is the nonce count
// (1 for a nonce's first use); cnonce is the client nonce (quoted as
// given). Quoted values are escaped.
// SUCCESS; INVALID_ARGUMENT for null arguments or an unusable challenge;
// DATA_LARGE_THEN_BUF when the text does not fit in outSize bytes (out is
// then empty).
int DigestBuildAuthorization(const DigestChallenge& ch, const char* user, const char* password, const char* method,
                             const char* uri, unsigned long nc, const char* cnonce, char* out, int outSize);

#endif
