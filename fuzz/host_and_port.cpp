// Host-and-port texts, address literals and host names as a peer or a
// configuration may send them: whatever parses prints back to text that
// parses to the same value, and the literal checks agree with the parsers.
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "libzero/ipv46_address_check.h"
#include "util/UriPiece.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);

    HostAndPort hp;
    if (mem_parse_into(text, size, &hp)) {
        FUZZ_CHECK(hp.valid());
        Str printed;
        append_stringified(&printed, hp);
        HostAndPort again;
        FUZZ_CHECK(mem_parse_into(printed.data(), printed.size(), &again));
        FUZZ_CHECK(again == hp);
    }

    ParsedIpv4Address v4;
    const bool isV4 = mem_parse_into(text, size, &v4);
    FUZZ_CHECK(isV4 == looks_like_ipv4_address(text, size));
    if (isV4) {
        Str printed;
        append_stringified(&printed, v4);
        FUZZ_CHECK(printed.size() == size && printed.compare(0, size, text, size) == 0);
    }

    ParsedIpv6Address v6;
    if (mem_parse_into(text, size, &v6)) {
        Str printed;
        append_stringified(&printed, v6);
        ParsedIpv6Address again;
        FUZZ_CHECK(mem_parse_into(printed.data(), printed.size(), &again) && again == v6);
        FUZZ_CHECK(looks_like_ipv6_address(printed.data(), printed.size()));
    }
    (void)looks_like_ipv6_localhost(text, size);

    Hostname h(StrSegment(text, size));
    if (h.isValidHostOrIpv4Address()) {
        h.normalize();
        FUZZ_CHECK(h.isValidHostOrIpv4Address());
    }
    return 0;
}
