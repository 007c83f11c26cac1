#include "util/HttpContentType.h"

#include <gtest/gtest.h>

#include <string>

#include "support/TestSupport.h"
#include "util/Pathname.h"

namespace {

TEST(HttpContentType, LineCarriesNosniff) {
    HttpContentType t;
    t.set("text/x-a; b", 11);
    HttpContentType copy(t);
    t.set("other/type", 10);
    EXPECT_EQ(copy.line(), "Content-Type: text/x-a; b\r\nX-Content-Type-Options: nosniff\r\n");
    EXPECT_EQ(copy.type(), StrSegment("text/x-a; b"));
}

TEST(HttpContentType, ByExtension) {
    for (const auto& r : testsupport::dataRows("HttpContentTypeTest/by-extension")) {
        const HttpContentType* t = Pathname(r[0]).httpContentType();
        EXPECT_EQ(t ? std::string(t->type()) : "none", r.size() > 1 ? r[1] : "none") << r[0];
    }
    EXPECT_EQ(Pathname("").httpContentType(), nullptr);
    const std::string nul("a.gv\0", 5);
    EXPECT_EQ(Pathname(StrSegment(nul)).httpContentType(), nullptr);
}

}  // namespace
