// Logging a typical line to a file, against spdlog and glog.
//
// Line<threads>Buffered: every logger buffers and writes in large blocks
// (our channel is "buffered" with 16 KiB; spdlog's file sink and glog use
// stdio buffers). Line<threads>Flushed: every line reaches the file with a
// write of its own (our default; spdlog flush_on(info); glog logbuflevel -1).
// The layouts are alike: date and time with milliseconds, level, logger
// name, message. glog's prefix is fixed; it carries the same fields.
//
// The two-thread cases run each contender on two threads of the kind its
// user would have: our Threads for us, std::threads for the others. One
// iteration is 2 x 10000 lines, so that starting the threads weighs little.
//
// DisabledDebug: a debug call while the level is INFO, which must cost a
// load and a branch.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <glog/logging.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "BenchSupport.h"
#include "util/Logger.h"
#include "util/Thread.h"

namespace {

constexpr int kLinesPerThread = 10000;

Logger requestLog("Request");
Logger buffered("RequestBuffered");

const std::string& scratchDir() {
    static std::string dir = [] {
        char path[] = "/tmp/tarvex-logbench-XXXXXX";
        if (mkdtemp(path) == nullptr) abort();
        return std::string(path);
    }();
    return dir;
}

void configureOurs() {
    static bool done = false;
    if (done) return;
    done = true;
    const std::string cfg = scratchDir() + "/log.cfg";
    FILE* f = fopen(cfg.c_str(), "w");
    fprintf(f,
            "rootCategory=INFO\n"
            "category.Request=INFO, F\n"
            "category.RequestBuffered=INFO, B, buffered\n"
            "appender.F.fileName=%s/tarvex-flushed.log\n"
            "appender.F.layout.ConversionPattern=%%d %%p %%c %%m%%n\n"
            "appender.B.fileName=%s/tarvex-buffered.log\n"
            "appender.B.layout.ConversionPattern=%%d %%p %%c %%m%%n\n"
            "appender.B.bufferSize=16kib\n",
            scratchDir().c_str(), scratchDir().c_str());
    fclose(f);
    Logger::configuration conf;
    conf.path = cfg;
    Logger::initialize(conf);
}

std::shared_ptr<spdlog::logger> spdLogger(bool flushEach) {
    static std::shared_ptr<spdlog::logger> loggers[2];
    auto& l = loggers[flushEach];
    if (!l) {
        l = spdlog::basic_logger_mt(
            flushEach ? "flushed" : "buffered",
            scratchDir() + (flushEach ? "/spd-flushed.log" : "/spd-buffered.log"));
        l->set_pattern("%Y-%m-%d %H:%M:%S,%e %l %n %v");
        if (flushEach) l->flush_on(spdlog::level::info);
    }
    return l;
}

void initGlog() {
    static bool done = false;
    if (done) return;
    done = true;
    FLAGS_log_dir = scratchDir();
    FLAGS_logtostderr = false;
    FLAGS_stderrthreshold = 3;
    FLAGS_v = 0;
    google::InitGoogleLogging("bench_LoggerBench");
}

// The same fields in every contender's line.
const char* const kPeer = "10.1.2.3:54321";

template <class Body>
void runOnThreads(benchmark::State& state, int threads, bool ourThreads, Body body) {
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        if (threads == 1) {
            for (int i = 0; i < kLinesPerThread; ++i) body(i);
        } else if (ourThreads) {
            std::vector<std::unique_ptr<ThreadFunction>> ts;
            for (int t = 0; t < threads; ++t) {
                ts.push_back(std::make_unique<ThreadFunction>(
                    [&body] {
                        for (int i = 0; i < kLinesPerThread; ++i) body(i);
                    },
                    "log%d", t));
            }
            for (auto& t : ts) t->go();
            for (auto& t : ts) t->join();
        } else {
            std::vector<std::thread> ts;
            for (int t = 0; t < threads; ++t) {
                ts.emplace_back([&body] {
                    for (int i = 0; i < kLinesPerThread; ++i) body(i);
                });
            }
            for (auto& t : ts) t.join();
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetItemsProcessed(state.iterations() * threads * kLinesPerThread);
}

void Ours(benchmark::State& state, int threads, bool flushEach) {
    configureOurs();
    const Logger& log = flushEach ? requestLog : buffered;
    runOnThreads(state, threads, true, [&log](int i) {
        log.info("request %d from %s took %.3f ms, status %d", i, kPeer, i * 0.25, 200);
    });
}

void Spdlog(benchmark::State& state, int threads, bool flushEach) {
    auto l = spdLogger(flushEach);
    runOnThreads(state, threads, false, [&l](int i) {
        l->info("request {} from {} took {:.3f} ms, status {}", i, kPeer, i * 0.25, 200);
    });
}

void Glog(benchmark::State& state, int threads, bool flushEach) {
    initGlog();
    FLAGS_logbuflevel = flushEach ? -1 : 0;
    FLAGS_logbufsecs = flushEach ? 0 : 30;
    runOnThreads(state, threads, false, [](int i) {
        LOG(INFO) << "request " << i << " from " << kPeer << " took " << i * 0.25 << " ms, status "
                  << 200;
    });
}

#define LOG_BENCH(group, threads, flush)                                                       \
    BENCHMARK_CAPTURE(Ours, group, threads, flush)->Name(#group "/tarvex")->UseManualTime();   \
    BENCHMARK_CAPTURE(Spdlog, group, threads, flush)->Name(#group "/spdlog")->UseManualTime(); \
    BENCHMARK_CAPTURE(Glog, group, threads, flush)->Name(#group "/glog")->UseManualTime();

LOG_BENCH(Line1ThreadBuffered, 1, false)
LOG_BENCH(Line2ThreadsBuffered, 2, false)
LOG_BENCH(Line1ThreadFlushed, 1, true)
LOG_BENCH(Line2ThreadsFlushed, 2, true)

void DisabledDebugOurs(benchmark::State& state) {
    configureOurs();
    int i = 0;
    for (auto _ : state) {
        requestLog.debug("request %d from %s", i++, kPeer);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(DisabledDebugOurs)->Name("DisabledDebug/tarvex");

void DisabledDebugSpdlog(benchmark::State& state) {
    auto l = spdLogger(false);
    int i = 0;
    for (auto _ : state) {
        l->debug("request {} from {}", i++, kPeer);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(DisabledDebugSpdlog)->Name("DisabledDebug/spdlog");

void DisabledDebugGlog(benchmark::State& state) {
    initGlog();
    int i = 0;
    for (auto _ : state) {
        VLOG(1) << "request " << i++ << " from " << kPeer;
        benchmark::ClobberMemory();
    }
}
BENCHMARK(DisabledDebugGlog)->Name("DisabledDebug/glog_vlog");

void DisabledDebugEmptyLoop(benchmark::State& state) {
    for (auto _ : state) benchmark::ClobberMemory();
}
BENCHMARK(DisabledDebugEmptyLoop)->Name("DisabledDebug/empty_loop");

}  // namespace
