#include "util/SimpleRandomNumber.h"

#include <gtest/gtest.h>

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

}  // namespace
