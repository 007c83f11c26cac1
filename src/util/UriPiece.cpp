#include "util/UriPiece.h"

#include <arpa/inet.h>
#include <strings.h>

#include <atomic>
#include <cstring>

#include "libzero/ipv46_address_check.h"
#include "util/BasicConversions.h"

void append_stringified(Str* out, const ParsedIpv4Address& a) {
    out->appendFormat("%u.%u.%u.%u", a.octets[0], a.octets[1], a.octets[2], a.octets[3]);
}

bool mem_parse_into(const char* data, size_t length, ParsedIpv4Address* out) {
    IPv4HostAddress a;
    if (!a.set(data, length)) return false;
    memcpy(out->octets, &a.addr().s_addr, 4);
    return true;
}

int ParsedIpv6Address::compare(const ParsedIpv6Address& o) const {
    const int c = memcmp(bytes, o.bytes, 16);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

bool ParsedIpv6Address::isWrappedIpV4(ParsedIpv4Address* v4) const {
    static const uint8_t prefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
    if (memcmp(bytes, prefix, 12) != 0) return false;
    if (v4 != nullptr) memcpy(v4->octets, bytes + 12, 4);
    return true;
}

bool ParsedIpv6Address::isLoopBack() const {
    ParsedIpv4Address v4;
    if (isWrappedIpV4(&v4)) return v4.octets[0] == 127;
    static const uint8_t loopback[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return memcmp(bytes, loopback, 16) == 0;
}

void append_stringified(Str* out, const ParsedIpv6Address& a) {
    struct in6_addr addr;
    memcpy(&addr, a.bytes, 16);
    append_stringified(out, IPv6HostAddress(addr));
}

bool mem_parse_into(const char* data, size_t length, ParsedIpv6Address* out) {
    if (length >= 2 && data[0] == '[' && data[length - 1] == ']') {
        data++;
        length -= 2;
    }
    IPv6HostAddress a;
    if (!a.set(data, length)) return false;
    memcpy(out->bytes, &a.addr(), 16);
    return true;
}

// ---------------------------------------------------------------- Hostname

void Hostname::normalize() {
    toLowercase();
    while (!empty() && back() == '.') pop_back();
    if (empty()) return;
    Str rendered;
    if (find_first_not_of("0123456789.") == npos) {
        // Strictly a dotted quad: the lenient forms ("0177.0.0.1", "2130706433")
        // are the classic way round a host allow-list, and stay as text.
        IPv4HostAddress a;
        if (!a.set(data(), size())) return;
        append_stringified(&rendered, a);
    } else if (find(':') != npos && find_first_not_of("0123456789abcdef:.") == npos) {
        IPv6HostAddress a;
        if (!a.set(data(), size())) return;
        append_stringified(&rendered, a);
    } else {
        return;
    }
    swap(rendered);
}

bool Hostname::isValidHostOrIpv4Address() const {
    if (looks_like_ipv4_address(data(), size())) return true;
    if (empty() || size() > 253) return false;
    size_t label = 0;
    for (size_t i = 0; i <= size(); i++) {
        const char c = i < size() ? (*this)[i] : '.';
        if (c == '.') {
            if (label == 0 || label > 63 || (*this)[i - 1] == '-') return false;
            label = 0;
            continue;
        }
        const bool alnum =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (!alnum && (c != '-' || label == 0)) return false;
        label++;
    }
    return true;
}

bool Hostname::isLocalhost() const {
    if (size() == 9 && strncasecmp(data(), "localhost", 9) == 0) return true;
    if (equals("127.0.0.1")) return true;
    if (size() >= 2 && front() == '[' && back() == ']') {
        return looks_like_ipv6_localhost(data() + 1, size() - 2);
    }
    return looks_like_ipv6_localhost(data(), size());
}

void append_bracket_quoted(Str* out, const Str& host) {
    const bool v6 = host.find(':') != Str::npos;
    if (v6) out->push_back('[');
    out->append(host);
    if (v6) out->push_back(']');
}

Str escape_host(const Str& host) {
    Str out;
    append_bracket_quoted(&out, host);
    return out;
}

// ---------------------------------------------------------------- HostAndPort

namespace {

// "[v6]" to its literal, or a name or IPv4 address: a bare ":" could not be
// told from the port's.
bool parse_host(StrSegment text, StrSegment* host) {
    if (text.size() >= 2 && text.front() == '[' && text.back() == ']') {
        text = StrSegment(text._data + 1, text._len - 2);
        if (!looks_like_ipv6_address(text._data, text._len)) return false;
    } else if (text.empty() || text.find(':') != StrSegment::npos ||
               text.find('[') != StrSegment::npos) {
        return false;
    }
    *host = text;
    return true;
}

}  // namespace

int HostAndPort::compare(const HostAndPort& o) const {
    const int c = _host.compare(o._host);
    if (c != 0) return c < 0 ? -1 : 1;
    return _port.value() < o._port.value() ? -1 : _port.value() > o._port.value() ? 1 : 0;
}

void HostAndPort::clear() {
    _host.clear();
    _port = PortNumber();
}

bool HostAndPort::set(const char* text) { return set(text, strlen(text)); }

bool HostAndPort::set(const char* data, size_t length) {
    clear();
    const char* colon = static_cast<const char*>(memrchr(data, ':', length));
    if (colon == nullptr) return false;
    StrSegment host(data, size_t(colon - data));
    const StrSegment port(colon + 1, length - host._len - 1);
    if (port._len == 0 || port._len > 5) return false;
    unsigned value = 0;
    for (size_t i = 0; i < port._len; i++) {
        if (port._data[i] < '0' || port._data[i] > '9') return false;
        value = value * 10 + unsigned(port._data[i] - '0');
    }
    if (value == 0 || value > 65535) return false;
    if (!parse_host(host, &host)) return false;
    _host.assign(host._data, host._len);
    _port = PortNumber(uint16_t(value));
    return true;
}

void HostAndPort::set(PortNumber port, const char* host) {
    _host.assign(host);
    _port = port;
}

void HostAndPort::set(PortNumber port, StrSegment host) {
    _host.assign(host._data, host._len);
    _port = port;
}

void HostAndPort::set(const IPv46SocketAddress& address) {
    _host.assign(address.ip());
    _port = address.port();
}

void append_stringified(Str* out, const HostAndPort& hp) {
    append_bracket_quoted(out, hp.host());
    if (hp.port().value() == 0) {
        out->append(":?");
    } else {
        out->appendFormat(":%u", unsigned(hp.port().value()));
    }
}

bool mem_parse_into(const char* data, size_t length, HostAndPort* out) {
    return out->set(data, length);
}

bool IPv46SocketAddress::set(const HostAndPort& hp) {
    IPv46SocketAddress a;
    if (!a.setHostname(hp.host().c_str())) return false;
    a.setPort(hp.port());
    *this = a;
    return true;
}

// ---------------------------------------------------------------- UriScheme

namespace {

// 0 unread, 1 off, 2 on. Racing first readers store the same value, so a
// relaxed word is all the synchronisation needed.
std::atomic<uint8_t> g_httpOverIpc{0};

constexpr const char* kSchemeNames[] = {"http", "https", "http+unix"};

}  // namespace

bool UriScheme::httpOverIpc() {
    uint8_t v = g_httpOverIpc.load(std::memory_order_relaxed);
    if (v == 0) {
        const EnvironmentVariable flag("TARVEX_HTTP_OVER_IPC");
        v = flag.parseBool() == EnvironmentVariable::BOOL_TRUE ? 2 : 1;
        g_httpOverIpc.store(v, std::memory_order_relaxed);
    }
    return v == 2;
}

void UriScheme::_forgetHttpOverIpc() { g_httpOverIpc.store(0, std::memory_order_relaxed); }

PortNumber UriScheme::defaultPort() const {
    static constexpr uint16_t ports[] = {80, 443, 65535};
    return PortNumber(_value < 3 ? ports[_value] : uint16_t{0xFFFF});
}

const char* UriScheme::name() const { return _value < 3 ? kSchemeNames[_value] : "?"; }

bool UriScheme::set(const char* name, size_t length) {
    for (uint8_t i = 0; i < 3; ++i) {
        if (strlen(kSchemeNames[i]) == length && strncasecmp(name, kSchemeNames[i], length) == 0) {
            if (i == HTTP_UNIX && !httpOverIpc()) return false;
            _value = i;
            return true;
        }
    }
    return false;
}

// ---------------------------------------------------------------- UriPath

StrVector UriPath::split(unsigned limit) const {
    StrVector pieces;
    const size_t skip = !empty() && front() == '/' ? 1 : 0;
    mem_split_into(&pieces, data() + skip, size() - skip, '/', limit);
    return pieces;
}

// ---------------------------------------------------------------- SchemeHostPort

void SchemeHostPort::clear() {
    _hostAndPort.clear();
    _scheme = UriScheme();
}

bool SchemeHostPort::set(const char* text, size_t size) { return _set(text, size, nullptr); }

bool SchemeHostPort::set(const char* text, size_t size, UriScheme defaultScheme) {
    return _set(text, size, &defaultScheme);
}

bool SchemeHostPort::_set(const char* text, size_t size, const UriScheme* defaultScheme) {
    clear();
    StrSegment rest(text, size);
    UriScheme scheme;
    const size_t sep = rest.find(StrSegment("://"));
    if (sep != StrSegment::npos && scheme.set(text, sep)) {
        rest = rest.substr(sep + 3);
    } else if (defaultScheme != nullptr) {
        scheme = *defaultScheme;
    } else {
        return false;
    }
    while (!rest.empty() && rest.back() == '/') rest.pop_back();
    size_t digits = rest.size();
    while (digits > 0 && rest[digits - 1] >= '0' && rest[digits - 1] <= '9') --digits;
    PortNumber port = scheme.defaultPort();
    StrSegment host = rest;
    if (digits > 0 && rest[digits - 1] == ':') {
        unsigned short value;
        if (mem_parse_into(rest._data + digits, rest._len - digits, &value) && value != 0) {
            port = PortNumber(value);
        }
        host = rest.substr(0, digits - 1);
    }
    if (!parse_host(host, &host)) return false;
    _hostAndPort.set(port, host);
    _scheme = scheme;
    return true;
}

void append_stringified(Str* out, const SchemeHostPort& v) {
    out->append(v.scheme().name());
    out->append("://");
    append_bracket_quoted(out, v.host());
    if (v.port().value() == 0) {
        out->push_back('?');
    } else if (v.port() != v.scheme().defaultPort()) {
        out->appendFormat(":%u", unsigned(v.port().value()));
    }
}

bool mem_parse_into(const char* data, size_t length, SchemeHostPort* out) {
    return out->set(data, length);
}

// ---------------------------------------------------------------- FullUri

bool mem_parse_into(const char* data, size_t length, FullUri* out) {
    const StrSegment text(data, length);
    const size_t sep = text.find(StrSegment("://"));
    if (sep == StrSegment::npos) {
        out->schemeHostPort.clear();
        out->path.assign(data, length);
        return false;
    }
    size_t slash = text.find('/', sep + 3);
    if (slash == StrSegment::npos) slash = length;
    out->path.assign(data + slash, length - slash);
    return out->schemeHostPort.set(data, slash);
}

void append_stringified(Str* out, const FullUri& v) {
    append_stringified(out, v.schemeHostPort);
    out->append(v.path);
}
