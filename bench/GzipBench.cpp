// Gzip streams against zlib's own gzip functions (gzwrite/gzread) and the
// gzip command, on 16 MiB of log text, at levels 1, 6 and 9.

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>
#include <zlib.h>

#include <string>

#include "BenchSupport.h"
#include "util/GzipStream.h"

namespace {

using benchmark::State;

constexpr size_t kChunk = 65536;

struct Files {
    std::string dir, packed;
};

// The log's level-6 gzip form in a directory that lives as long as the
// process; the plain log is the shared one.
const Files& files() {
    static const Files f = [] {
        Files f;
        char tmpl[] = "/tmp/tarvex-bench-gzip.XXXXXX";
        if (!mkdtemp(tmpl)) abort();
        f.dir = tmpl;
        f.packed = f.dir + "/plain.gz";
        const std::string cmd =
            "gzip -6 -c " + benchsupport::asciiLog16MiBFile() + " > " + f.packed;
        if (system(cmd.c_str()) != 0) abort();
        atexit([] { (void)!system(("rm -rf " + files().dir).c_str()); });
        return f;
    }();
    return f;
}

const std::string& logText() { return benchsupport::asciiLog16MiB(); }

// The files are made before timing starts, whichever benchmark runs first.
void prepare() {
    (void)files();
    (void)logText();
}

std::string outPath() { return files().dir + "/out.gz"; }

void Write_tarvex(State& state, int level) {
    prepare();
    const std::string& text = logText();
    for (auto _ : state) {
        const int fd = open(outPath().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        WritableGzipFileDescriptor w(FileDescriptor(fd), level, kChunk);
        for (size_t i = 0; i < text.size(); i += kChunk) {
            if (!w.write(text.data() + i, std::min(kChunk, text.size() - i))) abort();
        }
        if (!w.finish()) abort();
        close(fd);
    }
    state.SetBytesProcessed(int64_t(state.iterations() * text.size()));
}

void Write_gzwrite(State& state, int level) {
    prepare();
    const std::string& text = logText();
    const std::string mode = "wb" + std::to_string(level);
    for (auto _ : state) {
        gzFile g = gzopen(outPath().c_str(), mode.c_str());
        for (size_t i = 0; i < text.size(); i += kChunk) {
            const unsigned n = unsigned(std::min(kChunk, text.size() - i));
            if (gzwrite(g, text.data() + i, n) != int(n)) abort();
        }
        if (gzclose(g) != Z_OK) abort();
    }
    state.SetBytesProcessed(int64_t(state.iterations() * text.size()));
}

void Write_command(State& state, int level) {
    prepare();
    const std::string cmd = "gzip -" + std::to_string(level) + " -c " +
                            benchsupport::asciiLog16MiBFile() + " > " + outPath();
    for (auto _ : state) {
        if (system(cmd.c_str()) != 0) abort();
    }
    state.SetBytesProcessed(int64_t(state.iterations() * logText().size()));
}

void Read_tarvex(State& state) {
    prepare();
    static char buf[kChunk];
    for (auto _ : state) {
        const int fd = open(files().packed.c_str(), O_RDONLY | O_CLOEXEC);
        ReadableGzipFileDescriptor r{FileDescriptor(fd), kChunk};
        size_t total = 0;
        ssize_t n;
        while ((n = r.read(buf, sizeof buf)) > 0) total += size_t(n);
        if (n != 0 || total != logText().size()) abort();
        close(fd);
    }
    state.SetBytesProcessed(int64_t(state.iterations() * logText().size()));
}

void Read_gzread(State& state) {
    prepare();
    static char buf[kChunk];
    for (auto _ : state) {
        gzFile g = gzopen(files().packed.c_str(), "rb");
        size_t total = 0;
        int n;
        while ((n = gzread(g, buf, sizeof buf)) > 0) total += size_t(n);
        if (n != 0 || total != logText().size()) abort();
        gzclose(g);
    }
    state.SetBytesProcessed(int64_t(state.iterations() * logText().size()));
}

void Read_command(State& state) {
    prepare();
    const std::string cmd = "gzip -dc " + files().packed + " > /dev/null";
    for (auto _ : state) {
        if (system(cmd.c_str()) != 0) abort();
    }
    state.SetBytesProcessed(int64_t(state.iterations() * logText().size()));
}

}  // namespace

#define GZIP_WRITE_LEVEL(L)                            \
    BENCHMARK_CAPTURE(Write_tarvex, L, L)              \
        ->Name("gzip_write_16MiB_level" #L "/tarvex")  \
        ->Unit(benchmark::kMillisecond)                \
        ->UseRealTime();                               \
    BENCHMARK_CAPTURE(Write_gzwrite, L, L)             \
        ->Name("gzip_write_16MiB_level" #L "/gzwrite") \
        ->Unit(benchmark::kMillisecond)                \
        ->UseRealTime();                               \
    BENCHMARK_CAPTURE(Write_command, L, L)             \
        ->Name("gzip_write_16MiB_level" #L "/gzip_-c") \
        ->Unit(benchmark::kMillisecond)                \
        ->UseRealTime();

GZIP_WRITE_LEVEL(1)
GZIP_WRITE_LEVEL(6)
GZIP_WRITE_LEVEL(9)
BENCHMARK(Read_tarvex)
    ->Name("gzip_read_16MiB/tarvex")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(Read_gzread)
    ->Name("gzip_read_16MiB/gzread")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(Read_command)
    ->Name("gzip_read_16MiB/gzip_-dc")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
