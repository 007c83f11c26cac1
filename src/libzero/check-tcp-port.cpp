#include "libzero/check-tcp-port.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

port_availability_t tryBind(int family, int type, const struct sockaddr* sa, socklen_t len) {
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return port_availability_from_errno(errno, true);
    const int one = 1;
    port_availability_t result = PORTAVL_AVAILABLE;
    if ((family == AF_INET6 && setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one) != 0) ||
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 || bind(fd, sa, len) != 0 ||
        (type == SOCK_STREAM && listen(fd, 1) != 0)) {
        result = port_availability_from_errno(errno, false);
    }
    const int saved = errno;
    close(fd);
    errno = saved;
    return result;
}

port_availability_t checkIpv4(int type, const struct in_addr* address, unsigned port) {
    struct sockaddr_in sa;
    memset(&sa, 0, sizeof sa);
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    sa.sin_addr.s_addr = address != nullptr ? address->s_addr : htonl(INADDR_ANY);
    return tryBind(AF_INET, type, reinterpret_cast<struct sockaddr*>(&sa), sizeof sa);
}

port_availability_t checkIpv6(int type, const struct in6_addr* address, unsigned port) {
    if (address != nullptr) {
        const int local = ipv6_address_is_local(address, "/proc/net/if_inet6");
        if (local == 0) {
            errno = EADDRNOTAVAIL;
            return PORTAVL_NO_SUCH_ADDRESS;
        }
    }
    struct sockaddr_in6 sa;
    memset(&sa, 0, sizeof sa);
    sa.sin6_family = AF_INET6;
    sa.sin6_port = htons(uint16_t(port));
    sa.sin6_addr = address != nullptr ? *address : in6addr_any;
    return tryBind(AF_INET6, type, reinterpret_cast<struct sockaddr*>(&sa), sizeof sa);
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

port_availability_t port_availability_from_errno(int errnum, bool inSocketCall) {
    switch (errnum) {
        case EADDRINUSE:
            return PORTAVL_IN_USE;
        case EADDRNOTAVAIL:
            return PORTAVL_NO_SUCH_ADDRESS;
        case EACCES:
        case EPERM:
            return PORTAVL_NO_PERMISSION;
        case ENOMEM:
        case ENOBUFS:
            return PORTAVL_NO_MEMORY;
        case EMFILE:
        case ENFILE:
            return PORTAVL_SOCKET_ERROR;
        default:
            return inSocketCall ? PORTAVL_SOCKET_ERROR : PORTAVL_UNKNOWN;
    }
}

port_availability_t check_tcp_port_availability_on_ipv4_interface(const struct in_addr* address,
                                                                  unsigned port) {
    return checkIpv4(SOCK_STREAM, address, port);
}
port_availability_t check_tcp_port_availability_on_all_ipv4_interfaces(unsigned port) {
    return checkIpv4(SOCK_STREAM, nullptr, port);
}
port_availability_t check_tcp_port_availability_on_ipv6_interface(const struct in6_addr* address,
                                                                  unsigned port) {
    return checkIpv6(SOCK_STREAM, address, port);
}
port_availability_t check_tcp_port_availability_on_all_ipv6_interfaces(unsigned port) {
    return checkIpv6(SOCK_STREAM, nullptr, port);
}
port_availability_t check_udp_port_availability_on_ipv4_interface(const struct in_addr* address,
                                                                  unsigned port) {
    return checkIpv4(SOCK_DGRAM, address, port);
}
port_availability_t check_udp_port_availability_on_all_ipv4_interfaces(unsigned port) {
    return checkIpv4(SOCK_DGRAM, nullptr, port);
}
port_availability_t check_udp_port_availability_on_ipv6_interface(const struct in6_addr* address,
                                                                  unsigned port) {
    return checkIpv6(SOCK_DGRAM, address, port);
}
port_availability_t check_udp_port_availability_on_all_ipv6_interfaces(unsigned port) {
    return checkIpv6(SOCK_DGRAM, nullptr, port);
}

const char* port_availability_to_string(port_availability_t a) {
    switch (a) {
        case PORTAVL_AVAILABLE:
            return "port available";
        case PORTAVL_IN_USE:
            return "port is already bound";
        case PORTAVL_NO_SUCH_ADDRESS:
            return "address not found among local interfaces";
        case PORTAVL_NO_PERMISSION:
            return "no permission to use address/port combination";
        case PORTAVL_SOCKET_ERROR:
            return "socket error, check system limits and network configuration";
        case PORTAVL_NO_MEMORY:
            return "out of memory";
        default:
            return "(unknown error)";
    }
}

// Each line starts with the address as 32 hex digits.
int ipv6_address_is_local(const struct in6_addr* address, const char* path) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    char buf[8192];
    size_t have = 0;
    int found = 0;
    for (;;) {
        const ssize_t n = read(fd, buf + have, sizeof buf - 1 - have);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            found = -1;
            break;
        }
        if (n == 0) break;
        have += size_t(n);
        size_t lineStart = 0;
        for (size_t i = 0; i < have; i++) {
            if (buf[i] != '\n') continue;
            if (i - lineStart >= 32) {
                unsigned char bytes[16];
                bool ok = true;
                for (int b = 0; b < 16 && ok; b++) {
                    const int hi = hexValue(buf[lineStart + 2 * b]);
                    const int lo = hexValue(buf[lineStart + 2 * b + 1]);
                    ok = hi >= 0 && lo >= 0;
                    bytes[b] = static_cast<unsigned char>(hi << 4 | lo);
                }
                if (ok && memcmp(bytes, address->s6_addr, 16) == 0) found = 1;
            }
            lineStart = i + 1;
        }
        memmove(buf, buf + lineStart, have - lineStart);
        have -= lineStart;
    }
    const int saved = errno;
    close(fd);
    errno = saved;
    return found;
}
