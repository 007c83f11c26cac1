// Number parsers: never crash, never read past the bytes given, and agree with
// the C library's accept set.
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzCheck.h"
#include "util/Str.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const int bases[] = {10, 0, 16, 8, 2, 36};
    const int base = bases[data[0] % 6];
    // A heap copy of exactly `size - 1` bytes: ASan catches any read beyond.
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    char* exact = static_cast<char*>(malloc(text.size() + 1));
    memcpy(exact, text.data(), text.size());
    const char* p = exact;
    const size_t n = text.size();

    long l = 0;
    const bool ok = mem_tryToLong(p, n, &l, base);
    errno = 0;
    char* end = nullptr;
    const long expect = strtol(text.c_str(), &end, base);
    const bool expectOk = end != text.c_str() && end == text.c_str() + n && errno != ERANGE &&
                          text.find('\0') == std::string::npos;
    FUZZ_CHECK(ok == expectOk);
    FUZZ_CHECK(!ok || l == expect);

    unsigned long ul;
    if (mem_tryToUnsignedLong(p, n, &ul, base)) {
        const size_t i = text.find_first_not_of(" \t\n\v\f\r");
        FUZZ_CHECK(i != std::string::npos && text[i] != '-');
    }
    int i32;
    unsigned u32;
    size_t sz;
    long long ll;
    unsigned long long ull;
    mem_tryToInt(p, n, &i32, base);
    mem_tryToUnsigned(p, n, &u32, base);
    mem_tryToSizet(p, n, &sz, base);
    mem_tryToLongLong(p, n, &ll, base);
    mem_tryToUnsignedLongLong(p, n, &ull, base);

    double d;
    if (mem_tryToDouble(p, n, &d)) FUZZ_CHECK(std::isfinite(d));
    bool b;
    mem_tryToBool(p, n, &b);
    free(exact);
    return 0;
}
