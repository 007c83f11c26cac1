// The split family on arbitrary input, separators and limits: tokens are
// pieces of the input in order, and an unlimited split joins back whole.
#include <cstdint>
#include <string>

#include "FuzzCheck.h"
#include "util/StrVector.h"

namespace {

std::string join(const StrSegmentVector& v, const std::string& sep) {
    std::string out;
    for (size_t i = 0; i < v.size(); ++i) {
        if (i) out += sep;
        out.append(v[i].data(), v[i].size());
    }
    return out;
}

void checkPieces(const StrSegmentVector& v, const char* begin, size_t size) {
    const char* last = begin;
    for (const StrSegment& s : v) {
        FUZZ_CHECK(s.data() >= last && s.data() + s.size() <= begin + size);
        last = s.data() + s.size();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const char sepByte = static_cast<char>(data[0]);
    const uint32_t max = data[1] % 4 == 0 ? SPLIT_NO_LIMIT : data[1] % 8;
    const size_t seplen = data[2] % 4;
    const std::string input(reinterpret_cast<const char*>(data) + 3, size - 3);
    const std::string sep = input.substr(0, std::min(seplen, input.size()));
    const char* p = input.data();
    const size_t n = input.size();

    StrSegmentVector v;
    mem_split_into(&v, p, n, sepByte, max);
    checkPieces(v, p, n);
    if (max == SPLIT_NO_LIMIT && n > 0) FUZZ_CHECK(join(v, std::string(1, sepByte)) == input);

    v.clear();
    mem_split_into_mbyte(&v, p, n, sep.data(), sep.size(), max);
    checkPieces(v, p, n);
    if (max == SPLIT_NO_LIMIT && n > 0) FUZZ_CHECK(join(v, sep) == input);

    v.clear();
    mem_split_into_nonempty(&v, p, n, sepByte, max);
    checkPieces(v, p, n);
    for (const StrSegment& s : v) FUZZ_CHECK(!s.empty());

    v.clear();
    mem_split_into_nonempty_mbyte(&v, p, n, sep.data(), sep.size(), max);
    checkPieces(v, p, n);
    for (const StrSegment& s : v) FUZZ_CHECK(!s.empty());

    v.clear();
    mem_split_into(&v, p, n, CharacterClass::COMMA_OR_SPACE, max);
    checkPieces(v, p, n);

    v.clear();
    mem_split_lines_into(&v, p, n);
    checkPieces(v, p, n);
    for (const StrSegment& s : v) FUZZ_CHECK(s.find('\n') == StrSegment::npos);
    return 0;
}
