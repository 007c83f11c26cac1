#pragma once
// Whether a port can be bound here, by binding it for a moment with the
// options a listener would use (SO_REUSEADDR, and IPV6_V6ONLY on IPv6).
// errno is left as the failing call set it.
#include <netinet/in.h>

enum port_availability_t {
    PORTAVL_AVAILABLE = 0,
    PORTAVL_IN_USE = 1,
    PORTAVL_NO_SUCH_ADDRESS = 2,
    PORTAVL_NO_PERMISSION = 3,
    PORTAVL_SOCKET_ERROR = 4,
    PORTAVL_NO_MEMORY = 5,
    PORTAVL_UNKNOWN = 6,
};

// The errno of a failed socket(), bind() or listen() as an answer:
// EADDRINUSE in use; EADDRNOTAVAIL no such address; EACCES, EPERM no
// permission; ENOMEM, ENOBUFS out of memory; EMFILE, ENFILE and the
// failures of socket() itself a socket error; anything else unknown.
port_availability_t port_availability_from_errno(int errnum, bool inSocketCall);

port_availability_t check_tcp_port_availability_on_ipv4_interface(const struct in_addr* address,
                                                                  unsigned port);
port_availability_t check_tcp_port_availability_on_all_ipv4_interfaces(unsigned port);
// The address must be one of this host's ("/proc/net/if_inet6").
port_availability_t check_tcp_port_availability_on_ipv6_interface(const struct in6_addr* address,
                                                                  unsigned port);
port_availability_t check_tcp_port_availability_on_all_ipv6_interfaces(unsigned port);
port_availability_t check_udp_port_availability_on_ipv4_interface(const struct in_addr* address,
                                                                  unsigned port);
port_availability_t check_udp_port_availability_on_all_ipv4_interfaces(unsigned port);
port_availability_t check_udp_port_availability_on_ipv6_interface(const struct in6_addr* address,
                                                                  unsigned port);
port_availability_t check_udp_port_availability_on_all_ipv6_interfaces(unsigned port);

// "port available", "port is already bound", ... "(unknown error)".
const char* port_availability_to_string(port_availability_t a);

// Whether `address` is listed in `path` (the format of /proc/net/if_inet6).
// 1 yes, 0 no, -1 when the file can't be read (errno set).
int ipv6_address_is_local(const struct in6_addr* address, const char* path);
