// uriDecode: either valid UTF-8 comes out, or the input stays as it was; what
// was encoded decodes back.
#include <cstdint>

#include "FuzzCheck.h"
#include "util/Str.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Str input(reinterpret_cast<const char*>(data), size);
    Str s = input;
    if (s.uriDecode()) {
        FUZZ_CHECK(s.isValidUtf8());
    } else {
        FUZZ_CHECK(s == input);
    }

    Str encoded = input.asUriEncoded();
    Str inPlace = input;
    inPlace.uriEncode();
    FUZZ_CHECK(encoded == inPlace);
    const bool decoded = encoded.uriDecode();
    FUZZ_CHECK(decoded == input.isValidUtf8());
    if (decoded) FUZZ_CHECK(encoded == input);
    return 0;
}
