#include "http/digest_auth.h"

#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>

#include <string>

#include "common/return_codes.h"
#include "common/tokens.h"
#include "http/char_tables.h"
#include "http/message_digest.h"

namespace {

// A cursor over one header value. Folded header lines reach us with their
// CR LF and leading blank inside the value, so CR and LF count as blanks
// between the elements (never inside a quoted string).
struct Cursor {
    const unsigned char* p;
    int len;
    int pos;

    bool at_end() const { return pos >= len; }
    unsigned char peek() const { return p[pos]; }
};

bool is_blank(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

void skip_blanks(Cursor* c)
{
    while (!c->at_end() && is_blank(c->peek())) {
        c->pos++;
    }
}

// A token's length at the cursor (0 when none); the cursor moves past it.
int read_token(Cursor* c)
{
    const int start = c->pos;
    while (!c->at_end() && HTTP_TokenChar[c->peek()] != 0) {
        c->pos++;
    }
    return c->pos - start;
}

// token68 (RFC 7235): the credentials-like form of schemes such as Negotiate.
int read_token68(Cursor* c)
{
    const int start = c->pos;
    while (!c->at_end()) {
        const unsigned char ch = c->peek();
        const bool alnum = (ch >= 'A' && ch <= 'Z') || (ch >= 'a' && ch <= 'z') || (ch >= '0' && ch <= '9');
        if (!alnum && ch != '-' && ch != '.' && ch != '_' && ch != '~' && ch != '+' && ch != '/') {
            break;
        }
        c->pos++;
    }
    if (c->pos == start) {
        return 0;
    }
    while (!c->at_end() && c->peek() == '=') {
        c->pos++;
    }
    return c->pos - start;
}

bool name_is(const Cursor& c, int start, int len, const char* name)
{
    return static_cast<int>(strlen(name)) == len &&
           strncasecmp(reinterpret_cast<const char*>(c.p + start), name, static_cast<size_t>(len)) == 0;
}

// A parameter value, token or quoted string, unescaped into out (at most
// outMax characters, NUL-terminated; out may be null to skip the value).
// *length is the unescaped length even when it exceeds outMax.
int read_value(Cursor* c, char* out, int outMax, int* length, char* reason)
{
    int n = 0;
    if (!c->at_end() && c->peek() == '"') {
        const int open = c->pos;
        c->pos++;
        for (;;) {
            if (c->at_end()) {
                snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:quoted string not closed", open);
                return HTTP_INVALID_SYNTAX;
            }
            unsigned char ch = c->peek();
            if (ch == '"') {
                c->pos++;
                break;
            }
            if (ch == '\\') {
                c->pos++;
                if (c->at_end()) {
                    snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:quoted string not closed", open);
                    return HTTP_INVALID_SYNTAX;
                }
                ch = c->peek();
            }
            if ((ch < 0x20 && ch != '\t') || ch == 0x7f) {
                snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:control character 0x%02x in quoted string", c->pos,
                         ch);
                return HTTP_INVALID_SYNTAX;
            }
            if (out != nullptr && n < outMax) {
                out[n] = static_cast<char>(ch);
            }
            n++;
            c->pos++;
        }
    } else {
        const int start = c->pos;
        n = read_token(c);
        if (n == 0) {
            snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:parameter without a value", start);
            return HTTP_INVALID_SYNTAX;
        }
        if (out != nullptr) {
            memcpy(out, c->p + start, static_cast<size_t>(n < outMax ? n : outMax));
        }
    }
    if (out != nullptr) {
        out[n < outMax ? n : outMax] = '\0';
    }
    *length = n;
    return SUCCESS;
}

int parse_algorithm(const char* text)
{
    static const struct {
        const char* name;
        int algorithm;
    } kNames[] = {
        {"MD5", DIGEST_MD5},
        {"MD5-sess", DIGEST_MD5_SESS},
        {"SHA-256", DIGEST_SHA256},
        {"SHA-256-sess", DIGEST_SHA256_SESS},
    };
    for (const auto& n : kNames) {
        if (strcasecmp(text, n.name) == 0) {
            return n.algorithm;
        }
    }
    return DIGEST_ALGORITHM_UNKNOWN;
}

// The qop value is itself a comma-separated list ("auth,auth-int").
void parse_qop(const char* text, DigestChallenge* ch)
{
    ch->hasQop = 1;
    const char* p = text;
    while (*p != '\0') {
        while (*p == ' ' || *p == '\t' || *p == ',') {
            p++;
        }
        const char* start = p;
        while (*p != '\0' && *p != ',' && *p != ' ' && *p != '\t') {
            p++;
        }
        const size_t n = static_cast<size_t>(p - start);
        if (n == 4 && strncasecmp(start, "auth", 4) == 0) {
            ch->qopAuth = 1;
        } else if (n == 8 && strncasecmp(start, "auth-int", 8) == 0) {
            ch->qopAuthInt = 1;
        }
    }
}

// One "name=value" at the cursor (the name already read: nameStart,
// nameLen; the cursor after the "=" and blanks). Digest's parameters are
// stored, every other one is read and dropped.
int read_param(Cursor* c, int nameStart, int nameLen, DigestChallenge* ch, char* reason)
{
    static const struct {
        const char* name;
        size_t offset;
        size_t hasOffset;
    } kBounded[] = {
        {"realm", offsetof(DigestChallenge, realm), offsetof(DigestChallenge, hasRealm)},
        {"nonce", offsetof(DigestChallenge, nonce), offsetof(DigestChallenge, hasNonce)},
        {"opaque", offsetof(DigestChallenge, opaque), offsetof(DigestChallenge, hasOpaque)},
    };
    const int valueStart = c->pos;
    int length = 0;
    if (ch->scheme == AUTH_SCHEME_DIGEST) {
        for (const auto& b : kBounded) {
            if (name_is(*c, nameStart, nameLen, b.name)) {
                char* field = reinterpret_cast<char*>(ch) + b.offset;
                const int rc = read_value(c, field, DIGEST_FIELD_MAX, &length, reason);
                if (rc != SUCCESS) {
                    return rc;
                }
                if (length > DIGEST_FIELD_MAX) {
                    field[0] = '\0';
                    snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:%s longer than %d characters (%d)", valueStart,
                             b.name, DIGEST_FIELD_MAX, length);
                    return DATASIZE_LARGE;
                }
                *reinterpret_cast<int*>(reinterpret_cast<char*>(ch) + b.hasOffset) = 1;
                return SUCCESS;
            }
        }
        // algorithm, qop, stale and userhash are short words; a longer value
        // is no value we know and is read only to be skipped.
        char word[32];
        const int rc = read_value(c, word, sizeof word - 1, &length, reason);
        if (rc != SUCCESS) {
            return rc;
        }
        const bool fits = length < static_cast<int>(sizeof word) - 1;
        if (name_is(*c, nameStart, nameLen, "algorithm")) {
            ch->algorithmNamed = 1;
            ch->algorithm = fits ? parse_algorithm(word) : DIGEST_ALGORITHM_UNKNOWN;
        } else if (name_is(*c, nameStart, nameLen, "qop")) {
            if (!fits) {
                snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:qop longer than %d characters (%d)", valueStart,
                         static_cast<int>(sizeof word) - 2, length);
                return DATASIZE_LARGE;
            }
            parse_qop(word, ch);
        } else if (name_is(*c, nameStart, nameLen, "stale")) {
            ch->stale = fits && strcasecmp(word, "true") == 0;
        } else if (name_is(*c, nameStart, nameLen, "userhash")) {
            ch->userhash = fits && strcasecmp(word, "true") == 0;
        }
        return SUCCESS;
    }
    return read_value(c, nullptr, 0, &length, reason);
}

// After "name": blanks, "=", blanks. False (cursor unchanged) when no "="
// follows: then the name was not a parameter's.
bool read_equals(Cursor* c)
{
    const int save = c->pos;
    skip_blanks(c);
    if (c->at_end() || c->peek() != '=') {
        c->pos = save;
        return false;
    }
    c->pos++;
    skip_blanks(c);
    return true;
}

// The parameters of the challenge whose scheme ends at the cursor, up to the
// start of the next challenge or the end of the value.
int read_challenge_params(Cursor* c, DigestChallenge* ch, char* reason)
{
    // Right after the scheme: nothing, a list separator, or at least one
    // blank and then a token68 or the first parameter.
    if (c->at_end() || c->peek() == ',') {
        return SUCCESS;
    }
    if (!is_blank(c->peek())) {
        snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:no blank after the scheme", c->pos);
        return HTTP_INVALID_SYNTAX;
    }
    skip_blanks(c);
    if (c->at_end() || c->peek() == ',') {
        return SUCCESS;
    }
    int nameStart = c->pos;
    int nameLen = read_token(c);
    if (nameLen > 0 && read_equals(c) && !c->at_end() && c->peek() != '=' && c->peek() != ',') {
        const int rc = read_param(c, nameStart, nameLen, ch, reason);
        if (rc != SUCCESS) {
            return rc;
        }
    } else {
        c->pos = nameStart;
        if (read_token68(c) == 0) {
            snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:unexpected character 0x%02x", c->pos, c->peek());
            return HTTP_INVALID_SYNTAX;
        }
    }
    for (;;) {
        skip_blanks(c);
        if (c->at_end()) {
            return SUCCESS;
        }
        if (c->peek() != ',') {
            snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:expected ',' before 0x%02x", c->pos, c->peek());
            return HTTP_INVALID_SYNTAX;
        }
        // A list element: this challenge's next parameter when it is
        // "name=", otherwise the next challenge's scheme.
        while (!c->at_end() && (c->peek() == ',' || is_blank(c->peek()))) {
            c->pos++;
        }
        if (c->at_end()) {
            return SUCCESS;
        }
        nameStart = c->pos;
        nameLen = read_token(c);
        if (nameLen == 0 || !read_equals(c)) {
            c->pos = nameStart;
            return SUCCESS;
        }
        const int rc = read_param(c, nameStart, nameLen, ch, reason);
        if (rc != SUCCESS) {
            return rc;
        }
    }
}

const char* unusable_reason(const DigestChallenge& ch)
{
    if (!ch.hasNonce) {
        return "no nonce";
    }
    if (ch.algorithm == DIGEST_ALGORITHM_UNKNOWN) {
        return "algorithm not supported";
    }
    if (ch.hasQop && !ch.qopAuth) {
        return ch.qopAuthInt ? "only qop auth-int offered" : "no qop supported";
    }
    if (!ch.hasQop && (ch.algorithm == DIGEST_MD5_SESS || ch.algorithm == DIGEST_SHA256_SESS)) {
        return "-sess algorithm without qop";
    }
    return nullptr;
}

std::string hash_hex(int algorithm, const std::string& text)
{
    char out[SHA256_HEX_SIZE];
    DigestHashHex(algorithm == DIGEST_SHA256 || algorithm == DIGEST_SHA256_SESS, text.data(), text.size(), out);
    return out;
}

// A quoted string with '"' and '\' escaped.
std::string quoted(const char* text)
{
    std::string q = "\"";
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '"' || *p == '\\') {
            q += '\\';
        }
        q += *p;
    }
    q += '"';
    return q;
}

}  // namespace

int AuthParseChallenges(const char* value, int len, AuthChallenges* set, char* reason)
{
    if (value == nullptr || set == nullptr || reason == nullptr || len < 0) {
        return INVALID_ARGUMENT;
    }
    reason[0] = '\0';
    Cursor c{reinterpret_cast<const unsigned char*>(value), len, 0};
    for (;;) {
        while (!c.at_end() && (c.peek() == ',' || is_blank(c.peek()))) {
            c.pos++;
        }
        if (c.at_end()) {
            return SUCCESS;
        }
        const int schemeStart = c.pos;
        const int schemeLen = read_token(&c);
        if (schemeLen == 0) {
            snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:no scheme at 0x%02x", c.pos, c.peek());
            return HTTP_INVALID_SYNTAX;
        }
        if (set->count >= AUTH_MAX_CHALLENGES) {
            snprintf(reason, AUTH_REASON_SIZE, "[Offset %d]:more than %d challenges", schemeStart,
                     AUTH_MAX_CHALLENGES);
            return OVER_PARAM;
        }
        DigestChallenge* ch = &set->items[set->count];
        *ch = DigestChallenge();
        if (name_is(c, schemeStart, schemeLen, "Digest")) {
            ch->scheme = AUTH_SCHEME_DIGEST;
        } else if (name_is(c, schemeStart, schemeLen, "Basic")) {
            ch->scheme = AUTH_SCHEME_BASIC;
        }
        const int rc = read_challenge_params(&c, ch, reason);
        if (rc != SUCCESS) {
            return rc;
        }
        set->count++;
    }
}

int AuthParseHeaderLines(const StaticArr_NameValToken_Class& lines, AuthChallenges* set, char* reason)
{
    if (set == nullptr || reason == nullptr) {
        return INVALID_ARGUMENT;
    }
    *set = AuthChallenges();
    reason[0] = '\0';
    for (int i = 0; i < lines.GetCount(); ++i) {
        const NameValToken_Class* line = lines.Get(i);
        if (line == nullptr || line->m_Name.Compare("WWW-Authenticate:") != SUCCESS || line->m_Val.GetLength() < 1) {
            continue;
        }
        const int rc = AuthParseChallenges(reinterpret_cast<const char*>(line->m_Val.GetPtr()),
                                           line->m_Val.GetLength(), set, reason);
        if (rc != SUCCESS) {
            return rc;
        }
    }
    return SUCCESS;
}

int DigestPickChallenge(const AuthChallenges& set, DigestChallenge* out, char* reason)
{
    if (out == nullptr || reason == nullptr) {
        return INVALID_ARGUMENT;
    }
    reason[0] = '\0';
    const DigestChallenge* best = nullptr;
    const DigestChallenge* firstDigest = nullptr;
    auto strength = [](const DigestChallenge& ch) {
        return ch.algorithm == DIGEST_SHA256 || ch.algorithm == DIGEST_SHA256_SESS ? 2 : 1;
    };
    for (int i = 0; i < set.count && i < AUTH_MAX_CHALLENGES; ++i) {
        const DigestChallenge& ch = set.items[i];
        if (ch.scheme != AUTH_SCHEME_DIGEST) {
            continue;
        }
        if (firstDigest == nullptr) {
            firstDigest = &ch;
        }
        if (unusable_reason(ch) == nullptr && (best == nullptr || strength(ch) > strength(*best))) {
            best = &ch;
        }
    }
    if (best != nullptr) {
        *out = *best;
        return SUCCESS;
    }
    if (firstDigest == nullptr) {
        return NOTFOUND_ITEM;
    }
    snprintf(reason, AUTH_REASON_SIZE, "%s", unusable_reason(*firstDigest));
    return UNSUPPORTED_PROTOCOL;
}

const char* DigestAlgorithmName(int algorithm)
{
    switch (algorithm) {
    case DIGEST_MD5: return "MD5";
    case DIGEST_MD5_SESS: return "MD5-sess";
    case DIGEST_SHA256: return "SHA-256";
    case DIGEST_SHA256_SESS: return "SHA-256-sess";
    default: return "unknown";
    }
}

int DigestBuildAuthorization(const DigestChallenge& ch, const char* user, const char* password, const char* method,
                             const char* uri, unsigned long nc, const char* cnonce, char* out, int outSize)
{
    if (user == nullptr || password == nullptr || method == nullptr || uri == nullptr || cnonce == nullptr ||
        out == nullptr || outSize < 1) {
        return INVALID_ARGUMENT;
    }
    out[0] = '\0';
    if (ch.scheme != AUTH_SCHEME_DIGEST || unusable_reason(ch) != nullptr) {
        return INVALID_ARGUMENT;
    }
    const int alg = ch.algorithm;
    char ncText[16];
    snprintf(ncText, sizeof ncText, "%08lx", nc & 0xffffffffUL);

    std::string ha1 = hash_hex(alg, std::string(user) + ":" + ch.realm + ":" + password);
    if (alg == DIGEST_MD5_SESS || alg == DIGEST_SHA256_SESS) {
        ha1 = hash_hex(alg, ha1 + ":" + ch.nonce + ":" + cnonce);
    }
    const std::string ha2 = hash_hex(alg, std::string(method) + ":" + uri);
    const std::string response =
        ch.hasQop ? hash_hex(alg, ha1 + ":" + ch.nonce + ":" + ncText + ":" + cnonce + ":auth:" + ha2)
                  : hash_hex(alg, ha1 + ":" + ch.nonce + ":" + ha2);
    const std::string name = ch.userhash ? hash_hex(alg, std::string(user) + ":" + ch.realm) : std::string(user);

    // The order of RFC 7616's examples.
    std::string text = "Digest username=" + quoted(name.c_str()) + ", realm=" + quoted(ch.realm) +
                       ", uri=" + quoted(uri);
    if (ch.algorithmNamed) {
        text += std::string(", algorithm=") + DigestAlgorithmName(alg);
    }
    text += ", nonce=" + quoted(ch.nonce);
    if (ch.hasQop) {
        text += std::string(", nc=") + ncText + ", cnonce=" + quoted(cnonce) + ", qop=auth";
    }
    text += ", response=" + quoted(response.c_str());
    if (ch.hasOpaque) {
        text += ", opaque=" + quoted(ch.opaque);
    }
    if (ch.userhash) {
        text += ", userhash=true";
    }
    if (text.size() >= static_cast<size_t>(outSize)) {
        return DATA_LARGE_THEN_BUF;
    }
    memcpy(out, text.c_str(), text.size() + 1);
    return SUCCESS;
}
