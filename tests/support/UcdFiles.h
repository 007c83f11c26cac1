#pragma once
// The Unicode Character Database as the unicode-data package installs it, read
// afresh at test time, so that the generated tables are checked against the
// files themselves rather than against the generator's reading of them.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace ucd {

constexpr uint32_t kCodepoints = 0x110000;

enum Property : uint8_t {
    kAlphabetic = 1,
    kUppercase = 2,
    kLowercase = 4,
    kWhiteSpace = 8,
    kCompositionExclusion = 16,
};

struct Database {
    std::string version;                 // from the DerivedCoreProperties header
    std::vector<uint16_t> category;      // two letters, 'L' << 8 | 'u'; "Cn" when absent
    std::vector<uint8_t> properties;     // Property bits
    std::vector<uint8_t> eastAsianWide;  // W or F, unassigned block defaults included
    std::map<uint32_t, uint32_t> upper;  // simple mappings, field 12
    std::map<uint32_t, uint32_t> lower;  // field 13
    std::map<uint32_t, std::vector<uint32_t>> decomposition;  // canonical only
    std::map<uint32_t, int> combiningClass;

    bool is(uint32_t cp, const char* gc) const {
        return category[cp] == (static_cast<uint16_t>(gc[0]) << 8 | static_cast<uint8_t>(gc[1]));
    }
    char major(uint32_t cp) const { return static_cast<char>(category[cp] >> 8); }
    bool has(uint32_t cp, Property p) const { return (properties[cp] & p) != 0; }
    uint32_t lowerOf(uint32_t cp) const {
        auto it = lower.find(cp);
        return it == lower.end() ? cp : it->second;
    }
    uint32_t upperOf(uint32_t cp) const {
        auto it = upper.find(cp);
        return it == upper.end() ? cp : it->second;
    }
    std::vector<uint32_t> fullDecomposition(uint32_t cp) const {
        auto it = decomposition.find(cp);
        if (it == decomposition.end()) return {cp};
        std::vector<uint32_t> out;
        for (uint32_t part : it->second) {
            for (uint32_t c : fullDecomposition(part)) out.push_back(c);
        }
        return out;
    }
};

inline std::string path(const char* name) { return std::string("/usr/share/unicode/") + name; }

inline uint32_t hex(const std::string& s) {
    return static_cast<uint32_t>(strtoul(s.c_str(), nullptr, 16));
}

// Calls f(first, last, value) for each "XXXX..YYYY ; value # comment" line.
template <class F>
void forEachRangeLine(const std::string& file, F f) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        unsigned first, last;
        char value[64];
        if (sscanf(line.c_str(), "%x..%x ; %63[^ #;]", &first, &last, value) == 3) {
            f(first, last, std::string(value));
        } else if (sscanf(line.c_str(), "%x ; %63[^ #;]", &first, value) == 2) {
            f(first, first, std::string(value));
        }
    }
}

inline Database load() {
    Database db;
    db.category.assign(kCodepoints, static_cast<uint16_t>('C' << 8 | 'n'));
    db.properties.assign(kCodepoints, 0);
    db.eastAsianWide.assign(kCodepoints, 0);

    std::ifstream head(path("DerivedCoreProperties.txt"));
    std::getline(head, db.version);  // "# DerivedCoreProperties-15.0.0.txt"
    const size_t dash = db.version.find('-');
    db.version = db.version.substr(dash + 1, db.version.rfind(".txt") - dash - 1);

    std::ifstream data(path("UnicodeData.txt"));
    uint32_t rangeFirst = 0;
    for (std::string line; std::getline(data, line);) {
        std::vector<std::string> f;  // 15 fields, of which the last may be dropped when empty
        std::istringstream fields(line);
        for (std::string field; std::getline(fields, field, ';');) f.push_back(field);
        const uint32_t cp = hex(f[0]);
        if (f[1].ends_with(", First>")) {
            rangeFirst = cp;
            continue;
        }
        const uint32_t first = f[1].ends_with(", Last>") ? rangeFirst : cp;
        const uint16_t gc = static_cast<uint16_t>(f[2][0] << 8 | f[2][1]);
        for (uint32_t c = first; c <= cp; ++c) db.category[c] = gc;
        db.combiningClass[cp] = atoi(f[3].c_str());
        if (!f[5].empty() && f[5][0] != '<') {
            std::istringstream parts(f[5]);
            for (std::string part; parts >> part;) db.decomposition[cp].push_back(hex(part));
        }
        if (!f[12].empty()) db.upper[cp] = hex(f[12]);
        if (!f[13].empty()) db.lower[cp] = hex(f[13]);
    }

    auto mark = [&db](const char* file, const char* name, Property p) {
        forEachRangeLine(path(file), [&](uint32_t a, uint32_t b, const std::string& value) {
            if (value != name) return;
            for (uint32_t c = a; c <= b; ++c) db.properties[c] |= p;
        });
    };
    mark("DerivedCoreProperties.txt", "Alphabetic", kAlphabetic);
    mark("DerivedCoreProperties.txt", "Uppercase", kUppercase);
    mark("DerivedCoreProperties.txt", "Lowercase", kLowercase);
    mark("PropList.txt", "White_Space", kWhiteSpace);
    mark("DerivedNormalizationProps.txt", "Full_Composition_Exclusion", kCompositionExclusion);

    // The file lists assigned code points only; its header gives the blocks
    // whose unassigned code points are wide.
    const uint32_t wideBlocks[][2] = {{0x3400, 0x4DBF},
                                      {0x4E00, 0x9FFF},
                                      {0xF900, 0xFAFF},
                                      {0x20000, 0x2FFFD},
                                      {0x30000, 0x3FFFD}};
    for (const auto& block : wideBlocks) {
        for (uint32_t c = block[0]; c <= block[1]; ++c) db.eastAsianWide[c] = 1;
    }
    forEachRangeLine(path("EastAsianWidth.txt"),
                     [&](uint32_t a, uint32_t b, const std::string& value) {
                         for (uint32_t c = a; c <= b; ++c) {
                             db.eastAsianWide[c] = value == "W" || value == "F";
                         }
                     });
    return db;
}

// Loaded once per test binary.
inline const Database& database() {
    static const Database db = load();
    return db;
}

}  // namespace ucd
