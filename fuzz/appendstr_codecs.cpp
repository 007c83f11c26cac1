// AppendStr's decoders and escapers on arbitrary bytes: streaming Base64 and
// gunzip must give the same result however the input is cut, and the
// escapers' output must hold none of the bytes they promise to escape.
#include <cstdint>
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "util/AppendStr.h"

namespace {

std::string text(const AppendStr& s) {
    Str out;
    append_stringified(&out, s);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    if (size < 1) return 0;
    const size_t cut = bytes[0] % (size);
    const char* data = reinterpret_cast<const char*>(bytes + 1);
    const size_t n = size - 1;
    const size_t at = cut > n ? n : cut;

    {
        AppendStr whole, split;
        AppendStr::Base64DecodeState a, b;
        const bool okWhole = whole.appendBase64Unescaped(a, data, n);
        bool okSplit = split.appendBase64Unescaped(b, data, at);
        if (okSplit) okSplit = split.appendBase64Unescaped(b, data + at, n - at);
        FUZZ_CHECK(okWhole == okSplit);
        if (okWhole) FUZZ_CHECK(text(whole) == text(split));
    }
    {
        AppendStr whole, split;
        AppendStrGunzipState a, b;
        const bool okWhole = a.gunzip(data, n, &whole);
        bool okSplit = b.gunzip(data, at, &split);
        if (okSplit) okSplit = b.gunzip(data + at, n - at, &split);
        FUZZ_CHECK(okWhole == okSplit);
        if (okWhole) FUZZ_CHECK(text(whole) == text(split));
    }
    {
        AppendStr json;
        json.appendJsonEscaped(data, n);
        for (char c : text(json)) FUZZ_CHECK(static_cast<unsigned char>(c) >= 32);
        AppendStr xml;
        xml.appendXmlEscaped(data, n, XmlEscaping(XmlEscaping::ATTRIBUTE));
        const std::string x = text(xml);
        FUZZ_CHECK(x.find_first_of("<>\"'") == std::string::npos);
        AppendStr uri;
        uri.appendUriEscaped(data, n);
        for (char c : text(uri)) FUZZ_CHECK(c > 32 && c < 127 && c != '&' && c != '=');
    }
    return 0;
}
