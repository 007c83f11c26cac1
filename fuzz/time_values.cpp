// Time value parsers: Interval and Timeval text, and the serialised form.
// Whatever parses prints back to a text that parses to the same value.
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "util/Timeval.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* p = text.data();

    Interval iv(12345);
    if (mem_parse_into(p, size, &iv)) {
        Str s;
        append_stringified(&s, iv);
        Interval again;
        FUZZ_CHECK(mem_parse_into(s.data(), s.size(), &again));
        FUZZ_CHECK(again == iv);
    } else {
        FUZZ_CHECK(iv.ms() == 12345);
    }

    Timeval tv(7, 7);
    if (mem_parse_into(p, size, &tv)) {
        FUZZ_CHECK(tv.usec() >= 0 && tv.usec() < 1000000);
        Str s;
        append_stringified(&s, tv);
        Timeval again;
        FUZZ_CHECK(mem_parse_into(s.data(), s.size(), &again));
        FUZZ_CHECK(again == tv);
        // Arithmetic on anything parsed stays inside the range.
        Timeval t = tv;
        t += Interval(~0ull - 1);
        FUZZ_CHECK(t >= tv);
        t = tv;
        t -= Interval(size * 1000003ull);
        FUZZ_CHECK(t <= tv);
    } else {
        FUZZ_CHECK(tv == Timeval(7, 7));
    }

    long clamped;
    if (parse_timet_clamped(p, size, &clamped)) FUZZ_CHECK(size > 0);

    Timeval r;
    if (r._resurrect(p, size)) {
        FUZZ_CHECK(size == 14);
        FUZZ_CHECK(r.usec() >= 0 && r.usec() <= 1000000);
        Str s;
        r._serialize(&s);
        FUZZ_CHECK(s.size() == 14);
    }
    return 0;
}
