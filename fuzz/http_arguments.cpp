// URL-encoded arguments as a client may send them, arriving in any pieces:
// where the text is cut changes neither the pairs nor the verdict; the pairs
// print back to text that parses to the same; every key is found by its
// hash; and an object reused after removals parses as a fresh one.
#include <cstdint>
#include <vector>

#include "FuzzCheck.h"
#include "libzero/djb2.h"
#include "util/HttpArguments.h"

namespace {

bool parseInPieces(const char* text, size_t size, size_t piece, HttpArguments* out) {
    out->clear();
    HttpArguments::FillFromUrlEncodedParser parser(out);
    bool ok = true;
    for (size_t at = 0; at < size; at += piece) {
        ok &= parser.parse(StrSegment(text + at, piece < size - at ? piece : size - at));
    }
    return parser.finish() && ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    HttpArguments whole;
    const bool ok = mem_parse_into(text, size, &whole);

    HttpArguments pieces;
    const size_t sizes[] = {1, 2, 3, size > 0 ? 1 + data[0] % size : 1};
    for (size_t piece : sizes) {
        FUZZ_CHECK(parseInPieces(text, size, piece, &pieces) == ok);
        FUZZ_CHECK(pieces == whole);
    }

    Str printed;
    append_stringified(&printed, whole);
    HttpArguments again;
    FUZZ_CHECK(mem_parse_into(printed.data(), printed.size(), &again));
    FUZZ_CHECK(again == whole);

    // Each key at its first argument; every other one of them removed.
    size_t total = 0;
    bool drop = false;
    std::vector<Str> dropped;
    for (const HttpArguments::argument& a : whole) {
        const str_hash_t hash = djb2_hash_n(a.key.data(), a.key.size());
        const auto first = whole.find(a.key.data(), a.key.size(), hash);
        FUZZ_CHECK(first != whole.end() && first->key == a.key);
        const Str* value = whole.get(a.key.data(), a.key.size(), hash);
        FUZZ_CHECK(value != nullptr && *value == first->value);
        if (&*first != &a) continue;
        total += whole.count(a.key.data(), a.key.size(), hash);
        if ((drop = !drop)) dropped.push_back(a.key);
    }
    FUZZ_CHECK(total == whole.size());
    for (const Str& key : dropped) {
        const str_hash_t hash = djb2_hash_n(key.data(), key.size());
        const size_t before = again.size(), n = again.count(key.data(), key.size(), hash);
        FUZZ_CHECK(n > 0 && again.removeKey(key.data(), key.size(), hash) == n);
        FUZZ_CHECK(again.size() == before - n);
        FUZZ_CHECK(again.get(key.data(), key.size(), hash) == nullptr);
    }
    // The text again into the object with nodes waiting for reuse.
    FUZZ_CHECK(mem_parse_into(text, size, &again) == ok);
    FUZZ_CHECK(again == whole);
    return 0;
}
