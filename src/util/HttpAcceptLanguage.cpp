#include "util/HttpAcceptLanguage.h"

#include <algorithm>

#include "util/BasicConversions.h"

namespace {

inline bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

inline char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

inline char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }

// The q parameter among "name=value" pairs separated by ";"; any other is
// ignored, and so is a q that is not a number.
void parseParameters(StrSegment params, double* q) {
    while (!params.empty()) {
        size_t semi = params.find(';');
        if (semi == StrSegment::npos) semi = params.size();
        const StrSegment param = params.substr(0, semi);
        params = params.substr(semi + 1);
        const size_t eq = param.find('=');
        if (eq == StrSegment::npos) continue;
        const StrSegment name = param.substr(0, eq).trim();
        if (name.size() != 1 || lower(name[0]) != 'q') continue;
        const StrSegment value = param.substr(eq + 1).trim();
        double v;
        if (mem_parse_into(value._data, value._len, &v)) *q = v;
    }
}

}  // namespace

bool HttpAcceptLanguage::set(StrSegment item, uint32_t position) {
    *this = HttpAcceptLanguage();
    _position = position;
    item.trimInPlace();
    if (item.empty() || item[0] == ';') return false;
    const size_t semi = item.find(';');
    if (semi != StrSegment::npos) parseParameters(item.substr(semi + 1), &_q);
    const StrSegment tag = item.substr(0, semi).trim();

    size_t i = 0, n = 0;
    for (; i < tag.size() && tag[i] != '-'; ++i, ++n) {
        if (!isLetter(tag[i]) || n == sizeof _language) return false;
        _language[n] = lower(tag[i]);
    }
    if (n == 0 || (n == 1 && _language[0] == 'x')) return false;
    if (i == tag.size()) return true;
    n = 0;
    for (++i; i < tag.size(); ++i, ++n) {
        const char c = tag[i];
        if (c == '-' || c == '.' || c == '_') break;
        if (!isLetter(c) || n == sizeof _sublang) return false;
        _sublang[n] = upper(c);
    }
    return true;
}

int HttpAcceptLanguage::compareName(const HttpAcceptLanguage& o) const {
    int c = memcmp(_language, o._language, sizeof _language);
    if (c == 0) c = memcmp(_sublang, o._sublang, sizeof _sublang);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

namespace {

void appendName(Str* dest, const HttpAcceptLanguage& v) {
    dest->append(v._language, strnlen(v._language, sizeof v._language));
    if (v.hasSublang()) {
        dest->push_back('-');
        dest->append(v._sublang, strnlen(v._sublang, sizeof v._sublang));
    }
}

}  // namespace

void append_stringified(Str* dest, const HttpAcceptLanguage& v) {
    appendName(dest, v);
    if (v._q != 1.0) {
        dest->append(";q=");
        append_stringified(dest, v._q);
    }
}

bool HttpAcceptLanguages::isForbidden(const HttpAcceptLanguage& name) const {
    // The list is sorted by name: a client can send thousands of entries.
    const auto it = std::lower_bound(_forbidden.begin(), _forbidden.end(), name,
                                     [](const HttpAcceptLanguage& a, const HttpAcceptLanguage& b) {
                                         return a.compareName(b) < 0;
                                     });
    return it != _forbidden.end() && it->sameName(name);
}

bool mem_parse_into(const char* data, size_t length, HttpAcceptLanguages* dest) {
    dest->clear();
    bool ok = true;
    StrSegment rest(data, length);
    for (uint32_t position = 0;; ++position) {
        const size_t comma = rest.find(',');
        const StrSegment item = rest.substr(0, comma);
        HttpAcceptLanguage lang;
        if (lang.set(item, position)) {
            (lang._q > 0 ? dest->_accepted : dest->_forbidden).push_back(lang);
        } else if (!item.trim().empty()) {
            ok = false;
        }
        if (comma == StrSegment::npos) break;
        rest = rest.substr(comma + 1);
    }
    std::sort(dest->_accepted.begin(), dest->_accepted.end());
    std::stable_sort(dest->_forbidden.begin(), dest->_forbidden.end(),
                     [](const HttpAcceptLanguage& a, const HttpAcceptLanguage& b) {
                         return a.compareName(b) < 0;
                     });
    return ok;
}

void append_stringified(Str* dest, const HttpAcceptLanguages& v) {
    const char* sep = "";
    for (const HttpAcceptLanguage& a : v._accepted) {
        dest->append(sep);
        append_stringified(dest, a);
        sep = ",";
    }
    for (const HttpAcceptLanguage& f : v._forbidden) {
        dest->append(sep);
        appendName(dest, f);
        dest->append(";q=0");
        sep = ",";
    }
}

// ---------------------------------------------------------------- choices

void HttpAcceptLanguageChoices::setChoices(const StrHashSet& choices) {
    _choices.clear();
    for (const HashedStrReference text : choices) {
        opt o;
        if (!o.name.set(text.seg(), 0)) continue;
        o.text.assign(text.data(), text.size());
        _choices.push_back(std::move(o));
    }
    std::sort(_choices.begin(), _choices.end(),
              [](const opt& a, const opt& b) { return a.text < b.text; });
}

const Str& HttpAcceptLanguageChoices::bestFor(const HttpAcceptLanguages& languages) const {
    enum { NONE = 0, OTHER_SUBLANG = 1, ONE_SIDE_BARE = 2 };
    const opt* held = nullptr;
    int heldQuality = NONE;
    double heldQ = 0;
    for (const HttpAcceptLanguage& entry : languages._accepted) {
        const opt* exact = nullptr;
        const opt* best = nullptr;
        int bestQuality = NONE;
        for (const opt& choice : _choices) {
            if (!choice.name.sameLanguage(entry)) continue;
            if (choice.name.sameName(entry)) {
                if (exact == nullptr) exact = &choice;
                continue;
            }
            if (languages.isForbidden(choice.name)) continue;
            const int quality =
                !choice.name.hasSublang() || !entry.hasSublang() ? ONE_SIDE_BARE : OTHER_SUBLANG;
            if (quality > bestQuality) {
                bestQuality = quality;
                best = &choice;
            }
        }
        if (exact != nullptr) {
            if (heldQuality != ONE_SIDE_BARE || !(heldQ > entry._q)) return exact->text;
        } else if (bestQuality > heldQuality) {
            held = best;
            heldQuality = bestQuality;
            heldQ = entry._q;
        }
    }
    return held == nullptr ? Str::EMPTY_STR : held->text;
}
