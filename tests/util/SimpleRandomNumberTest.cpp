#include "util/SimpleRandomNumber.h"

#include <gtest/gtest.h>

#include "util/Str.h"
#include "util/Thread.h"

#include <set>
#include <thread>
#include <vector>

namespace {

// The sequence is the same on every platform: check it against the formula
// run from an observed value, across threads.
TEST(PortableRand, LinearCongruentialAndSharedAcrossThreads) {
    int32_t prev = portable_rand();
    for (int i = 0; i < 1000; ++i) {
        const int32_t next = portable_rand();
        ASSERT_EQ(next, static_cast<int32_t>((static_cast<uint32_t>(prev) * 1103515245u + 12345u) &
                                             0x7FFFFFFFu));
        ASSERT_GE(next, 0);
        prev = next;
    }

    // Four threads draw 10000 values each: every draw is a distinct step of
    // one sequence, so no value repeats (the period is 2^31).
    std::vector<std::vector<int32_t>> draws(4);
    std::vector<std::thread> threads;
    for (auto& d : draws) {
        threads.emplace_back([&d] {
            for (int i = 0; i < 10000; ++i) d.push_back(portable_rand());
        });
    }
    for (auto& t : threads) t.join();
    std::set<int32_t> all;
    for (auto& d : draws) all.insert(d.begin(), d.end());
    EXPECT_EQ(all.size(), 40000u);
}

// Each Thread draws from its own seeded state; two threads' states differ.
TEST(SimpleRandomNumber, PerThreadStatesAreSeededAndDistinct) {
    xorshift128plus_state* mine = SimpleRandomNumber::perThread();
    EXPECT_EQ(SimpleRandomNumber::perThread(), mine);
    EXPECT_TRUE(mine->s[0] != 0 || mine->s[1] != 0);
    xorshift128plus_state* theirs = nullptr;
    xorshift128plus_state theirValue{};
    ThreadFunction t(
        [&] {
            theirs = SimpleRandomNumber::perThread();
            theirValue = *theirs;
        },
        "random");
    t.go();
    t.join();
    EXPECT_NE(theirs, mine);
    EXPECT_TRUE(theirValue.s[0] != mine->s[0] || theirValue.s[1] != mine->s[1]);
}

TEST(SimpleRandomNumber, RandStrStaysInRangeAndCoversIt) {
    const struct {
        unsigned char min, max;
    } ranges[] = {{'a', 'z'}, {'0', '1'}, {0, 255}, {'x', 'x'}};
    for (const auto& r : ranges) {
        Str s("old contents");
        SimpleRandomNumber::randStr(r.min, r.max, 5000, &s);
        ASSERT_EQ(s.size(), 5000u);
        std::set<unsigned char> seen;
        for (char c : s) {
            const unsigned char u = static_cast<unsigned char>(c);
            ASSERT_GE(u, r.min);
            ASSERT_LE(u, r.max);
            seen.insert(u);
        }
        EXPECT_EQ(seen.size(), size_t(r.max - r.min + 1)) << int(r.min) << ".." << int(r.max);
    }
}

}  // namespace
