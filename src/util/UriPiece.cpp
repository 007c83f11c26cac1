#include "util/UriPiece.h"

#include <arpa/inet.h>
#include <string.h>

#include "libzero/ipv46_address_check.h"

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
    if (size() > 1 && back() == '.') pop_back();
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

// ---------------------------------------------------------------- HostAndPort

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
    if (host._len >= 2 && host._data[0] == '[' && host._data[host._len - 1] == ']') {
        host = StrSegment(host._data + 1, host._len - 2);
        if (!looks_like_ipv6_address(host._data, host._len)) return false;
    } else if (host._len == 0 || memchr(host._data, ':', host._len) != nullptr ||
               memchr(host._data, '[', host._len) != nullptr) {
        // A bare IPv6 literal needs its brackets to be told from its port.
        return false;
    }
    _host.assign(host._data, host._len);
    _port = PortNumber(uint16_t(value));
    return true;
}

void HostAndPort::set(PortNumber port, const char* host) {
    _host.assign(host);
    _port = port;
}

void HostAndPort::set(const IPv46SocketAddress& address) {
    _host.assign(address.ip());
    _port = address.port();
}

void append_stringified(Str* out, const HostAndPort& hp) {
    const bool v6 = memchr(hp.host().data(), ':', hp.host().size()) != nullptr;
    if (v6) out->append("[");
    out->append(hp.host());
    if (v6) out->append("]");
    out->appendFormat(":%u", unsigned(hp.port().value()));
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
