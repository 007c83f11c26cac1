// The regex cache under several threads compiling, sharing, dropping and
// matching the same and different patterns, with rotations under way.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "util/Regex.h"
#include "util/Thread.h"

namespace {

TEST(RegexCache, ThreadsShareCompileAndDropPatterns) {
    Regex::setCacheHiwater(4);
    Regex::getMetricsDestructive();
    constexpr int kThreads = 4, kRounds = 300;
    std::atomic<int> wrong{0};
    std::vector<std::unique_ptr<ThreadFunction>> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.push_back(std::make_unique<ThreadFunction>(
            [t, &wrong] {
                const Regex shared("^shared-(\\d+)$");
                for (int r = 0; r < kRounds; ++r) {
                    // Same texts across threads, so that compiles race.
                    const int n = (r * 7 + t) % 23;
                    const Regex own(Str::fromFormat("^p%d-(\\w+)$", n));
                    Regex copy(own);
                    RegexMatch m;
                    const Str text = Str::fromFormat("p%d-x%d", n, r);
                    if (!copy.match(text, &m) || !m.getGroup(1).equals(Str::fromFormat("x%d", r))) {
                        wrong++;
                    }
                    if (!shared.fullyMatches(Str::fromFormat("shared-%d", r))) wrong++;
                    if (r % 50 == 0) Regex::rotateCache();
                }
            },
            "RegexCache%d", t));
    }
    for (auto& th : threads) th->go();
    for (auto& th : threads) th->join();
    EXPECT_EQ(wrong.load(), 0);
    const Regex::metrics m = Regex::getMetricsDestructive();
    // Every construction is a hit or a miss; races only come from misses.
    EXPECT_EQ(uint64_t(m.hits) + m.misses, uint64_t(kThreads) * (kRounds + 1));
    EXPECT_LE(m.races, m.misses);
    EXPECT_GT(m.rotations, 0u);
}

}  // namespace
