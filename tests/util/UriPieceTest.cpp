#include "util/UriPiece.h"

#include <gtest/gtest.h>

#include <string>

namespace {

template <class T>
std::string str(const T& v) {
    Str s;
    append_stringified(&s, v);
    return std::string(s);
}

TEST(HostAndPort, TextFormsRoundTrip) {
    const struct {
        const char* text;
        const char* host;  // null: refused
        unsigned port;
    } cases[] = {
        {"example.com:80", "example.com", 80},
        {"10.0.0.1:65535", "10.0.0.1", 65535},
        {"[::1]:8080", "::1", 8080},
        {"[fe80::1%eth0]:1", "fe80::1%eth0", 1},
        {"::1:8080", nullptr, 0},  // a bare IPv6 literal is ambiguous
        {"example.com", nullptr, 0},
        {"example.com:", nullptr, 0},
        {":80", nullptr, 0},
        {"example.com:0", nullptr, 0},
        {"example.com:65536", nullptr, 0},
        {"example.com:123456", nullptr, 0},
        {"example.com:8o", nullptr, 0},
        {"[example.com]:80", nullptr, 0},
        {"[::1:80", nullptr, 0},
    };
    for (const auto& c : cases) {
        HostAndPort hp("stale", PortNumber(1));
        const bool ok = mem_parse_into(c.text, strlen(c.text), &hp);
        EXPECT_EQ(ok, c.host != nullptr) << c.text;
        EXPECT_EQ(hp.valid(), ok) << c.text;
        if (!ok) continue;
        EXPECT_EQ(std::string(hp.host()), c.host) << c.text;
        EXPECT_EQ(hp.port().value(), c.port) << c.text;
        EXPECT_EQ(str(hp), c.text);
    }
}

TEST(HostAndPort, OrderAndAddresses) {
    EXPECT_LT(HostAndPort("a", PortNumber(9)).compare(HostAndPort("b", PortNumber(1))), 0);
    EXPECT_GT(HostAndPort("a", PortNumber(9)).compare(HostAndPort("a", PortNumber(1))), 0);
    EXPECT_TRUE(HostAndPort("a", PortNumber(1)) == HostAndPort("a", PortNumber(1)));

    HostAndPort hp;
    ASSERT_TRUE(hp.set("[::1]:443"));
    IPv46SocketAddress a;
    ASSERT_TRUE(a.set(hp));
    EXPECT_EQ(std::string(a.uid()), "[::1]:443");
    HostAndPort back;
    back.set(a);
    EXPECT_TRUE(back == hp);
    HostAndPort named("example.com", PortNumber(80));
    EXPECT_FALSE(a.set(named));
    EXPECT_EQ(std::string(a.uid()), "[::1]:443") << "untouched";
}

TEST(ParsedAddresses, MappedAndLoopback) {
    const struct {
        const char* text;
        bool wrapped;
        const char* v4;
        bool loopback;
        const char* shortForm;
    } cases[] = {
        {"[::ffff:127.0.0.2]", true, "127.0.0.2", true, "::ffff:127.0.0.2"},
        {"::ffff:10.1.2.3", true, "10.1.2.3", false, "::ffff:10.1.2.3"},
        {"0:0:0:0:0:0:0:1", false, nullptr, true, "::1"},
        {"::127.0.0.1", false, nullptr, false, "::127.0.0.1"},
        {"2001:DB8::", false, nullptr, false, "2001:db8::"},
    };
    for (const auto& c : cases) {
        ParsedIpv6Address a;
        ASSERT_TRUE(mem_parse_into(c.text, strlen(c.text), &a)) << c.text;
        ParsedIpv4Address v4;
        EXPECT_EQ(a.isWrappedIpV4(&v4), c.wrapped) << c.text;
        if (c.wrapped) {
            EXPECT_EQ(str(v4), c.v4);
        }
        EXPECT_EQ(a.isLoopBack(), c.loopback) << c.text;
        EXPECT_EQ(str(a), c.shortForm);
    }
    ParsedIpv6Address low, high;
    ASSERT_TRUE(mem_parse_into("::1", 3, &low));
    ASSERT_TRUE(mem_parse_into("1::", 3, &high));
    EXPECT_EQ(low.compare(high), -1);
    EXPECT_EQ(high.compare(low), 1);
    EXPECT_FALSE(mem_parse_into("::1%lo", 6, &low));
    ParsedIpv4Address v4;
    EXPECT_FALSE(mem_parse_into("1.2.3.04", 8, &v4));
}

TEST(Hostname, ValidityAndNormalForm) {
    const struct {
        const char* text;
        bool valid;
    } cases[] = {
        {"example.com", true},
        {"a", true},
        {"xn--bcher-kva.example", true},
        {"1.2.3.4", true},
        {"a-b.c", true},
        {"-a.com", false},
        {"a-.com", false},
        {"a..com", false},
        {"", false},
        {"a_b.com", false},
        {"exa mple.com", false},
        {"example.com.", false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Hostname(c.text).isValidHostOrIpv4Address(), c.valid) << c.text;
    }
    const std::string label63(63, 'a');
    EXPECT_TRUE(Hostname((label63 + ".com").c_str()).isValidHostOrIpv4Address());
    EXPECT_FALSE(Hostname((label63 + "a.com").c_str()).isValidHostOrIpv4Address());
    std::string long253;
    while (long253.size() < 253) long253 += long253.empty() ? "a" : ".a";
    EXPECT_TRUE(Hostname(long253.c_str()).isValidHostOrIpv4Address());
    EXPECT_FALSE(Hostname((long253 + "a").c_str()).isValidHostOrIpv4Address());

    Hostname h("WWW.Example.COM.");
    h.normalize();
    EXPECT_EQ(std::string(h), "www.example.com");
    EXPECT_TRUE(h.isValidHostOrIpv4Address());
}

}  // namespace
