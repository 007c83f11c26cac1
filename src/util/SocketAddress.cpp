#include "util/SocketAddress.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <new>
#include <string>

#include "libzero/assertion.h"
#include "libzero/check-tcp-port.h"
#include "libzero/dnslookup-addrinfo.h"
#include "libzero/ipv46_address_check.h"
#include "libzero/xorshift128plus.h"
#include "util/Logger.h"
#include "util/Pathname.h"
#include "util/ThreadLocks.h"

namespace {

Logger socket_log("PollableDescriptor");

// The listen backlog every listener of the process uses, when set.
struct BacklogOverride {
    bool set = false;
    unsigned value = 0;
    BacklogOverride() {
        const char* text = getenv("TARVEX_LISTEN_BACKLOG");
        if (text == nullptr || *text == '\0') return;
        char* end;
        errno = 0;
        const unsigned long v = strtoul(text, &end, 10);
        if (*end != '\0' || errno != 0 || v > 0xffffffffUL || text[0] == '-') return;
        set = true;
        value = unsigned(v);
        socket_log.warn("Backlog parameter changed to value=%u for invoking listen() system call",
                        value);
    }
};

unsigned effectiveBacklog(unsigned backlog) {
    static const BacklogOverride once;
    return once.set ? once.value : backlog;
}

void closeKeepingErrno(int fd) {
    const int saved = errno;
    close(fd);
    errno = saved;
}

}  // namespace

// ---------------------------------------------------------------- host addresses

bool IPv4HostAddress::set(const char* text, size_t length) {
    if (!looks_like_ipv4_address(text, length)) return false;
    char buf[INET_ADDRSTRLEN];
    memcpy(buf, text, length);
    buf[length] = '\0';
    return inet_pton(AF_INET, buf, &_a) == 1;
}

bool IPv6HostAddress::set(const char* text, size_t length) {
    char buf[INET6_ADDRSTRLEN + 1];
    if (length == 0 || length >= sizeof buf || memchr(text, '%', length) != nullptr) return false;
    memcpy(buf, text, length);
    buf[length] = '\0';
    struct in6_addr a;
    if (inet_pton(AF_INET6, buf, &a) != 1) return false;
    _a = a;
    return true;
}

void append_stringified(Str* out, const IPv4HostAddress& a) {
    char buf[INET_ADDRSTRLEN];
    out->append(inet_ntop(AF_INET, &a.addr(), buf, sizeof buf));
}

void append_stringified(Str* out, const IPv6HostAddress& a) {
    char buf[INET6_ADDRSTRLEN];
    out->append(inet_ntop(AF_INET6, &a.addr(), buf, sizeof buf));
}

// ---------------------------------------------------------------- SocketAddress

SocketAddress::SocketAddress() { memset(&_u, 0, sizeof _u); }

PortNumber SocketAddress::port() const {
    switch (family()) {
        case AF_INET:
            return PortNumber(ntohs(_u.in4.sin_port));
        case AF_INET6:
            return PortNumber(ntohs(_u.in6.sin6_port));
        default:
            return PortNumber(0);
    }
}

Str SocketAddress::ip() const {
    char buf[INET6_ADDRSTRLEN];
    switch (family()) {
        case AF_INET:
            return Str(inet_ntop(AF_INET, &_u.in4.sin_addr, buf, sizeof buf));
        case AF_INET6:
            return Str(inet_ntop(AF_INET6, &_u.in6.sin6_addr, buf, sizeof buf));
        case AF_UNIX:
            return Str(_u.un.sun_path, strnlen(_u.un.sun_path, sizeof _u.un.sun_path));
        default:
            return Str();
    }
}

bool operator==(const SocketAddress& a, const SocketAddress& b) {
    if (a.family() != b.family()) return false;
    switch (a.family()) {
        case AF_INET:
            return a._u.in4.sin_port == b._u.in4.sin_port &&
                   a._u.in4.sin_addr.s_addr == b._u.in4.sin_addr.s_addr;
        case AF_INET6:
            return a._u.in6.sin6_port == b._u.in6.sin6_port &&
                   memcmp(&a._u.in6.sin6_addr, &b._u.in6.sin6_addr, 16) == 0 &&
                   a._u.in6.sin6_scope_id == b._u.in6.sin6_scope_id;
        default:
            return a._len == b._len && memcmp(&a._u, &b._u, a._len) == 0;
    }
}

void append_stringified(Str* out, const SocketAddress& a) {
    if (a.family() == AF_INET6) {
        out->append("[").append(a.ip()).append("]");
    } else {
        out->append(a.ip());
    }
    if (a.family() == AF_INET || a.family() == AF_INET6) {
        out->appendFormat(":%u", unsigned(a.port().value()));
    }
}

PollableDescriptor SocketAddress::make_listener(unsigned backlog, int family, int type) const {
    const int fd = socket(family, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return PollableDescriptor();
    if (family == AF_INET6) {
        const int one = 1;
        if (setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one) != 0) {
            closeKeepingErrno(fd);
            throw PollableDescriptorException("can't set IPV6_V6ONLY");
        }
    }
    PollableDescriptor pd(fd);
    if (!pd.setReuseAddress(true)) {
        closeKeepingErrno(fd);
        return PollableDescriptor();
    }
    backlog = effectiveBacklog(backlog);
    // The type may carry SOCK_NONBLOCK or SOCK_CLOEXEC.
    const bool stream = (type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) == SOCK_STREAM;
    if (bind(fd, sa(), _len) != 0 ||
        (stream && listen(fd, int(std::min(backlog, 0x7fffffffu))) != 0)) {
        closeKeepingErrno(fd);
        return PollableDescriptor();
    }
    return pd;
}

PollableDescriptor SocketAddress::full_connect() const {
    const int fd = socket(family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return PollableDescriptor();
    if (connect(fd, sa(), _len) == 0) return PollableDescriptor(fd);
    if (errno == EINTR) {
        // The connect goes on by itself: wait for its outcome.
        PollableDescriptor pd(fd);
        if (pd.select_for_loop(true, Interval(0)) == 0) {
            const int err = pd.getErrorStatusAndReset();
            if (err == 0) return pd;
            errno = err;
        }
    }
    closeKeepingErrno(fd);
    return PollableDescriptor();
}

PollableDescriptor SocketAddress::start_async_connect() const {
    const int fd = socket(family(), SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return PollableDescriptor();
    if (connect(fd, sa(), _len) == 0 || errno == EINPROGRESS || errno == EINTR) {
        return PollableDescriptor(fd);
    }
    closeKeepingErrno(fd);
    return PollableDescriptor();
}

UnixSocketAddress::UnixSocketAddress(const Pathname& path) {
    if (path.size() >= sizeof _u.un.sun_path) return;
    _u.un.sun_family = AF_UNIX;
    memcpy(_u.un.sun_path, path.data(), path.size());
    _len = socklen_t(offsetof(struct sockaddr_un, sun_path) + path.size() + 1);
}

void SocketAddress::setInet(const struct in_addr& host, PortNumber port) {
    memset(&_u, 0, sizeof _u);
    _u.in4.sin_family = AF_INET;
    _u.in4.sin_addr = host;
    _u.in4.sin_port = htons(port.value());
    _len = sizeof _u.in4;
}

void SocketAddress::setInet6(const struct in6_addr& host, PortNumber port) {
    memset(&_u, 0, sizeof _u);
    _u.in6.sin6_family = AF_INET6;
    _u.in6.sin6_addr = host;
    _u.in6.sin6_port = htons(port.value());
    _len = sizeof _u.in6;
}

IPv4SocketAddress::IPv4SocketAddress(const IPv4HostAddress& host, PortNumber port) {
    setInet(host.addr(), port);
}

IPv6SocketAddress::IPv6SocketAddress(const IPv6HostAddress& host, PortNumber port) {
    setInet6(host.addr(), port);
}

IPv46SocketAddress::IPv46SocketAddress(const IPv4HostAddress& host, PortNumber port) {
    setInet(host.addr(), port);
}

IPv46SocketAddress::IPv46SocketAddress(const IPv6HostAddress& host, PortNumber port) {
    setInet6(host.addr(), port);
}

bool IPv46SocketAddress::set(const struct sockaddr* sa, socklen_t length) {
    if (sa->sa_family == AF_INET && length >= sizeof(struct sockaddr_in)) {
        memset(&_u, 0, sizeof _u);
        memcpy(&_u.in4, sa, sizeof(struct sockaddr_in));
        _len = sizeof(struct sockaddr_in);
        return true;
    }
    if (sa->sa_family == AF_INET6 && length >= sizeof(struct sockaddr_in6)) {
        memset(&_u, 0, sizeof _u);
        memcpy(&_u.in6, sa, sizeof(struct sockaddr_in6));
        _len = sizeof(struct sockaddr_in6);
        return true;
    }
    return false;
}

void IPv46SocketAddress::setIpv4Localhost() {
    struct in_addr loopback;
    loopback.s_addr = htonl(INADDR_LOOPBACK);
    setInet(loopback, port());
}

void IPv46SocketAddress::setPort(PortNumber port) {
    if (family() == AF_INET) {
        _u.in4.sin_port = htons(port.value());
    } else if (family() == AF_INET6) {
        _u.in6.sin6_port = htons(port.value());
    }
}

bool IPv46SocketAddress::setHostname(const char* text) {
    const size_t length = strlen(text);
    const PortNumber p = port();
    IPv4HostAddress v4;
    if (v4.set(text, length)) {
        *this = IPv46SocketAddress(v4, p);
        return true;
    }
    if (!looks_like_ipv6_address(text, length)) return false;
    const char* zone = strchr(text, '%');
    IPv6HostAddress v6;
    if (!v6.set(text, zone != nullptr ? size_t(zone - text) : length)) return false;
    unsigned scope = 0;
    if (zone != nullptr) {
        // A zone names an interface, or is its number.
        scope = if_nametoindex(zone + 1);
        if (scope == 0) {
            char* end;
            const unsigned long n = strtoul(zone + 1, &end, 10);
            if (*end != '\0' || n == 0 || n > 0xffffffffUL) return false;
            scope = unsigned(n);
        }
    }
    *this = IPv46SocketAddress(v6, p);
    _u.in6.sin6_scope_id = scope;
    return true;
}

PollableDescriptor IPv46SocketAddress::streamConnect(Interval timeout, SocketError* err) const {
    const int fd = socket(family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *err = SocketError::fromErrno();
        return PollableDescriptor();
    }
    PollableDescriptor pd(fd);
    *err = pd.connect(*this, timeout);
    if (!err->valid()) return pd;
    const Str address = ip();
    if (err->isTimeout()) {
        socket_log.warn("Connect timeout - waited for %llu seconds. ip=%s port=%u",
                        static_cast<unsigned long long>(timeout.secondsRoundedUp()),
                        address.c_str(), unsigned(port().value()));
    } else {
        errno = int(err->data());
        socket_log.warn("Error in connection() %d - %m ip=%s port=%u", int(err->data()),
                        address.c_str(), unsigned(port().value()));
    }
    closeKeepingErrno(fd);
    return PollableDescriptor();
}

Str IPv46SocketAddress::uid() const {
    Str s;
    append_stringified(&s, *this);
    return s;
}

bool IPv46SocketAddress::isLoopBack() const {
    if (family() == AF_INET) return (ntohl(_u.in4.sin_addr.s_addr) >> 24) == 127;
    if (family() != AF_INET6) return false;
    const struct in6_addr& a = _u.in6.sin6_addr;
    if (IN6_IS_ADDR_LOOPBACK(&a)) return true;
    return IN6_IS_ADDR_V4MAPPED(&a) && a.s6_addr[12] == 127;
}

bool isLoopBackAddress(const Str& text) {
    IPv46SocketAddress a;
    return a.setHostname(text.c_str()) && a.isLoopBack();
}

namespace {

// Process-wide answers of reverse lookups, kept for a while: a name that
// resolved for 10 minutes, a failure for 1 minute (so a fixed resolver is
// seen soon). At 4096 entries the cache starts over.
struct ReverseDnsCache {
    struct Entry {
        Str name;
        MonotonicTime expires;
    };
    Mutex mutex;
    std::map<std::string, Entry> byAddress;
};

ReverseDnsCache& reverse_dns_cache() {
    static ReverseDnsCache* cache = new ReverseDnsCache();
    return *cache;
}

}  // namespace

Str IPv46SocketAddress::reverseDns() const {
    std::string key;
    if (family() == AF_INET) {
        key.assign(reinterpret_cast<const char*>(&_u.in4.sin_addr), 4);
    } else if (family() == AF_INET6) {
        key.assign(reinterpret_cast<const char*>(&_u.in6.sin6_addr), 16);
    } else {
        return Str();
    }
    ReverseDnsCache& cache = reverse_dns_cache();
    const MonotonicTime now = MonotonicTime::now();
    {
        ScopedLock lock(cache.mutex);
        auto it = cache.byAddress.find(key);
        if (it != cache.byAddress.end() && now < it->second.expires) return it->second.name;
    }
    char host[NI_MAXHOST];
    Str name;
    Interval keep(600000);
    const int rc = getnameinfo(sa(), _len, host, sizeof host, nullptr, 0, NI_NAMEREQD);
    if (rc == 0) {
        name = host;
    } else {
        name = ip();
        keep = Interval(60000);
        socket_log.warn("ReverseDns lookup fails for : %s", name.c_str());
    }
    ScopedLock lock(cache.mutex);
    if (cache.byAddress.size() >= 4096) cache.byAddress.clear();
    cache.byAddress[key] = ReverseDnsCache::Entry{name, now + keep};
    return name;
}

PortNumber getNextFreeTcpPort() {
    static std::atomic<unsigned> last{1023};
    for (unsigned tried = 0; tried < 65534 - 1024 + 1; tried++) {
        // One step of the shared counter: two threads never try one port.
        unsigned prev = last.load();
        unsigned port;
        do {
            port = prev + 1 > 65534 ? 1024 : prev + 1;
        } while (!last.compare_exchange_weak(prev, port));
        socket_log.debug("%s Trying port=%u", "getNextFreeTcpPort", port);
        const port_availability_t a = check_tcp_port_availability_on_all_ipv4_interfaces(port);
        if (a == PORTAVL_AVAILABLE) return PortNumber(uint16_t(port));
        socket_log.debug("%s Port=%u unavailable: %s (%m)", "getNextFreeTcpPort", port,
                         port_availability_to_string(a));
    }
    socket_log.error("Failed to find free TCP port; for last-tried port, error was: %m.");
    exit(15);
}

// ---------------------------------------------------------------- spreading clients

namespace {

struct PermutationEntry {
    str_hash_t hash;
    unsigned index;
    unsigned long seed;
};

// The 12 most recent hosts, most recent first, and the generator that
// draws a new host's place and order.
struct PermutationState {
    static constexpr unsigned max_nentries = 12;
    PthreadMutexImpl mutex{PthreadMutexImpl::StaticInit()};
    PermutationEntry entries[max_nentries];
    unsigned nentries = 0;
    xorshift128plus_state random{{0, 0}};
    bool seeded = false;
};

// Never destroyed (a thread may still resolve while the process exits), and
// started over in a forked child, whose order must differ from its parent's.
PermutationState& permutation_state_instance() {
    static PermutationState* s = [] {
        auto* state = new PermutationState();
        pthread_atfork(nullptr, nullptr, [] {
            PermutationState& st = permutation_state_instance();
            new (&st.mutex) PthreadMutexImpl(PthreadMutexImpl::StaticInit());
            st.nentries = 0;
            st.seeded = false;
        });
        return state;
    }();
    return *s;
}

}  // namespace

void multiple_address_results::_get_permutation_state(str_hash_t hash, unsigned* index,
                                                      unsigned long* seed) const {
    ASSERT(size() > 1);
    PermutationState& s = permutation_state_instance();
    ScopedLock lock(s.mutex);
    for (unsigned i = 0; i < s.nentries; i++) {
        if (s.entries[i].hash != hash) continue;
        PermutationEntry e = s.entries[i];
        e.index++;
        memmove(&s.entries[1], &s.entries[0], i * sizeof e);
        s.entries[0] = e;
        *index = e.index;
        *seed = e.seed;
        return;
    }
    if (!s.seeded) {
        xorshift128plus_init(&s.random);
        s.seeded = true;
    }
    PermutationEntry e;
    e.hash = hash;
    e.index = unsigned(xorshift128plus_next(&s.random));
    e.seed = static_cast<unsigned long>(xorshift128plus_next(&s.random));
    if (s.nentries == PermutationState::max_nentries) {
        s.nentries--;  // the oldest makes room
    }
    memmove(&s.entries[1], &s.entries[0], s.nentries * sizeof e);
    s.entries[0] = e;
    s.nentries++;
    *index = e.index;
    *seed = e.seed;
}

template <class T>
void multiple_address_results::_shuffle(std::vector<T>& v, unsigned long seed) {
    const size_t n = v.size();
    for (size_t p = 0; p + 1 < n; p++) {
        const size_t r = n - p;
        const size_t k = size_t(seed % r);
        if (k != 0) std::swap(v[p], v[p + k]);
        seed = seed * 1103515245 + 12345;
    }
}

template <class T>
unsigned multiple_address_results::_inSemistableOrder(std::vector<T>& v, str_hash_t hash) const {
    // A single address never takes a place among the remembered hosts.
    if (v.size() < 2) return 0;
    unsigned index;
    unsigned long seed;
    _get_permutation_state(hash, &index, &seed);
    std::sort(v.begin(), v.end());
    _shuffle(v, seed);
    return index;
}

namespace {

template <class T>
bool containsAddress(const std::vector<T>& v, const T& a) {
    return std::find(v.begin(), v.end(), a) != v.end();
}

}  // namespace

void IPv4HostAddresses::add(const IPv4HostAddress& a) {
    if (containsAddress(_v, a)) return;
    _v.push_back(a);
    _n = _v.size();
}

void IPv6HostAddresses::add(const IPv6HostAddress& a) {
    if (containsAddress(_v, a)) return;
    _v.push_back(a);
    _n = _v.size();
}

int IPv4HostAddresses::resolve(const char* name) {
    _v.clear();
    _n = 0;
    AddrinfoWrapper ai;
    const int rc = ai.lookupIpv4(name);
    if (rc == 0) ai.ipv4_insert_all(this);
    return rc != 0 ? rc : (_n == 0 ? EAI_NODATA : 0);
}

int IPv6HostAddresses::resolve(const char* name) {
    _v.clear();
    _n = 0;
    AddrinfoWrapper ai;
    const int rc = ai.lookupIpv6(name);
    if (rc == 0) ai.ipv6_insert_all(this);
    return rc != 0 ? rc : (_n == 0 ? EAI_NODATA : 0);
}

unsigned IPv4HostAddresses::ipv4_in_semistable_order(str_hash_t hash) {
    return _inSemistableOrder(_v, hash);
}

const IPv4HostAddress& IPv4HostAddresses::ipv4_round_robin(str_hash_t hash) {
    return element(ipv4_in_semistable_order(hash));
}

unsigned IPv6HostAddresses::ipv6_in_semistable_order(str_hash_t hash) {
    return _inSemistableOrder(_v, hash);
}

const IPv6HostAddress& IPv6HostAddresses::ipv6_round_robin(str_hash_t hash) {
    return element(ipv6_in_semistable_order(hash));
}

// ---------------------------------------------------------------- AddrinfoWrapper

AddrinfoWrapper::~AddrinfoWrapper() { portable_addrinfo_free(_list); }

int AddrinfoWrapper::lookupIpv4(const char* name) {
    portable_addrinfo_free(_list);
    _list = nullptr;
    return portable_addrinfo_lookup(name, AF_INET, &_list);
}

int AddrinfoWrapper::lookupIpv6(const char* name) {
    portable_addrinfo_free(_list);
    _list = nullptr;
    return portable_addrinfo_lookup(name, AF_INET6, &_list);
}

bool AddrinfoWrapper::ipv4Addr(IPv4HostAddress* out) const {
    for (const struct addrinfo* p = _list; p != nullptr; p = p->ai_next) {
        if (p->ai_family == AF_INET && p->ai_addrlen >= sizeof(struct sockaddr_in)) {
            *out =
                IPv4HostAddress(reinterpret_cast<const struct sockaddr_in*>(p->ai_addr)->sin_addr);
            return true;
        }
    }
    return false;
}

bool AddrinfoWrapper::ipv6Addr(IPv6HostAddress* out) const {
    for (const struct addrinfo* p = _list; p != nullptr; p = p->ai_next) {
        if (p->ai_family == AF_INET6 && p->ai_addrlen >= sizeof(struct sockaddr_in6)) {
            *out = IPv6HostAddress(
                reinterpret_cast<const struct sockaddr_in6*>(p->ai_addr)->sin6_addr);
            return true;
        }
    }
    return false;
}

void AddrinfoWrapper::ipv4_insert_all(IPv4HostAddresses* out) const {
    for (const struct addrinfo* p = _list; p != nullptr; p = p->ai_next) {
        if (p->ai_family == AF_INET && p->ai_addrlen >= sizeof(struct sockaddr_in)) {
            out->add(
                IPv4HostAddress(reinterpret_cast<const struct sockaddr_in*>(p->ai_addr)->sin_addr));
        }
    }
}

void AddrinfoWrapper::ipv6_insert_all(IPv6HostAddresses* out) const {
    for (const struct addrinfo* p = _list; p != nullptr; p = p->ai_next) {
        if (p->ai_family == AF_INET6 && p->ai_addrlen >= sizeof(struct sockaddr_in6)) {
            out->add(IPv6HostAddress(
                reinterpret_cast<const struct sockaddr_in6*>(p->ai_addr)->sin6_addr));
        }
    }
}

// ---------------------------------------------------------------- IPv46AddressIterator

bool IPv46AddressIterator::resolveV4() {
    if (_v4.resolve(_name.c_str()) != 0) return false;
    _v4start = _v4.ipv4_in_semistable_order(djb2_hash_n_nocase(_name.data(), _name.size()));
    _v4cursor = 0;
    return true;
}

bool IPv46AddressIterator::resolveV6() {
    if (_v6.resolve(_name.c_str()) != 0) return false;
    // A place of its own for each family of one name.
    _v6start = _v6.ipv6_in_semistable_order(djb2_hash_n_nocase(_name.data(), _name.size()) ^
                                            0x9e3779b97f4a7c15ull);
    _v6cursor = 0;
    return true;
}

bool IPv46AddressIterator::resolve(const char* name, order_t order) {
    _name = name;
    _order = order;
    _secondResolved = false;
    _v4.clear();
    _v6.clear();
    _v4cursor = _v6cursor = 0;
    const size_t length = _name.size();
    // A literal says its family.
    if (looks_like_ipv4_address(name, length)) {
        _order = ORDER_IPV4_ONLY;
    } else if (looks_like_ipv6_address(name, length)) {
        _order = ORDER_IPV6_ONLY;
    }
    if (_order == ORDER_IPV6_ONLY || _order == ORDER_IPV6_THEN_IPV4) {
        _currentIsV6 = true;
        if (resolveV6()) return true;
        if (_order == ORDER_IPV6_ONLY) return false;
        _secondResolved = true;
        _currentIsV6 = false;
        return resolveV4();
    }
    _currentIsV6 = false;
    if (resolveV4()) return true;
    if (_order != ORDER_IPV4_THEN_IPV6) return false;
    _currentIsV6 = true;
    _secondResolved = true;
    return resolveV6();
}

bool IPv46AddressIterator::resolveFully(const char* name, order_t order) {
    const bool first = resolve(name, order);
    if ((_order == ORDER_IPV4_THEN_IPV6 || _order == ORDER_IPV6_THEN_IPV4) && !_secondResolved) {
        _secondResolved = true;
        const bool second = _currentIsV6 ? resolveV4() : resolveV6();
        return first || second;
    }
    return first;
}

bool IPv46AddressIterator::getNext(IPv46SocketAddress* address, PortNumber port) {
    for (;;) {
        if (_currentIsV6) {
            if (_v6cursor < _v6.size()) {
                *address = IPv46SocketAddress(_v6.element(_v6start + _v6cursor++), port);
                return true;
            }
        } else if (_v4cursor < _v4.size()) {
            *address = IPv46SocketAddress(_v4.element(_v4start + _v4cursor++), port);
            return true;
        }
        // This family is used up: the other one, for the orders that have it.
        const bool mayMove = (_order == ORDER_IPV4_THEN_IPV6 && !_currentIsV6) ||
                             (_order == ORDER_IPV6_THEN_IPV4 && _currentIsV6);
        if (!mayMove) return false;
        _currentIsV6 = !_currentIsV6;
        if (!_secondResolved) {
            _secondResolved = true;
            if (!(_currentIsV6 ? resolveV6() : resolveV4())) return false;
        }
    }
}

void IPv46AddressIterator::rewind() {
    _v4cursor = _v6cursor = 0;
    _currentIsV6 = _order == ORDER_IPV6_ONLY || _order == ORDER_IPV6_THEN_IPV4;
    // A "then" order whose first family failed starts on the second.
    if (_currentIsV6 && _v6.empty() && _order == ORDER_IPV6_THEN_IPV4) _currentIsV6 = false;
    if (!_currentIsV6 && _v4.empty() && _order == ORDER_IPV4_THEN_IPV6) _currentIsV6 = true;
}

void IPv46AddressIterator::swap(IPv46AddressIterator& o) noexcept {
    _v4.swap(o._v4);
    std::swap(_v4start, o._v4start);
    std::swap(_v4cursor, o._v4cursor);
    _v6.swap(o._v6);
    std::swap(_v6start, o._v6start);
    std::swap(_v6cursor, o._v6cursor);
    std::swap(_currentIsV6, o._currentIsV6);
    std::swap(_secondResolved, o._secondResolved);
    _name.swap(o._name);
    std::swap(_order, o._order);
}

// ---------------------------------------------------------------- descriptor calls

bool PollableDescriptor::bind(const SocketAddress& address) const {
    return ::bind(_fd, address.sa(), address.sa_len()) == 0;
}

bool PollableDescriptor::connect(const SocketAddress& address) const {
    return ::connect(_fd, address.sa(), address.sa_len()) == 0;
}

SocketError PollableDescriptor::connect(const SocketAddress& address, Interval timeout) const {
    const int flags = fcntl(_fd, F_GETFL);
    if (flags < 0) return SocketError::fromErrno();
    if ((flags & O_NONBLOCK) == 0) fcntl(_fd, F_SETFL, flags | O_NONBLOCK);
    SocketError result;
    if (::connect(_fd, address.sa(), address.sa_len()) != 0) {
        if (errno != EINPROGRESS && errno != EINTR) {
            result = SocketError::fromErrno();
        } else {
            const int rc = select_for_loop(true, timeout);
            if (rc == -2) {
                result = SocketError::timeout(SocketError::TIMEOUT_TYPE_CONNECT);
            } else if (rc != 0) {
                result = SocketError::fromErrno();
            } else if (const int err = getErrorStatusAndReset(); err != 0) {
                result = SocketError::fromErrno(err);
            }
        }
    }
    if ((flags & O_NONBLOCK) == 0) fcntl(_fd, F_SETFL, flags);
    return result;
}

PollableDescriptor PollableDescriptor::accept(SocketAddress& peer) const {
    for (;;) {
        socklen_t length = SocketAddress::capacity();
        const int fd = ::accept4(_fd, peer.sa(), &length, SOCK_CLOEXEC);
        if (fd >= 0) {
            peer.setLength(length);
            return PollableDescriptor(fd);
        }
        if (errno != EINTR) return PollableDescriptor();
    }
}

ssize_t PollableDescriptor::recvfrom(void* buf, size_t length, SocketAddress* from) const {
    socklen_t fromLength = SocketAddress::capacity();
    ssize_t n;
    do {
        n = ::recvfrom(_fd, buf, length, 0, from != nullptr ? from->sa() : nullptr,
                       from != nullptr ? &fromLength : nullptr);
    } while (n < 0 && errno == EINTR);
    if (n >= 0 && from != nullptr) from->setLength(fromLength);
    return n;
}

ssize_t PollableDescriptor::sendto(const void* buf, size_t length, const SocketAddress& to) const {
    ssize_t n;
    do {
        n = ::sendto(_fd, buf, length, MSG_NOSIGNAL, to.sa(), to.sa_len());
    } while (n < 0 && errno == EINTR);
    return n;
}

bool PollableDescriptor::localAddress(SocketAddress* out) const {
    socklen_t length = SocketAddress::capacity();
    if (getsockname(_fd, out->sa(), &length) != 0) return false;
    out->setLength(length);
    return true;
}
