#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "libzero/check-tcp-port.h"
#include "libzero/ipv46_address_check.h"
#include "support/TestSupport.h"
#include "util/SocketAddress.h"

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Python's ipaddress decides what is an address and how it is written.
std::vector<std::string> pythonVerdicts(const std::vector<std::string>& texts) {
    std::vector<std::string> argv = {"/usr/bin/python3", "-c",
                                     "import ipaddress, sys\n"
                                     "for t in sys.argv[1:]:\n"
                                     "    try: a = ipaddress.ip_address(t); print(a.version, a)\n"
                                     "    except ValueError: print(0)\n"};
    argv.insert(argv.end(), texts.begin(), texts.end());
    const testsupport::ProcessResult r = testsupport::runProcess(argv);
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    return linesOf(r.out);
}

TEST(AddressCheck, LiteralsAreWhatPythonTakesForAddresses) {
    // One literal a line; the empty line and the trailing blank are cases too.
    const std::vector<std::string> texts = linesOf(
        testsupport::readFile(TARVEX_SOURCE_DIR "/tests/data/AddressCheckTest/literals.txt"));
    const std::vector<std::string> verdicts = pythonVerdicts(texts);
    ASSERT_EQ(verdicts.size(), texts.size());
    for (size_t i = 0; i < texts.size(); i++) {
        const std::string& t = texts[i];
        EXPECT_EQ(looks_like_ipv4_address(t.data(), t.size()), verdicts[i][0] == '4') << t;
        EXPECT_EQ(looks_like_ipv6_address(t.data(), t.size()), verdicts[i][0] == '6') << t;
    }
}

TEST(AddressCheck, Ipv6TextIsTheShortForm) {
    const std::vector<std::string> texts = {"2001:DB8:0:0:0:0:0:1", "0:0:0:0:0:0:0:0",
                                            "1:0:0:2:0:0:0:3",      "fe80:0:0:0:0:0:0:1",
                                            "1:2:3:4:5:6:0:0",      "0:0:1:0:0:0:0:0"};
    const std::vector<std::string> verdicts = pythonVerdicts(texts);
    ASSERT_EQ(verdicts.size(), texts.size());
    for (size_t i = 0; i < texts.size(); i++) {
        IPv6HostAddress a;
        ASSERT_TRUE(a.set(texts[i].data(), texts[i].size())) << texts[i];
        Str s;
        append_stringified(&s, a);
        EXPECT_EQ("6 " + std::string(s), verdicts[i]) << texts[i];
    }
}

TEST(AddressCheck, Ipv6LocalhostInAnySpelling) {
    for (const char* t : {"::1", "::1%lo", "0:0:0:0:0:0:0:1", "::0001", "::1%"}) {
        EXPECT_TRUE(looks_like_ipv6_localhost(t, strlen(t))) << t;
    }
    for (const char* t : {"1", "::", "::2", "0:1", "1::1", "%lo", "::11", "a::1", "::1x"}) {
        EXPECT_FALSE(looks_like_ipv6_localhost(t, strlen(t))) << t;
    }
}

TEST(PortCheck, AnswersFollowWhatBindSays) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    const unsigned port = ntohs(a.sin_port);
    in_addr loopback{htonl(INADDR_LOOPBACK)};
    EXPECT_EQ(check_tcp_port_availability_on_ipv4_interface(&loopback, port), PORTAVL_IN_USE);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(check_tcp_port_availability_on_all_ipv4_interfaces(port), PORTAVL_IN_USE);
    // UDP ports are another space.
    EXPECT_EQ(check_udp_port_availability_on_ipv4_interface(&loopback, port), PORTAVL_AVAILABLE);
    close(fd);
    EXPECT_EQ(check_tcp_port_availability_on_ipv4_interface(&loopback, port), PORTAVL_AVAILABLE);

    // A documentation address is never local, unless the host lets any
    // address be bound.
    if (testsupport::readFile("/proc/sys/net/ipv4/ip_nonlocal_bind").find('1') != 0) {
        in_addr foreign;
        inet_pton(AF_INET, "192.0.2.1", &foreign);
        EXPECT_EQ(check_tcp_port_availability_on_ipv4_interface(&foreign, port),
                  PORTAVL_NO_SUCH_ADDRESS);
    }
    if (testsupport::fileExists("/proc/net/if_inet6")) {
        in6_addr foreign6;
        inet_pton(AF_INET6, "2001:db8::1", &foreign6);
        EXPECT_EQ(check_tcp_port_availability_on_ipv6_interface(&foreign6, port),
                  PORTAVL_NO_SUCH_ADDRESS);
    }

    // Below the unprivileged range, for a user who may not bind there.
    const std::string unprivileged =
        testsupport::readFile("/proc/sys/net/ipv4/ip_unprivileged_port_start");
    if (!unprivileged.empty() && std::stoi(unprivileged) <= 1) return;
    const int status = testsupport::inChildAs(
        testsupport::kUnprivilegedUid, testsupport::kUnprivilegedGid,
        [&] { return int(check_tcp_port_availability_on_ipv4_interface(&loopback, 1)); });
    EXPECT_EQ(status, PORTAVL_NO_PERMISSION);
}

TEST(PortCheck, TextsAndErrnoMap) {
    const struct {
        int errnum;
        bool inSocket;
        port_availability_t a;
        const char* text;
    } cases[] = {
        {0, false, PORTAVL_AVAILABLE, "port available"},
        {EADDRINUSE, false, PORTAVL_IN_USE, "port is already bound"},
        {EADDRNOTAVAIL, false, PORTAVL_NO_SUCH_ADDRESS, "address not found among local interfaces"},
        {EACCES, false, PORTAVL_NO_PERMISSION, "no permission to use address/port combination"},
        {EMFILE, true, PORTAVL_SOCKET_ERROR,
         "socket error, check system limits and network configuration"},
        {EAFNOSUPPORT, true, PORTAVL_SOCKET_ERROR,
         "socket error, check system limits and network configuration"},
        {ENOBUFS, false, PORTAVL_NO_MEMORY, "out of memory"},
        {EINVAL, false, PORTAVL_UNKNOWN, "(unknown error)"},
    };
    for (const auto& c : cases) {
        if (c.errnum != 0) {
            EXPECT_EQ(port_availability_from_errno(c.errnum, c.inSocket), c.a);
        }
        EXPECT_STREQ(port_availability_to_string(c.a), c.text);
    }
}

TEST(PortCheck, LocalIpv6AddressesComeFromTheInterfaceList) {
    testsupport::ScratchDir dir;
    const std::string path = dir / "if_inet6";
    testsupport::writeFile(path,
                           "00000000000000000000000000000001 01 80 10 80       lo\n"
                           "fe800000000000000000000000000abc 02 40 20 80     eth0\n");
    in6_addr a;
    inet_pton(AF_INET6, "fe80::abc", &a);
    EXPECT_EQ(ipv6_address_is_local(&a, path.c_str()), 1);
    inet_pton(AF_INET6, "fe80::abd", &a);
    EXPECT_EQ(ipv6_address_is_local(&a, path.c_str()), 0);
    EXPECT_EQ(ipv6_address_is_local(&a, (dir / "missing").c_str()), -1);
}

}  // namespace
