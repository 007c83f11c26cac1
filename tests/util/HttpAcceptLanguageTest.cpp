#include "util/HttpAcceptLanguage.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(HttpAcceptLanguage, ParsesSortsAndPrints) {
    const struct {
        const char* header;
        bool ok;
        const char* printed;
    } cases[] = {
        {"", true, ""},
        {"en-US,en;q=0.5,*;q=0.1", false, "en-US,en;q=0.5"},
        {" fr;q=0.2,\tDE-de , en;q=0", true, "de-DE,fr;q=0.2,en;q=0"},
        {"b;q=0.5,a;q=0.5,,c", true, "c,b;q=0.5,a;q=0.5"},
        {"fr;q=0,de-AT;q=-1,de;q=0", true, "de;q=0,de-AT;q=0,fr;q=0"},
        // Tag shapes: 4 + 5 letters at most, the sublanguage ends at "-._".
        {"abcd-abcde", true, "abcd-ABCDE"},
        {"zh-hant-tw,en-us.utf8,pt_BR", false, "zh-HANT,en-US"},
        {"abcde", false, ""},
        {"abcd-abcdef", false, ""},
        {"en-u1", false, ""},
        {"x,X-foo,i-ab", false, "i-AB"},
        {"en-", true, "en"},
        // Parameters: only a one-letter q counts, and a bad one leaves 1.
        {";q=1", false, ""},
        {"en; Q = 0.3 ;level=1", true, "en;q=0.3"},
        {"en;q=abc;qq=0.1;q", true, "en"},
    };
    for (const auto& c : cases) {
        HttpAcceptLanguages langs;
        langs._accepted.resize(2);  // cleared by the parse
        EXPECT_EQ(mem_parse_into(c.header, strlen(c.header), &langs), c.ok) << c.header;
        Str printed;
        append_stringified(&printed, langs);
        EXPECT_EQ(printed, c.printed) << c.header;
    }
}

TEST(HttpAcceptLanguage, BestChoice) {
    HttpAcceptLanguageChoices choices;
    choices.setChoices(StrHashSet{"fr", "en-US", "de-DE", "en-GB", "*", "x-y"});
    ASSERT_EQ(choices.choices().size(), 4u);
    const struct {
        const char* header;
        const char* best;
    } cases[] = {
        {"en-US", "en-US"},
        {"en", "en-GB"},  // the first of equal quality, in byte order
        {"en-AU", "en-GB"},
        {"fr-CA", "fr"},
        {"de", "de-DE"},
        {"es", ""},
        {"", ""},
        // An exact match loses only to a held bare-language match of higher q.
        {"en;q=0.9,en-US;q=0.5", "en-GB"},
        {"en;q=0.5,en-US;q=0.5", "en-US"},
        {"en-AU,en-US;q=0.5", "en-US"},
        {"en-AU,fr-CA;q=0.4", "fr"},  // a bare-language match beats another sublanguage
        // Forbidden by both fields: "en;q=0" leaves en-GB free.
        {"en-AU,en-GB;q=0", "en-US"},
        {"en-AU,en;q=0", "en-GB"},
        {"de,de-DE;q=0", ""},
    };
    for (const auto& c : cases) {
        HttpAcceptLanguages langs;
        mem_parse_into(c.header, strlen(c.header), &langs);
        EXPECT_EQ(choices.bestFor(langs), c.best) << c.header;
    }
}

}  // namespace
