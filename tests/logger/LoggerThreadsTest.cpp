// Many threads logging to one channel while its level changes: every line
// whole, none lost, each thread's lines in its order.

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/TestSupport.h"
#include "util/Logger.h"
#include "util/Thread.h"

namespace {

Logger busy("Busy");

constexpr int kThreads = 4;
constexpr int kLines = 2000;

std::string payload(int thread, int i) {
    // Lines of varying length, so that a torn write shows.
    return std::string(static_cast<size_t>(20 + (i * 7 + thread) % 180),
                       static_cast<char>('a' + thread));
}

void write(int id, std::atomic<int>& running) {
    for (int i = 0; i < kLines; ++i) {
        if (i % 2 == 0) {
            busy.warn("w %d %d %s", id, i, payload(id, i).c_str());
        } else {
            busy._stream_warn() << "w " << id << " " << i << " " << payload(id, i);
        }
        busy.debug("d %d %d", id, i);
    }
    running.fetch_sub(1);
}

struct Counter : LogObserver {
    std::atomic<int> lines{0};
    void observe(const Str&) override { lines.fetch_add(1, std::memory_order_relaxed); }
};

TEST(LoggerThreads, NoInterleavedOrLostLinesWhileTheLevelChanges) {
    testsupport::ScratchDir dir;
    std::string cfg =
        "rootCategory=INFO\ncategory.Busy=INFO, T, U\nappender.T.fileName=@/t.log\n"
        "appender.U.fileName=@/u.log\nappender.U.layout=PatternLayout\n"
        "appender.U.layout.ConversionPattern=%t|%m%n\n";
    for (size_t at = 0; (at = cfg.find('@', at)) != std::string::npos; at += dir.path().size()) {
        cfg.replace(at, 1, dir.path());
    }
    testsupport::writeFile(dir / "log.cfg", cfg);
    Logger::configuration conf;
    conf.path = dir / "log.cfg";
    ASSERT_TRUE(Logger::initialize(conf));
    Counter counter;
    ScopedLogObserverRegistration reg(&busy, &counter);

    std::atomic<int> running{kThreads};
    std::vector<std::unique_ptr<ThreadFunction>> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.push_back(
            std::make_unique<ThreadFunction>([t, &running] { write(t, running); }, "writer%d", t));
    }
    for (auto& w : writers) w->go();
    for (bool debug = true; running.load() > 0; debug = !debug) {
        Logger::setChannelLevel("Busy", debug ? "DEBUG" : "WARN", nullptr);
    }
    for (auto& w : writers) w->join();

    const std::string text = testsupport::readFile(dir / "t.log");
    std::vector<int> nextWarn(kThreads, 0);
    std::vector<int> lastDebug(kThreads, -1);
    int lines = 0;
    for (size_t pos = 0, lf; pos < text.size(); pos = lf + 1, ++lines) {
        lf = text.find('\n', pos);
        ASSERT_NE(lf, std::string::npos) << "a line without its end";
        const std::string line = text.substr(pos, lf - pos);
        int id = -1, i = -1, used = 0;
        if (sscanf(line.c_str(), "w %d %d %n", &id, &i, &used) == 2) {
            ASSERT_TRUE(id >= 0 && id < kThreads) << line;
            ASSERT_EQ(i, nextWarn[id]) << "lost or reordered: " << line;
            ASSERT_EQ(line.substr(static_cast<size_t>(used)), payload(id, i)) << line;
            nextWarn[id] += 1;
        } else {
            ASSERT_EQ(sscanf(line.c_str(), "d %d %d%n", &id, &i, &used), 2) << line;
            ASSERT_EQ(static_cast<size_t>(used), line.size()) << line;
            ASSERT_TRUE(id >= 0 && id < kThreads) << line;
            ASSERT_GT(i, lastDebug[id]) << line;
            lastDebug[id] = i;
        }
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(nextWarn[t], kLines) << "thread " << t;
    EXPECT_EQ(counter.lines.load(), lines) << "the observer saw each line once";

    // The other appender has the same lines, each with its thread's name.
    const std::string other = testsupport::readFile(dir / "u.log");
    EXPECT_EQ(std::count(other.begin(), other.end(), '\n'), lines);
    for (int t = 0; t < kThreads; ++t) {
        const std::string first = "writer" + std::to_string(t) + "|w " + std::to_string(t) + " 0 ";
        EXPECT_NE(other.find(first), std::string::npos) << first;
    }
}

}  // namespace
