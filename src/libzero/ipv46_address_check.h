#pragma once
// Whether a text is an IP address literal, without resolving anything.
// Strict: what inet_pton takes (no leading zeros in IPv4 octets), plus an
// IPv6 zone ("%eth0") that inet_pton would refuse but that names the same
// address on an interface.
#include <cstddef>

// Four decimal octets, 0 to 255, without leading zeros.
bool looks_like_ipv4_address(const char* text, size_t length);
// An IPv6 address, with an optional non-empty "%zone".
bool looks_like_ipv6_address(const char* text, size_t length);
// "::1" written any way ("0:0::1", "::0001"), with an optional zone.
bool looks_like_ipv6_localhost(const char* text, size_t length);
