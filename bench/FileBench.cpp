// Reading lines from a large file: FileStar::readline against getline(3).

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "BenchSupport.h"
#include "util/FileStar.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

const std::string& logFile() { return benchsupport::asciiLog16MiBFile(); }

void Readline_tarvex(State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        FileStar f(fopen(logFile().c_str(), "r"));
        Str line;
        while (f.readline(line)) bytes += line.size() + 1;
        f.close();
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void Readline_peer(State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        FILE* f = fopen(logFile().c_str(), "r");
        char* line = nullptr;
        size_t capacity = 0;
        ssize_t n;
        while ((n = getline(&line, &capacity, f)) >= 0) bytes += static_cast<size_t>(n);
        free(line);
        fclose(f);
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

}  // namespace

BENCHMARK(Readline_tarvex)->Name("readline_16MiB/tarvex")->Unit(benchmark::kMillisecond);
BENCHMARK(Readline_peer)->Name("readline_16MiB/peer")->Unit(benchmark::kMillisecond);
