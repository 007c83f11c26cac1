// Lookups in sets and maps of texts when the caller has the hash at hand, as
// a tokenizer or a header parser does, against the hash containers a user
// would otherwise pick (which hash the text on every lookup).

#include <absl/container/flat_hash_map.h>
#include <absl/container/flat_hash_set.h>
#include <absl/strings/string_view.h>

#include <cstdio>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "BenchSupport.h"
#include "util/HashedStr.h"
#include "util/StrHashSet.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

// Heterogeneous lookup by string_view, so that no std::string is made (this
// build of Abseil has a string_view of its own).
struct ViewHash {
    using is_transparent = void;
    size_t operator()(std::string_view v) const { return std::hash<std::string_view>()(v); }
};
using StdSet = std::unordered_set<std::string, ViewHash, std::equal_to<>>;
using StdMap = std::unordered_map<std::string, int, ViewHash, std::equal_to<>>;

struct Query {
    std::string text;
    str_hash_t hash;
};

// Identifier-like keys of 6 to 30 bytes; queries drawn at random from the keys
// or, for the absent case, from keys with one byte changed.
struct Workload {
    std::vector<std::string> keys;
    std::vector<Query> present;
    std::vector<Query> absent;
};

const Workload& workload(size_t n) {
    static std::unordered_map<size_t, Workload> cache;
    Workload& w = cache[n];
    if (!w.keys.empty()) return w;
    static const char* stems[] = {"content_length", "user", "x", "request_id",
                                  "timestamp",      "host", "q", "accept_encoding"};
    std::mt19937_64 rng(n);
    std::unordered_set<std::string> seen;
    while (w.keys.size() < n) {
        char buf[64];
        snprintf(buf, sizeof buf, "%s_%llu", stems[rng() % 8],
                 static_cast<unsigned long long>(rng() % (n * 10)));
        if (seen.insert(buf).second) w.keys.push_back(buf);
    }
    for (int i = 0; i < 4096; ++i) {
        const std::string& k = w.keys[rng() % n];
        w.present.push_back({k, djb2_hash_n(k.data(), k.size())});
        std::string changed = w.keys[rng() % n];
        changed[rng() % changed.size()] = '#';
        w.absent.push_back({changed, djb2_hash_n(changed.data(), changed.size())});
    }
    return w;
}

const std::vector<Query>& queries(const Workload& w, bool present) {
    return present ? w.present : w.absent;
}

template <size_t N, bool Present>
void SetTarvex(State& state) {
    const Workload& w = workload(N);
    StrHashSet set;
    for (const std::string& k : w.keys) set.insert(k.data(), k.size());
    const std::vector<Query>& q = queries(w, Present);
    size_t i = 0, hits = 0;
    for (auto _ : state) {
        const Query& x = q[i++ & 4095];
        hits += set.contains(x.text.data(), x.text.size(), x.hash);
    }
    DoNotOptimize(hits);
}

template <size_t N, bool Present>
void SetFixed(State& state) {
    const Workload& w = workload(N);
    const FixedStrHashSet set(std::vector<StrSegment>(w.keys.begin(), w.keys.end()));
    const std::vector<Query>& q = queries(w, Present);
    size_t i = 0, hits = 0;
    for (auto _ : state) {
        const Query& x = q[i++ & 4095];
        hits += set.contains(x.text.data(), x.text.size(), x.hash);
    }
    DoNotOptimize(hits);
}

template <class Set, class View, size_t N, bool Present>
void SetPeer(State& state) {
    const Workload& w = workload(N);
    Set set(w.keys.begin(), w.keys.end());
    const std::vector<Query>& q = queries(w, Present);
    size_t i = 0, hits = 0;
    for (auto _ : state) {
        const Query& x = q[i++ & 4095];
        hits += set.contains(View(x.text.data(), x.text.size()));
    }
    DoNotOptimize(hits);
}

template <size_t N, bool Present>
void MapTarvex(State& state) {
    const Workload& w = workload(N);
    HashedStrMap<int> map;
    for (size_t k = 0; k < w.keys.size(); ++k) {
        map.insert(w.keys[k].data(), w.keys[k].size(), static_cast<int>(k));
    }
    const std::vector<Query>& q = queries(w, Present);
    size_t i = 0;
    long sum = 0;
    for (auto _ : state) {
        const Query& x = q[i++ & 4095];
        if (const int* v = map.get(x.text.data(), x.text.size(), x.hash)) sum += *v;
    }
    DoNotOptimize(sum);
}

template <class Map, class View, size_t N, bool Present>
void MapPeer(State& state) {
    const Workload& w = workload(N);
    Map map;
    for (size_t k = 0; k < w.keys.size(); ++k) map.emplace(w.keys[k], static_cast<int>(k));
    const std::vector<Query>& q = queries(w, Present);
    size_t i = 0;
    long sum = 0;
    for (auto _ : state) {
        const Query& x = q[i++ & 4095];
        auto it = map.find(View(x.text.data(), x.text.size()));
        if (it != map.end()) sum += it->second;
    }
    DoNotOptimize(sum);
}

using AbslSet = absl::flat_hash_set<std::string>;
using AbslMap = absl::flat_hash_map<std::string, int>;

#define SET_GROUP(name, n, present)                                                               \
    BENCHMARK(SetTarvex<n, present>)->Name(name "/tarvex");                                       \
    BENCHMARK(SetPeer<StdSet, std::string_view, n, present>)->Name(name "/std_unordered_set");    \
    BENCHMARK(SetPeer<AbslSet, absl::string_view, n, present>)->Name(name "/absl_flat_hash_set"); \
    BENCHMARK(SetFixed<n, present>)->Name("fixed_" name "/tarvex");                               \
    BENCHMARK(SetPeer<StdSet, std::string_view, n, present>)                                      \
        ->Name("fixed_" name "/std_unordered_set");                                               \
    BENCHMARK(SetPeer<AbslSet, absl::string_view, n, present>)                                    \
        ->Name("fixed_" name "/absl_flat_hash_set");

#define MAP_GROUP(name, n, present)                                                            \
    BENCHMARK(MapTarvex<n, present>)->Name(name "/tarvex");                                    \
    BENCHMARK(MapPeer<StdMap, std::string_view, n, present>)->Name(name "/std_unordered_map"); \
    BENCHMARK(MapPeer<AbslMap, absl::string_view, n, present>)->Name(name "/absl_flat_hash_map");

SET_GROUP("set_present_100", 100, true)
SET_GROUP("set_absent_100", 100, false)
SET_GROUP("set_present_10k", 10000, true)
SET_GROUP("set_absent_10k", 10000, false)
SET_GROUP("set_present_500k", 500000, true)
SET_GROUP("set_absent_500k", 500000, false)
MAP_GROUP("map_present_10k", 10000, true)
MAP_GROUP("map_absent_10k", 10000, false)

}  // namespace
