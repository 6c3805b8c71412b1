// Building blocks of pds-server that the end-to-end script cannot reach cheaply: the forced-open
// window over time, token checks, the gzip codec's limits.
#include <gtest/gtest.h>

#include <string>

#include "ForceLimiter.h"
#include "GzipCodec.h"
#include "ServerOptions.h"
#include "SessionToken.h"

TEST(ForceLimiterTest, SlidingWindowPerDevice) {
    ForceLimiter limiter(2, 100);
    EXPECT_EQ(limiter.admit("a", 1000), 0);
    EXPECT_EQ(limiter.admit("a", 1010), 0);
    EXPECT_EQ(limiter.admit("a", 1050), 50);  // the first open leaves the window at 1100
    EXPECT_EQ(limiter.admit("b", 1050), 0);   // devices are counted apart
    EXPECT_EQ(limiter.admit("a", 1099), 1);
    EXPECT_EQ(limiter.admit("a", 1100), 0);  // refused opens were not counted
    EXPECT_EQ(limiter.admit("a", 1101), 9);
    EXPECT_EQ(limiter.admit("a", 1111), 0);

    ForceLimiter none(0, 60);
    EXPECT_EQ(none.admit("a", 5), 60);
}

TEST(SessionTokenTest, AcceptsOnlyItsOwnUnexpiredTokensForTheirDatabase) {
    const SessionToken tokens("secret");
    const std::string t = tokens.issue("dev.ice|1", "plm_x", 2000);
    std::string why;
    EXPECT_TRUE(tokens.verify(t, "plm_x", 1999, why)) << why;
    EXPECT_FALSE(tokens.verify(t, "plm_x", 2000, why));
    EXPECT_EQ(why, "session expired");
    EXPECT_FALSE(tokens.verify(t, "plm_y", 1000, why));
    EXPECT_EQ(why, "session is for another database");
    EXPECT_FALSE(SessionToken("other").verify(t, "plm_x", 1000, why));
    EXPECT_EQ(why, "session cookie signature mismatch");

    // Changing any signed field breaks the signature.
    std::string longer = t;
    longer.replace(longer.find(".2000."), 6, ".9000.");
    EXPECT_FALSE(tokens.verify(longer, "plm_x", 1000, why));
    EXPECT_EQ(why, "session cookie signature mismatch");
    for (const std::string bad : {"", "a.b.c", "a.b.c.d.e", "...."}) {
        EXPECT_FALSE(tokens.verify(bad, "plm_x", 1000, why)) << bad;
    }
    EXPECT_NE(SessionToken::randomSecret(), SessionToken::randomSecret());
}

TEST(GzipCodecTest, RoundTripAndRefusals) {
    std::string plain;
    for (int i = 0; i < 20000; ++i) {
        plain += "{\"_id\":\"" + std::to_string(i) + "\"},";
    }
    const std::string gz = GzipCodec::compress(plain);
    ASSERT_GE(gz.size(), 2u);
    EXPECT_EQ(static_cast<unsigned char>(gz[0]), 0x1f);
    EXPECT_EQ(static_cast<unsigned char>(gz[1]), 0x8b);
    EXPECT_EQ(GzipCodec::inflate(gz, plain.size()).value_or("?"), plain);
    EXPECT_FALSE(GzipCodec::inflate(gz, plain.size() - 1));                   // over the limit
    EXPECT_FALSE(GzipCodec::inflate(gz.substr(0, gz.size() / 2), 1u << 30));  // truncated
    EXPECT_FALSE(GzipCodec::inflate("plain text", 1u << 30));
    EXPECT_EQ(GzipCodec::inflate(GzipCodec::compress(""), 10).value_or("?"), "");
}

TEST(ServerOptionsTest, AddressesAndRequiredFlags) {
    std::string host;
    int port = -1;
    EXPECT_TRUE(splitHostPort("127.0.0.1:0", host, port));
    EXPECT_EQ(host + "/" + std::to_string(port), "127.0.0.1/0");
    EXPECT_TRUE(splitHostPort("[::1]:8443", host, port));
    EXPECT_EQ(host + "/" + std::to_string(port), "::1/8443");
    for (const char* bad : {"127.0.0.1", ":80", "h:70000", "h:-1", "[::1]80", "h:8x"}) {
        EXPECT_FALSE(splitHostPort(bad, host, port)) << bad;
    }

    int code = -1;
    const char* missingKey[] = {"pds-server", "--listen", "127.0.0.1:1", "--tls-cert", "c"};
    EXPECT_FALSE(parseServerOptions(5, const_cast<char**>(missingKey), code));
    EXPECT_EQ(code, 2);
    const char* full[] = {
        "pds-server", "--listen",      "127.0.0.1:1",      "--tls-cert",    "c", "--tls-key",
        "k",          "--db-url-base", "http://h:1/base/", "--force-limit", "5"};
    const auto o = parseServerOptions(11, const_cast<char**>(full), code);
    ASSERT_TRUE(o);
    EXPECT_EQ(o->dbUrlBase, "http://h:1/base");
    EXPECT_EQ(o->forceLimit, 5);
    const char* badNumber[] = {"pds-server", "--listen", "127.0.0.1:1",   "--tls-cert", "c",
                               "--tls-key",  "k",        "--session-ttl", "0"};
    EXPECT_FALSE(parseServerOptions(9, const_cast<char**>(badNumber), code));
}
