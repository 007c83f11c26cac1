#pragma once
// Name lookups through the system's resolver, one family at a time, for
// stream sockets. The resolver is a seam: a program (or a test on a host
// without IPv6 names) may point it at its own function.
#include <netdb.h>
#include <sys/socket.h>

typedef int (*portable_addrinfo_resolver_t)(const char* name, const char* service,
                                            const struct addrinfo* hints, struct addrinfo** result);
typedef void (*portable_addrinfo_freer_t)(struct addrinfo* list);

// getaddrinfo and freeaddrinfo unless replaced; replace both together.
extern portable_addrinfo_resolver_t portable_addrinfo_resolver;
extern portable_addrinfo_freer_t portable_addrinfo_freer;

// The addresses of `name` in `family` (AF_INET or AF_INET6), stream sockets
// only, no mapped IPv4 in IPv6: 0 and a list to free, or an EAI_ code
// (EAI_SYSTEM with errno).
int portable_addrinfo_lookup(const char* name, int family, struct addrinfo** result);
void portable_addrinfo_free(struct addrinfo* list);
const char* portable_addrinfo_strerror(int code);
