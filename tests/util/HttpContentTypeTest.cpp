#include "util/HttpContentType.h"

#include <gtest/gtest.h>

#include <string>

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
    const struct {
        const char* path;
        const char* type;  // null: none
    } cases[] = {
        {"a.css", "text/css; charset=UTF-8"},
        {"a.csv", "text/csv; charset=UTF-8"},
        {"a.dot", "text/vnd.graphviz; charset=UTF-8"},
        {"a.gv", "text/vnd.graphviz; charset=UTF-8"},
        {"a.eot", "application/vnd.ms-fontobject"},
        {"a.eps", "application/postscript"},
        {"a.ps", "application/postscript"},
        {"a.gif", "image/gif"},
        {"a.htm", "text/html; charset=UTF-8"},
        {"/d.d/a.HTML", "text/html; charset=UTF-8"},
        {"a.ico", "image/x-icon"},
        {"x.JPEG", "image/jpeg"},
        {"a.jpg", "image/jpeg"},
        {"a.js", "application/javascript; charset=UTF-8"},
        {"a.JsOn", "application/json; charset=UTF-8"},
        {"a.otf", "application/x-font-opentype"},
        {"a.pdf", "application/pdf"},
        {"a.png", "image/png"},
        {"a.svg", "image/svg+xml"},
        {"a.swf", "application/x-shockwave-flash"},
        {"a.text", "text/plain; charset=UTF-8"},
        {"a.txt", "text/plain; charset=UTF-8"},
        {"a.ttf", "application/x-font-ttf"},
        {"a.woff", "application/font-woff"},
        {"a.xml", "text/xml; charset=UTF-8"},
        {"/a.b/c", nullptr},
        {"a.txt/", nullptr},
        {"a.j", nullptr},
        {"a.jsonp", nullptr},
        {"a.mp4", nullptr},
        {"a.tar", nullptr},
        {"a.pn", nullptr},
        {"a.pngg", nullptr},
        {"noext", nullptr},
        {"", nullptr},
    };
    for (const auto& c : cases) {
        const HttpContentType* t = Pathname(c.path).httpContentType();
        EXPECT_EQ(t ? std::string(t->type()) : "none", c.type ? c.type : "none") << c.path;
    }
    EXPECT_EQ(Pathname("a.ps").httpContentType(), &HttpContentType::TYPE_POSTSCRIPT);
    const std::string nul("a.gv\0", 5);
    EXPECT_EQ(Pathname(StrSegment(nul)).httpContentType(), nullptr);
}

}  // namespace
