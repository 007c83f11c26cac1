#include "libzero/codepoint-width.h"

#include <algorithm>

int codepoint_width(uint32_t codepoint) {
    if (codepoint < 0x80) return codepoint > 31 ? 1 : 0;
    if (codepoint > 0x10FFFF) return 0;
    constexpr uint32_t kFirst = (uint32_t{1} << 21) - 1;
    const uint32_t* end = codepoint_width_ranges + codepoint_width_ranges_count;
    // The last entry whose first code point is not above ours.
    const uint32_t* hit =
        std::upper_bound(codepoint_width_ranges, end, codepoint,
                         [](uint32_t cp, uint32_t entry) { return cp < (entry & kFirst); });
    return static_cast<int>(hit[-1] >> 21);
}
