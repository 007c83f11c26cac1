// Display widths against EastAsianWidth.txt and the general categories.

#include <gtest/gtest.h>

#include <string>

#include "libzero/codepoint-width.h"
#include "support/UcdFiles.h"

namespace {

// 2 for Wide and Fullwidth; 0 for controls, nonspacing and enclosing marks and
// format characters (a mark that is also wide combines, so it takes none);
// 1 for the rest, unassigned code points too.
int expectedWidth(const ucd::Database& db, uint32_t c) {
    if (c < 0x80) return c >= 0x20 ? 1 : 0;
    if (db.is(c, "Mn") || db.is(c, "Me") || db.is(c, "Cf") || db.is(c, "Cc")) return 0;
    return db.eastAsianWide[c] ? 2 : 1;
}

TEST(CodepointWidth, EveryCodePointAsTheDatabaseSays) {
    const ucd::Database& db = ucd::database();
    size_t mismatches = 0, wide = 0, zero = 0;
    std::string first;
    for (uint32_t c = 0; c < ucd::kCodepoints; ++c) {
        const int expected = expectedWidth(db, c);
        wide += expected == 2;
        zero += expected == 0;
        if (codepoint_width(c) != expected && mismatches++ < 8) {
            first += " " + std::to_string(c) + ":" + std::to_string(codepoint_width(c));
        }
    }
    EXPECT_EQ(mismatches, 0u) << first;
    EXPECT_GT(wide, 100000u) << "the wide blocks were read";
    EXPECT_GT(zero, 2000u);
    // Past U+10FFFF nothing has a width.
    EXPECT_EQ(codepoint_width(0x110000), 0);
    EXPECT_EQ(codepoint_width(0xFFFFFFFF), 0);
}

}  // namespace
