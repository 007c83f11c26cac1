#include "util/HttpContentType.h"

#include <algorithm>
#include <cstdint>

#include "util/Pathname.h"

void HttpContentType::set(const char* type, size_t size) {
    static constexpr char kPrefix[] = "Content-Type: ";
    static constexpr char kSuffix[] = "\r\nX-Content-Type-Options: nosniff\r\n";
    static_assert(sizeof kPrefix - 1 == kPrefixLength);
    Str line;
    line.reserve(kPrefixLength + size + sizeof kSuffix - 1);
    line.append(kPrefix, kPrefixLength);
    line.append(type, size);
    line.append(kSuffix, sizeof kSuffix - 1);
    _line.swap(line);
    _typeLength = size;
}

void append_stringified(Str* dest, const HttpContentType& v) { dest->append(v.type()); }

const HttpContentType HttpContentType::TYPE_BINARY("application/octet-stream");
const HttpContentType HttpContentType::TYPE_PLAINTEXT("text/plain; charset=UTF-8");
const HttpContentType HttpContentType::TYPE_JSON("application/json; charset=UTF-8");
const HttpContentType HttpContentType::TYPE_XML("text/xml; charset=UTF-8");
const HttpContentType HttpContentType::TYPE_CSV("text/csv; charset=UTF-8");
const HttpContentType HttpContentType::TYPE_HTML("text/html; charset=UTF-8");
const HttpContentType HttpContentType::TYPE_PDF("application/pdf");
const HttpContentType HttpContentType::TYPE_POSTSCRIPT("application/postscript");
const HttpContentType HttpContentType::TYPE_GRAPHVIZ("text/vnd.graphviz; charset=UTF-8");
const HttpContentType HttpContentType::TYPE_PNG("image/png");
const HttpContentType HttpContentType::TYPE_JPEG("image/jpeg");
const HttpContentType HttpContentType::TYPE_SVG("image/svg+xml");
const HttpContentType HttpContentType::TYPE_GIF("image/gif");
const HttpContentType HttpContentType::TYPE_TAR("application/x-tar");

namespace {

const HttpContentType kJavascript("application/javascript; charset=UTF-8");
const HttpContentType kCss("text/css; charset=UTF-8");
const HttpContentType kFlash("application/x-shockwave-flash");
const HttpContentType kIcon("image/x-icon");
const HttpContentType kFontObject("application/vnd.ms-fontobject");
const HttpContentType kWoff("application/font-woff");
const HttpContentType kTrueType("application/x-font-ttf");
const HttpContentType kOpenType("application/x-font-opentype");

// 2 to 4 letters, big-endian from the top byte: one integer compare per step.
constexpr uint32_t pack(const char* ext) {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | (*ext != '\0' ? static_cast<uint8_t>(*ext++) : 0);
    return v;
}

struct Extension {
    uint32_t packed;
    const HttpContentType* type;
};

using T = HttpContentType;
constexpr Extension kExtensions[] = {
    {pack("css"), &kCss},
    {pack("csv"), &T::TYPE_CSV},
    {pack("dot"), &T::TYPE_GRAPHVIZ},
    {pack("eot"), &kFontObject},
    {pack("eps"), &T::TYPE_POSTSCRIPT},
    {pack("gif"), &T::TYPE_GIF},
    {pack("gv"), &T::TYPE_GRAPHVIZ},
    {pack("htm"), &T::TYPE_HTML},
    {pack("html"), &T::TYPE_HTML},
    {pack("ico"), &kIcon},
    {pack("jpeg"), &T::TYPE_JPEG},
    {pack("jpg"), &T::TYPE_JPEG},
    {pack("js"), &kJavascript},
    {pack("json"), &T::TYPE_JSON},
    {pack("otf"), &kOpenType},
    {pack("pdf"), &T::TYPE_PDF},
    {pack("png"), &T::TYPE_PNG},
    {pack("ps"), &T::TYPE_POSTSCRIPT},
    {pack("svg"), &T::TYPE_SVG},
    {pack("swf"), &kFlash},
    {pack("text"), &T::TYPE_PLAINTEXT},
    {pack("ttf"), &kTrueType},
    {pack("txt"), &T::TYPE_PLAINTEXT},
    {pack("woff"), &kWoff},
    {pack("xml"), &T::TYPE_XML},
};

static_assert(std::is_sorted(std::begin(kExtensions), std::end(kExtensions),
                             [](const Extension& a, const Extension& b) {
                                 return a.packed < b.packed;
                             }));

}  // namespace

const HttpContentType* Pathname::httpContentType() const {
    const size_t dot = rfind('.');
    if (dot == npos) return nullptr;
    // A "/" after the dot fails the letter test: the dot is not in the leaf.
    const size_t length = size() - dot - 1;
    if (length < 2 || length > 4) return nullptr;
    uint32_t packed = 0;
    for (size_t i = 0; i < 4; ++i) {
        // Setting 0x20 folds exactly the capitals onto "a" to "z".
        const uint8_t c = i < length ? static_cast<uint8_t>((*this)[dot + 1 + i] | 0x20) : 0;
        if (i < length && (c < 'a' || c > 'z')) return nullptr;
        packed = packed << 8 | c;
    }
    const Extension* it =
        std::lower_bound(std::begin(kExtensions), std::end(kExtensions), packed,
                         [](const Extension& e, uint32_t key) { return e.packed < key; });
    return it != std::end(kExtensions) && it->packed == packed ? it->type : nullptr;
}
