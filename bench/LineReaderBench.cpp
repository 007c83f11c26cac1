// Reading the lines of a 16 MiB log: FileDescriptorLineReader against
// getline(3) on the file, and StringLineReader's views against getline(3) on
// the file and on the same text in memory.

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "BenchSupport.h"
#include "util/LineReader.h"

namespace {

using benchmark::State;

const std::string& logText() { return benchsupport::asciiLog16MiB(); }
const std::string& logFile() { return benchsupport::asciiLog16MiBFile(); }

size_t getlineAll(FILE* f) {
    size_t bytes = 0;
    char* line = nullptr;
    size_t capacity = 0;
    ssize_t n;
    while ((n = getline(&line, &capacity, f)) >= 0) bytes += static_cast<size_t>(n);
    free(line);
    fclose(f);
    return bytes;
}

void Descriptor_tarvex(State& state) {
    size_t bytes = 0;
    for (auto _ : state) {
        FileDescriptorLineReader r{Pathname(logFile())};
        Str line;
        while (r.readline(line)) bytes += line.size() + 1;
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void Getline_file(State& state) {
    size_t bytes = 0;
    for (auto _ : state) bytes += getlineAll(fopen(logFile().c_str(), "r"));
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void String_tarvex(State& state) {
    const std::string& text = logText();
    size_t bytes = 0;
    for (auto _ : state) {
        StringLineReader r{StrSegment(text)};
        StrSegment line;
        while (r.readline(line)) bytes += line.size() + 1;
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

void Getline_memory(State& state) {
    std::string text = logText();
    size_t bytes = 0;
    for (auto _ : state) bytes += getlineAll(fmemopen(text.data(), text.size(), "r"));
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
}

}  // namespace

BENCHMARK(Descriptor_tarvex)->Name("lines_descriptor_16MiB/tarvex")->Unit(benchmark::kMillisecond);
BENCHMARK(Getline_file)->Name("lines_descriptor_16MiB/getline")->Unit(benchmark::kMillisecond);
BENCHMARK(String_tarvex)->Name("lines_string_16MiB/tarvex")->Unit(benchmark::kMillisecond);
BENCHMARK(Getline_file)->Name("lines_string_16MiB/getline_file")->Unit(benchmark::kMillisecond);
BENCHMARK(Getline_memory)
    ->Name("lines_string_16MiB/getline_fmemopen")
    ->Unit(benchmark::kMillisecond);
