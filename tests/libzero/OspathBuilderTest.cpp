#include "libzero/ospath-builder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(StringBuilder, AppendsUntilFullThenStaysInvalid) {
    char buf[8];
    string_builder b;
    string_builder_start(&b, buf, sizeof buf);
    string_builder_appendz(&b, "abc");
    string_builder_append1(&b, '-');
    string_builder_append_decimal_u64(&b, 42);
    EXPECT_TRUE(string_builder_valid(&b));
    EXPECT_EQ(string_builder_finish(&b), 0);
    EXPECT_STREQ(buf, "abc-42");

    // 7 bytes plus the terminator fill 8 exactly; one more does not fit...
    string_builder_start(&b, buf, sizeof buf);
    string_builder_appendn(&b, "1234567", 7);
    EXPECT_TRUE(string_builder_valid(&b));
    string_builder_append1(&b, 'x');
    EXPECT_FALSE(string_builder_valid(&b));
    // ...and a later append that would fit does not revive it.
    string_builder_start(&b, buf, sizeof buf);
    string_builder_appendz(&b, "123456789");
    string_builder_appendz(&b, "");
    EXPECT_FALSE(string_builder_valid(&b));
    // An invalid builder finishes empty, never truncated.
    EXPECT_EQ(string_builder_finish(&b), -1);
    EXPECT_STREQ(buf, "");
}

TEST(StringBuilder, DecimalsAndCodePoints) {
    char buf[64];
    string_builder b;
    string_builder_start(&b, buf, sizeof buf);
    string_builder_append_decimal_i64(&b, INT64_MIN);
    string_builder_append1(&b, ' ');
    string_builder_append_decimal_u64(&b, UINT64_MAX);
    string_builder_append1(&b, ' ');
    string_builder_append_utf8_codepoint(&b, 'A');
    string_builder_append_utf8_codepoint(&b, 0xE9);
    string_builder_append_utf8_codepoint(&b, 0x20AC);
    string_builder_append_utf8_codepoint(&b, 0x1F600);
    string_builder_append_utf8_codepoint(&b, 0x10FFFF);
    string_builder_append_utf8_codepoint(&b, 0x110000);  // appends nothing
    ASSERT_EQ(string_builder_finish(&b), 0);
    EXPECT_EQ(std::string(buf),
              "-9223372036854775808 18446744073709551615 A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"
              "\xF4\x8F\xBF\xBF");
}

TEST(OspathBuilder, LongestPathThatFitsAndSeparators) {
    ospath_builder b;
    // 4090 + ".lock" + terminator = 4096: fits; one byte more does not.
    std::string path(4090, 'a');
    ASSERT_EQ(ospath_builder_concat_two_paths(&b, path.c_str(), ".lock"), 0);
    EXPECT_EQ(std::string(b.path), path + ".lock");
    path.push_back('a');
    EXPECT_EQ(ospath_builder_concat_two_paths(&b, path.c_str(), ".lock"), -1);
    EXPECT_FALSE(ospath_builder_valid(&b));

    ASSERT_EQ(ospath_builder_concat_two_paths_with_sep(&b, "/a/b", "c"), 0);
    EXPECT_STREQ(b.path, "/a/b/c");
    ASSERT_EQ(ospath_builder_concat_two_paths(&b, "/a/b/", ".lock"), 0);
    EXPECT_STREQ(b.path, "/a/b/.lock");

    ospath_buf buf;
    std::string longest(4095, 'x');
    EXPECT_EQ(ospath_buf_set(&buf, longest.c_str()), 0);
    EXPECT_EQ(std::string(buf.path), longest);
    longest.push_back('x');
    EXPECT_EQ(ospath_buf_set(&buf, longest.c_str()), -1);
}

}  // namespace
