#include "util/HttpContentType.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "support/TestSupport.h"
#include "util/Pathname.h"

namespace {

TEST(HttpContentType, LineCarriesNosniff) {
    HttpContentType t;
    EXPECT_TRUE(t.type().empty());
    t.set("text/x-a; b", 11);
    HttpContentType copy(t);
    t.set("other/type", 10);
    EXPECT_EQ(copy.line(), "Content-Type: text/x-a; b\r\nX-Content-Type-Options: nosniff\r\n");
    EXPECT_EQ(copy.type(), StrSegment("text/x-a; b"));
    EXPECT_EQ(Str::from(HttpContentType::TYPE_TAR), "application/x-tar");
    EXPECT_EQ(Str::from(HttpContentType::TYPE_BINARY), "application/octet-stream");
}

TEST(HttpContentType, ByExtension) {
    const std::string table =
        testsupport::readFile(TARVEX_SOURCE_DIR "/tests/data/HttpContentTypeTest/by-extension");
    std::istringstream in(table);
    unsigned n = 0;
    for (std::string line; std::getline(in, line);) {
        if (line[0] == '#') continue;
        const size_t bar = line.find('|');
        const HttpContentType* t = Pathname(line.substr(0, bar)).httpContentType();
        EXPECT_EQ(t ? std::string(t->type()) : "none",
                  bar == std::string::npos ? "none" : line.substr(bar + 1))
            << line;
        ++n;
    }
    EXPECT_EQ(n, 35u);
    EXPECT_EQ(Pathname("a.ps").httpContentType(), &HttpContentType::TYPE_POSTSCRIPT);
    const std::string nul("a.gv\0", 5);
    EXPECT_EQ(Pathname(StrSegment(nul)).httpContentType(), nullptr);
}

}  // namespace
