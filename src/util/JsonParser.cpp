#include "util/JsonParser.h"

#include <sanitizer/asan_interface.h>

#include <cfloat>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>

#include "libzero/assertion.h"
#include "util/AppendStr.h"
#include "util/BasicConversions.h"
#include "util/CrashLog.h"
#include "util/FileDescriptor.h"
#include "util/FileStar.h"
#include "util/Pathname.h"
#include "util/StrVector.h"

using impl = JsonNode::impl;
using parent_linkage = JsonNode::parent_linkage;

namespace {

// NaN fails this too.
inline bool isFiniteNumber(double v) { return std::fabs(v) <= DBL_MAX; }

// Destroys a chain of siblings and everything below them, without recursion:
// a tree built by hand may be deeper than the stack.
void destroyChain(impl* first) noexcept;

// An unlinked node and its subtree.
void destroyNode(impl* node) noexcept {
    node->_next_sibling = nullptr;
    destroyChain(node);
}

// Links `node` at the end (or the start) of a child list.
void linkLast(parent_linkage* parent, impl* node) {
    node->_parent = parent;
    node->_next_sibling = nullptr;
    node->_prev_sibling = parent->last_child;
    impl** prevp = parent->last_child ? &parent->last_child->_next_sibling : &parent->first_child;
    ASSERT(*prevp == nullptr);
    *prevp = node;
    parent->last_child = node;
}

void linkFirst(parent_linkage* parent, impl* node) {
    node->_parent = parent;
    node->_prev_sibling = nullptr;
    node->_next_sibling = parent->first_child;
    if (parent->first_child) {
        parent->first_child->_prev_sibling = node;
    } else {
        parent->last_child = node;
    }
    parent->first_child = node;
}

// Takes the node out of its parent's list; its own links are left as they were.
void unlink(impl* node) {
    if (node->_prev_sibling) {
        node->_prev_sibling->_next_sibling = node->_next_sibling;
    } else {
        node->_parent->first_child = node->_next_sibling;
    }
    if (node->_next_sibling) {
        node->_next_sibling->_prev_sibling = node->_prev_sibling;
    } else {
        node->_parent->last_child = node->_prev_sibling;
    }
}

// Blanks for indentation, a slice at a time.
template <class Out>
void writeBlanks(Out& out, uint32_t n) {
    static const char kBlanks[] =
        "                                                                ";
    while (n > 0) {
        const uint32_t k = n < sizeof kBlanks - 1 ? n : static_cast<uint32_t>(sizeof kBlanks - 1);
        out.write(kBlanks, k);
        n -= k;
    }
}

struct AppendStrOut {
    AppendStr* out;
    void write(const char* data, size_t length) { out->append(data, length); }
};

// The head of a binary-form value: base byte and count.
void cborHead(AppendStr* out, unsigned char base, uint64_t n) {
    unsigned char b[9];
    size_t len;
    if (n < 24) {
        b[0] = static_cast<unsigned char>(base | n);
        len = 1;
    } else if (n < 256) {
        b[0] = base | 24;
        b[1] = static_cast<unsigned char>(n);
        len = 2;
    } else if (n < 65536) {
        b[0] = base | 25;
        b[1] = static_cast<unsigned char>(n >> 8);
        b[2] = static_cast<unsigned char>(n);
        len = 3;
    } else if (n <= 0xFFFFFFFFu) {
        b[0] = base | 26;
        for (int i = 0; i < 4; ++i) b[1 + i] = static_cast<unsigned char>(n >> (24 - 8 * i));
        len = 5;
    } else {
        b[0] = base | 27;
        for (int i = 0; i < 8; ++i) b[1 + i] = static_cast<unsigned char>(n >> (56 - 8 * i));
        len = 9;
    }
    out->append(b, len);
}

void renderQuoted(AppendStr* out, const Str& s) {
    out->push_back('"');
    out->appendJsonEscaped(s.data(), s.size());
    out->push_back('"');
}

const char* typeName(JsonNode::type_t t) {
    switch (t) {
        case JsonNode::null:
            return "null";
        case JsonNode::boolean:
            return "boolean";
        case JsonNode::number:
            return "number";
        case JsonNode::string:
            return "string";
        case JsonNode::object:
            return "object";
        case JsonNode::array:
            return "array";
    }
    return "unknown";
}

// The crash-log form shows this many elements or members of each aggregate.
constexpr size_t kCrashArrayElements = 21;
constexpr size_t kCrashObjectMembers = 101;
constexpr unsigned kCrashIndentStep = 4;

}  // namespace

// ---------------------------------------------------------------- indentation

template <class Out>
void JsonPrettyPrintingState::beforeValue(Out& out) {
    switch (_need) {
        case NEED_COMMA_NEWLINE:
            out.write(",", 1);
            [[fallthrough]];
        case NEED_NEWLINE:
            out.write("\n", 1);
            writeBlanks(out, _indent);
            break;
        default:
            ASSERT(_need == NEED_NEITHER);
    }
}

template <class Out>
void JsonPrettyPrintingState::startAggregate(Out& out, unsigned step, char ch) {
    beforeValue(out);
    out.write(&ch, 1);
    _indent += step;
    _need = NEED_NEWLINE;
}

template <class Out>
void JsonPrettyPrintingState::endAggregate(Out& out, unsigned step, char ch) {
    ASSERT(_indent >= step);
    _indent -= step;
    if (_need == NEED_COMMA_NEWLINE) {
        out.write("\n", 1);
        writeBlanks(out, _indent);
    }
    out.write(&ch, 1);
    _need = NEED_COMMA_NEWLINE;
    if (_indent == 0) out.write("\n", 1);
}

template <class Out>
void JsonPrettyPrintingState::scalar(Out& out, const char* text, size_t length) {
    beforeValue(out);
    out.write(text, length);
    _need = NEED_COMMA_NEWLINE;
}

// ---------------------------------------------------------------- the node family

void parent_linkage::swap(parent_linkage& other) {
    std::swap(first_child, other.first_child);
    std::swap(last_child, other.last_child);
    for (impl* p = first_child; p; p = p->_next_sibling) {
        ASSERT(p->_parent == &other);
        p->_parent = this;
    }
    for (impl* p = other.first_child; p; p = p->_next_sibling) {
        ASSERT(p->_parent == this);
        p->_parent = &other;
    }
}

impl::~impl() = default;

// ---------------------------------------------------------------- node memory

namespace {

// Size classes of the node family: every node fits one of them.
constexpr size_t kNodeClasses[] = {64, 80, 96};
constexpr size_t kNodeClassCount = sizeof kNodeClasses / sizeof kNodeClasses[0];
constexpr size_t kNodeCacheLimit = size_t(16) << 20;

struct FreeNode {
    FreeNode* next;
};

// Freed nodes stay poisoned for AddressSanitizer while they wait in the
// cache, so that a handle used after its node's removal is still caught.
struct NodeCache {
    FreeNode* lists[kNodeClassCount] = {};
    size_t bytes = 0;
    ~NodeCache() {
        release();
        bytes = SIZE_MAX / 2;  // nodes freed later still, at exit, bypass the cache
    }
    void release() noexcept {
        for (size_t c = 0; c < kNodeClassCount; ++c) {
            while (FreeNode* n = lists[c]) {
                ASAN_UNPOISON_MEMORY_REGION(n, kNodeClasses[c]);
                lists[c] = n->next;
                ::operator delete(n);
            }
        }
        bytes = 0;
    }
};

thread_local NodeCache t_nodeCache;

size_t nodeClass(size_t size) {
    for (size_t c = 0; c < kNodeClassCount; ++c) {
        if (size <= kNodeClasses[c]) return c;
    }
    return kNodeClassCount;
}

}  // namespace

void* impl::operator new(size_t size) {
    const size_t c = nodeClass(size);
    ASSERT(c < kNodeClassCount);
    NodeCache& cache = t_nodeCache;
    if (FreeNode* n = cache.lists[c]) {
        ASAN_UNPOISON_MEMORY_REGION(n, kNodeClasses[c]);
        cache.lists[c] = n->next;
        cache.bytes -= kNodeClasses[c];
        return n;
    }
    return ::operator new(kNodeClasses[c]);
}

void impl::operator delete(void* p, size_t size) noexcept {
    const size_t c = nodeClass(size);
    NodeCache& cache = t_nodeCache;
    if (cache.bytes + kNodeClasses[c] > kNodeCacheLimit) {
        ::operator delete(p);
        return;
    }
    auto* n = static_cast<FreeNode*>(p);
    n->next = cache.lists[c];
    cache.lists[c] = n;
    cache.bytes += kNodeClasses[c];
    ASAN_POISON_MEMORY_REGION(n, kNodeClasses[c]);
}

void JsonNode::releaseCachedNodes() noexcept { t_nodeCache.release(); }

void impl::stringify(Str* out) const {
    AppendStr text;
    renderTo(&text);
    append_stringified(out, text);
}
impl* impl::find_key(const char*, size_t) const { return nullptr; }
impl* impl::find_elem(unsigned) const { return nullptr; }
void impl::add_to_array(impl*) { ASSERT(0 && "can't add a JSON array element to a non-array"); }
void impl::prepend_to_array(impl*) { ASSERT(0 && "can't add a JSON array element to a non-array"); }
void impl::add_to_object(const Str&, impl*) {
    ASSERT(0 && "can't add a JSON object element to non-object");
}
void impl::add_to_object_destroyKey(Str*, impl*) {
    ASSERT(0 && "can't add a JSON object element to non-object");
}
impl* impl::get_first_child() { return nullptr; }
impl* impl::get_last_child() { return nullptr; }
size_t impl::child_count() const { return 0; }
void impl::clear() { ASSERT(0 && "only object and array can be cleared"); }
bool impl::get_as_StrSegment(StrSegment*) const { return false; }
bool impl::get_as_bool(bool*) const { return false; }
bool impl::get_as_double(double*) const { return false; }
bool impl::get_as_StrVector(StrVector*) const { return false; }
bool impl::get_as_StrSegmentVector(StrSegmentVector*) const { return false; }
void impl::sort_object_keys() {}
void impl::replaceWithChild(impl*) { ASSERT(0 && "only object and array have children"); }

struct JsonNode::impl_Null final : impl {
    void renderTo(AppendStr* out) const override { out->append("null", 4); }
    void renderCborTo(AppendStr* out) const override { out->push_back(static_cast<char>(0xF6)); }
    void emitCrash(CrashLogWriteHandler& h, JsonPrettyPrintingState* st) const override {
        st->scalar(h, "null", 4);
    }
    type_t getType() const override { return null; }
    impl* _duplicate() const override { return new impl_Null; }
};

struct JsonNode::impl_Bool final : impl {
    bool value;
    explicit impl_Bool(bool v) : value(v) {}
    void renderTo(AppendStr* out) const override {
        value ? out->append("true", 4) : out->append("false", 5);
    }
    void renderCborTo(AppendStr* out) const override {
        out->push_back(static_cast<char>(value ? 0xF5 : 0xF4));
    }
    void emitCrash(CrashLogWriteHandler& h, JsonPrettyPrintingState* st) const override {
        value ? st->scalar(h, "true", 4) : st->scalar(h, "false", 5);
    }
    type_t getType() const override { return boolean; }
    impl* _duplicate() const override { return new impl_Bool(value); }
    bool get_as_bool(bool* out) const override {
        *out = value;
        return true;
    }
};

struct JsonNode::impl_Number final : impl {
    double value;
    explicit impl_Number(double v) : value(v) {}
    void renderTo(AppendStr* out) const override { out->append_double(value); }
    void renderCborTo(AppendStr* out) const override {
        constexpr double kTwoTo53 = 9007199254740992.0;
        if (value >= -kTwoTo53 && value < kTwoTo53 && value == std::trunc(value)) {
            const int64_t i = static_cast<int64_t>(value);
            if (i >= 0) {
                cborHead(out, 0x00, static_cast<uint64_t>(i));
            } else {
                cborHead(out, 0x20, ~static_cast<uint64_t>(i));
            }
            return;
        }
        uint64_t bits;
        memcpy(&bits, &value, sizeof bits);
        unsigned char b[9] = {0xFB};
        for (int i = 0; i < 8; ++i) b[1 + i] = static_cast<unsigned char>(bits >> (56 - 8 * i));
        out->append(b, sizeof b);
    }
    void emitCrash(CrashLogWriteHandler& h, JsonPrettyPrintingState* st) const override {
        st->beforeValue(h);
        crashlog_write(h, value);
        st->afterScalar();
    }
    type_t getType() const override { return number; }
    impl* _duplicate() const override { return new impl_Number(value); }
    bool get_as_double(double* out) const override {
        *out = value;
        return true;
    }
};

struct JsonNode::impl_String final : impl {
    Str value;
    impl_String() = default;
    explicit impl_String(const Str& v) : value(v) {}
    void renderTo(AppendStr* out) const override { renderQuoted(out, value); }
    void renderCborTo(AppendStr* out) const override {
        cborHead(out, 0x60, value.size());
        out->append(value.data(), value.size());
    }
    void emitCrash(CrashLogWriteHandler& h, JsonPrettyPrintingState* st) const override {
        st->beforeValue(h);
        h.writeQuotedString(value.data(), value.size());
        st->afterScalar();
    }
    void stringify(Str* out) const override { out->append(value); }
    type_t getType() const override { return string; }
    impl* _duplicate() const override { return new impl_String(value); }
    bool get_as_StrSegment(StrSegment* out) const override {
        *out = StrSegment(value.data(), value.size());
        return true;
    }
};

struct JsonNode::impl_Array_or_Object : impl {
    parent_linkage _linkage;

    ~impl_Array_or_Object() override { destroyChain(_linkage.first_child); }
    impl* get_first_child() override { return _linkage.first_child; }
    impl* get_last_child() override { return _linkage.last_child; }
    size_t child_count() const override {
        size_t n = 0;
        for (impl* p = _linkage.first_child; p; p = p->_next_sibling) ++n;
        return n;
    }
    void clear() override {
        impl* first = _linkage.first_child;
        _linkage.first_child = _linkage.last_child = nullptr;
        destroyChain(first);
    }
    // Copies the children of `from` into this (empty) node.
    void duplicateChildren(const impl_Array_or_Object* from) {
        for (const impl* c = from->_linkage.first_child; c; c = c->_next_sibling) {
            std::unique_ptr<impl> copy(c->_duplicate());
            copy->_key = c->_key;
            linkLast(&_linkage, copy.release());
        }
    }
    // The crash-log form: the first `limit` children (members with their
    // keys), then how many more there were.
    void emitChildren(CrashLogWriteHandler& h, JsonPrettyPrintingState* st, char open, char close,
                      size_t limit, const char* what) const {
        st->startAggregate(h, kCrashIndentStep, open);
        size_t shown = 0, more = 0;
        for (const impl* c = _linkage.first_child; c; c = c->_next_sibling) {
            if (shown == limit) {
                ++more;
                continue;
            }
            if (open == '{') {
                st->beforeValue(h);
                h.writeQuotedString(c->_key.data(), c->_key.size());
                h.write(": ", 2);
                st->afterKey();
            }
            c->emitCrash(h, st);
            ++shown;
        }
        if (more != 0) {
            st->beforeValue(h);
            h.format("...[%zu more %s]", more, what);
            st->afterScalar();
        }
        st->endAggregate(h, kCrashIndentStep, close);
    }
    void replaceWithChild(impl* child) override {
        ASSERT(child != nullptr);
        ASSERT(child->_parent == &_linkage);
        for (impl* c = _linkage.first_child; c;) {
            impl* next = c->_next_sibling;
            if (c != child) destroyNode(c);
            c = next;
        }
        _linkage.first_child = _linkage.last_child = nullptr;
        child->_parent = _parent;
        child->_next_sibling = _next_sibling;
        child->_prev_sibling = _prev_sibling;
        if (_prev_sibling) {
            ASSERT(_prev_sibling->_next_sibling == this);
            _prev_sibling->_next_sibling = child;
        } else {
            ASSERT(_parent->first_child == this);
            _parent->first_child = child;
        }
        if (_next_sibling) {
            ASSERT(_parent->last_child != this);
            ASSERT(_next_sibling->_prev_sibling == this);
            _next_sibling->_prev_sibling = child;
        } else {
            ASSERT(_parent->last_child == this);
            _parent->last_child = child;
        }
        child->_key.swap(_key);
        delete this;
    }
};

struct JsonNode::impl_Array final : impl_Array_or_Object {
    void renderTo(AppendStr* out) const override {
        out->push_back('[');
        for (const impl* c = _linkage.first_child; c; c = c->_next_sibling) {
            if (c != _linkage.first_child) out->push_back(',');
            c->renderTo(out);
        }
        out->push_back(']');
    }
    void renderCborTo(AppendStr* out) const override {
        cborHead(out, 0x80, child_count());
        for (const impl* c = _linkage.first_child; c; c = c->_next_sibling) c->renderCborTo(out);
    }
    void emitCrash(CrashLogWriteHandler& h, JsonPrettyPrintingState* st) const override {
        emitChildren(h, st, '[', ']', kCrashArrayElements, "elements");
    }
    type_t getType() const override { return array; }
    impl* _duplicate() const override {
        std::unique_ptr<impl_Array> copy(new impl_Array);
        copy->duplicateChildren(this);
        return copy.release();
    }
    impl* find_elem(unsigned index) const override {
        impl* c = _linkage.first_child;
        while (c && index-- > 0) c = c->_next_sibling;
        return c;
    }
    void add_to_array(impl* node) override { linkLast(&_linkage, node); }
    void prepend_to_array(impl* node) override { linkFirst(&_linkage, node); }
    bool get_as_StrVector(StrVector* out) const override {
        StrSegmentVector segs;
        if (!get_as_StrSegmentVector(&segs)) return false;
        StrVector v;
        v.reserve(segs.size());
        for (const StrSegment& s : segs) v.emplace_back(s.data(), s.size());
        out->swap(v);
        return true;
    }
    bool get_as_StrSegmentVector(StrSegmentVector* out) const override {
        StrSegmentVector v;
        StrSegment s;
        for (const impl* c = _linkage.first_child; c; c = c->_next_sibling) {
            if (!c->get_as_StrSegment(&s)) return false;
            v.push_back(s);
        }
        out->swap(v);
        return true;
    }
};

namespace {

impl* mergeSortByKey(impl* head) {
    if (head == nullptr || head->_next_sibling == nullptr) return head;
    impl* slow = head;
    impl* fast = head->_next_sibling;
    while (fast && fast->_next_sibling) {
        slow = slow->_next_sibling;
        fast = fast->_next_sibling->_next_sibling;
    }
    impl* a = head;
    impl* b = slow->_next_sibling;
    slow->_next_sibling = nullptr;
    a = mergeSortByKey(a);
    b = mergeSortByKey(b);
    impl* merged = nullptr;
    impl** tail = &merged;
    while (a && b) {
        // From the second half only when strictly less: equal keys keep order.
        if (mem_compare_normal(b->_key.data(), b->_key.size(), a->_key.data(), a->_key.size()) <
            0) {
            *tail = b;
            b = b->_next_sibling;
        } else {
            *tail = a;
            a = a->_next_sibling;
        }
        tail = &(*tail)->_next_sibling;
    }
    *tail = a ? a : b;
    return merged;
}

}  // namespace

struct JsonNode::impl_Object final : impl_Array_or_Object {
    void renderTo(AppendStr* out) const override {
        out->push_back('{');
        for (const impl* c = _linkage.first_child; c; c = c->_next_sibling) {
            if (c != _linkage.first_child) out->push_back(',');
            renderQuoted(out, c->_key);
            out->push_back(':');
            c->renderTo(out);
        }
        out->push_back('}');
    }
    // Objects use base byte 0x90 rather than CBOR's 0xA0 (map): readers of
    // this form expect exactly that, so it is not plain CBOR for objects.
    void renderCborTo(AppendStr* out) const override {
        cborHead(out, 0x90, child_count());
        for (const impl* c = _linkage.first_child; c; c = c->_next_sibling) {
            cborHead(out, 0x60, c->_key.size());
            out->append(c->_key.data(), c->_key.size());
            c->renderCborTo(out);
        }
    }
    void emitCrash(CrashLogWriteHandler& h, JsonPrettyPrintingState* st) const override {
        emitChildren(h, st, '{', '}', kCrashObjectMembers, "keys");
    }
    type_t getType() const override { return object; }
    impl* _duplicate() const override {
        std::unique_ptr<impl_Object> copy(new impl_Object);
        copy->duplicateChildren(this);
        return copy.release();
    }
    impl* find_key(const char* key, size_t length) const override {
        for (impl* c = _linkage.first_child; c; c = c->_next_sibling) {
            if (c->_key.size() == length && memcmp(c->_key.data(), key, length) == 0) return c;
        }
        return nullptr;
    }
    void add_to_object(const Str& key, impl* node) override {
        node->_key = key;
        linkLast(&_linkage, node);
    }
    void add_to_object_destroyKey(Str* key, impl* node) override {
        node->_key = std::move(*key);
        linkLast(&_linkage, node);
    }
    void sort_object_keys() override {
        _linkage.first_child = mergeSortByKey(_linkage.first_child);
        impl* prev = nullptr;
        for (impl* c = _linkage.first_child; c; c = c->_next_sibling) {
            c->_prev_sibling = prev;
            prev = c;
        }
        _linkage.last_child = prev;
    }
};

namespace {

void destroyChain(impl* first) noexcept {
    impl* pending = first;
    while (pending) {
        impl* node = pending;
        pending = node->_next_sibling;
        const JsonNode::type_t t = node->getType();
        if (t == JsonNode::object || t == JsonNode::array) {
            // Splice the children in front of the rest, so that the node's
            // own destructor finds none.
            parent_linkage& l = static_cast<JsonNode::impl_Array_or_Object*>(node)->_linkage;
            if (l.first_child) {
                l.last_child->_next_sibling = pending;
                pending = l.first_child;
                l.first_child = l.last_child = nullptr;
            }
        }
        delete node;
    }
}

}  // namespace

// ---------------------------------------------------------------- JsonNode

JsonNode::type_t JsonNode::type() const {
    ASSERT(valid());
    return _p->getType();
}

const Str& JsonNode::key() const {
    ASSERT(valid());
    return _p->_key;
}

JsonNode JsonNode::find(const char* key) const { return _find(key, strlen(key)); }

JsonNode JsonNode::_find(const char* key, size_t length) const {
    return JsonNode(_p ? _p->find_key(key, length) : nullptr);
}

JsonNode JsonNode::operator[](unsigned index) const {
    return JsonNode(_p ? _p->find_elem(index) : nullptr);
}

StrSegment JsonNode::asString() const {
    StrSegment s;
    if (!getString(&s)) throw UnexpectedJSON(type(), string);
    return s;
}

bool JsonNode::asBool() const {
    bool v;
    if (!getBool(&v)) throw UnexpectedJSON(type(), boolean);
    return v;
}

double JsonNode::asNumber() const {
    double v;
    if (!getNumber(&v)) throw UnexpectedJSON(type(), number);
    return v;
}

namespace {

template <class T>
bool parseInteger(const JsonNode& n, T* out) {
    double v;
    return n.getNumber(&v) && set_integer_from_distinct_double(out, v);
}

}  // namespace

bool JsonNode::parseInto(int* out) const { return parseInteger(*this, out); }
bool JsonNode::parseInto(short* out) const { return parseInteger(*this, out); }
bool JsonNode::parseInto(long* out) const { return parseInteger(*this, out); }
bool JsonNode::parseInto(long long* out) const { return parseInteger(*this, out); }
bool JsonNode::parseInto(unsigned* out) const { return parseInteger(*this, out); }
bool JsonNode::parseInto(unsigned short* out) const { return parseInteger(*this, out); }
bool JsonNode::parseInto(unsigned long* out) const { return parseInteger(*this, out); }
bool JsonNode::parseInto(unsigned long long* out) const { return parseInteger(*this, out); }

namespace {

// Adding a new node: owned here until linked, so a throw while linking
// (copying the key) frees it.
template <class Link>
impl* addNode(impl* node, Link link) {
    std::unique_ptr<impl> owned(node);
    link(node);
    return owned.release();
}

}  // namespace

void JsonNode::addNull(const Str& key) {
    ASSERT(valid());
    addNode(new impl_Null, [&](impl* n) { _p->add_to_object(key, n); });
}
void JsonNode::addNull(Str&& key) {
    ASSERT(valid());
    addNode(new impl_Null, [&](impl* n) { _p->add_to_object_destroyKey(&key, n); });
}
void JsonNode::addNull() {
    ASSERT(valid());
    addNode(new impl_Null, [&](impl* n) { _p->add_to_array(n); });
}
void JsonNode::prependNull() {
    ASSERT(valid());
    addNode(new impl_Null, [&](impl* n) { _p->prepend_to_array(n); });
}

void JsonNode::addBool(const Str& key, bool v) {
    ASSERT(valid());
    addNode(new impl_Bool(v), [&](impl* n) { _p->add_to_object(key, n); });
}
void JsonNode::addBool(Str&& key, bool v) {
    ASSERT(valid());
    addNode(new impl_Bool(v), [&](impl* n) { _p->add_to_object_destroyKey(&key, n); });
}
void JsonNode::addBool(bool v) {
    ASSERT(valid());
    addNode(new impl_Bool(v), [&](impl* n) { _p->add_to_array(n); });
}
void JsonNode::prependBool(bool v) {
    ASSERT(valid());
    addNode(new impl_Bool(v), [&](impl* n) { _p->prepend_to_array(n); });
}

bool JsonNode::addNumber(const Str& key, double v) {
    ASSERT(valid());
    if (!isFiniteNumber(v)) return false;
    addNode(new impl_Number(v), [&](impl* n) { _p->add_to_object(key, n); });
    return true;
}
bool JsonNode::addNumber(Str&& key, double v) {
    ASSERT(valid());
    if (!isFiniteNumber(v)) return false;
    addNode(new impl_Number(v), [&](impl* n) { _p->add_to_object_destroyKey(&key, n); });
    return true;
}
bool JsonNode::addNumber(double v) {
    ASSERT(valid());
    if (!isFiniteNumber(v)) return false;
    addNode(new impl_Number(v), [&](impl* n) { _p->add_to_array(n); });
    return true;
}
bool JsonNode::prependNumber(double v) {
    ASSERT(valid());
    if (!isFiniteNumber(v)) return false;
    addNode(new impl_Number(v), [&](impl* n) { _p->prepend_to_array(n); });
    return true;
}

namespace {

impl* newString(const Str& v) { return new JsonNode::impl_String(v); }
impl* newString(Str&& v) {
    auto* s = new JsonNode::impl_String;
    s->value.swap(v);
    return s;
}

}  // namespace

void JsonNode::addString(const Str& key, const Str& v) {
    ASSERT(valid());
    addNode(newString(v), [&](impl* n) { _p->add_to_object(key, n); });
}
void JsonNode::addString(const Str& key, Str&& v) {
    ASSERT(valid());
    addNode(newString(std::move(v)), [&](impl* n) { _p->add_to_object(key, n); });
}
void JsonNode::addString(Str&& key, const Str& v) {
    ASSERT(valid());
    addNode(newString(v), [&](impl* n) { _p->add_to_object_destroyKey(&key, n); });
}
void JsonNode::addString(Str&& key, Str&& v) {
    ASSERT(valid());
    addNode(newString(std::move(v)), [&](impl* n) { _p->add_to_object_destroyKey(&key, n); });
}
void JsonNode::addString(const Str& v) {
    ASSERT(valid());
    addNode(newString(v), [&](impl* n) { _p->add_to_array(n); });
}
void JsonNode::addString(Str&& v) {
    ASSERT(valid());
    addNode(newString(std::move(v)), [&](impl* n) { _p->add_to_array(n); });
}
void JsonNode::prependString(const Str& v) {
    ASSERT(valid());
    addNode(newString(v), [&](impl* n) { _p->prepend_to_array(n); });
}

void JsonNode::addStrings(const StrVector& v) {
    for (const Str& s : v) addString(s);
}
void JsonNode::addStrings(StrVector&& v) {
    for (Str& s : v) addString(std::move(s));
}
void JsonNode::prependStrings(const StrVector& v) {
    for (const Str& s : v) prependString(s);
}
void JsonNode::prependStrings(StrVector&& v) {
    ASSERT(valid());
    for (Str& s : v) addNode(newString(std::move(s)), [&](impl* n) { _p->prepend_to_array(n); });
}

JsonNode JsonNode::addObject(const Str& key) {
    ASSERT(valid());
    return JsonNode(addNode(new impl_Object, [&](impl* n) { _p->add_to_object(key, n); }));
}
JsonNode JsonNode::addObject(Str&& key) {
    ASSERT(valid());
    return JsonNode(
        addNode(new impl_Object, [&](impl* n) { _p->add_to_object_destroyKey(&key, n); }));
}
JsonNode JsonNode::addObject() {
    ASSERT(valid());
    return JsonNode(addNode(new impl_Object, [&](impl* n) { _p->add_to_array(n); }));
}
JsonNode JsonNode::prependObject() {
    ASSERT(valid());
    return JsonNode(addNode(new impl_Object, [&](impl* n) { _p->prepend_to_array(n); }));
}
JsonNode JsonNode::addArray(const Str& key) {
    ASSERT(valid());
    return JsonNode(addNode(new impl_Array, [&](impl* n) { _p->add_to_object(key, n); }));
}
JsonNode JsonNode::addArray(Str&& key) {
    ASSERT(valid());
    return JsonNode(
        addNode(new impl_Array, [&](impl* n) { _p->add_to_object_destroyKey(&key, n); }));
}
JsonNode JsonNode::addArray() {
    ASSERT(valid());
    return JsonNode(addNode(new impl_Array, [&](impl* n) { _p->add_to_array(n); }));
}
JsonNode JsonNode::prependArray() {
    ASSERT(valid());
    return JsonNode(addNode(new impl_Array, [&](impl* n) { _p->prepend_to_array(n); }));
}

JsonNode JsonNode::addTree(const Str& key, const JsonNode& tree) {
    ASSERT(valid());
    ASSERT(tree.valid());
    return JsonNode(addNode(tree._p->_duplicate(), [&](impl* n) { _p->add_to_object(key, n); }));
}
JsonNode JsonNode::addTree(Str&& key, const JsonNode& tree) {
    ASSERT(valid());
    ASSERT(tree.valid());
    return JsonNode(
        addNode(tree._p->_duplicate(), [&](impl* n) { _p->add_to_object_destroyKey(&key, n); }));
}
JsonNode JsonNode::addTree(const JsonNode& tree) {
    ASSERT(valid());
    ASSERT(tree.valid());
    return JsonNode(addNode(tree._p->_duplicate(), [&](impl* n) { _p->add_to_array(n); }));
}
JsonNode JsonNode::prependTree(const JsonNode& tree) {
    ASSERT(valid());
    ASSERT(tree.valid());
    return JsonNode(addNode(tree._p->_duplicate(), [&](impl* n) { _p->prepend_to_array(n); }));
}

void JsonNode::setNull() {
    ASSERT(valid());
    if (_p->getType() != null) _replace(new impl_Null);
}

void JsonNode::setBool(bool v) {
    ASSERT(valid());
    if (_p->getType() == boolean) {
        static_cast<impl_Bool*>(_p)->value = v;
    } else {
        _replace(new impl_Bool(v));
    }
}

bool JsonNode::setNumber(double v) {
    ASSERT(valid());
    if (!isFiniteNumber(v)) return false;
    if (_p->getType() == number) {
        static_cast<impl_Number*>(_p)->value = v;
    } else {
        _replace(new impl_Number(v));
    }
    return true;
}

void JsonNode::setString(const Str& v) {
    ASSERT(valid());
    if (_p->getType() == string) {
        static_cast<impl_String*>(_p)->value = v;
    } else {
        _replace(newString(v));
    }
}

void JsonNode::setString(Str&& v) {
    ASSERT(valid());
    if (_p->getType() == string) {
        static_cast<impl_String*>(_p)->value.swap(v);
    } else {
        _replace(newString(std::move(v)));
    }
}

void JsonNode::_replace(impl* node) {
    ASSERT(valid());
    impl* old = _p;
    node->_parent = old->_parent;
    node->_next_sibling = old->_next_sibling;
    node->_prev_sibling = old->_prev_sibling;
    node->_key.swap(old->_key);
    if (node->_prev_sibling) {
        node->_prev_sibling->_next_sibling = node;
    } else {
        node->_parent->first_child = node;
    }
    if (node->_next_sibling) {
        node->_next_sibling->_prev_sibling = node;
    } else {
        node->_parent->last_child = node;
    }
    destroyNode(old);
    _p = node;
}

void JsonNode::remove() {
    ASSERT(valid());
    unlink(_p);
    destroyNode(_p);
    _p = nullptr;
}

void JsonNode::clear() {
    ASSERT(valid());
    _p->clear();
}

void JsonNode::replace(const JsonNode& other) {
    if (!valid()) return;
    if (!other.valid()) {
        remove();
        return;
    }
    _replace(other._p->_duplicate());
}

void JsonNode::sortChildrenByKey() {
    ASSERT(valid());
    _p->sort_object_keys();
}

void JsonNode::replaceWithChild(const JsonNode& child) {
    ASSERT(valid());
    _p->replaceWithChild(child._p);
    _p = child._p;
}

void JsonNode::swapPositionWithNonDirectDescendant(JsonNode& other) {
    ASSERT(valid());
    ASSERT(other.valid());
    impl* a = _p;
    impl* b = other._p;
    if (a == b) return;
    const auto isChildOf = [](const impl* child, const impl* parent) {
        const type_t t = parent->getType();
        return (t == object || t == array) &&
               child->_parent == &static_cast<const impl_Array_or_Object*>(parent)->_linkage;
    };
    ASSERT(!isChildOf(a, b) && !isChildOf(b, a));
    if (b->_next_sibling == a) std::swap(a, b);
    if (a->_next_sibling == b) {
        impl* before = a->_prev_sibling;
        impl* after = b->_next_sibling;
        parent_linkage* parent = a->_parent;
        b->_prev_sibling = before;
        b->_next_sibling = a;
        a->_prev_sibling = b;
        a->_next_sibling = after;
        if (before) {
            before->_next_sibling = b;
        } else {
            parent->first_child = b;
        }
        if (after) {
            after->_prev_sibling = a;
        } else {
            parent->last_child = a;
        }
    } else {
        parent_linkage* pa = a->_parent;
        parent_linkage* pb = b->_parent;
        impl* ap = a->_prev_sibling;
        impl* an = a->_next_sibling;
        impl* bp = b->_prev_sibling;
        impl* bn = b->_next_sibling;
        b->_parent = pa;
        b->_prev_sibling = ap;
        b->_next_sibling = an;
        (ap ? ap->_next_sibling : pa->first_child) = b;
        (an ? an->_prev_sibling : pa->last_child) = b;
        a->_parent = pb;
        a->_prev_sibling = bp;
        a->_next_sibling = bn;
        (bp ? bp->_next_sibling : pb->first_child) = a;
        (bn ? bn->_prev_sibling : pb->last_child) = a;
    }
    a->_key.swap(b->_key);
}

void JsonNode::renderTo(AppendStr* out) const {
    if (_p) _p->renderTo(out);
}

void JsonNode::renderCborTo(AppendStr* out) const {
    if (_p) _p->renderCborTo(out);
}

void append_stringified(Str* dest, JsonNode::type_t t) { dest->append(typeName(t)); }

void crashlog_write(CrashLogWriteHandler& h, JsonNode::type_t t) { h.write(typeName(t)); }

void append_stringified(Str* dest, const JsonNode& node) {
    if (node.valid()) node._impl()->stringify(dest);
}

void crashlog_write(CrashLogWriteHandler& h, const JsonNode& node) {
    if (!node.valid()) {
        h.write("<unset>");
        return;
    }
    JsonPrettyPrintingState st;
    node._impl()->emitCrash(h, &st);
}

// ---------------------------------------------------------------- JsonDocument

void JsonDocument::_destroy() noexcept {
    impl* root = _linkage.first_child;
    _linkage.first_child = _linkage.last_child = nullptr;
    if (root) destroyNode(root);
}

JsonDocument::JsonDocument(JsonDocument&& other) noexcept : _linkage(other._linkage) {
    other._linkage = parent_linkage();
    if (impl* p = _linkage.first_child) {
        ASSERT(p->_parent == &other._linkage);
        p->_parent = &_linkage;
    }
}

JsonDocument& JsonDocument::operator=(JsonDocument&& other) noexcept {
    if (this != &other) {
        _destroy();
        _linkage = other._linkage;
        other._linkage = parent_linkage();
        if (impl* p = _linkage.first_child) {
            ASSERT(p->_parent == &other._linkage);
            p->_parent = &_linkage;
        }
    }
    return *this;
}

JsonDocument::JsonDocument(const JsonDocument& other) {
    _set_to_deep_copy(other._linkage.first_child);
}

JsonDocument& JsonDocument::operator=(const JsonDocument& other) {
    if (this != &other) _set_to_deep_copy(other._linkage.first_child);
    return *this;
}

void JsonDocument::_set_to_deep_copy(const impl* node) {
    impl* copy = node ? node->_duplicate() : nullptr;
    _destroy();
    if (copy) _setRoot(copy);
}

void JsonDocument::_setRoot(impl* node) {
    ASSERT(empty());
    linkLast(&_linkage, node);
}

void JsonDocument::addNull() { _setRoot(new JsonNode::impl_Null); }
void JsonDocument::addBool(bool v) {
    ASSERT(empty());
    _setRoot(new JsonNode::impl_Bool(v));
}
bool JsonDocument::addNumber(double v) {
    ASSERT(empty());
    if (!isFiniteNumber(v)) return false;
    _setRoot(new JsonNode::impl_Number(v));
    return true;
}
void JsonDocument::addString(const Str& v) {
    ASSERT(empty());
    _setRoot(newString(v));
}
void JsonDocument::addString(Str&& v) {
    ASSERT(empty());
    _setRoot(newString(std::move(v)));
}
JsonNode JsonDocument::addObject() {
    ASSERT(empty());
    impl* n = new JsonNode::impl_Object;
    _setRoot(n);
    return JsonNode(n);
}
JsonNode JsonDocument::addArray() {
    ASSERT(empty());
    impl* n = new JsonNode::impl_Array;
    _setRoot(n);
    return JsonNode(n);
}

void JsonDocument::replaceWithChild(const JsonNode& child) {
    ASSERT(!empty());
    ASSERT(child.valid());
    _linkage.first_child->replaceWithChild(child._impl());
}

void JsonDocument::renderTo(AppendStr* out) const {
    if (!empty()) _linkage.first_child->renderTo(out);
}

void JsonDocument::renderCborTo(AppendStr* out) const {
    if (!empty()) _linkage.first_child->renderCborTo(out);
}

namespace {

template <class Source>
void fillFrom(JsonDocument* doc, Source&& source) {
    JsonDocumentFillingParser parser(doc);
    try {
        source(parser);
    } catch (...) {
        doc->_destroy();
        throw;
    }
}

}  // namespace

JsonDocument::JsonDocument(const Pathname& path) {
    fillFrom(this, [&](JsonStreamingParser& p) { p.parse(path); });
}

JsonDocument::JsonDocument(FileStar& f) {
    fillFrom(this, [&](JsonStreamingParser& p) { p.parse(f); });
}

JsonDocument::JsonDocument(const FileDescriptor& fd) {
    fillFrom(this, [&](JsonStreamingParser& p) { p.parse(fd); });
}

JsonDocument::JsonDocument(const AppendStr& text) {
    fillFrom(this, [&](JsonStreamingParser& p) {
        p.parse(text);
        p.finish();
    });
}

void JsonDocument::_init(const char* text, size_t length) {
    fillFrom(this, [&](JsonStreamingParser& p) {
        p.parse(text, length);
        p.finish();
    });
}

void append_stringified(Str* dest, const JsonDocument& doc) {
    AppendStr text;
    doc.renderTo(&text);
    append_stringified(dest, text);
}

void crashlog_write(CrashLogWriteHandler& h, const JsonDocument& doc) {
    if (doc.empty()) {
        h.write("<empty>");
        return;
    }
    crashlog_write(h, doc.root());
}

bool mem_parse_into(const char* text, size_t length, JsonDocument* doc) {
    if (text == nullptr) return false;
    doc->_destroy();
    JsonDocumentFillingParser parser(doc);
    return mem_parse_into(text, length, static_cast<JsonStreamingParser*>(&parser));
}

AppendStr& AppendStr::operator<<(const JsonDocument& doc) {
    doc.renderTo(this);
    return *this;
}

AppendStr& AppendStr::operator<<(const JsonNode& node) {
    node.renderTo(this);
    return *this;
}

// ---------------------------------------------------------------- JsonDocumentBuilder

JsonDocumentBuilder::JsonDocumentBuilder(JsonDocument* doc) {
    _lstack.push_back(doc->_rootLinkage());
}

void JsonDocumentBuilder::clear(JsonDocument* doc) noexcept {
    doc->_destroy();
    _haveKey = false;
    _key.clear();
    _lstack.clear();  // keeps its capacity, so the push can't throw
    _lstack.push_back(doc->_rootLinkage());
}

void JsonDocumentBuilder::setObjectKey(const Str& key) {
    _key = key;
    _haveKey = true;
}

// Moves rather than swaps: a move of a short text is a small inline copy,
// where std::string's swap is an out-of-line call; the key is taken either way.
void JsonDocumentBuilder::setObjectKeyDestructive(Str* key) {
    _key = std::move(*key);
    _haveKey = true;
}

bool JsonDocumentBuilder::_add(impl* node) {
    parent_linkage* parent = _lstack.back();
    if (_haveKey) {
        node->_key = std::move(_key);
        _haveKey = false;
    }
    if (parent->last_child != nullptr && _lstack.size() == 1) {
        delete node;  // a second top-level value
        return false;
    }
    linkLast(parent, node);
    return true;
}

bool JsonDocumentBuilder::addNull() { return _add(new JsonNode::impl_Null); }
bool JsonDocumentBuilder::addBool(bool v) { return _add(new JsonNode::impl_Bool(v)); }
bool JsonDocumentBuilder::addNumber(double v) { return _add(new JsonNode::impl_Number(v)); }
bool JsonDocumentBuilder::addStringLiteral(const Str& v) { return _add(newString(v)); }

bool JsonDocumentBuilder::addStringLiteralDestructive(Str* v) {
    auto* node = new JsonNode::impl_String;
    node->value = std::move(*v);
    return _add(node);
}

bool JsonDocumentBuilder::_startArrayOrObject(JsonNode::impl_Array_or_Object* node) {
    std::unique_ptr<impl> owned(node);
    _lstack.reserve(_lstack.size() + 1);
    if (!_add(owned.release())) return false;
    _lstack.push_back(&node->_linkage);
    return true;
}

bool JsonDocumentBuilder::startArray() { return _startArrayOrObject(new JsonNode::impl_Array); }
bool JsonDocumentBuilder::startObject() { return _startArrayOrObject(new JsonNode::impl_Object); }

void JsonDocumentBuilder::_endArrayOrObject() {
    ASSERT(_lstack.size() > 1);
    _lstack.pop_back();
}

// ---------------------------------------------------------------- JsonDocumentFillingParser

namespace {

// libstdc++'s from_chars rounds correctly and takes the fast paths (the
// Eisel-Lemire algorithm) that real documents need; the text has passed the
// JSON number grammar already, which from_chars' own grammar includes.
bool parseNumber(const char* p, size_t n, double* out) {
    const std::from_chars_result r = std::from_chars(p, p + n, *out);
    return r.ec == std::errc() && r.ptr == p + n && isFiniteNumber(*out);
}

}  // namespace

JsonDocumentFillingParser::JsonDocumentFillingParser(JsonDocument* doc) : _builder(doc) {
    _setMinSeenAtFinish(AT_FINISH_NEED_BLOCK);
}

void JsonDocumentFillingParser::_expected_eof_exception() {
    throw error(tokenStart(), "expected EOF");
}

void JsonDocumentFillingParser::gotNull() {
    if (!_builder.addNull()) _expected_eof_exception();
}

void JsonDocumentFillingParser::gotBool(bool v) {
    if (!_builder.addBool(v)) _expected_eof_exception();
}

void JsonDocumentFillingParser::gotNumber(Str& text) {
    double v;
    if (!parseNumber(text.data(), text.size(), &v)) v = 0.0;  // out of the double range
    if (!_builder.addNumber(v)) _expected_eof_exception();
}

void JsonDocumentFillingParser::gotStringLiteral(Str& value) {
    if (!_builder.addStringLiteralDestructive(&value)) _expected_eof_exception();
}

bool JsonDocumentFillingParser::gotOpenArray() {
    if (!_builder.startArray()) _expected_eof_exception();
    return true;
}

void JsonDocumentFillingParser::gotCloseArray() { _builder._endArrayOrObject(); }

bool JsonDocumentFillingParser::gotOpenObject() {
    if (!_builder.startObject()) _expected_eof_exception();
    return true;
}

void JsonDocumentFillingParser::gotCloseObject() { _builder._endArrayOrObject(); }

bool JsonDocumentFillingParser::gotObjectKey(Str& key) {
    _builder.setObjectKeyDestructive(&key);
    return true;
}

// ---------------------------------------------------------------- JsonStreamingDocumentParser

JsonStreamingDocumentParser::JsonStreamingDocumentParser() : JsonDocumentFillingParser(&_doc) {}

void JsonStreamingDocumentParser::gotStartOfBlock() {
    // What an earlier, failed document left (half a tree, a pending key)
    // must not leak into this one.
    clear(&_doc);
    _blockStart = tokenStart();
}

int JsonStreamingDocumentParser::gotEndOfBlock() {
    _setTokenStart(_blockStart);
    struct ClearAfter {
        JsonStreamingDocumentParser* p;
        ~ClearAfter() { p->clear(&p->_doc); }
    } clearAfter{this};
    gotDocument(_doc);
    return 1;
}

void JsonStreamingDocumentParser::refuseTopLevelScalar() {
    if (depth() == 0) throw error(tokenStart(), "expected object or array");
}

void JsonStreamingDocumentParser::gotNull() {
    refuseTopLevelScalar();
    JsonDocumentFillingParser::gotNull();
}

void JsonStreamingDocumentParser::gotBool(bool v) {
    refuseTopLevelScalar();
    JsonDocumentFillingParser::gotBool(v);
}

void JsonStreamingDocumentParser::gotNumber(Str& text) {
    refuseTopLevelScalar();
    JsonDocumentFillingParser::gotNumber(text);
}

void JsonStreamingDocumentParser::gotStringLiteral(Str& value) {
    refuseTopLevelScalar();
    JsonDocumentFillingParser::gotStringLiteral(value);
}

// ---------------------------------------------------------------- UnexpectedJSON

UnexpectedJSON::UnexpectedJSON(JsonNode::type_t found, JsonNode::type_t wanted) noexcept {
    try {
        _message = make_what(found, wanted);
    } catch (...) {
        // An exception's text is best effort; it stays empty without memory.
    }
}

Str UnexpectedJSON::make_what(JsonNode::type_t found, JsonNode::type_t wanted) {
    Str s("\"");
    s.append(typeName(found));
    s.append("\": unexpected JSON node type; expected \"");
    s.append(typeName(wanted));
    s.push_back('"');
    return s;
}

// ---------------------------------------------------------------- JsonPrettyPrinter

JsonPrettyPrinter::JsonPrettyPrinter(AppendStr* out, unsigned indentStep)
    : _out(out), _step(indentStep) {}

void JsonPrettyPrinter::gotNull() {
    AppendStrOut o{_out};
    _st.scalar(o, "null", 4);
}

void JsonPrettyPrinter::gotBool(bool v) {
    AppendStrOut o{_out};
    v ? _st.scalar(o, "true", 4) : _st.scalar(o, "false", 5);
}

void JsonPrettyPrinter::gotNumber(Str& text) {
    AppendStrOut o{_out};
    _st.scalar(o, text.data(), text.size());
}

void JsonPrettyPrinter::gotStringLiteral(Str& value) {
    AppendStrOut o{_out};
    _st.beforeValue(o);
    renderQuoted(_out, value);
    _st.afterScalar();
}

bool JsonPrettyPrinter::gotOpenArray() {
    AppendStrOut o{_out};
    _st.startAggregate(o, _step, '[');
    return true;
}

void JsonPrettyPrinter::gotCloseArray() {
    AppendStrOut o{_out};
    _st.endAggregate(o, _step, ']');
}

bool JsonPrettyPrinter::gotOpenObject() {
    AppendStrOut o{_out};
    _st.startAggregate(o, _step, '{');
    return true;
}

void JsonPrettyPrinter::gotCloseObject() {
    AppendStrOut o{_out};
    _st.endAggregate(o, _step, '}');
}

bool JsonPrettyPrinter::gotObjectKey(Str& key) {
    AppendStrOut o{_out};
    _st.beforeValue(o);
    _out->push_back('"');
    _out->appendJsonEscaped(key.data(), key.size());
    _out->append("\": ", 3);
    _st.afterKey();
    return true;
}
