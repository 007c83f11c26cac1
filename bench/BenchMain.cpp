#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "util/Thread.h"

namespace benchsupport {

std::string asciiLogText(size_t bytes) {
    static const char* words[] = {"GET",      "/index.html", "200",      "connection", "from",
                                  "10.1.2.3", "took",        "12ms",     "user=alice", "INFO",
                                  "WARN",     "request",     "finished", "bytes=5120", "-"};
    std::mt19937 rng(1);
    std::string s;
    while (s.size() < bytes) {
        s += "2026-11-22 19:31:07.123 ";
        for (int w = 0; w < 8; ++w) {
            s += words[rng() % 15];
            s += ' ';
        }
        s += '\n';
    }
    s.resize(bytes);
    return s;
}

std::string mixedUtf8Text(size_t bytes, int oneIn) {
    std::mt19937 rng(2);
    static const char* accented[] = {"\xC3\xA9", "\xC3\xA8", "\xC3\xBC", "\xC3\xB6", "\xC3\x9F"};
    std::string s;
    while (s.size() + 2 < bytes) {
        if (static_cast<int>(rng() % oneIn) == 0) {
            s += accented[rng() % 5];
        } else {
            s += static_cast<char>(rng() % 8 == 0 ? ' ' : 'a' + rng() % 26);
        }
    }
    return s;
}

std::string cjkText(size_t bytes) {
    std::string s;
    for (uint32_t cp = 0x4E00; s.size() + 3 <= bytes; cp = cp == 0x9FFF ? 0x4E00 : cp + 1) {
        s += static_cast<char>(0xE0 | (cp >> 12));
        s += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        s += static_cast<char>(0x80 | (cp & 0x3F));
    }
    return s;
}

const std::string& asciiLog16MiB() {
    static const std::string text = asciiLogText(16 << 20);
    return text;
}

const std::string& asciiLog16MiBFile() {
    static const std::string path = [] {
        std::string p = "/tmp/tarvex-bench-log.XXXXXX";
        const int fd = mkstemp(p.data());
        const std::string& text = asciiLog16MiB();
        if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            abort();
        }
        close(fd);
        atexit([] { unlink(asciiLog16MiBFile().c_str()); });
        return p;
    }();
    return path;
}

}  // namespace benchsupport

namespace {

// Remembers each run's time per iteration as it reports.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs) {
            if (r.run_type == Run::RT_Iteration && r.iterations > 0) {
                // The run name is the registered one: without the suffixes
                // ("/real_time"...) the library appends for timing options.
                times[r.run_name.function_name] = r.GetAdjustedRealTime();
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> times;
};

void printRatios(const std::map<std::string, double>& times) {
    // group -> (contender -> time)
    std::map<std::string, std::map<std::string, double>> groups;
    for (const auto& [name, t] : times) {
        const size_t slash = name.rfind('/');
        if (slash == std::string::npos) continue;
        groups[name.substr(0, slash)][name.substr(slash + 1)] = t;
    }
    printf("\n%-52s %-28s %s\n", "group", "peer", "peer time / tarvex time");
    for (const auto& [group, contenders] : groups) {
        auto ours = contenders.find("tarvex");
        if (ours == contenders.end()) continue;
        for (const auto& [peer, t] : contenders) {
            if (peer == "tarvex") continue;
            printf("%-52s %-28s %6.2f\n", group.c_str(), peer.c_str(), t / ours->second);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Library programs start with their MainThread; some benchmarks start Threads.
    EmptyMainThread mainThread;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    printRatios(reporter.times);
    benchmark::Shutdown();
    return 0;
}
