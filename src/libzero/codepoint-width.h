#pragma once
// Terminal columns of one code point: 2 for East Asian wide and fullwidth
// characters, 0 for controls, combining marks and format characters, 1 for the
// rest. The table is generated with the other character tables.

#include <cstddef>
#include <cstdint>

// Below U+0080: 0 for the C0 controls, 1 from the blank on (DEL included).
// Above U+10FFFF: 0.
int codepoint_width(uint32_t codepoint);

// Sorted: width << 21 | first code point of a range that runs to the next
// entry's. The first entry starts at 0.
extern const uint32_t codepoint_width_ranges[];
extern const size_t codepoint_width_ranges_count;
