#include "util/UriPiece.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

template <class T>
std::string str(const T& v) {
    Str s;
    append_stringified(&s, v);
    return std::string(s);
}

TEST(HostAndPort, TextFormsRoundTrip) {
    const std::tuple<const char*, const char*, unsigned> cases[] = {
        {"example.com:80", "example.com", 80},
        {"10.0.0.1:65535", "10.0.0.1", 65535},
        {"[::1]:8080", "::1", 8080},
        {"[fe80::1%eth0]:1", "fe80::1%eth0", 1},
    };
    for (const auto& [text, host, port] : cases) {
        HostAndPort hp("stale", PortNumber(1));
        ASSERT_TRUE(mem_parse_into(text, strlen(text), &hp)) << text;
        EXPECT_TRUE(hp.valid()) << text;
        EXPECT_EQ(std::string(hp.host()), host) << text;
        EXPECT_EQ(hp.port().value(), port) << text;
        EXPECT_EQ(str(hp), text);
    }
    // Refused: a bare IPv6 literal ("::1:8080") is ambiguous.
    for (const char* bad :
         {"::1:8080", "example.com", "example.com:", ":80", "example.com:0", "example.com:65536",
          "example.com:123456", "example.com:8o", "[example.com]:80", "[::1:80"}) {
        HostAndPort hp("stale", PortNumber(1));
        EXPECT_FALSE(mem_parse_into(bad, strlen(bad), &hp)) << bad;
        EXPECT_FALSE(hp.valid()) << bad;
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
    const std::tuple<const char*, bool, const char*, bool, const char*> cases[] = {
        {"[::ffff:127.0.0.2]", true, "127.0.0.2", true, "::ffff:127.0.0.2"},
        {"::ffff:10.1.2.3", true, "10.1.2.3", false, "::ffff:10.1.2.3"},
        {"0:0:0:0:0:0:0:1", false, nullptr, true, "::1"},
        {"::127.0.0.1", false, nullptr, false, "::127.0.0.1"},
        {"2001:DB8::", false, nullptr, false, "2001:db8::"},
    };
    for (const auto& [text, wrapped, v4text, loopback, shortForm] : cases) {
        ParsedIpv6Address a;
        ASSERT_TRUE(mem_parse_into(text, strlen(text), &a)) << text;
        ParsedIpv4Address v4;
        EXPECT_EQ(a.isWrappedIpV4(&v4), wrapped) << text;
        EXPECT_EQ(wrapped ? str(v4) : "", wrapped ? v4text : "") << text;
        EXPECT_EQ(a.isLoopBack(), loopback) << text;
        EXPECT_EQ(str(a), shortForm);
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
    for (const char* good : {"example.com", "a", "xn--bcher-kva.example", "1.2.3.4", "a-b.c"})
        EXPECT_TRUE(Hostname(good).isValidHostOrIpv4Address()) << good;
    for (const char* bad :
         {"-a.com", "a-.com", "a..com", "", "a_b.com", "exa mple.com", "example.com."})
        EXPECT_FALSE(Hostname(bad).isValidHostOrIpv4Address()) << bad;
    const std::string label63(63, 'a');
    EXPECT_TRUE(Hostname((label63 + ".com").c_str()).isValidHostOrIpv4Address());
    EXPECT_FALSE(Hostname((label63 + "a.com").c_str()).isValidHostOrIpv4Address());
    std::string long253;
    while (long253.size() < 253) long253 += long253.empty() ? "a" : ".a";
    EXPECT_TRUE(Hostname(long253.c_str()).isValidHostOrIpv4Address());
    EXPECT_FALSE(Hostname((long253 + "a").c_str()).isValidHostOrIpv4Address());
}

TEST(Hostname, NormalFormsAndLocalhost) {
    // The normal form, and whether it is the local host.
    const std::tuple<const char*, const char*, bool> cases[] = {
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
    for (const auto& [text, normal, localhost] : cases) {
        Hostname h(text);
        h.normalize();
        EXPECT_EQ(std::string(h), normal) << text;
        EXPECT_EQ(h.isLocalhost(), localhost) << text;
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
    // The known schemes' ports are SchemeHostPort's defaults below.
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
    // Bare: with http as the default scheme; printed null: refused.
    const std::tuple<const char*, bool, const char*, unsigned> cases[] = {
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
    for (const auto& [text, bare, printed, port] : cases) {
        SchemeHostPort shp(UriScheme(UriScheme::HTTPS), "stale", PortNumber(1));
        const size_t n = strlen(text);
        EXPECT_EQ(bare ? shp.set(text, n, UriScheme()) : shp.set(text, n), printed != nullptr)
            << text;
        EXPECT_EQ(str(shp), printed ? printed : "http://?") << text;
        EXPECT_EQ(shp.port().value(), port) << text;
    }
}

TEST(FullUri, SplitsAtSchemeAndPath) {
    const std::tuple<const char*, bool, const char*, const char*> cases[] = {
        {"http://h:81/a/b?c=/d", true, "http://h:81/a/b?c=/d", "/a/b?c=/d"},
        {"https://[::1]", true, "https://[::1]", ""},
        {"/just/a/path", false, "http://?/just/a/path", "/just/a/path"},
        {"bad://h/p", false, "http://?/p", "/p"},
    };
    for (const auto& [text, ok, printed, path] : cases) {
        FullUri u;
        u.schemeHostPort.set("https://stale", 13);
        EXPECT_EQ(mem_parse_into(text, strlen(text), &u), ok) << text;
        EXPECT_EQ(str(u), printed);
        EXPECT_EQ(std::string(u.path), path);
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
