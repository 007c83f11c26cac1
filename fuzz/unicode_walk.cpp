// Taking code points off the front, feeding bytes one by one, composing marks
// and measuring width, on arbitrary bytes: no read past the data, and results
// that agree with each other.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "FuzzCheck.h"
#include "util/UnicodeCodepoint.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    char* p = static_cast<char*>(malloc(size ? size : 1));
    memcpy(p, data, size);
    const bool valid = mem_is_valid_utf8(p, size);

    // Each character taken re-encodes to exactly the bytes it came from; a
    // refusal leaves the segment as it was.
    std::vector<uint32_t> taken;
    StrSegment seg(p, size);
    while (!seg.empty()) {
        const char* before = seg.data();
        const size_t length = seg.size();
        UnicodeCodepoint cp;
        if (seg.removeFirstCodepoint(&cp)) {
            const size_t consumed = length - seg.size();
            FUZZ_CHECK(seg.data() == before + consumed);
            const utf8_character_buffer bytes(cp.value());
            FUZZ_CHECK(bytes.size() == consumed && memcmp(bytes.data(), before, consumed) == 0);
            taken.push_back(cp.value());
        } else {
            FUZZ_CHECK(seg.data() == before && seg.size() == length);
            FUZZ_CHECK(!valid);
            seg.advanceTo(before + 1);
        }
    }

    // On valid text, feeding bytes yields the same characters.
    if (valid) {
        UnicodeCodepoint acc;
        size_t k = 0;
        for (size_t i = 0; i < size; ++i) {
            if (acc._accumulateUtf8Byte(data[i])) {
                FUZZ_CHECK(k < taken.size() && taken[k] == acc.value());
                ++k;
            }
        }
        FUZZ_CHECK(k == taken.size());
    }

    // Composing never grows the text, keeps it valid, leaves ASCII alone and
    // has nothing left to do the second time.
    Str composed(p, size);
    composed.resolveUnicodeCombiningMarks();
    FUZZ_CHECK(composed.size() <= size);
    if (valid) FUZZ_CHECK(composed.isValidUtf8());
    if (!mem_contains_non_ascii(p, size)) FUZZ_CHECK(composed.equals(StrSegment(p, size)));
    Str again = composed;
    FUZZ_CHECK(again.resolveUnicodeCombiningMarks() == composed);

    FUZZ_CHECK(mem_display_width(p, size) <= 2 * size);
    free(p);
    return 0;
}
