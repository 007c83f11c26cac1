// The UTF-8 walkers and the validator on arbitrary bytes: no read past the
// data, and results that describe the data consistently.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "FuzzCheck.h"
#include "util/Str.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const size_t a = data[0] % 32, b = data[1] % 32;
    data += 2;
    size -= 2;
    char* p = static_cast<char*>(malloc(size ? size : 1));
    memcpy(p, data, size);

    const bool valid = mem_is_valid_utf8(p, size);
    const size_t count = mem_count_utf8_codepoints(p, size);
    FUZZ_CHECK(count <= size);
    if (valid) {
        size_t nonContinuation = 0;
        for (size_t i = 0; i < size; ++i) nonContinuation += (data[i] & 0xC0) != 0x80;
        FUZZ_CHECK(count == nonContinuation);
    }

    size_t start = 0, end = 0;
    if (mem_substr_utf8_codepoints(p, size, a, b, &start, &end)) {
        FUZZ_CHECK(start <= end && end <= size);
        if (valid && end < size) FUZZ_CHECK((data[end] & 0xC0) != 0x80);
    }

    StrSegment seg(p, size);
    const size_t cut = seg.utf8_aware_truncate(a);
    FUZZ_CHECK(cut <= size && (size <= a || cut <= a));
    if (cut < size && size > a) FUZZ_CHECK((data[cut] & 0xC0) != 0x80 || cut == 0);

    StrSegment seg2(p, size);
    const size_t kept = seg2.utf8_character_count_truncate(b);
    FUZZ_CHECK(kept <= size);
    if (valid) FUZZ_CHECK(mem_is_valid_utf8(p, kept));

    mem_contains_non_ascii(p, size);
    mem_find_first_cr_or_lf(p, size, a);
    free(p);
    return 0;
}
