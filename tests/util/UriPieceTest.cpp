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

TEST(Hostname, NormalFormsAndLocalhost) {
    const struct {
        const char* text;
        const char* normal;
        bool localhost;  // of the normal form
    } cases[] = {
        {"WWW.Example.COM.", "www.example.com", false},
        {"a...", "a", false},
        {"LocalHost", "localhost", true},
        // Only a strict dotted quad is re-rendered: the resolver's lenient
        // forms would slip past a host allow-list.
        {"127.1", "127.1", false},
        {"0177.0.0.1", "0177.0.0.1", false},
        {"2130706433", "2130706433", false},
        {"127.000.000.001.", "127.000.000.001", false},
        {"127.0.0.2", "127.0.0.2", false},
        {"999.1.1.1", "999.1.1.1", false},
        {"0:0:0:0:0:0:0:1", "::1", true},
        {"2001:DB8:0::1", "2001:db8::1", false},
        {"::FFFF:1.2.3.4", "::ffff:1.2.3.4", false},
        {"FE80::1%ETH0", "fe80::1%eth0", false},
        {"gggg::1", "gggg::1", false},
        {"", "", false},
    };
    for (const auto& c : cases) {
        Hostname h(c.text);
        h.normalize();
        EXPECT_EQ(std::string(h), c.normal) << c.text;
        EXPECT_EQ(h.isLocalhost(), c.localhost) << c.text;
    }
    for (const char* local : {"LOCALHOST", "[::1]", "0::1%lo"}) {
        EXPECT_TRUE(Hostname(local).isLocalhost()) << local;
    }
    EXPECT_FALSE(Hostname("localhost.").isLocalhost());
    Hostname h("x");
    h.setIpv4Localhost();
    EXPECT_EQ(std::string(h), "127.0.0.1");
    EXPECT_EQ(std::string(escape_host(Str("::1"))), "[::1]");
    EXPECT_EQ(std::string(escape_host(Str("a.b"))), "a.b");
    EXPECT_EQ(str(HostAndPort("::1", PortNumber(0))), "[::1]:?");
}

TEST(UriScheme, NamesPortsAndTheIpcFlag) {
    EXPECT_EQ(UriScheme(UriScheme::HTTP).defaultPort().value(), 80);
    EXPECT_EQ(UriScheme(UriScheme::HTTPS).defaultPort().value(), 443);
    EXPECT_EQ(UriScheme(UriScheme::HTTP_UNIX).defaultPort().value(), 65535);
    EXPECT_EQ(UriScheme(3).defaultPort().value(), 0xFFFF);
    EXPECT_STREQ(UriScheme(3).name(), "?");

    const char* saved = getenv("TARVEX_HTTP_OVER_IPC");
    const std::string savedValue = saved ? saved : "";
    for (const char* flag : {"true", "0", static_cast<const char*>(nullptr)}) {
        if (flag) {
            setenv("TARVEX_HTTP_OVER_IPC", flag, 1);
        } else {
            unsetenv("TARVEX_HTTP_OVER_IPC");
        }
        UriScheme::_forgetHttpOverIpc();
        const bool on = flag != nullptr && flag[0] == 't';
        SchemeHostPort shp;
        EXPECT_EQ(shp.set("HTTP+Unix://%2Frun%2Fs", 22), on) << (flag ? flag : "unset");
        EXPECT_EQ(str(shp), on ? "http+unix://%2Frun%2Fs" : "http://?");
    }
    if (saved) setenv("TARVEX_HTTP_OVER_IPC", savedValue.c_str(), 1);
    UriScheme::_forgetHttpOverIpc();
}

TEST(SchemeHostPort, ParsesAndPrints) {
    const struct {
        const char* text;
        bool bare;            // with http as the default scheme
        const char* printed;  // null: refused
        unsigned port;
    } cases[] = {
        {"http://example.com", false, "http://example.com", 80},
        {"HTTPS://Example.com:443//", false, "https://Example.com", 443},
        {"https://h:8443/", false, "https://h:8443", 8443},
        {"http://h:0", false, "http://h", 80},
        {"http://h:65536", false, "http://h", 80},
        {"http://h:", false, "http://h", 80},
        {"http://[::1]:8080", false, "http://[::1]:8080", 8080},
        {"http://[::1]", false, "http://[::1]", 80},
        {"http://::1", false, nullptr, 0},
        {"http://[h]", false, nullptr, 0},
        {"http://", false, nullptr, 0},
        {"ftp://h", false, nullptr, 0},
        {"h:81", false, nullptr, 0},
        {"h:81", true, "http://h:81", 81},
        {"https://h", true, "https://h", 443},
        {"ftp://h", true, nullptr, 0},
    };
    for (const auto& c : cases) {
        SchemeHostPort shp(UriScheme(UriScheme::HTTPS), "stale", PortNumber(1));
        const size_t n = strlen(c.text);
        const bool ok = c.bare ? shp.set(c.text, n, UriScheme()) : shp.set(c.text, n);
        EXPECT_EQ(ok, c.printed != nullptr) << c.text;
        EXPECT_EQ(str(shp), c.printed ? c.printed : "http://?") << c.text;
        EXPECT_EQ(shp.port().value(), c.port) << c.text;
    }
}

TEST(FullUri, SplitsAtSchemeAndPath) {
    const struct {
        const char* text;
        bool ok;
        const char* printed;
        const char* path;
    } cases[] = {
        {"http://h:81/a/b?c=/d", true, "http://h:81/a/b?c=/d", "/a/b?c=/d"},
        {"https://[::1]", true, "https://[::1]", ""},
        {"/just/a/path", false, "http://?/just/a/path", "/just/a/path"},
        {"bad://h/p", false, "http://?/p", "/p"},
    };
    for (const auto& c : cases) {
        FullUri u;
        u.schemeHostPort.set("https://stale", 13);
        EXPECT_EQ(mem_parse_into(c.text, strlen(c.text), &u), c.ok) << c.text;
        EXPECT_EQ(str(u), c.printed);
        EXPECT_EQ(std::string(u.path), c.path);
    }
    UriPath p;
    p.appendQuoted("a b/", 4);
    EXPECT_EQ(std::string(p), "a%20b%2F");
    p.assign("/a/b//c/");
    EXPECT_EQ(p.split(), (StrVector{"a", "b", "", "c", ""}));
    EXPECT_EQ(p.split(1), (StrVector{"a", "b//c/"}));
    EXPECT_EQ(UriPath().split(), StrVector());
}

}  // namespace
