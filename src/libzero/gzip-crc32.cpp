#include "libzero/gzip-crc32.h"

#include <zlib.h>

// zlib's is the same polynomial and faster than tables of our own; crc32_z
// takes a size_t, so no length is cut to 32 bits on the way.
uint32_t gzip_crc32(uint32_t crc, const void* data, size_t length) {
    if (length == 0) return crc;  // zlib answers 0 for a null pointer
    return static_cast<uint32_t>(crc32_z(crc, static_cast<const Bytef*>(data), length));
}
