#include "util/HashedStr.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "support/HashCollisions.h"
#include "util/BasicConversions.h"

namespace {

using hashcollisions::collisionFamily;
using hashcollisions::referenceDjb2;
using Meta = HashedStrReference::internal_metadata;

// ---------------------------------------------------------------- key blocks

// Every length up to a few words: header fields in place, the text right
// behind them with its zero byte inside the allocation (ASan checks that).
TEST(HashedStrReference, KeyBlockHoldsHeaderThenText) {
    HashedStrMap_KeyPool pool;
    std::string text;
    for (size_t length = 0; length <= 72; ++length) {
        const HashedStrReference r =
            length % 2 ? pool.create(text.data(), text.size()) : pool.create(text.c_str());
        const Meta* m = r.metadata();
        EXPECT_EQ(reinterpret_cast<const char*>(m) + 32, r.data());
        EXPECT_EQ(m->length, length);
        EXPECT_EQ(m->hash, referenceDjb2(text));
        EXPECT_EQ(r.hash(), m->hash);
        EXPECT_EQ(std::string(r.c_str()), text);
        EXPECT_EQ(r.c_str()[length], '\0');
        EXPECT_EQ(Meta::allocationSize(length) % 8, 0u);
        EXPECT_GE(Meta::allocationSize(length), 32 + length + 1);
        text += static_cast<char>(length % 3 ? 'a' + length % 26 : 0x80 + length);
    }
    EXPECT_EQ(pool.size(), 73u);

    // Equality is by text.
    const auto [x, y] = hashcollisions::collidingPair();
    const HashedStrReference a = pool.create(x.c_str()), b = pool.create(x.c_str());
    const HashedStrReference c = pool.create(y.c_str());
    ASSERT_EQ(a.hash(), c.hash());
    EXPECT_NE(a.data(), b.data());
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a == c);
    EXPECT_EQ(Str::from(a), x);
}

// Single blocks released from every place in the list are the map's
// random test's (each erase releases its key block, under ASan).
TEST(HashedStrMap_KeyPool, SwapAndFreeAll) {
    HashedStrMap_KeyPool pool, other;
    for (int i = 0; i < 50; ++i) pool.create(std::to_string(i).c_str());
    const HashedStrReference kept = other.create("kept");
    pool.swap(other);
    EXPECT_EQ(pool.size(), 1u);
    EXPECT_EQ(other.size(), 50u);
    other.freeAll();
    EXPECT_EQ(other.size(), 0u);
    pool.destroy(kept.metadata());
    EXPECT_EQ(pool.size(), 0u);
    other.create("after freeAll");
    EXPECT_EQ(other.size(), 1u);
}

// ---------------------------------------------------------------- generator

TEST(HashedStrMapKeyGenerator, EqualTextsShareOneBlock) {
    const std::vector<std::string> family = collisionFamily(7);
    HashedStrMapKeyGenerator generator;
    std::vector<const Meta*> first;
    for (const std::string& t : family) first.push_back(generator.get(t.c_str()).metadata());
    EXPECT_EQ(generator.size(), family.size());
    for (size_t i = 0; i < family.size(); ++i) {
        const std::string& t = family[i];
        // The other forms of get() hash and forward in a line.
        EXPECT_EQ(generator.get(t.c_str()).metadata(), first[i]);
        EXPECT_TRUE(generator.get(t.c_str()).seg().equals(StrSegment(t)));
    }
    EXPECT_EQ(generator.size(), family.size());
    std::sort(first.begin(), first.end());
    EXPECT_EQ(std::unique(first.begin(), first.end()), first.end());

    // A prefix is a text of its own.
    const HashedStrReference whole = generator.get("prefixed");
    const HashedStrReference part = generator.get("prefixed", 6);
    EXPECT_NE(whole.metadata(), part.metadata());
    EXPECT_STREQ(part.c_str(), "prefix");

    generator.free_all();
    EXPECT_EQ(generator.size(), 0u);
    EXPECT_EQ(generator.get("again").length(), 5u);
    EXPECT_EQ(generator.size(), 1u);
}

// ---------------------------------------------------------------- HashedStrMap

TEST(HashedStrMap, AgreesWithUnorderedMapOverRandomOperations) {
    std::mt19937_64 rng(5);
    std::vector<std::string> texts = collisionFamily(6);
    while (texts.size() < 3000) {
        std::string t(rng() % 10, '\0');
        for (char& c : t) c = static_cast<char>(rng() % 2 ? 'k' + rng() % 3 : rng() % 256);
        texts.push_back(t);
    }
    HashedStrMap<int> map;
    std::unordered_map<std::string, int> oracle;
    for (int step = 0; step < 30000; ++step) {
        const std::string& t = texts[rng() % texts.size()];
        const int value = static_cast<int>(rng() % 1000);
        switch (rng() % 5) {
            case 0: {
                auto [it, added] = map.insert(t.data(), t.size(), referenceDjb2(t), value);
                auto [oit, oadded] = oracle.emplace(t, value);
                ASSERT_EQ(added, oadded) << step;
                ASSERT_EQ(it->second.value, oit->second);
                ASSERT_TRUE(it->second.key.equals(t.data(), t.size()));
                break;
            }
            case 1:
                map[StrSegment(t)] += value;
                oracle[t] += value;
                break;
            case 2:
                ASSERT_EQ(map.erase(t.data(), t.size()), oracle.erase(t) == 1) << step;
                break;
            default: {
                const int* found = map.get(t.data(), t.size());
                auto oit = oracle.find(t);
                ASSERT_EQ(found != nullptr, oit != oracle.end()) << step;
                if (found != nullptr) {
                    ASSERT_EQ(*found, oit->second);
                }
                ASSERT_EQ(map.contains(t.data(), t.size(), referenceDjb2(t)), oit != oracle.end());
            }
        }
        ASSERT_EQ(map.size(), oracle.size());
    }
    uint64_t previous = 0;
    size_t listed = 0;
    for (const auto& [hash, entry] : map) {
        EXPECT_GE(hash, previous);
        previous = hash;
        EXPECT_EQ(hash, referenceDjb2(entry.key.seg()));
        const auto oit = oracle.find(std::string(entry.key.seg()));
        ASSERT_NE(oit, oracle.end());
        EXPECT_EQ(entry.value, oit->second);
        ++listed;
    }
    EXPECT_EQ(listed, oracle.size());
}

// Erasing and inserting again within runs of equal hashes is the random
// test's; here erasing by iterator, in hash order, until empty.
TEST(HashedStrMap, EraseByIteratorUntilEmpty) {
    const std::vector<std::string> family = collisionFamily(3);
    HashedStrMap<std::string> map;
    for (const std::string& t : family) map.insert(t.c_str(), "v-" + t);
    for (auto it = map.begin(); it != map.end();) it = map.erase(it);
    EXPECT_TRUE(map.empty());
    EXPECT_TRUE(map.insert(family[0].c_str(), "again").second);
    EXPECT_EQ(map.size(), 1u);
}

// Same hash given for texts that are prefixes of each other: the length
// decides.
TEST(HashedStrMap, LengthDecidesBetweenTextsOfOneHash) {
    HashedStrMap<int> map;
    map.emplace("abc", 3, 99, 1);
    map.emplace("abcd", 4, 99, 2);
    map.emplace("", 0, 99, 3);
    const int want[] = {3, 0, 0, 1, 2, 0};  // by length of "abcde"; 0 when absent
    for (size_t n = 0; n <= 5; ++n) {
        const int* found = map.get("abcde", n, 99);
        EXPECT_EQ(found ? *found : 0, want[n]) << n;
    }
    EXPECT_EQ(map._internal_find("abcd", 4, 99)->second.key.length(), 4u);
}

TEST(HashedStrMap, CopiesHaveTheirOwnKeys) {
    auto original = std::make_unique<HashedStrMap<int>>();
    for (int i = 0; i < 300; ++i) original->insert(std::to_string(i).c_str(), i);
    HashedStrMap<int> copy(*original);
    HashedStrMap<int> assigned;
    assigned.insert("stale", -1);
    assigned = *original;
    assigned = assigned;
    EXPECT_FALSE(assigned.contains("stale"));
    EXPECT_EQ(assigned.size(), 300u);
    EXPECT_NE(copy.begin()->second.key.data(), original->begin()->second.key.data());
    *original->get("7") = 700;
    original->erase("8");
    original.reset();
    for (int i = 0; i < 300; ++i) {
        const std::string key = std::to_string(i);
        ASSERT_NE(copy.get(key.c_str()), nullptr);
        EXPECT_EQ(*copy.get(key.c_str()), i);
        EXPECT_EQ(*assigned.get(key.c_str()), i);
    }
    HashedStrMap<int> moved(std::move(copy));
    EXPECT_EQ(moved.size(), 300u);
    EXPECT_TRUE(copy.empty());
    copy.insert("fresh", 1);
    EXPECT_EQ(*copy.get("fresh"), 1);
    moved.clear();
    EXPECT_FALSE(moved.contains("1"));
}

// ---------------------------------------------------------------- HashedStrVector

TEST(HashedStrVector, KeepsOrderAndSharesBlocksOfEqualTexts) {
    HashedStrVector v;
    const char* const words[] = {"red", "green", "red", "", "blue", "green", "re"};
    for (const char* w : words) v.push_back(w);
    v.push_back("redder", 3);
    ASSERT_EQ(v.size(), 8u);
    for (size_t i = 0; i < 7; ++i) EXPECT_STREQ(v[i].c_str(), words[i]);
    EXPECT_EQ(v.blocks()[0], v.blocks()[2]);
    EXPECT_EQ(v.blocks()[0], v.blocks()[7]);
    EXPECT_EQ(v.blocks()[1], v.blocks()[5]);
    EXPECT_NE(v.blocks()[0], v.blocks()[6]);
    EXPECT_EQ(v[4].hash(), referenceDjb2("blue"));

    HashedStrVector moved(std::move(v));
    EXPECT_TRUE(v.empty());
    EXPECT_STREQ(moved[4].c_str(), "blue");
    moved._freeMem();
    EXPECT_TRUE(moved.empty());
    moved.push_back("after");
    EXPECT_STREQ(moved[0].c_str(), "after");
}

}  // namespace
