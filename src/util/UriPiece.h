#pragma once
// The host parts of URIs and connection targets as values: address
// literals taken apart, host names, and host-and-port pairs.
#include <cstdint>

#include "util/SocketAddress.h"
#include "util/Str.h"

struct ParsedIpv4Address {
    uint8_t octets[4] = {0, 0, 0, 0};
    friend bool operator==(const ParsedIpv4Address&, const ParsedIpv4Address&) = default;
};
// "%u.%u.%u.%u"
void append_stringified(Str* out, const ParsedIpv4Address& a);
// A dotted quad without leading zeros.
bool mem_parse_into(const char* data, size_t length, ParsedIpv4Address* out);

struct ParsedIpv6Address {
    uint8_t bytes[16] = {};
    // Byte order, which is numeric order.
    int compare(const ParsedIpv6Address& o) const;
    // An IPv4 address mapped into IPv6 (::ffff:a.b.c.d); the IPv4 part
    // into `v4` when it is one.
    bool isWrappedIpV4(ParsedIpv4Address* v4) const;
    // ::1, or a mapped 127.x.y.z.
    bool isLoopBack() const;
    friend bool operator==(const ParsedIpv6Address& a, const ParsedIpv6Address& b) {
        return a.compare(b) == 0;
    }
};
// The short form ("2001:db8::1"; mapped addresses as "::ffff:1.2.3.4").
void append_stringified(Str* out, const ParsedIpv6Address& a);
// An IPv6 literal, bare or in brackets ("[::1]"); no zone.
bool mem_parse_into(const char* data, size_t length, ParsedIpv6Address* out);

class Hostname : public Str {
public:
    Hostname() = default;
    explicit Hostname(const char* text) : Str(text) {}
    explicit Hostname(StrSegment text) : Str(text._data, text._len) {}
    // Lower case, without the root's trailing dot.
    void normalize();
    // Letters, digits and inner hyphens in dot-separated labels of 1 to 63
    // bytes, 253 bytes at most; or a dotted quad.
    bool isValidHostOrIpv4Address() const;
};

class HostAndPort {
public:
    HostAndPort() = default;
    HostAndPort(const char* host, PortNumber port) { set(port, host); }

    // A host and a nonzero port.
    bool valid() const { return !_host.empty() && _port.value() != 0; }
    const Hostname& host() const { return _host; }
    PortNumber port() const { return _port; }
    // Host (byte order, case folded by normalize() beforehand), then port.
    int compare(const HostAndPort& o) const;
    friend bool operator==(const HostAndPort& a, const HostAndPort& b) { return a.compare(b) == 0; }
    void clear();
    // "host:port", "1.2.3.4:port" or "[v6]:port", port 1 to 65535. False,
    // the value cleared, for anything else.
    bool set(const char* text);
    bool set(const char* data, size_t length);
    void set(PortNumber port, const char* host);
    // The address's text and port.
    void set(const IPv46SocketAddress& address);

private:
    Hostname _host;
    PortNumber _port;
};

// "host:port", "[v6]:port" for a host that is an IPv6 literal.
void append_stringified(Str* out, const HostAndPort& hp);
bool mem_parse_into(const char* data, size_t length, HostAndPort* out);
