#include "util/HttpAcceptLanguage.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace {

std::vector<std::vector<std::string>> rows(const std::string& name) {
    return testsupport::dataRows("HttpAcceptLanguageTest/" + name);
}

TEST(HttpAcceptLanguage, ParsesSortsAndPrints) {
    for (const auto& c : rows("parse")) {
        HttpAcceptLanguages langs;
        langs._accepted.resize(2);  // cleared by the parse
        const bool ok = mem_parse_into(c[0].data(), c[0].size(), &langs);
        Str printed;
        append_stringified(&printed, langs);
        EXPECT_EQ((std::vector<std::string>{c[0], ok ? "1" : "0", std::string(printed)}), c);
    }
}

TEST(HttpAcceptLanguage, BestChoice) {
    HttpAcceptLanguageChoices choices;
    choices.setChoices(StrHashSet{"fr", "en-US", "de-DE", "en-GB", "*", "x-y"});
    ASSERT_EQ(choices.choices().size(), 4u);
    for (const auto& c : rows("best-choice")) {
        HttpAcceptLanguages langs;
        mem_parse_into(c[0].data(), c[0].size(), &langs);
        EXPECT_EQ(choices.bestFor(langs), c[1]) << c[0];
    }
}

}  // namespace
