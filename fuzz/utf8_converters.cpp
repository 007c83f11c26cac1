// Every converter into UTF-8 on arbitrary bytes: the first byte picks one of
// the distinct engines (with its table), the rest is the text. Whatever the
// input, the result is valid UTF-8, each invalid byte counted has its "\xHH"
// in the output, and "no work" means the input was valid UTF-8 already.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "FuzzCheck.h"
#include "util/UTF8Converter.h"

namespace {

const std::vector<UTF8Converter::spec>& distinctSpecs() {
    static const std::vector<UTF8Converter::spec> specs = [] {
        std::vector<UTF8Converter::spec> v;
        std::set<std::pair<const void*, const void*>> seen;
        for (size_t i = 0; i < utf8_converter_spec_count; ++i) {
            const UTF8Converter::spec& s = utf8_converter_specs[i];
            if (seen.emplace(reinterpret_cast<const void*>(s.engine), s.data).second)
                v.push_back(s);
        }
        return v;
    }();
    return specs;
}

bool isUpperHex(char c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'); }

size_t countMarks(const Str& s) {
    size_t marks = 0;
    for (size_t i = 0; i + 4 <= s.size(); ++i) {
        if (s[i] == '\\' && s[i + 1] == 'x' && isUpperHex(s[i + 2]) && isUpperHex(s[i + 3])) {
            ++marks;
            i += 3;
        }
    }
    return marks;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::vector<UTF8Converter::spec>& specs = distinctSpecs();
    UTF8Converter converter(specs[data[0] % specs.size()]);
    ++data;
    --size;
    // An exact-size copy, so that a read past the end is caught.
    char* text = static_cast<char*>(malloc(size ? size : 1));
    memcpy(text, data, size);

    Str out("prefix");
    const bool worked = converter.convert(&out, text, text + size);
    if (!worked) {
        FUZZ_CHECK(out == "prefix");
        FUZZ_CHECK(converter.invalidBytes() == 0);
        FUZZ_CHECK(mem_is_valid_utf8(text, size));
    } else {
        FUZZ_CHECK(out.startsWith("prefix"));
        out.erase(0, 6);
        FUZZ_CHECK(out.isValidUtf8());
        FUZZ_CHECK(converter.invalidBytes() <= size);
        FUZZ_CHECK(countMarks(out) >= converter.invalidBytes());
        FUZZ_CHECK(out.size() <= 4 * size);
    }
    free(text);
    return 0;
}
