// Paths and time values against the standard library a user would otherwise
// reach for: std::filesystem::path and std::chrono.

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "util/Pathname.h"
#include "util/Timeval.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;
namespace fs = std::filesystem;

const std::vector<std::string>& leaves() {
    static const std::vector<std::string> v = {"var",  "log", "tarvex",
                                               "2026", "11",  "access.log.1"};
    return v;
}

const std::vector<std::string>& messyPaths() {
    static const std::vector<std::string> v = {
        "/srv/data/./tenants//acme/../acme/shards/17/./segments/",
        "relative/./path/../to/some/deep/directory/file.tar.gz",
        "/a/b/c/d/e/f/g/h/../../../i/j/k/./l/m//n/o/p",
        "/var/lib/tarvex/spool/incoming/../processing/batch-0001/item-42.json",
    };
    return v;
}

// ---------------------------------------------------------------- joining

void Join_tarvex(State& state) {
    for (auto _ : state) {
        Pathname p("/");
        for (auto& leaf : leaves()) p /= leaf;
        DoNotOptimize(p.data());
    }
}

void Join_peer(State& state) {
    for (auto _ : state) {
        fs::path p("/");
        for (auto& leaf : leaves()) p /= leaf;
        DoNotOptimize(p.native().data());
    }
}

// ---------------------------------------------------------------- normalize

void Normalize_tarvex(State& state) {
    for (auto _ : state) {
        for (auto& s : messyPaths()) {
            Pathname p(s);
            p.normalize();
            DoNotOptimize(p.data());
        }
    }
}

void Normalize_peer(State& state) {
    for (auto _ : state) {
        for (auto& s : messyPaths()) {
            fs::path p = fs::path(s).lexically_normal();
            DoNotOptimize(p.native().data());
        }
    }
}

// ---------------------------------------------------------------- leaf and extension

void LeafExt_tarvex(State& state) {
    for (auto _ : state) {
        for (auto& s : messyPaths()) {
            Pathname p(s);
            DoNotOptimize(p.toLeaf().data());
            DoNotOptimize(p.ext().data());
        }
    }
}

void LeafExt_peer(State& state) {
    for (auto _ : state) {
        for (auto& s : messyPaths()) {
            fs::path p(s);
            DoNotOptimize(p.filename().native().data());
            DoNotOptimize(p.extension().native().data());
        }
    }
}

// ---------------------------------------------------------------- clocks

void Now_tarvex(State& state) {
    for (auto _ : state) DoNotOptimize(Timeval::now());
}

void Now_peer(State& state) {
    for (auto _ : state) DoNotOptimize(std::chrono::system_clock::now());
}

void StaleNow_tarvex(State& state) {
    StaleTimeval::refresh();
    for (auto _ : state) DoNotOptimize(StaleTimeval());
}

void StaleNow_peer(State& state) {
    for (auto _ : state) DoNotOptimize(std::chrono::system_clock::now());
}

// Deadlines: add a timeout, compare, take the remaining milliseconds.
void Arithmetic_tarvex(State& state) {
    Timeval start = Timeval::now();
    uint64_t sum = 0;
    for (auto _ : state) {
        for (uint64_t ms = 1; ms < 64; ++ms) {
            Timeval deadline = start + Interval(ms * 37);
            DoNotOptimize(deadline);
            if (deadline > start) sum += (deadline - start).ms();
        }
    }
    DoNotOptimize(sum);
}

void Arithmetic_peer(State& state) {
    auto start = std::chrono::system_clock::now();
    uint64_t sum = 0;
    for (auto _ : state) {
        for (uint64_t ms = 1; ms < 64; ++ms) {
            auto deadline = start + std::chrono::milliseconds(ms * 37);
            DoNotOptimize(deadline);
            if (deadline > start) {
                sum += std::chrono::ceil<std::chrono::milliseconds>(deadline - start).count();
            }
        }
    }
    DoNotOptimize(sum);
}

}  // namespace

BENCHMARK(Join_tarvex)->Name("join/tarvex");
BENCHMARK(Join_peer)->Name("join/peer");
BENCHMARK(Normalize_tarvex)->Name("normalize/tarvex");
BENCHMARK(Normalize_peer)->Name("normalize/peer");
BENCHMARK(LeafExt_tarvex)->Name("leaf_ext/tarvex");
BENCHMARK(LeafExt_peer)->Name("leaf_ext/peer");
BENCHMARK(Now_tarvex)->Name("now/tarvex");
BENCHMARK(Now_peer)->Name("now/peer");
BENCHMARK(StaleNow_tarvex)->Name("stale_now/tarvex");
BENCHMARK(StaleNow_peer)->Name("stale_now/peer");
BENCHMARK(Arithmetic_tarvex)->Name("deadline_arithmetic/tarvex");
BENCHMARK(Arithmetic_peer)->Name("deadline_arithmetic/peer");
