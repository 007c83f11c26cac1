#include "libzero/dnslookup-addrinfo.h"

#include <string.h>

portable_addrinfo_resolver_t portable_addrinfo_resolver = getaddrinfo;
portable_addrinfo_freer_t portable_addrinfo_freer = freeaddrinfo;

int portable_addrinfo_lookup(const char* name, int family, struct addrinfo** result) {
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    *result = nullptr;
    return portable_addrinfo_resolver(name, nullptr, &hints, result);
}

void portable_addrinfo_free(struct addrinfo* list) {
    if (list != nullptr) portable_addrinfo_freer(list);
}

const char* portable_addrinfo_strerror(int code) { return gai_strerror(code); }
