#include "util/HttpArguments.h"

#include <new>
#include <utility>

namespace {

bool sameKey(const HttpArguments::argument& a, const char* key, size_t size) {
    return a.key.size() == size && (size == 0 || memcmp(a.key.data(), key, size) == 0);
}

constexpr CharacterClass kKeySpecial("%&+;=");
constexpr CharacterClass kValueSpecial("%&+;");

inline str_hash_t hashStep(str_hash_t h, char c) {
    return h * 33 + static_cast<str_hash_t>(static_cast<int64_t>(static_cast<signed char>(c)));
}

inline int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

// ---------------------------------------------------------------- iteration

HttpArguments::const_iterator& HttpArguments::const_iterator::advanceWithSameKey() {
    const argument* a = _a->chainNext;
    while (a != nullptr && !sameKey(*a, _a->key.data(), _a->key.size())) a = a->chainNext;
    _a = a;
    return *this;
}

// ---------------------------------------------------------------- life cycle

HttpArguments::HttpArguments(const HttpArguments& other) {
    for (const argument& a : other) {
        add(a.key.data(), a.key.size(), djb2_hash_n(a.key.data(), a.key.size()), a.value);
    }
}

HttpArguments& HttpArguments::operator=(const HttpArguments& other) {
    if (this != &other) {
        HttpArguments copy(other);
        swap(copy);
    }
    return *this;
}

HttpArguments::~HttpArguments() {
    for (argument* a = _first; a != nullptr;) delete std::exchange(a, a->next);
    for (argument* a = _free; a != nullptr;) delete std::exchange(a, a->next);
}

void HttpArguments::_fixSelfLinks() noexcept {
    if (_first != nullptr) {
        _first->prevp = &_first;
    } else {
        _lastp = &_first;
    }
}

void HttpArguments::swap(HttpArguments& other) noexcept {
    std::swap(_first, other._first);
    std::swap(_lastp, other._lastp);
    std::swap(_size, other._size);
    _tree.swap(other._tree);
    _spareHeads.swap(other._spareHeads);
    std::swap(_free, other._free);
    _fixSelfLinks();
    other._fixSelfLinks();
}

void HttpArguments::clear() {
    try {
        _spareHeads.reserve(_spareHeads.size() + _tree.size());
        while (!_tree.empty()) _spareHeads.push_back(_tree.extract(_tree.begin()));
    } catch (const std::bad_alloc&) {
        _tree.clear();  // no room to keep the nodes: let them go
    }
    // The list goes onto the free list in its order, so that a request of
    // the same shape gets each node back for the same pair, buffers grown.
    for (argument* a = _first; a != nullptr; a = a->next) {
        a->key.clear();
        a->value.clear();
        a->chainNext = nullptr;
    }
    *_lastp = _free;
    _free = _first;
    _first = nullptr;
    _lastp = &_first;
    _size = 0;
}

// ---------------------------------------------------------------- nodes

HttpArguments::argument* HttpArguments::_allocate() {
    if (_free == nullptr) return new argument;
    argument* a = _free;
    _free = a->next;
    a->next = nullptr;
    return a;
}

void HttpArguments::_recycle(argument* a) {
    a->key.clear();
    a->value.clear();
    a->prevp = nullptr;
    a->chainNext = nullptr;
    a->next = _free;
    _free = a;
}

void HttpArguments::_append(str_hash_t hash, argument* a) {
    a->chainNext = nullptr;
    auto it = _tree.find(hash);
    if (it != _tree.end()) {
        *it->second.chain_lastp = a;
        it->second.chain_lastp = &a->chainNext;
    } else {
        const chain_head head{a, &a->chainNext};
        if (_spareHeads.empty()) {
            _tree.emplace(hash, head);  // on exhausted memory, raises before any link
        } else {
            Tree::node_type node = std::move(_spareHeads.back());
            _spareHeads.pop_back();
            node.key() = hash;
            node.mapped() = head;
            _tree.insert(std::move(node));
        }
    }
    a->next = nullptr;
    a->prevp = _lastp;
    *_lastp = a;
    _lastp = &a->next;
    ++_size;
}

// ---------------------------------------------------------------- access

void HttpArguments::add(const char* key, size_t size, str_hash_t hash, StrSegment value) {
    ScopedPointer<argument> a(_allocate());
    a->key.assign(key, size);
    a->value.assign(value._data, value._len);
    _append(hash, a.get());
    a.release();
}

void HttpArguments::set(const char* key, size_t size, str_hash_t hash, const Str& value) {
    if (argument* a = _findFirst(key, size, hash)) {
        a->value = value;
    } else {
        add(key, size, hash, value);
    }
}

void HttpArguments::setDestructive(const char* key, size_t size, str_hash_t hash, Str& value) {
    argument* a = _findFirst(key, size, hash);
    if (a == nullptr) {
        ScopedPointer<argument> fresh(_allocate());
        fresh->key.assign(key, size);
        _append(hash, fresh.get());
        a = fresh.release();
    }
    a->value = std::move(value);
    value.clear();
}

const HttpArguments::argument* HttpArguments::_findFirst(const char* key, size_t size,
                                                         str_hash_t hash) const {
    const auto it = _tree.find(hash);
    if (it == _tree.end()) return nullptr;
    for (const argument* a = it->second.root; a != nullptr; a = a->chainNext) {
        if (sameKey(*a, key, size)) return a;
    }
    return nullptr;
}

HttpArguments::const_iterator HttpArguments::find(const char* key, size_t size,
                                                  str_hash_t hash) const {
    return const_iterator(_findFirst(key, size, hash));
}

const Str* HttpArguments::get(const char* key, size_t size, str_hash_t hash) const {
    const argument* a = _findFirst(key, size, hash);
    return a == nullptr ? nullptr : &a->value;
}

const Str* HttpArguments::index(const char* key, size_t size, str_hash_t hash, size_t n) const {
    for (const_iterator it = find(key, size, hash); it != end(); it.advanceWithSameKey()) {
        if (n-- == 0) return &it->value;
    }
    return nullptr;
}

size_t HttpArguments::count(const char* key, size_t size, str_hash_t hash) const {
    size_t n = 0;
    for (const_iterator it = find(key, size, hash); it != end(); it.advanceWithSameKey()) ++n;
    return n;
}

// ---------------------------------------------------------------- removal

size_t HttpArguments::removeKey(const char* key, size_t size, str_hash_t hash,
                                HttpArgumentsRemoveActor& actor) {
    const auto it = _tree.find(hash);
    if (it == _tree.end()) return 0;
    chain_head& head = it->second;
    size_t removed = 0;
    for (argument** pp = &head.root; *pp != nullptr;) {
        argument* a = *pp;
        if (!sameKey(*a, key, size)) {
            pp = &a->chainNext;
            continue;
        }
        *pp = a->chainNext;
        if (head.chain_lastp == &a->chainNext) head.chain_lastp = pp;
        *a->prevp = a->next;
        if (a->next != nullptr) {
            a->next->prevp = a->prevp;
        } else {
            _lastp = a->prevp;
        }
        --_size;
        ++removed;
        actor.removing(*a);
        _recycle(a);
    }
    if (head.root == nullptr) _spareHeads.push_back(_tree.extract(it));
    return removed;
}

size_t HttpArguments::removeKey(const char* key, size_t size, str_hash_t hash) {
    NoopHttpArgumentsRemoveActor noop;
    return removeKey(key, size, hash, noop);
}

bool HttpArguments::fetchAndRemoveKey(const char* key, size_t size, str_hash_t hash, Str* value) {
    FetchHttpArgumentsRemoveActor fetch(value);
    removeKey(key, size, hash, fetch);
    return fetch.fetched();
}

bool operator==(const HttpArguments& a, const HttpArguments& b) {
    if (a.size() != b.size()) return false;
    for (auto i = a.begin(), j = b.begin(); i != a.end(); ++i, ++j) {
        if (i->key != j->key || i->value != j->value) return false;
    }
    return true;
}

HttpArgumentsRemoveActor::~HttpArgumentsRemoveActor() = default;

void FetchHttpArgumentsRemoveActor::removing(HttpArguments::argument& a) {
    if (_fetched) return;
    *_target = std::move(a.value);
    _fetched = true;
}

// ---------------------------------------------------------------- parsing

HttpArguments::UrlEncodedKeyValueParser::~UrlEncodedKeyValueParser() = default;

void HttpArguments::UrlEncodedKeyValueParser::allocateArgument(ScopedPointer<argument>& arg) {
    arg.reset(new argument);
}

void HttpArguments::UrlEncodedKeyValueParser::_appendByte(char c) {
    if (_inValue) {
        _arg->value.push_back(c);
    } else {
        _keyHash = hashStep(_keyHash, c);
        _arg->key.push_back(c);
    }
}

void HttpArguments::UrlEncodedKeyValueParser::_endPair() {
    // An empty key without "=" is no pair: "&&" adds nothing.
    if (_inValue || !_arg->key.empty()) {
        acceptArgument(_keyHash, _arg);
        // One that was left here serves the next pair.
        if (_arg) {
            _arg->key.clear();
            _arg->value.clear();
        }
        _inValue = false;
        _keyHash = DJB2_INITIAL_HASH_STATE;
    }
}

bool HttpArguments::UrlEncodedKeyValueParser::parse(const StrSegment& data) {
    bool ok = true;
    const char* p = data._data;
    const char* const end = p + data._len;
    while (p < end) {
        if (_escState != ESCSTATE_GROUND) {
            const int v = hexValue(*p++);
            if (v < 0) {
                ok = false;
                _escState = ESCSTATE_GROUND;
            } else if (_escState == ESCSTATE_FIRST_DIGIT_DUE) {
                _escState = static_cast<uint8_t>(v);
            } else {
                _appendByte(static_cast<char>(_escState << 4 | v));
                _escState = ESCSTATE_GROUND;
            }
            continue;
        }
        if (!_arg) allocateArgument(_arg);
        // The run up to the next special byte, hashed in the same scan.
        const char* q = p;
        if (_inValue) {
            while (q < end && !kValueSpecial.contains(*q)) ++q;
            _arg->value.append(p, static_cast<size_t>(q - p));
        } else {
            str_hash_t h = _keyHash;
            while (q < end && !kKeySpecial.contains(*q)) h = hashStep(h, *q++);
            _keyHash = h;
            _arg->key.append(p, static_cast<size_t>(q - p));
        }
        if (q == end) break;
        p = q + 1;
        switch (*q) {
            case '+':
                _appendByte(' ');
                break;
            case '=':
                _inValue = true;
                break;
            case '%':
                _escState = ESCSTATE_FIRST_DIGIT_DUE;
                break;
            default:  // '&' or ';'
                _endPair();
                break;
        }
    }
    return ok;
}

bool HttpArguments::UrlEncodedKeyValueParser::finish() {
    const bool ok = _escState == ESCSTATE_GROUND;
    if (_arg) _endPair();
    _inValue = false;
    _keyHash = DJB2_INITIAL_HASH_STATE;
    _escState = ESCSTATE_GROUND;
    return ok;
}

HttpArguments::FillFromUrlEncodedParser::~FillFromUrlEncodedParser() {
    if (_arg) _target->_recycle(_arg.release());
}

void HttpArguments::FillFromUrlEncodedParser::acceptArgument(str_hash_t hash,
                                                             ScopedPointer<argument>& arg) {
    _target->_append(hash, arg.get());
    arg.release();
}

void HttpArguments::FillFromUrlEncodedParser::allocateArgument(ScopedPointer<argument>& arg) {
    arg.reset(_target->_allocate());
}

bool mem_parse_into(const char* data, size_t length, HttpArguments* dest) {
    dest->clear();
    HttpArguments::FillFromUrlEncodedParser parser(dest);
    const bool parsed = parser.parse(StrSegment(data, length));
    return parser.finish() && parsed;
}

void append_stringified(Str* dest, const HttpArguments& args) {
    bool first = true;
    for (const HttpArguments::argument& a : args) {
        if (!first) dest->push_back('&');
        first = false;
        dest->appendUriEscaped(a.key.data(), a.key.size());
        dest->push_back('=');
        dest->appendUriEscaped(a.value.data(), a.value.size());
    }
}
