// Hashed string containers when memory runs out: every allocation an
// operation makes is failed in turn, and the container must be as it was,
// go on working, and leak nothing.

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>
#include <vector>

#include "support/FailingNew.h"
#include "util/BasicConversions.h"
#include "util/HashedStr.h"
#include "util/StrHashSet.h"

namespace {

// The container must be as it was after each failed run, and go on working.
template <class C>
void failEachAllocation(const std::function<void(C&)>& make, const std::function<void(C&)>& op,
                        const std::function<std::string(const C&)>& describe) {
    failingnew::failEachAllocation<C>(make, op, describe,
                                      [&](C& c, const std::string& before, long n) {
                                          ASSERT_EQ(describe(c), before) << "allocation " << n;
                                          op(c);
                                          ASSERT_NE(describe(c), before);
                                      });
}

std::string describeSet(const StrHashSet& s) {
    return Str::from(s) + " size " + std::to_string(s.size());
}

// 512 keys by copy: eight full leaves, and no room for a ninth, so that one
// insertion needs a key, a leaf and larger leaf arrays.
void eightFullLeaves(StrHashSet& s) {
    StrHashSet source;
    for (int i = 0; i < 512; ++i) source.insert(std::to_string(i));
    s = source;
}

TEST(HashedStrOutOfMemory, StrHashSetInsertionsLeaveTheSetAsItWas) {
    failEachAllocation<StrHashSet>(
        eightFullLeaves, [](StrHashSet& s) { s.insert("new"); }, describeSet);
    failEachAllocation<StrHashSet>([](StrHashSet&) {}, [](StrHashSet& s) { s.insert("first"); },
                                   describeSet);
    failEachAllocation<StrHashSet>(
        eightFullLeaves,
        [](StrHashSet& s) {
            StrHashSet copy(s);
            copy.insert("more");
            s.swap(copy);
        },
        describeSet);
}

TEST(HashedStrOutOfMemory, KeyedContainersLeaveTheirContentsAsTheyWere) {
    using Map = HashedStrMap<std::string>;
    failEachAllocation<Map>(
        [](Map& m) {
            for (int i = 0; i < 100; ++i) m.insert(std::to_string(i).c_str(), std::string(40, 'v'));
        },
        [](Map& m) { m.insert("k", std::string(40, 'w')); },
        [](const Map& m) {
            std::string out;
            for (const auto& [hash, e] : m) out += Str::from(e.key) + "=" + e.value + ";";
            return out;
        });

    failEachAllocation<HashedStrVector>(
        [](HashedStrVector& v) {
            for (int i = 0; i < 8; ++i) v.push_back("same");
        },
        [](HashedStrVector& v) { v.push_back("other"); },
        [](const HashedStrVector& v) {
            std::string out;
            for (size_t i = 0; i < v.size(); ++i) out += Str::from(v[i]) + ";";
            return out;
        });

    failEachAllocation<FixedStrHashSet>(
        [](FixedStrHashSet& s) { s = FixedStrHashSet{"old"}; },
        [](FixedStrHashSet& s) {
            const FixedStrHashSet other{"new", "newer"};
            s = other;
        },
        [](const FixedStrHashSet& s) { return std::string(Str::from(s)); });
}

// Finalizing needs memory; without it, a lookup still answers, by a scan of
// the texts, and the next one finalizes.
TEST(HashedStrOutOfMemory, StaticSetAnswersWhileFinalizingFails) {
    const Str alpha("alpha"), beta("beta");
    for (const char* probe : {"alpha", "gamma"}) {
        for (long n = 1;; ++n) {
            StaticStrHashSet set, other;
            set.insert(&alpha);
            set.insert(&beta);
            other.insert(&beta);
            failingnew::failAt(n);
            const bool found = set.contains(probe);
            failingnew::failAt(0);
            ASSERT_EQ(found, probe == std::string("alpha")) << n;
            if (set.state() == StaticStrHashSet::STATE_FINISHED &&
                other.state() == StaticStrHashSet::STATE_FINISHED) {
                EXPECT_GT(n, 1) << "finalizing never allocated";
                break;
            }
            EXPECT_TRUE(set.contains("beta"));
            EXPECT_EQ(set.state(), StaticStrHashSet::STATE_FINISHED);
            EXPECT_EQ(other.state(), StaticStrHashSet::STATE_FINISHED);
            EXPECT_TRUE(other.contains("beta"));
            EXPECT_FALSE(other.contains("alpha"));
        }
    }
}

}  // namespace
