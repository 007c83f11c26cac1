#pragma once
// Socket addresses as values, the listener factory, and the resolver front
// that spreads the clients of one host over its addresses: every process
// goes round the addresses of a name in an order of its own, so that all
// clients do not pick the first address the resolver gives.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstdint>
#include <vector>

#include "libzero/assertion.h"
#include "util/HashedStr.h"
#include "util/PollableDescriptor.h"
#include "util/Str.h"
#include "util/Timeval.h"

class HostAndPort;
class Pathname;

class PortNumber {
public:
    constexpr PortNumber() = default;
    constexpr explicit PortNumber(uint16_t port) : _port(port) {}
    constexpr uint16_t value() const { return _port; }
    friend constexpr bool operator==(PortNumber, PortNumber) = default;

private:
    uint16_t _port = 0;
};

// A bare IPv4 address, in network order.
class IPv4HostAddress {
public:
    IPv4HostAddress() { _a.s_addr = 0; }
    explicit IPv4HostAddress(const struct in_addr& a) : _a(a) {}
    // A dotted quad; false (the value untouched) for anything else.
    bool set(const char* text, size_t length);
    const struct in_addr& addr() const { return _a; }
    friend bool operator==(const IPv4HostAddress& a, const IPv4HostAddress& b) {
        return a._a.s_addr == b._a.s_addr;
    }
    // Numeric order, for sorting a host's addresses.
    friend bool operator<(const IPv4HostAddress& a, const IPv4HostAddress& b) {
        return ntohl(a._a.s_addr) < ntohl(b._a.s_addr);
    }

private:
    struct in_addr _a;
};

class IPv6HostAddress {
public:
    IPv6HostAddress() : _a(in6addr_any) {}
    explicit IPv6HostAddress(const struct in6_addr& a) : _a(a) {}
    // An IPv6 literal, without zone; false for anything else.
    bool set(const char* text, size_t length);
    const struct in6_addr& addr() const { return _a; }
    friend bool operator==(const IPv6HostAddress& a, const IPv6HostAddress& b) {
        return memcmp(&a._a, &b._a, sizeof a._a) == 0;
    }
    friend bool operator<(const IPv6HostAddress& a, const IPv6HostAddress& b) {
        return memcmp(&a._a, &b._a, sizeof a._a) < 0;
    }

private:
    struct in6_addr _a;
};

// "1.2.3.4"; IPv6 in the shortest form of RFC 5952 ("2001:db8::1").
void append_stringified(Str* out, const IPv4HostAddress& a);
void append_stringified(Str* out, const IPv6HostAddress& a);

class SocketAddress {
public:
    SocketAddress();

    socklen_t sa_len() const { return _len; }
    const struct sockaddr* sa() const { return &_u.sa; }
    struct sockaddr* sa() {
        return &_u.sa;
    }
    // After a call filled sa(): the length it reported.
    void setLength(socklen_t length) { _len = length; }
    static constexpr socklen_t capacity() { return sizeof(struct sockaddr_storage); }
    int family() const { return _u.sa.sa_family; }
    bool valid() const { return _len != 0; }

    // 0 for addresses without one.
    PortNumber port() const;
    // The address as text (the path for a Unix socket), without the port.
    Str ip() const;

    // A bound socket of `type`, listening when it is a stream socket;
    // invalid with errno on failure. TARVEX_LISTEN_BACKLOG, read once per
    // process, replaces every backlog.
    PollableDescriptor make_listener(unsigned backlog, int family, int type) const;
    PollableDescriptor make_listener(unsigned backlog = 128) const {
        return make_listener(backlog, family(), SOCK_STREAM);
    }
    // A blocking stream connection; invalid with errno on failure.
    PollableDescriptor full_connect() const;
    // A non-blocking stream socket whose connect is under way (or done):
    // wait for writability, then finishAsyncConnect(). Invalid with errno
    // when even that failed.
    PollableDescriptor start_async_connect() const;

    // Same family, address and port (path for Unix sockets).
    friend bool operator==(const SocketAddress& a, const SocketAddress& b);

protected:
    void setInet(const struct in_addr& host, PortNumber port);
    void setInet6(const struct in6_addr& host, PortNumber port);

    union {
        struct sockaddr sa;
        struct sockaddr_in in4;
        struct sockaddr_in6 in6;
        struct sockaddr_un un;
        struct sockaddr_storage ss;
    } _u;
    socklen_t _len = 0;
};

// "ip:port", "[ip]:port" for IPv6, the path for a Unix socket.
void append_stringified(Str* out, const SocketAddress& a);

class UnixSocketAddress : public SocketAddress {
public:
    // A path too long for sun_path leaves the address invalid.
    explicit UnixSocketAddress(const Pathname& path);
};

class IPv4SocketAddress : public SocketAddress {
public:
    IPv4SocketAddress(const IPv4HostAddress& host, PortNumber port);
};

class IPv6SocketAddress : public SocketAddress {
public:
    IPv6SocketAddress(const IPv6HostAddress& host, PortNumber port);
};

// Either family.
class IPv46SocketAddress : public SocketAddress {
public:
    IPv46SocketAddress() = default;
    IPv46SocketAddress(const IPv4HostAddress& host, PortNumber port);
    IPv46SocketAddress(const IPv6HostAddress& host, PortNumber port);
    // From a system call's result; false when it is neither family.
    bool set(const struct sockaddr* sa, socklen_t length);

    void setIpv4Localhost();
    void setPort(PortNumber port);
    // A literal of either family; false (untouched) for anything else.
    bool setHostname(const char* text);
    // A host that is a literal, and its port; false (untouched) for a name.
    bool set(const HostAndPort& hp);
    // A blocking stream connection made within `timeout` (0: no limit):
    // valid on success; else invalid, the failure in `*err` and logged.
    PollableDescriptor streamConnect(Interval timeout, SocketError* err) const;
    // The text form, which identifies the address and port.
    Str uid() const;
    bool isLoopBack() const;
    // The name of the address (getnameinfo with NI_NAMEREQD), cached per
    // address for the process; the text of the address when there is none.
    Str reverseDns() const;
};

bool isLoopBackAddress(const Str& text);

// The next port, counting on from the last one this process handed out,
// that can be bound on all IPv4 interfaces. Exits the process (status 15)
// when every port from 1024 to 65534 is taken.
PortNumber getNextFreeTcpPort();

// ---------------------------------------------------------------- resolution

// The addresses of one family that a name resolved to.
class multiple_address_results {
public:
    size_t size() const { return _n; }
    bool empty() const { return _n == 0; }

protected:
    // The process's place (index) and order (seed) for the host hashed as
    // `hash`: a known host goes one on; the last 12 hosts are remembered.
    void _get_permutation_state(str_hash_t hash, unsigned* index, unsigned long* seed) const;
    // Fisher-Yates with the seed's linear congruential sequence.
    template <class T>
    static void _shuffle(std::vector<T>& v, unsigned long seed);
    // Sorted, then shuffled with the host's seed; the host's place back.
    template <class T>
    unsigned _inSemistableOrder(std::vector<T>& v, str_hash_t hash) const;

    size_t _n = 0;
};

class IPv4HostAddresses : public multiple_address_results {
public:
    // EAI_ code, 0 on success.
    int resolve(const char* name);
    void add(const IPv4HostAddress& a);
    void clear() {
        _v.clear();
        _n = 0;
    }
    // Modulo the size; the list must not be empty.
    const IPv4HostAddress& element(size_t i) const {
        ASSERT(!_v.empty());
        return _v[i % _v.size()];
    }
    const std::vector<IPv4HostAddress>& all() const { return _v; }
    // One fixed random order per host and process, taken one step further
    // at each call.
    const IPv4HostAddress& ipv4_round_robin(str_hash_t hash);
    // The whole list in the host's order for this process; the place a
    // caller starts from (the round-robin step) comes back.
    unsigned ipv4_in_semistable_order(str_hash_t hash);
    void swap(IPv4HostAddresses& o) noexcept {
        _v.swap(o._v);
        std::swap(_n, o._n);
    }

private:
    std::vector<IPv4HostAddress> _v;
};

class IPv6HostAddresses : public multiple_address_results {
public:
    int resolve(const char* name);
    void add(const IPv6HostAddress& a);
    void clear() {
        _v.clear();
        _n = 0;
    }
    const IPv6HostAddress& element(size_t i) const {
        ASSERT(!_v.empty());
        return _v[i % _v.size()];
    }
    const std::vector<IPv6HostAddress>& all() const { return _v; }
    const IPv6HostAddress& ipv6_round_robin(str_hash_t hash);
    unsigned ipv6_in_semistable_order(str_hash_t hash);
    void swap(IPv6HostAddresses& o) noexcept {
        _v.swap(o._v);
        std::swap(_n, o._n);
    }

private:
    std::vector<IPv6HostAddress> _v;
};

// getaddrinfo's answers as the two lists.
class AddrinfoWrapper {
public:
    AddrinfoWrapper() = default;
    ~AddrinfoWrapper();
    AddrinfoWrapper(const AddrinfoWrapper&) = delete;
    AddrinfoWrapper& operator=(const AddrinfoWrapper&) = delete;

    // EAI_ code, 0 on success.
    int lookupIpv4(const char* name);
    int lookupIpv6(const char* name);
    // The first answer of the family, false when there is none.
    bool ipv4Addr(IPv4HostAddress* out) const;
    bool ipv6Addr(IPv6HostAddress* out) const;
    // Every distinct answer, in the resolver's order.
    void ipv4_insert_all(IPv4HostAddresses* out) const;
    void ipv6_insert_all(IPv6HostAddresses* out) const;

private:
    struct addrinfo* _list = nullptr;
};

// Offers the addresses of a name in a chosen family order; the second
// family of an "then" order is resolved only when the first runs out.
class IPv46AddressIterator {
public:
    enum order_t {
        ORDER_IPV4_ONLY = 0,
        ORDER_IPV6_ONLY = 1,
        ORDER_IPV4_THEN_IPV6 = 2,
        ORDER_IPV6_THEN_IPV4 = 3,
    };

    // False when no address of the order's first family (or, for the
    // "then" orders, of either) could be found.
    bool resolve(const char* name, order_t order);
    // Both families at once.
    bool resolveFully(const char* name, order_t order);
    // The next address with `port`; false at the end or when the lazy
    // lookup of the second family fails.
    bool getNext(IPv46SocketAddress* address, PortNumber port);
    void rewind();
    void swap(IPv46AddressIterator& o) noexcept;
    order_t order() const { return _order; }

private:
    bool resolveV4();
    bool resolveV6();

    // Each family's list in the host's order, where this lookup starts in
    // it, and how many were given out.
    IPv4HostAddresses _v4;
    size_t _v4start = 0, _v4cursor = 0;
    IPv6HostAddresses _v6;
    size_t _v6start = 0, _v6cursor = 0;
    bool _currentIsV6 = false;
    bool _secondResolved = false;
    Str _name;
    order_t _order = ORDER_IPV4_ONLY;
};
