// djb2, the gzip CRC-32 and xorshift128+.

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "libzero/djb2.h"
#include "libzero/gzip-crc32.h"
#include "libzero/xorshift128plus.h"
#include "support/HashCollisions.h"

namespace {

// Bytes over 0x7F count as negative: python3 computes the hash by the
// definition, with its own integers.
TEST(Djb2, SignedBytesAsPythonComputesThem) {
    const std::vector<std::string> texts{
        "", "a", "Hello, \xff\x80", "\x80", "caf\xc3\xa9", "\xff\xfe\xfd", "a\x80z"};
    const std::vector<uint64_t> python = hashcollisions::pythonDjb2(texts);
    ASSERT_EQ(python.size(), texts.size()) << "python3 must be installed";
    EXPECT_EQ(python[0], 5381u);
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string& t = texts[i];
        size_t len = 99;
        EXPECT_EQ(djb2_hash_n(t.data(), t.size()), python[i]) << i;
        EXPECT_EQ(djb2_hash(t.c_str()), python[i]) << i;
        EXPECT_EQ(djb2_hash_and_strlen(t.c_str(), &len), python[i]) << i;
        EXPECT_EQ(len, t.size());
        // The hash of a piece continues the hash of what came before.
        for (size_t cut = 0; cut <= t.size(); ++cut) {
            EXPECT_EQ(
                djb2_hash_n_cumulative(djb2_hash_n(t.data(), cut), t.data() + cut, t.size() - cut),
                python[i]);
        }
    }
    EXPECT_EQ(djb2_hash_n_nocase("HeLLo-Z[", 8), djb2_hash_n("hello-z[", 8));
    EXPECT_NE(djb2_hash_n_nocase("\xC9", 1), djb2_hash_n_nocase("\xE9", 1));  // ASCII only
}

TEST(GzipCrc32, CheckValueAndPiecesContinue) {
    EXPECT_EQ(gzip_crc32(0, "", 0), 0u);
    EXPECT_EQ(gzip_crc32(0, "123456789", 9), 0xCBF43926u);  // the well-known check value
    for (size_t cut = 0; cut <= 9; ++cut) {
        EXPECT_EQ(gzip_crc32(gzip_crc32(0, "123456789", cut), "123456789" + cut, 9 - cut),
                  0xCBF43926u)
            << cut;
    }
}

TEST(Xorshift128Plus, StepsAndSeedsMatchIndependentValues) {
    // Expected values computed by a separate Python model of the generator.
    xorshift128plus_state s = {{1, 2}};
    EXPECT_EQ(xorshift128plus_next(&s), 0x800045u);
    EXPECT_EQ(xorshift128plus_next(&s), 0x2000104u);
    EXPECT_EQ(xorshift128plus_next(&s), 0x4000020010c3u);

    xorshift128plus_init_with_seed(&s, 12345);
    EXPECT_EQ(s.s[0], 0xf36cf1164265dd51u);
    EXPECT_EQ(s.s[1], 0x606dd5207aa46961u);
    EXPECT_EQ(xorshift128plus_next(&s), 0x788e0006e56cf2bdu);
    EXPECT_EQ(xorshift128plus_next(&s), 0x9100c35634c611u);
}

// Each started word takes one step; bytes past the length stay untouched.
TEST(Xorshift128Plus, FillMemoryUsesWholeOutputsInHostOrder) {
    for (size_t length : {0, 1, 8, 9}) {
        xorshift128plus_state a, b;
        xorshift128plus_init_with_seed(&a, 99);
        b = a;
        unsigned char buf[32], want[32];
        memset(buf, 0xAA, sizeof buf);
        memset(want, 0xAA, sizeof want);
        xorshift128plus_fill_memory(&a, buf, length);
        for (size_t at = 0; at < length; at += 8) {
            const uint64_t v = xorshift128plus_next(&b);
            memcpy(want + at, &v, std::min<size_t>(8, length - at));
        }
        EXPECT_EQ(memcmp(&a, &b, sizeof a), 0) << length;
        EXPECT_EQ(memcmp(buf, want, sizeof buf), 0) << length;
    }
}

TEST(Xorshift128Plus, RatioStaysInTheUnitInterval) {
    xorshift128plus_state s;
    xorshift128plus_init_with_seed(&s, 1);
    double sum = 0, lo = 1, hi = 0;
    const int n = 200000;
    for (int i = 0; i < n; ++i) {
        double r = xorshift128plus_get_ratio(&s);
        ASSERT_GE(r, 0.0);
        ASSERT_LT(r, 1.0);
        sum += r;
        lo = std::min(lo, r);
        hi = std::max(hi, r);
    }
    EXPECT_NEAR(sum / n, 0.5, 0.01);
    EXPECT_LT(lo, 0.001);
    EXPECT_GT(hi, 0.999);
}

TEST(Xorshift128Plus, TimeSeededStatesDiffer) {
    xorshift128plus_state a, b;
    xorshift128plus_init(&a);
    xorshift128plus_init(&b);
    EXPECT_FALSE(a.s[0] == b.s[0] && a.s[1] == b.s[1]);
    EXPECT_FALSE(a.s[0] == 0 && a.s[1] == 0);

    xorshift128plus_state c = a;
    xorshift128plus_mix_in_initial_seed(&c);
    EXPECT_FALSE(c.s[0] == a.s[0] && c.s[1] == a.s[1]);
}

uint64_t finisher(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// With the time-stamp counter forbidden, the counter counts as 0, and word 0
// is the finisher of the byte-swapped seconds alone. Exits 0 when so.
[[noreturn]] void seedWithoutCycleCounter() {
    prctl(PR_SET_TSC, PR_TSC_SIGSEGV, 0, 0, 0);
    for (int attempt = 0; attempt < 3; ++attempt) {
        struct timeval before, after;
        // The vDSO clock may read the forbidden counter itself: system calls only.
        syscall(SYS_gettimeofday, &before, nullptr);
        xorshift128plus_state s;
        xorshift128plus_init_with_mixers(&s, 0x1234, 0);
        syscall(SYS_gettimeofday, &after, nullptr);
        if (before.tv_sec != after.tv_sec) continue;
        const uint64_t expect =
            finisher(0 - __builtin_bswap64(static_cast<uint64_t>(before.tv_sec))) ^ 0x1234;
        _exit(s.s[0] == expect ? 0 : 1);
    }
    _exit(2);
}

TEST(Xorshift128PlusDeathTest, NoCycleCounterWhereReadingItWouldFault) {
    // A re-executed child decides afresh, after forbidding the counter.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(seedWithoutCycleCounter(), testing::ExitedWithCode(0), "");
}

}  // namespace
