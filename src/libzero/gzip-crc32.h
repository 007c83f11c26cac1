#pragma once
// CRC-32 of the gzip format (polynomial 0xEDB88320, reflected), by zlib.
// Start with 0 and feed pieces in order: gzip_crc32(gzip_crc32(0, a), b) is
// the CRC of a followed by b.

#include <cstddef>
#include <cstdint>

uint32_t gzip_crc32(uint32_t crc, const void* data, size_t length);
