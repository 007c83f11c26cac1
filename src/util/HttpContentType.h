#pragma once
// Content types as the header lines a reply sends, ready to be appended in
// one piece, and the types of the file extensions a server hands out.

#include <cstddef>

#include "util/Str.h"

class HttpContentType {
public:
    HttpContentType() = default;
    explicit HttpContentType(const char* type) { set(type, strlen(type)); }

    // "Content-Type: " type "\r\nX-Content-Type-Options: nosniff\r\n": no
    // type is sent without forbidding browsers to guess another.
    void set(const char* type, size_t size);

    // Both header lines.
    const Str& line() const { return _line; }
    // The type text within the line.
    StrSegment type() const {
        return empty() ? StrSegment() : StrSegment(_line.data() + kPrefixLength, _typeLength);
    }
    bool empty() const { return _line.empty(); }

    // Built before main(); their pointers may be kept anywhere.
    static const HttpContentType TYPE_BINARY;
    static const HttpContentType TYPE_PLAINTEXT;
    static const HttpContentType TYPE_JSON;
    static const HttpContentType TYPE_XML;
    static const HttpContentType TYPE_CSV;
    static const HttpContentType TYPE_HTML;
    static const HttpContentType TYPE_PDF;
    static const HttpContentType TYPE_POSTSCRIPT;
    static const HttpContentType TYPE_GRAPHVIZ;
    static const HttpContentType TYPE_PNG;
    static const HttpContentType TYPE_JPEG;
    static const HttpContentType TYPE_SVG;
    static const HttpContentType TYPE_GIF;
    static const HttpContentType TYPE_TAR;

private:
    static constexpr size_t kPrefixLength = 14;  // "Content-Type: "

    Str _line;
    size_t _typeLength = 0;
};

// The type text.
void append_stringified(Str* dest, const HttpContentType& v);
