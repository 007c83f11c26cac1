#pragma once
// Decimal text of integers into a caller's buffer. No allocation, no locale,
// no terminator written: safe in a signal handler. A buffer of 20 bytes holds
// any 64-bit value, 21 with a sign.

#include <cstddef>
#include <cstdint>

unsigned decimalCharactersU32(uint32_t value);
unsigned decimalCharactersI32(int32_t value);
unsigned decimalCharactersU64(uint64_t value);
unsigned decimalCharactersI64(int64_t value);

// For a caller that already knows the count: exactly `count` bytes are written.
void convertU32ToAsciiSizeKnown(uint32_t value, char* out, unsigned count);
void convertI32ToAsciiSizeKnown(int32_t value, char* out, unsigned count);
void convertU64ToAsciiSizeKnown(uint64_t value, char* out, unsigned count);
void convertI64ToAsciiSizeKnown(int64_t value, char* out, unsigned count);

// Each returns the number of bytes written.
size_t convertU32ToAscii(uint32_t value, char* out);
size_t convertI32ToAscii(int32_t value, char* out);
size_t convertU64ToAscii(uint64_t value, char* out);
size_t convertI64ToAscii(int64_t value, char* out);
