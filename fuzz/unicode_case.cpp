// Case mapping and caseless comparison on arbitrary bytes: valid text stays
// valid, mapping twice changes nothing more, and the comparison is an order.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "FuzzCheck.h"
#include "util/UnicodeCodepoint.h"

namespace {

int compare(const Str& a, const Str& b) {
    return mem_compare_caseless(a.data(), a.size(), b.data(), b.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const size_t cut = data[0] % size;
    const Str a(reinterpret_cast<const char*>(data) + 1, cut);
    const Str b(reinterpret_cast<const char*>(data) + 1 + cut, size - 1 - cut);

    Str lower, upper;
    Str::str_tolower(a, &lower);
    Str::str_toupper(a, &upper);
    if (a.isValidUtf8()) FUZZ_CHECK(lower.isValidUtf8() && upper.isValidUtf8());
    if (!mem_contains_non_ascii(a.data(), a.size())) {
        FUZZ_CHECK(lower.size() == a.size() && upper.size() == a.size());
        for (size_t i = 0; i < a.size(); ++i) {
            FUZZ_CHECK(lower[i] == static_cast<char>(tolower(static_cast<unsigned char>(a[i]))));
            FUZZ_CHECK(upper[i] == static_cast<char>(toupper(static_cast<unsigned char>(a[i]))));
        }
    }
    Str twice;
    Str::str_tolower(lower, &twice);
    FUZZ_CHECK(twice == lower);
    Str inPlace = a;
    FUZZ_CHECK(inPlace.toLowercase() == lower);
    inPlace = a;
    FUZZ_CHECK(inPlace.toUppercase() == upper);

    FUZZ_CHECK(compare(a, a) == 0);
    FUZZ_CHECK(compare(a, lower) == 0);
    const int ab = compare(a, b);
    FUZZ_CHECK(ab >= -1 && ab <= 1 && compare(b, a) == -ab);
    if (ab == 0) FUZZ_CHECK(compare(lower, b) == 0);
    return 0;
}
