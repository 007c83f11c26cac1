#include "util/SocketAddress.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "libzero/dnslookup-addrinfo.h"
#include "support/TestSupport.h"

namespace {

std::string text(const IPv46SocketAddress& a) { return std::string(a.ip()); }

// The addresses getent lists for stream sockets.
std::set<std::string> getentSet(const char* db, const char* name) {
    std::istringstream lines(testsupport::runProcess({"/usr/bin/getent", db, name}).out);
    std::set<std::string> out;
    for (std::string address, type; lines >> address >> type; lines.ignore(1 << 20, '\n')) {
        if (type == "STREAM") out.insert(address);
    }
    return out;
}

TEST(Resolution, Ipv4SetsAreTheResolversAnswers) {
    char host[256];
    ASSERT_EQ(gethostname(host, sizeof host), 0);
    for (const char* name : {"localhost", static_cast<const char*>(host)}) {
        const std::set<std::string> expected = getentSet("ahostsv4", name);
        IPv4HostAddresses v4;
        // getent asks with AI_ADDRCONFIG, which a loopback-only host
        // answers with nothing: no oracle for that name here.
        if (expected.empty()) continue;
        ASSERT_EQ(v4.resolve(name), 0) << name;
        std::set<std::string> got;
        for (const IPv4HostAddress& a : v4.all()) {
            Str s;
            append_stringified(&s, a);
            got.insert(std::string(s));
        }
        EXPECT_EQ(got, expected) << name;
    }
}

// A resolver of made-up names, so that several addresses and IPv6 names
// exist on any host; it counts its lookups.
std::map<std::string, std::vector<std::string>> fake_names;
int fake_lookups = 0;

int fakeResolver(const char* name, const char*, const struct addrinfo* hints,
                 struct addrinfo** result) {
    fake_lookups++;
    struct addrinfo* head = nullptr;
    struct addrinfo** tail = &head;
    // Every other lookup answers in reverse: the order offered must not
    // depend on the resolver's.
    std::vector<std::string> answers = fake_names[name];
    if (fake_lookups % 2 == 0) std::reverse(answers.begin(), answers.end());
    for (const std::string& a : answers) {
        IPv46SocketAddress s;  // a literal: no lookup
        if (!s.setHostname(a.c_str()) || s.family() != hints->ai_family) continue;
        auto* ai = static_cast<struct addrinfo*>(calloc(1, sizeof(addrinfo) + s.sa_len()));
        ai->ai_family = s.family();
        ai->ai_socktype = SOCK_STREAM;
        ai->ai_addr = reinterpret_cast<sockaddr*>(ai + 1);
        ai->ai_addrlen = s.sa_len();
        memcpy(ai->ai_addr, s.sa(), s.sa_len());
        *tail = ai;
        tail = &ai->ai_next;
    }
    *result = head;
    return head != nullptr ? 0 : EAI_NONAME;
}

void fakeFree(struct addrinfo* list) {
    while (list != nullptr) {
        struct addrinfo* next = list->ai_next;
        free(list);
        list = next;
    }
}

class FakeResolverTest : public testing::Test {
protected:
    void SetUp() override {
        portable_addrinfo_resolver = fakeResolver;
        portable_addrinfo_freer = fakeFree;
        fake_lookups = 0;
        fake_names.clear();
    }
    void TearDown() override {
        portable_addrinfo_resolver = getaddrinfo;
        portable_addrinfo_freer = freeaddrinfo;
    }
    static std::vector<std::string> all(IPv46AddressIterator& it) {
        std::vector<std::string> out;
        IPv46SocketAddress a;
        while (it.getNext(&a, PortNumber(80))) {
            EXPECT_EQ(a.port(), PortNumber(80));
            out.push_back(text(a));
        }
        return out;
    }
};

TEST_F(FakeResolverTest, FamilyOrdersAndTheLazySecondLookup) {
    fake_names["both.test"] = {"10.0.0.1", "2001:db8::1"};
    fake_names["v6only.test"] = {"2001:db8::2"};
    IPv46AddressIterator it;

    ASSERT_TRUE(it.resolve("both.test", IPv46AddressIterator::ORDER_IPV6_THEN_IPV4));
    EXPECT_EQ(fake_lookups, 1);
    IPv46SocketAddress a;
    ASSERT_TRUE(it.getNext(&a, PortNumber(80)));
    EXPECT_EQ(text(a), "2001:db8::1");
    EXPECT_EQ(fake_lookups, 1) << "IPv4 is looked up only when IPv6 runs out";
    ASSERT_TRUE(it.getNext(&a, PortNumber(80)));
    EXPECT_EQ(text(a), "10.0.0.1");
    EXPECT_EQ(fake_lookups, 2);
    EXPECT_FALSE(it.getNext(&a, PortNumber(80)));

    using It = IPv46AddressIterator;
    const std::tuple<const char*, It::order_t, std::vector<std::string>> cases[] = {
        {"both.test", It::ORDER_IPV4_ONLY, {"10.0.0.1"}},
        {"both.test", It::ORDER_IPV6_ONLY, {"2001:db8::1"}},
        {"both.test", It::ORDER_IPV4_THEN_IPV6, {"10.0.0.1", "2001:db8::1"}},
        {"v6only.test", It::ORDER_IPV4_THEN_IPV6, {"2001:db8::2"}},
        {"v6only.test", It::ORDER_IPV4_ONLY, {}},
        // Literals say their family, whatever the order.
        {"127.0.0.1", It::ORDER_IPV6_ONLY, {"127.0.0.1"}},
        {"::1", It::ORDER_IPV4_ONLY, {"::1"}},
    };
    fake_names["127.0.0.1"] = {"127.0.0.1"};
    fake_names["::1"] = {"::1"};
    for (const auto& [name, order, expected] : cases) {
        const bool found = it.resolve(name, order);
        EXPECT_EQ(found, !expected.empty()) << name << " " << order;
        EXPECT_EQ(all(it), expected) << name << " " << order;
        it.rewind();
        EXPECT_EQ(all(it), expected) << "after rewind: " << name;
    }
}

std::vector<std::string> rotated(std::vector<std::string> v, size_t by) {
    std::rotate(v.begin(), v.begin() + by % v.size(), v.end());
    return v;
}

TEST_F(FakeResolverTest, EachHostGoesRoundItsOwnOrder) {
    std::vector<std::string> eight;
    for (int i = 1; i <= 8; i++) eight.push_back("10.0.0." + std::to_string(i));
    fake_names["many.test"] = eight;
    fake_names["one.test"] = {"10.9.9.9"};
    auto firstOf = [&](const char* name) {
        IPv46AddressIterator it;
        EXPECT_TRUE(it.resolve(name, IPv46AddressIterator::ORDER_IPV4_ONLY));
        return all(it);
    };
    // Successive lookups start one further along one fixed order.
    const std::vector<std::string> first = firstOf("many.test");
    ASSERT_EQ(first.size(), 8u);
    EXPECT_EQ(std::set<std::string>(first.begin(), first.end()).size(), 8u);
    for (int step = 1; step <= 8; step++) {
        ASSERT_EQ(firstOf("many.test"), rotated(first, step)) << "step " << step;
    }
    // Single addresses take no place among the remembered hosts: twenty of
    // them would push it out otherwise...
    for (int i = 0; i < 20; i++) {
        const std::string name = "single" + std::to_string(i) + ".test";
        fake_names[name] = {"10.9.9.9"};
        firstOf(name.c_str());
    }
    EXPECT_EQ(firstOf("many.test"), rotated(first, 1))
        << "the tenth lookup is nine steps round a cycle of eight";
    // ...and eleven other hosts leave it its place...
    for (int h = 0; h < 11; h++) {
        const std::string name = "other" + std::to_string(h) + ".test";
        fake_names[name] = {"10.1.0.1", "10.1.0.2"};
        firstOf(name.c_str());
    }
    EXPECT_EQ(firstOf("many.test"), rotated(first, 2));
    // ...but twelve push it out, and it draws a new place and order.
    for (int h = 0; h < 12; h++) {
        const std::string name = "other" + std::to_string(h) + ".test";
        fake_names[name] = {"10.1.0.1", "10.1.0.2"};
        firstOf(name.c_str());
    }
    const std::vector<std::string> again = firstOf("many.test");
    // A new order of eight repeats the old one (as any rotation) once in 5040.
    for (size_t step = 0; step < 8; step++) EXPECT_NE(again, rotated(first, step)) << step;
}

// What ss says of the TCP listeners on the port of `a`.
std::string listeners(const IPv46SocketAddress& a) {
    return testsupport::runProcess(
               {"/usr/bin/ss", "-Hltn", "sport = :" + std::to_string(a.port().value())})
        .out;
}

TEST(SocketAddress, ListenersConnectAndNameTheirEnds) {
    IPv46SocketAddress any;
    ASSERT_TRUE(any.setHostname("127.0.0.1"));
    ScopedPollableDescriptor listener(any.make_listener(5));
    ASSERT_TRUE(listener.valid()) << strerror(errno);
    IPv46SocketAddress bound;
    ASSERT_TRUE(listener.localAddress(&bound));
    ASSERT_NE(bound.port().value(), 0);

    ScopedPollableDescriptor client(bound.full_connect());
    ASSERT_TRUE(client.valid()) << strerror(errno);
    IPv46SocketAddress peer;
    ScopedPollableDescriptor served(listener.accept(peer));
    ASSERT_TRUE(served.valid());
    IPv46SocketAddress clientEnd;
    ASSERT_TRUE(client.localAddress(&clientEnd));
    EXPECT_TRUE(peer == clientEnd);
    EXPECT_FALSE(peer == bound);

    // The backlog the kernel took is what ss reports as the listener's Send-Q.
    EXPECT_NE(listeners(bound).find(" 5 "), std::string::npos) << listeners(bound);

    // Refused, and timed (streamConnect is connect() with a time limit).
    listener.close();
    ScopedPollableDescriptor refused(bound.full_connect());
    EXPECT_FALSE(refused.valid());
    EXPECT_EQ(errno, ECONNREFUSED);
    SocketError err;
    testing::internal::CaptureStderr();
    EXPECT_FALSE(bound.streamConnect(Interval(1000), &err).valid());
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, SocketError::fromErrno(ECONNREFUSED));
    EXPECT_NE(
        log.find("Error in connection() " + std::to_string(ECONNREFUSED) +
                 " - Connection refused ip=127.0.0.1 port=" + std::to_string(bound.port().value())),
        std::string::npos)
        << log;
}

TEST(SocketAddress, BothFamiliesListenOnOnePort) {
    IPv46SocketAddress v6;
    ASSERT_TRUE(v6.setHostname("::"));
    ScopedPollableDescriptor l6(v6.make_listener(4));
    if (!l6.valid()) GTEST_SKIP() << "no IPv6 here: " << strerror(errno);
    int v6only = 0;
    socklen_t len = sizeof v6only;
    ASSERT_EQ(getsockopt(l6.fd(), IPPROTO_IPV6, IPV6_V6ONLY, &v6only, &len), 0);
    EXPECT_EQ(v6only, 1);
    IPv46SocketAddress bound;
    ASSERT_TRUE(l6.localAddress(&bound));
    IPv46SocketAddress v4;
    ASSERT_TRUE(v4.setHostname("0.0.0.0"));
    v4.setPort(bound.port());
    ScopedPollableDescriptor l4(v4.make_listener(4));
    ASSERT_TRUE(l4.valid()) << "IPV6_V6ONLY leaves the IPv4 port free: " << strerror(errno);
    const std::string ss = listeners(bound);
    EXPECT_NE(ss.find("0.0.0.0:"), std::string::npos) << ss;
    EXPECT_NE(ss.find("[::]:"), std::string::npos) << ss;
}

TEST(SocketAddressDeathTest, TheEnvironmentSetsEveryBacklogOnce) {
    EXPECT_EXIT(
        {
            setenv("TARVEX_LISTEN_BACKLOG", "3", 1);
            IPv46SocketAddress a;
            IPv46SocketAddress bound;
            a.setHostname("127.0.0.1");
            PollableDescriptor l = a.make_listener(100);
            l.localAddress(&bound);
            const std::string first = listeners(bound);
            setenv("TARVEX_LISTEN_BACKLOG", "9", 1);  // read once: no effect
            a.make_listener(100).localAddress(&bound);
            _exit(first.find(" 3 ") != std::string::npos &&
                          listeners(bound).find(" 3 ") != std::string::npos
                      ? 0
                      : 1);
        },
        testing::ExitedWithCode(0),
        "Backlog parameter changed to value=3 for invoking listen\\(\\) system call");
}

TEST(SocketAddress, TextsAndLoopback) {
    const std::tuple<const char*, bool, const char*, bool> cases[] = {
        {"10.1.2.3", true, "10.1.2.3:8080", false},
        {"127.200.0.1", true, "127.200.0.1:8080", true},
        {"::1", true, "[::1]:8080", true},
        {"::ffff:127.0.0.1", true, "[::ffff:127.0.0.1]:8080", true},
        {"2001:db8::1", true, "[2001:db8::1]:8080", false},
        {"::1%lo", true, "[::1]:8080", true},
        {"localhost", false, "", false},
        {"1.2.3", false, "", false},
    };
    for (const auto& [literal, ok, uid, loopback] : cases) {
        IPv46SocketAddress a;
        a.setIpv4Localhost();
        a.setPort(PortNumber(8080));
        EXPECT_EQ(a.setHostname(literal), ok) << literal;
        EXPECT_EQ(isLoopBackAddress(Str(literal)), loopback) << literal;
        if (ok) {
            EXPECT_EQ(std::string(a.uid()), uid) << literal;
        }
    }
}

TEST(SocketAddress, ReverseLookupAgreesWithTheHostsDatabase) {
    const auto r = testsupport::runProcess({"/usr/bin/getent", "hosts", "127.0.0.1"});
    IPv46SocketAddress a;
    a.setHostname("127.0.0.1");
    const std::string name = std::string(a.reverseDns());
    if (r.exitStatus != 0) {
        EXPECT_EQ(name, "127.0.0.1");
        return;
    }
    // The names follow the address on getent's line.
    std::istringstream words(r.out.substr(0, r.out.find('\n')));
    std::string address;
    words >> address;
    const std::set<std::string> names{std::istream_iterator<std::string>(words), {}};
    EXPECT_EQ(names.count(name), 1u) << r.out;
}

TEST(SocketAddress, TheNextFreePortCanBeBound) {
    const PortNumber p = getNextFreeTcpPort();
    IPv46SocketAddress a;
    a.setHostname("0.0.0.0");
    a.setPort(p);
    ScopedPollableDescriptor l(a.make_listener(1));
    EXPECT_TRUE(l.valid()) << p.value() << ": " << strerror(errno);
    // The port after it, once taken, is passed over.
    IPv46SocketAddress held;
    held.setHostname("0.0.0.0");
    held.setPort(PortNumber(uint16_t(p.value() + 1)));
    ScopedPollableDescriptor hold(held.make_listener(1));
    if (!hold.valid()) GTEST_SKIP() << "the next port is someone else's";
    const PortNumber next = getNextFreeTcpPort();
    EXPECT_GT(next.value(), p.value() + 1);
}

}  // namespace
