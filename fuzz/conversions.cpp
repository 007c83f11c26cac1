// The parsers of the conversion convention, Base64 and byte sizes on arbitrary
// bytes: no crash, no read past the data, and what parses prints back.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "FuzzCheck.h"
#include "util/BasicConversions.h"
#include "util/PrintfFormat.h"

namespace {

template <class T>
void parseIntoAndBack(const char* p, size_t n) {
    T v{};
    if (mem_parse_into(p, n, &v)) {
        const Str text = Str::from(v);
        T again{};
        FUZZ_CHECK(mem_parse_into(text.data(), text.size(), &again));
        FUZZ_CHECK(again == v);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size heap copy, so that any read beyond is caught.
    char* p = static_cast<char*>(malloc(size ? size : 1));
    memcpy(p, data, size);

    parseIntoAndBack<short>(p, size);
    parseIntoAndBack<unsigned short>(p, size);
    parseIntoAndBack<int>(p, size);
    parseIntoAndBack<unsigned>(p, size);
    parseIntoAndBack<long>(p, size);
    parseIntoAndBack<unsigned long>(p, size);
    parseIntoAndBack<long long>(p, size);
    parseIntoAndBack<unsigned long long>(p, size);
    parseIntoAndBack<bool>(p, size);

    double d;
    if (mem_parse_into(p, size, &d)) {
        FUZZ_CHECK(std::isfinite(d));
        const Str text = Str::from(d);
        double again;
        FUZZ_CHECK(mem_parse_into(text.data(), text.size(), &again) && again == d);
    }

    ByteSizeWithUnits bytes;
    mem_parse_into(p, size, &bytes);
    unsigned long result;
    parse_sizeBytes_string(Str(p, size), result, size % 2 == 0);

    Str decoded("x");
    if (Base64::decode(decoded, p, size)) {
        Str encoded, again;
        Base64::encode(encoded, decoded.data() + 1, decoded.size() - 1);
        FUZZ_CHECK(Base64::decode(again, encoded.data(), encoded.size()));
        FUZZ_CHECK(again == decoded.substr(1));
    } else {
        FUZZ_CHECK(decoded == "x");
    }

    PrintfFormatString f;
    if (mem_parse_into(p, size, &f)) {
        Str rebuilt;
        append_stringified(&rebuilt, f);
        PrintfFormatString g;
        g.set(rebuilt.seg());
        Str twice;
        append_stringified(&twice, g);
        FUZZ_CHECK(twice == rebuilt);  // rebuilding is stable
    }
    free(p);
    return 0;
}
