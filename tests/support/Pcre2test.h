#pragma once
// Text as pcre2test prints a group in UTF mode: printable ASCII as it is,
// other code points as \x{hex} (two digits at least).
#include <cstdint>
#include <cstdio>
#include <string>

#include "util/Str.h"

namespace pcre2test {

inline std::string printed(StrSegment s) {
    std::string out;
    for (size_t k = 0; k < s.size();) {
        const unsigned char b = static_cast<unsigned char>(s[k]);
        const size_t n = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
        uint32_t cp = n == 1 ? b : b & (0x7F >> n);
        for (size_t j = 1; j < n; ++j) cp = cp << 6 | (static_cast<unsigned char>(s[k + j]) & 0x3F);
        char buf[16];
        snprintf(buf, sizeof buf, cp < 0x20 || cp > 0x7E ? "\\x{%02x}" : "%c", unsigned(cp));
        out += buf;
        k += n;
    }
    return out;
}

}  // namespace pcre2test
