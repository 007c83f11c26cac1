#include "libzero/ipv46_address_check.h"

#include <arpa/inet.h>
#include <string.h>

bool looks_like_ipv4_address(const char* text, size_t length) {
    unsigned octets = 0;
    size_t i = 0;
    while (i < length) {
        const size_t start = i;
        unsigned value = 0;
        while (i < length && text[i] >= '0' && text[i] <= '9' && i - start < 3) {
            value = value * 10 + unsigned(text[i] - '0');
            i++;
        }
        const size_t digits = i - start;
        if (digits == 0 || value > 255 || (digits > 1 && text[start] == '0')) return false;
        if (++octets == 4) return i == length;
        if (i == length || text[i] != '.') return false;
        i++;
    }
    return false;
}

namespace {

// The address without its zone into `buf`; false when the zone is empty or
// the text can't be an address at all.
bool withoutZone(const char* text, size_t length, char* buf, size_t size) {
    const char* zone = static_cast<const char*>(memchr(text, '%', length));
    if (zone != nullptr) {
        if (zone + 1 == text + length) return false;
        length = size_t(zone - text);
    }
    if (length == 0 || length >= size) return false;
    memcpy(buf, text, length);
    buf[length] = '\0';
    return true;
}

}  // namespace

bool looks_like_ipv6_address(const char* text, size_t length) {
    char buf[INET6_ADDRSTRLEN + 8];
    if (!withoutZone(text, length, buf, sizeof buf)) return false;
    struct in6_addr a;
    return inet_pton(AF_INET6, buf, &a) == 1;
}

bool looks_like_ipv6_localhost(const char* text, size_t length) {
    if (length < 3) return false;
    const char* zone = static_cast<const char*>(memchr(text, '%', length));
    if (zone != nullptr) {
        length = size_t(zone - text);
        if (length < 3) return false;
    }
    if (text[length - 1] != '1') return false;
    unsigned colons = 0;
    for (size_t i = 0; i + 1 < length; i++) {
        if (text[i] == ':') {
            colons++;
        } else if (text[i] != '0') {
            return false;
        }
    }
    return colons > 1;
}
