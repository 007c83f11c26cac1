#pragma once
// Texts with equal djb2 hashes, found by search rather than written down, and
// an independent djb2 for checking them.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/TestSupport.h"

namespace hashcollisions {

// The hashes python3 computes for the texts, by the same definition with
// Python's own integers; empty when python3 can't be run.
inline std::vector<uint64_t> pythonDjb2(const std::vector<std::string>& texts) {
    static const char program[] =
        "import sys\n"
        "for arg in sys.argv[1:]:\n"
        "    h = 5381\n"
        "    for b in bytes.fromhex(arg):\n"
        "        h = (h * 33 + (b - 256 if b >= 128 else b)) % 2**64\n"
        "    print(h)\n";
    std::vector<std::string> argv{"/usr/bin/python3", "-c", program};
    for (const std::string& t : texts) {
        std::string hex;
        for (unsigned char c : t) {
            hex += "0123456789abcdef"[c >> 4];
            hex += "0123456789abcdef"[c & 15];
        }
        argv.push_back(hex);
    }
    const testsupport::ProcessResult r = testsupport::runProcess(argv);
    std::vector<uint64_t> hashes;
    if (r.exitStatus != 0) return hashes;
    size_t pos = 0;
    while (pos < r.out.size()) {
        const size_t eol = r.out.find('\n', pos);
        hashes.push_back(std::stoull(r.out.substr(pos, eol - pos)));
        pos = eol == std::string::npos ? r.out.size() : eol + 1;
    }
    return hashes;
}

// djb2 as defined: from 5381, h = h * 33 + byte, the byte as signed char.
inline uint64_t referenceDjb2(std::string_view text) {
    uint64_t h = 5381;
    for (char c : text)
        h = h * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(c)));
    return h;
}

// Two different printable two-byte texts with one hash, the first pair met
// in a search of every such text.
inline std::pair<std::string, std::string> collidingPair() {
    std::map<uint64_t, std::string> seen;
    for (int a = 0x20; a < 0x7f; ++a) {
        for (int b = 0x20; b < 0x7f; ++b) {
            const std::string t{static_cast<char>(a), static_cast<char>(b)};
            auto [it, added] = seen.emplace(referenceDjb2(t), t);
            if (!added) return {it->second, t};
        }
    }
    return {};
}

// 2^blocks texts of 2 * blocks bytes, all of one hash: since the hash only
// continues from the state so far, either text of a colliding pair may stand
// in each block.
inline std::vector<std::string> collisionFamily(int blocks) {
    const auto [x, y] = collidingPair();
    std::vector<std::string> family{""};
    for (int i = 0; i < blocks; ++i) {
        std::vector<std::string> longer;
        for (const std::string& f : family) {
            longer.push_back(f + x);
            longer.push_back(f + y);
        }
        family.swap(longer);
    }
    return family;
}

}  // namespace hashcollisions
