#pragma once
// Side-by-side benchmarks. Name each benchmark "<group>/<contender>"; the one
// called "tarvex" is ours. After the run, BenchMain prints, for every group,
// each peer's time divided by ours: above 1 means we are faster.

#include <benchmark/benchmark.h>

#include <string>

namespace benchsupport {

// Log-like ASCII text of about `bytes` bytes, the same on every run.
std::string asciiLogText(size_t bytes);
// Text in which roughly one character in `oneIn` is two-byte UTF-8.
std::string mixedUtf8Text(size_t bytes, int oneIn);
// Three-byte characters only (CJK).
std::string cjkText(size_t bytes);
// asciiLogText of 16 MiB, and a temporary file holding it that lives as long
// as the process.
const std::string& asciiLog16MiB();
const std::string& asciiLog16MiBFile();

}  // namespace benchsupport
