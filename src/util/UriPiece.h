#pragma once
// The pieces of URIs and connection targets as values: address literals
// taken apart, host names, host-and-port pairs, schemes, paths, and whole
// URIs.
#include <cstdint>

#include "util/SocketAddress.h"
#include "util/Str.h"
#include "util/StrVector.h"

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
    // Lower case, without trailing dots; an address literal in the form the
    // resolver would read it: digits and dots as inet_aton(3) takes them
    // ("127.1" is 127.0.0.1), IPv6 in its short form. Text that does not
    // parse stays.
    void normalize();
    // Letters, digits and inner hyphens in dot-separated labels of 1 to 63
    // bytes, 253 bytes at most; or a dotted quad.
    bool isValidHostOrIpv4Address() const;
    // "localhost" in any case, "127.0.0.1", or ::1 written any way (with or
    // without brackets and zone).
    bool isLocalhost() const;
    void setIpv4Localhost() { assign("127.0.0.1"); }
};

// The host, in "[" "]" when it holds a ":" (an IPv6 literal), so that a port
// can follow.
Str escape_host(const Str& host);
void append_bracket_quoted(Str* out, const Str& host);

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
    void set(PortNumber port, StrSegment host);
    // The address's text and port.
    void set(const IPv46SocketAddress& address);

private:
    Hostname _host;
    PortNumber _port;
};

// "host:port", "[v6]:port" for a host that is an IPv6 literal; "host:?" for
// a port outside 1 to 65535.
void append_stringified(Str* out, const HostAndPort& hp);
bool mem_parse_into(const char* data, size_t length, HostAndPort* out);

// ---------------------------------------------------------------- URIs

class UriScheme {
public:
    enum : uint8_t { HTTP = 0, HTTPS = 1, HTTP_UNIX = 2 };

    constexpr UriScheme() = default;
    constexpr explicit UriScheme(uint8_t value) : _value(value) {}
    constexpr uint8_t value() const { return _value; }

    // 80, 443, 65535; all ones for a value that is no scheme.
    PortNumber defaultPort() const;
    // "http", "https", "http+unix"; "?" for a value that is no scheme.
    const char* name() const;
    // A name in any case; "http+unix" only when httpOverIpc().
    bool set(const char* name, size_t length);

    // Whether TARVEX_HTTP_OVER_IPC is true, read at the first call.
    static bool httpOverIpc();
    // Makes the next call read the variable again; for tests.
    static void _forgetHttpOverIpc();

    friend constexpr bool operator==(UriScheme, UriScheme) = default;

private:
    uint8_t _value = HTTP;
};

class UriPath : public Str {
public:
    using Str::Str;
    UriPath() = default;

    // Every byte outside "-_.~" and alphanumerics as %XX, "/" included.
    UriPath& appendQuoted(const char* data, size_t length) {
        appendUriEscaped(data, length);
        return *this;
    }
    // The pieces between "/", after a leading one: "/a/b/" gives "a", "b",
    // "". After `limit` separators the rest is the last piece.
    StrVector split(unsigned limit = SPLIT_NO_LIMIT) const;
};

class SchemeHostPort {
public:
    SchemeHostPort() = default;
    SchemeHostPort(UriScheme scheme, const char* host, PortNumber port)
        : _hostAndPort(host, port), _scheme(scheme) {}

    const HostAndPort& hostAndPort() const { return _hostAndPort; }
    const Hostname& host() const { return _hostAndPort.host(); }
    PortNumber port() const { return _hostAndPort.port(); }
    UriScheme scheme() const { return _scheme; }

    // "http://host[:port]", "https://..." or (see UriScheme) "http+unix://...",
    // the scheme in any case; trailing "/" ignored. A missing or bad port is
    // the scheme's default. False, the value cleared, for anything else.
    bool set(const char* text, size_t size);
    // As above, or a bare "host[:port]" of `defaultScheme`.
    bool set(const char* text, size_t size, UriScheme defaultScheme);
    void clear();

    friend bool operator==(const SchemeHostPort& a, const SchemeHostPort& b) {
        return a._scheme == b._scheme && a._hostAndPort == b._hostAndPort;
    }

private:
    bool _set(const char* text, size_t size, const UriScheme* defaultScheme);

    HostAndPort _hostAndPort;
    UriScheme _scheme;
};

// "scheme://host", then ":port" unless it is the scheme's default, or "?"
// for a port outside 1 to 65535.
void append_stringified(Str* out, const SchemeHostPort& v);
bool mem_parse_into(const char* data, size_t length, SchemeHostPort* out);

struct FullUri {
    SchemeHostPort schemeHostPort;
    UriPath path;  // from the first "/" behind the host, query included
};

// Without "://" the whole text is the path, the rest cleared, and false.
bool mem_parse_into(const char* data, size_t length, FullUri* out);
void append_stringified(Str* out, const FullUri& v);
