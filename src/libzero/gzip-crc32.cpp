#include "libzero/gzip-crc32.h"

#include <cstring>

namespace {

// Slicing by 8: table k advances a byte through k further zero bytes, so
// eight bytes take eight independent lookups.
struct Crc32Tables {
    uint32_t t[8][256];

    constexpr Crc32Tables() : t{} {
        for (uint32_t b = 0; b < 256; ++b) {
            uint32_t c = b;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[0][b] = c;
        }
        for (uint32_t b = 0; b < 256; ++b) {
            for (int k = 1; k < 8; ++k) t[k][b] = (t[k - 1][b] >> 8) ^ t[0][t[k - 1][b] & 0xFF];
        }
    }
};
constexpr Crc32Tables kTables;

}  // namespace

uint32_t gzip_crc32(uint32_t crc, const void* data, size_t length) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    const auto& t = kTables.t;
    crc = ~crc;
    while (length >= 8) {
        uint32_t lo, hi;
        memcpy(&lo, p, 4);
        memcpy(&hi, p + 4, 4);
        lo ^= crc;
        crc = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
              t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
        p += 8;
        length -= 8;
    }
    while (length-- > 0) crc = t[0][(crc ^ *p++) & 0xFF] ^ (crc >> 8);
    return ~crc;
}
