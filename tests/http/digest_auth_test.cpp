#include "http/digest_auth.h"
#include "http/message_digest.h"
#include "http/response_parser.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "common/return_codes.h"
#include "parse_test_util.h"

namespace {

// ---- MD5 and SHA-256 -------------------------------------------------------

TEST(MessageDigest, Rfc1321AndFips180Vectors)
{
    struct Row {
        std::string in;
        const char* md5;
        const char* sha256;
    } rows[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"a", "0cc175b9c0f1b6a831c399e269772661", "ca978112ca1bbdcafac231b39a23dc4da786eff8147c4e72b9807785afee48bb"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72",
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0",
         "f7846f55cf23e14eebeab5b4e1550cad5b509e3348fbc4efa3a1413d393cb650"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b",
         "71c480df93d6ae2f1efad1447c66c9525e316218cf51fc8d9ed832f2daf18b73"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f",
         "db4bfcbd4da0cd85a60c3c37d3fbd8805c77f15fc6b1fdfe614ee0a7c8fdb4c0"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a", "f371bc4a311f2b009eef952dd83ca80e2b60026c8e935592d0f9c308453c813e"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq", "8215ef0796a20bcaaae116d3876c664a",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'), "7707d6ae4e027c70eea2a935c2296f21",
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.md5, md5(r.in)) << r.in.substr(0, 40);
        EXPECT_EQ(r.sha256, sha256(r.in)) << r.in.substr(0, 40);
    }
}

// Random inputs of every length around the padding edges (55, 56, 63, 64
// bytes ...) and some longer ones, compared with Python's hashlib.
TEST(MessageDigest, AgreesWithPythonHashlibOnRandomInputs)
{
    if (system("python3 -c pass") != 0) {
        GTEST_SKIP() << "no python3";
    }
    std::mt19937 rng(20261125);
    std::vector<std::string> inputs;
    for (size_t len = 0; len <= 200; ++len) {
        std::string s(len, '\0');
        for (char& c : s) {
            c = static_cast<char>(rng() & 0xff);
        }
        inputs.push_back(s);
    }
    for (size_t len : {1000u, 4095u, 4096u, 65537u}) {
        std::string s(len, '\0');
        for (char& c : s) {
            c = static_cast<char>(rng() & 0xff);
        }
        inputs.push_back(s);
    }
    char path[] = "/tmp/ostrel-digest-XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    FILE* f = fdopen(fd, "w");
    for (const std::string& s : inputs) {
        for (unsigned char c : s) {
            fprintf(f, "%02x", c);
        }
        fputc('\n', f);
    }
    fclose(f);
    const std::string cmd = std::string("python3 -c \"import hashlib,sys\n"
                                        "for l in open(sys.argv[1]):\n"
                                        " b=bytes.fromhex(l.strip())\n"
                                        " print(hashlib.md5(b).hexdigest(),hashlib.sha256(b).hexdigest())\" ") +
                            path;
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(nullptr, p);
    char m[64], s[128];
    size_t i = 0;
    while (fscanf(p, "%63s %127s", m, s) == 2) {
        ASSERT_LT(i, inputs.size());
        EXPECT_EQ(m, md5(inputs[i])) << "length " << inputs[i].size();
        EXPECT_EQ(s, sha256(inputs[i])) << "length " << inputs[i].size();
        ++i;
    }
    EXPECT_EQ(0, pclose(p));
    unlink(path);
    EXPECT_EQ(inputs.size(), i);
}

// ---- The challenge parser --------------------------------------------------

// A compact view of a parse: one "scheme{fields}" per challenge.
std::string describe(const AuthChallenges& set)
{
    std::string out;
    for (int i = 0; i < set.count; ++i) {
        const DigestChallenge& c = set.items[i];
        if (i > 0) {
            out += " ";
        }
        if (c.scheme != AUTH_SCHEME_DIGEST) {
            out += c.scheme == AUTH_SCHEME_BASIC ? "Basic" : "Other";
            continue;
        }
        out += "Digest{";
        if (c.hasRealm) {
            out += "realm=" + std::string(c.realm) + ";";
        }
        if (c.hasNonce) {
            out += "nonce=" + std::string(c.nonce) + ";";
        }
        if (c.hasOpaque) {
            out += "opaque=" + std::string(c.opaque) + ";";
        }
        if (c.algorithmNamed) {
            out += std::string("alg=") + DigestAlgorithmName(c.algorithm) + ";";
        }
        if (c.hasQop) {
            out += std::string("qop=") + (c.qopAuth ? "a" : "") + (c.qopAuthInt ? "i" : "") + ";";
        }
        if (c.stale) {
            out += "stale;";
        }
        if (c.userhash) {
            out += "userhash;";
        }
        out += "}";
    }
    return out;
}

int parse(const std::vector<std::string>& values, AuthChallenges* set, char* reason)
{
    *set = AuthChallenges();
    for (const std::string& v : values) {
        Bytes b(v);  // exactly sized: a read past the end is reported
        const char* bytes = b.size() > 0 ? reinterpret_cast<const char*>(b.data()) : "";
        const int rc = AuthParseChallenges(bytes, b.size(), set, reason);
        if (rc != SUCCESS) {
            return rc;
        }
    }
    return SUCCESS;
}

TEST(DigestChallenge, ParseTable)
{
    struct Row {
        std::string value;
        const char* expected;
        const char* note;
    } rows[] = {
        // RFC 7616 section 3.9.1, the two challenges of one 401.
        {"Digest realm=\"http-auth@example.org\", qop=\"auth, auth-int\", algorithm=SHA-256, "
         "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", "
         "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"",
         "Digest{realm=http-auth@example.org;nonce=7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v;"
         "opaque=FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS;alg=SHA-256;qop=ai;}",
         "RFC 7616 SHA-256 challenge"},
        {"Basic realm=\"cam\"", "Basic", "Basic only"},
        {"Basic realm=\"cam\", Digest realm=\"cam\", nonce=\"n1\", qop=\"auth\"",
         "Basic Digest{realm=cam;nonce=n1;qop=a;}", "two challenges on one line"},
        {"Digest realm=\"a\\\"b\\\\c\", nonce=n2", "Digest{realm=a\"b\\c;nonce=n2;}", "escapes; token value"},
        {"DIGEST REALM=\"r\", NONCE=\"n\", ALGORITHM=md5-SESS, QOP=AUTH, STALE=TRUE",
         "Digest{realm=r;nonce=n;alg=MD5-sess;qop=a;stale;}", "names and words in any case"},
        {"Digest realm=\"r\",nonce=\"n\",algorithm=\"SHA-256-sess\",qop=auth,userhash=true,charset=UTF-8",
         "Digest{realm=r;nonce=n;alg=SHA-256-sess;qop=a;userhash;}", "no blanks after commas; quoted algorithm"},
        {"Digest realm=\"r\", domain=\"/a /b\", nonce=\"n\", foo=bar, x=\"y, z=w\", stale=false",
         "Digest{realm=r;nonce=n;}", "unknown parameters skipped, commas inside quotes kept"},
        {"Negotiate, NTLM TlRMTVNTUAABAAAAB4IIAAAAAAAAAAAAAAAAAAAAAAA=, Digest nonce=\"n\", realm=\"r\"",
         "Other Other Digest{realm=r;nonce=n;}", "schemes without parameters and token68"},
        {"Digest realm = \"r\" ,  nonce =  \"n\" ,, ", "Digest{realm=r;nonce=n;}", "blanks around '=' and empty elements"},
        {"Digest realm=\"r\",\r\n nonce=\"n\"", "Digest{realm=r;nonce=n;}", "a folded line"},
        {"Digest realm=\"r\", nonce=\"n\", algorithm=SHA-512-256", "Digest{realm=r;nonce=n;alg=unknown;}",
         "unknown algorithm kept as such"},
        {"Digest realm=\"" + std::string(200, 'r') + "\", nonce=\"" + std::string(200, 'n') + "\"",
         nullptr, "200-character realm and nonce accepted"},
        {"", "", "empty value"},
    };
    for (const Row& r : rows) {
        AuthChallenges set;
        char reason[AUTH_REASON_SIZE];
        ASSERT_EQ(SUCCESS, parse({r.value}, &set, reason)) << r.note << ": " << reason;
        if (r.expected != nullptr) {
            EXPECT_EQ(r.expected, describe(set)) << r.note;
        } else {
            EXPECT_EQ(200u, strlen(set.items[0].realm)) << r.note;
            EXPECT_EQ(200u, strlen(set.items[0].nonce)) << r.note;
        }
    }
}

TEST(DigestChallenge, SplitOverLinesEqualsWhole)
{
    const std::vector<std::string> parts = {
        "Basic realm=\"cam\"",
        "Digest realm=\"cam\", nonce=\"abc\", algorithm=MD5, qop=\"auth\"",
        "Digest realm=\"cam\", nonce=\"def\", algorithm=SHA-256, qop=\"auth\", opaque=\"o\"",
    };
    AuthChallenges whole, split;
    char reason[AUTH_REASON_SIZE];
    ASSERT_EQ(SUCCESS, parse({parts[0] + ", " + parts[1] + ", " + parts[2]}, &whole, reason));
    ASSERT_EQ(SUCCESS, parse(parts, &split, reason));
    EXPECT_EQ(describe(whole), describe(split));
    EXPECT_EQ(3, split.count);

    // The same through the response reader's head parser: a 401's lines,
    // named exactly as the reader names every header.
    std::string head = "HTTP/1.0 401 Unauthorized\r\n";
    for (const std::string& p : parts) {
        head += "WWW-Authenticate: " + p + "\r\n";
    }
    head += "www-authenticate: Digest realm=\"x\", nonce=\"y\"\r\nContent-Length: 0\r\n\r\n";
    Bytes b(head);
    HTTPResponseParser_Class parser;
    EXPECT_EQ(HTTP_ACCESS_FAILD, parser.Parsing(b.data(), b.size()));
    EXPECT_EQ(400, parser.m_nStatus) << "the refusal stays as it was";
    ASSERT_EQ(SUCCESS, parser.ParsingErrorHead());
    EXPECT_EQ(400, parser.m_nStatus);
    EXPECT_EQ("Unauthorized", span(parser.m_Text));
    AuthChallenges fromHead;
    ASSERT_EQ(SUCCESS, AuthParseHeaderLines(parser.m_HeaderLines, &fromHead, reason));
    EXPECT_EQ(describe(whole), describe(fromHead)) << "a name in another case is not the header";
    EXPECT_EQ(NOT_INITIALIZE, parser.ParsingErrorHead()) << "only once, right after the refusal";

    DigestChallenge picked;
    ASSERT_EQ(SUCCESS, DigestPickChallenge(fromHead, &picked, reason));
    EXPECT_STREQ("def", picked.nonce) << "SHA-256 before MD5";
}

TEST(DigestChallenge, RejectTable)
{
    std::string nine;
    for (int i = 0; i < 9; ++i) {
        nine += (i ? ", " : "") + std::string("Basic realm=\"r\"");
    }
    struct Row {
        std::vector<std::string> values;
        int code;
        const char* reason;
    } rows[] = {
        {{"Digest realm=\"" + std::string(201, 'r') + "\", nonce=\"n\""}, DATASIZE_LARGE,
         "[Offset 13]:realm longer than 200 characters (201)"},
        {{"Digest realm=\"r\", nonce=" + std::string(201, 'n')}, DATASIZE_LARGE,
         "[Offset 24]:nonce longer than 200 characters (201)"},
        {{"Digest opaque=\"" + std::string(300, 'o') + "\""}, DATASIZE_LARGE,
         "[Offset 14]:opaque longer than 200 characters (300)"},
        {{nine}, OVER_PARAM, "[Offset 136]:more than 8 challenges"},
        {{"Basic a=b, Basic a=b, Basic a=b, Basic a=b", "Basic a=b, Basic a=b, Basic a=b, Basic a=b", "Basic a=b"},
         OVER_PARAM, "[Offset 0]:more than 8 challenges"},
        {{"Digest realm=\"r"}, HTTP_INVALID_SYNTAX, "[Offset 13]:quoted string not closed"},
        {{"Digest realm=\"r\\"}, HTTP_INVALID_SYNTAX, "[Offset 13]:quoted string not closed"},
        {{"Digest realm=\"a\001b\""}, HTTP_INVALID_SYNTAX, "[Offset 15]:control character 0x01 in quoted string"},
        {{"Digest realm=\"r\" nonce=\"n\""}, HTTP_INVALID_SYNTAX, "[Offset 17]:expected ',' before 0x6e"},
        {{"Digest realm=\"r\", nonce="}, HTTP_INVALID_SYNTAX, "[Offset 24]:parameter without a value"},
        {{"Digest realm=\"r\", nonce=;"}, HTTP_INVALID_SYNTAX, "[Offset 24]:parameter without a value"},
        {{"Digest\"x\""}, HTTP_INVALID_SYNTAX, "[Offset 6]:no blank after the scheme"},
        {{"=Digest"}, HTTP_INVALID_SYNTAX, "[Offset 0]:no scheme at 0x3d"},
        {{"Digest realm=\"r\", nonce=\"n\", qop=\"" + std::string(40, 'q') + "\""}, DATASIZE_LARGE,
         "[Offset 33]:qop longer than 30 characters (40)"},
    };
    for (const Row& r : rows) {
        AuthChallenges set;
        char reason[AUTH_REASON_SIZE];
        EXPECT_EQ(r.code, parse(r.values, &set, reason)) << r.reason;
        EXPECT_STREQ(r.reason, reason);
    }
}

TEST(DigestChallenge, PickTable)
{
    struct Row {
        std::string value;
        int code;
        const char* nonceOrReason;
        const char* note;
    } rows[] = {
        {"Digest nonce=\"m\", qop=auth, Digest nonce=\"s\", algorithm=SHA-256, qop=auth", SUCCESS, "s",
         "SHA-256 preferred over the MD5 listed first"},
        {"Digest nonce=\"a\", algorithm=MD5-sess, qop=auth, Digest nonce=\"b\"", SUCCESS, "a",
         "equal strength: the server's order"},
        {"Digest nonce=\"x\", algorithm=SHA-512, Digest nonce=\"m\"", SUCCESS, "m", "unknown algorithm passed over"},
        {"Digest nonce=\"i\", qop=\"auth-int\", Digest nonce=\"a\", qop=\"auth-int,auth\"", SUCCESS, "a",
         "auth-int alone passed over"},
        {"Digest nonce=\"n\"", SUCCESS, "n", "RFC 2069: no qop"},
        {"Basic realm=\"r\"", NOTFOUND_ITEM, "", "no Digest"},
        {"Digest realm=\"r\", nonce=\"n\", qop=\"auth-int\"", UNSUPPORTED_PROTOCOL, "only qop auth-int offered",
         "auth-int alone"},
        {"Digest realm=\"r\", nonce=\"n\", algorithm=SHA-512-256", UNSUPPORTED_PROTOCOL, "algorithm not supported",
         "unknown algorithm alone"},
        {"Digest realm=\"r\"", UNSUPPORTED_PROTOCOL, "no nonce", "no nonce"},
        {"Digest realm=\"r\", nonce=\"n\", algorithm=MD5-sess", UNSUPPORTED_PROTOCOL, "-sess algorithm without qop",
         "-sess needs qop"},
    };
    for (const Row& r : rows) {
        AuthChallenges set;
        char reason[AUTH_REASON_SIZE];
        ASSERT_EQ(SUCCESS, parse({r.value}, &set, reason)) << r.note;
        DigestChallenge ch;
        EXPECT_EQ(r.code, DigestPickChallenge(set, &ch, reason)) << r.note;
        EXPECT_STREQ(r.nonceOrReason, r.code == SUCCESS ? ch.nonce : reason) << r.note;
    }
}

// ---- The answer ------------------------------------------------------------

TEST(DigestAnswer, Table)
{
    const std::string rfcChallenge = "realm=\"http-auth@example.org\", qop=\"auth, auth-int\", "
                                     "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", "
                                     "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"";
    const char* rfcCnonce = "f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ";
    struct Row {
        std::string challenge;
        std::string user, password, method, uri;
        unsigned long nc;
        std::string cnonce;
        std::string expected;
        const char* note;
    } rows[] = {
        {"Digest " + rfcChallenge + ", algorithm=MD5", "Mufasa", "Circle of Life", "GET", "/dir/index.html", 1,
         rfcCnonce,
         "Digest username=\"Mufasa\", realm=\"http-auth@example.org\", uri=\"/dir/index.html\", algorithm=MD5, "
         "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", nc=00000001, "
         "cnonce=\"f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ\", qop=auth, "
         "response=\"8ca523f5e9506fed4657c9700eebdbec\", opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"",
         "RFC 7616 section 3.9.1, MD5"},
        {"Digest " + rfcChallenge + ", algorithm=SHA-256", "Mufasa", "Circle of Life", "GET", "/dir/index.html", 1,
         rfcCnonce,
         "Digest username=\"Mufasa\", realm=\"http-auth@example.org\", uri=\"/dir/index.html\", algorithm=SHA-256, "
         "nonce=\"7ypf/xlj9XXwfDPEoM4URrv/xwf94BcCAzFZH4GiTo0v\", nc=00000001, "
         "cnonce=\"f2/wE4q74E6zIJEtWaHKaf5wv/H5QzzpXusqGemxURZJ\", qop=auth, "
         "response=\"753927fa0e85d155564e2e272a28d1802ca10daf4496794697cf8db5856cb6c1\", "
         "opaque=\"FQhe/qaU925kfnzjCev0ciny7QMkPqMAFRtzCUYo5tdS\"",
         "RFC 7616 section 3.9.1, SHA-256"},
        // RFC 2617 section 3.5 (qop=auth, no algorithm named).
        {"Digest realm=\"testrealm@host.com\", qop=\"auth,auth-int\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", "
         "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"",
         "Mufasa", "Circle Of Life", "GET", "/dir/index.html", 1, "0a4f113b",
         "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", uri=\"/dir/index.html\", "
         "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", nc=00000001, cnonce=\"0a4f113b\", qop=auth, "
         "response=\"6629fae49393a05397450978507c4ef1\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"",
         "RFC 2617 section 3.5"},
        // RFC 2069's form: no qop, so no nc and no cnonce.
        {"Digest realm=\"testrealm@host.com\", nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", "
         "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"",
         "Mufasa", "CircleOfLife", "GET", "/dir/index.html", 7, "ignored",
         "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", uri=\"/dir/index.html\", "
         "nonce=\"dcd98b7102dd2f0e8b11d0f600bfb0c093\", response=\"1949323746fe6a43ef61f9606e7febea\", "
         "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\"",
         "RFC 2069 section 2.4"},
        {"Digest realm=\"r\\\"q\", nonce=\"n\", qop=auth, algorithm=MD5-sess", "u\"s", "p", "GET", "/a?b=1&c=2",
         0x1234abcdUL, "c",
         "Digest username=\"u\\\"s\", realm=\"r\\\"q\", uri=\"/a?b=1&c=2\", algorithm=MD5-sess, nonce=\"n\", "
         "nc=1234abcd, cnonce=\"c\", qop=auth, response=\"" +
             md5(md5(md5("u\"s:r\"q:p") + ":n:c") + ":n:1234abcd:c:auth:" + md5("GET:/a?b=1&c=2")) + "\"",
         "-sess; quotes escaped again; nc in eight hex digits"},
        {"Digest realm=\"r\", nonce=\"n\", qop=auth, algorithm=SHA-256, userhash=true", "u", "p", "GET", "/", 2, "c",
         "Digest username=\"" + sha256("u:r") + "\", realm=\"r\", uri=\"/\", algorithm=SHA-256, nonce=\"n\", "
         "nc=00000002, cnonce=\"c\", qop=auth, response=\"" +
             sha256(sha256("u:r:p") + ":n:00000002:c:auth:" + sha256("GET:/")) + "\", userhash=true",
         "userhash"},
    };
    for (const Row& r : rows) {
        AuthChallenges set;
        char reason[AUTH_REASON_SIZE];
        ASSERT_EQ(SUCCESS, parse({r.challenge}, &set, reason)) << r.note;
        DigestChallenge ch;
        ASSERT_EQ(SUCCESS, DigestPickChallenge(set, &ch, reason)) << r.note;
        char out[1024];
        ASSERT_EQ(SUCCESS, DigestBuildAuthorization(ch, r.user.c_str(), r.password.c_str(), r.method.c_str(),
                                                    r.uri.c_str(), r.nc, r.cnonce.c_str(), out, sizeof out))
            << r.note;
        EXPECT_EQ(r.expected, out) << r.note;

        const int need = static_cast<int>(r.expected.size()) + 1;
        EXPECT_EQ(SUCCESS, DigestBuildAuthorization(ch, r.user.c_str(), r.password.c_str(), r.method.c_str(),
                                                    r.uri.c_str(), r.nc, r.cnonce.c_str(), out, need))
            << r.note << ": exactly fits";
        EXPECT_EQ(DATA_LARGE_THEN_BUF,
                  DigestBuildAuthorization(ch, r.user.c_str(), r.password.c_str(), r.method.c_str(), r.uri.c_str(),
                                           r.nc, r.cnonce.c_str(), out, need - 1))
            << r.note;
        EXPECT_STREQ("", out) << r.note;
    }
    DigestChallenge unusable;
    unusable.scheme = AUTH_SCHEME_DIGEST;
    char out[64];
    EXPECT_EQ(INVALID_ARGUMENT, DigestBuildAuthorization(unusable, "u", "p", "GET", "/", 1, "c", out, sizeof out))
        << "no nonce";
}

}  // namespace
