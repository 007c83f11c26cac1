#pragma once
// Language negotiation: the "Accept-Language" header taken apart into the
// languages a client wants (by preference) and those it refuses (q=0), and
// the pick among the languages a server has.

#include <cstdint>
#include <vector>

#include "util/Str.h"
#include "util/StrHashSet.h"

// One language tag of up to 4 letters, with a sublanguage of up to 5, as in
// "en-US" or "zh-HANT"; anything past the sublanguage is ignored.
class HttpAcceptLanguage {
public:
    double _q = 1.0;
    uint32_t _position = 0;  // in the header's list
    char _language[4] = {};  // lower case; NUL-terminated unless full
    char _sublang[5] = {};   // upper case; NUL-terminated unless full

    // One item of the header: "en-GB;q=0.8". False for a tag that is not
    // letters, an empty language or "x"; a bad q is ignored.
    bool set(StrSegment item, uint32_t position);

    bool hasSublang() const { return _sublang[0] != '\0'; }
    bool sameLanguage(const HttpAcceptLanguage& o) const {
        return memcmp(_language, o._language, sizeof _language) == 0;
    }
    bool sameName(const HttpAcceptLanguage& o) const {
        return sameLanguage(o) && memcmp(_sublang, o._sublang, sizeof _sublang) == 0;
    }
    // By language, then sublanguage, bytewise; no sublanguage first.
    int compareName(const HttpAcceptLanguage& o) const;
    // Preference order: higher q first, then earlier in the list.
    bool operator<(const HttpAcceptLanguage& o) const {
        return _q != o._q ? _q > o._q : _position < o._position;
    }
};

// "en-US", then ";q=" and the value when q is not 1.
void append_stringified(Str* dest, const HttpAcceptLanguage& v);

class HttpAcceptLanguages {
public:
    std::vector<HttpAcceptLanguage> _accepted;   // by preference
    std::vector<HttpAcceptLanguage> _forbidden;  // q <= 0, by name

    void clear() {
        _accepted.clear();
        _forbidden.clear();
    }
    // Whether a forbidden entry has this language and sublanguage.
    bool isForbidden(const HttpAcceptLanguage& name) const;
};

// Clears `dest` and takes the comma-separated items; one that fails is
// dropped. False when any non-blank item failed.
bool mem_parse_into(const char* data, size_t length, HttpAcceptLanguages* dest);
// The accepted ones, then each forbidden one with ";q=0", joined by ",".
void append_stringified(Str* dest, const HttpAcceptLanguages& v);

// The languages on offer, and the pick among them for a client.
class HttpAcceptLanguageChoices {
public:
    struct opt {
        HttpAcceptLanguage name;
        Str text;  // as given
    };

    // Each text parsed as a header item; those that fail are dropped. Kept in
    // byte order of the texts, so that ties go the same way on every run.
    void setChoices(const StrHashSet& choices);
    const std::vector<opt>& choices() const { return _choices; }

    // The text of the best choice, or the empty string. Accepted languages
    // are tried by preference: an exact match wins, unless a match on the
    // language alone (one side without sublanguage) with a strictly higher q
    // is held; else the best of those, or of one with another sublanguage,
    // is held. A choice forbidden by name takes part only as exact match.
    const Str& bestFor(const HttpAcceptLanguages& languages) const;

private:
    std::vector<opt> _choices;
};
