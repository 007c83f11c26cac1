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

// 16 MiB of log lines in a file that lives as long as the process.
const std::string& logFile() {
    static const std::string path = [] {
        std::string p = "/tmp/tarvex-bench-lines.XXXXXX";
        int fd = mkstemp(p.data());
        std::string text = benchsupport::asciiLogText(16 << 20);
        if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            abort();
        }
        close(fd);
        atexit([] { unlink(logFile().c_str()); });
        return p;
    }();
    return path;
}

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
