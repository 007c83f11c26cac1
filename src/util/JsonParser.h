#pragma once
// JSON documents as trees. JsonDocument owns the tree; JsonNode is a cheap
// handle to one value in it, which does not keep the value alive. Objects
// are lists of members: key order and duplicate keys are kept, and lookup
// walks the list (objects are meant to be small). Subtrees move, get
// replaced or removed in place without copying.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "util/JsonStreamingParser.h"
#include "util/Str.h"

class AppendStr;
class CrashLogWriteHandler;
class FileDescriptor;
class FileStar;
class JsonDocument;
class JsonPrettyPrintingState;
class Pathname;
class StrSegmentVector;
class StrVector;

class JsonNode {
public:
    enum type_t { null = 0, boolean = 1, number = 2, string = 3, object = 4, array = 5 };

    struct impl;
    // The two ends of a child list: of an array, an object or a document.
    struct parent_linkage {
        impl* first_child = nullptr;
        impl* last_child = nullptr;
        // Exchanges the lists and re-points each child's parent.
        void swap(parent_linkage& other);
    };

    struct impl {
        Str _key;  // empty unless a member of an object
        parent_linkage* _parent = nullptr;
        impl* _next_sibling = nullptr;
        impl* _prev_sibling = nullptr;

        impl() = default;
        // Nodes come from a per-thread cache of freed ones (see
        // releaseCachedNodes).
        static void* operator new(size_t size);
        static void operator delete(void* p, size_t size) noexcept;
        impl(const impl&) = delete;
        impl& operator=(const impl&) = delete;
        virtual ~impl();
        virtual void renderTo(AppendStr* out) const = 0;
        virtual void renderCborTo(AppendStr* out) const = 0;
        virtual void emitCrash(CrashLogWriteHandler& h, JsonPrettyPrintingState* st) const = 0;
        // As JSON; a string appends its bare text.
        virtual void stringify(Str* out) const;
        virtual type_t getType() const = 0;
        virtual impl* find_key(const char* key, size_t length) const;
        virtual impl* find_elem(unsigned index) const;
        virtual void add_to_array(impl* node);
        virtual void prepend_to_array(impl* node);
        virtual void add_to_object(const Str& key, impl* node);
        virtual void add_to_object_destroyKey(Str* key, impl* node);
        // A deep copy, without key or links.
        virtual impl* _duplicate() const = 0;
        virtual impl* get_first_child();
        virtual impl* get_last_child();
        virtual size_t child_count() const;
        virtual void clear();
        // True only for the matching type; nothing is converted.
        virtual bool get_as_StrSegment(StrSegment* out) const;
        virtual bool get_as_bool(bool* out) const;
        virtual bool get_as_double(double* out) const;
        virtual bool get_as_StrVector(StrVector* out) const;
        virtual bool get_as_StrSegmentVector(StrSegmentVector* out) const;
        virtual void sort_object_keys();
        virtual void replaceWithChild(impl* child);
    };
    struct impl_Null;
    struct impl_Bool;
    struct impl_Number;
    struct impl_String;
    struct impl_Array_or_Object;
    struct impl_Array;
    struct impl_Object;

    JsonNode() = default;
    explicit JsonNode(impl* p) : _p(p) {}

    // A thread keeps the memory of the nodes it frees, up to 16 MiB, for the
    // trees it builds next: building and dropping trees is then no longer a
    // round trip through the allocator (and, with jemalloc, through fresh
    // pages). This gives it back; thread exit does too.
    static void releaseCachedNodes() noexcept;

    bool valid() const { return _p != nullptr; }
    impl* _impl() const { return _p; }
    friend bool operator==(const JsonNode& a, const JsonNode& b) { return a._p == b._p; }

    // Walking; an invalid handle when there is none.
    type_t type() const;
    const Str& key() const;
    JsonNode nextSibling() const { return JsonNode(_p ? _p->_next_sibling : nullptr); }
    JsonNode prevSibling() const { return JsonNode(_p ? _p->_prev_sibling : nullptr); }
    JsonNode firstChild() const { return JsonNode(_p ? _p->get_first_child() : nullptr); }
    JsonNode lastChild() const { return JsonNode(_p ? _p->get_last_child() : nullptr); }
    size_t childCount() const { return _p ? _p->child_count() : 0; }
    bool isNull() const { return _p && _p->getType() == null; }
    bool isBool() const { return _p && _p->getType() == boolean; }
    bool isNumber() const { return _p && _p->getType() == number; }
    bool isString() const { return _p && _p->getType() == string; }
    bool isObject() const { return _p && _p->getType() == object; }
    bool isArray() const { return _p && _p->getType() == array; }

    // The first member with this key; invalid on no match or a non-object.
    JsonNode find(const char* key) const;
    JsonNode _find(const char* key, size_t length) const;
    // The element at this index of an array.
    JsonNode operator[](unsigned index) const;

    // False on an invalid handle or another type.
    bool getString(StrSegment* out) const { return _p && _p->get_as_StrSegment(out); }
    bool getBool(bool* out) const { return _p && _p->get_as_bool(out); }
    bool getNumber(double* out) const { return _p && _p->get_as_double(out); }
    bool getStrings(StrVector* out) const { return _p && _p->get_as_StrVector(out); }
    bool getStrings(StrSegmentVector* out) const { return _p && _p->get_as_StrSegmentVector(out); }
    // The same, raising UnexpectedJSON for another type (assertion on an
    // invalid handle).
    StrSegment asString() const;
    bool asBool() const;
    double asNumber() const;
    // Exactly an integer in the type's range; false otherwise.
    bool parseInto(int* out) const;
    bool parseInto(short* out) const;
    bool parseInto(long* out) const;
    bool parseInto(long long* out) const;
    bool parseInto(unsigned* out) const;
    bool parseInto(unsigned short* out) const;
    bool parseInto(unsigned long* out) const;
    bool parseInto(unsigned long long* out) const;

    // Members of an object (the key by copy or by swap), elements of an
    // array at the end or at the start. Numbers refuse NaN and infinities
    // (false, nothing added).
    void addNull(const Str& key);
    void addNull(Str&& key);
    void addNull();
    void prependNull();
    void addBool(const Str& key, bool v);
    void addBool(Str&& key, bool v);
    void addBool(bool v);
    void prependBool(bool v);
    bool addNumber(const Str& key, double v);
    bool addNumber(Str&& key, double v);
    bool addNumber(double v);
    bool prependNumber(double v);
    void addString(const Str& key, const Str& v);
    void addString(const Str& key, Str&& v);
    void addString(Str&& key, const Str& v);
    void addString(Str&& key, Str&& v);
    void addString(const Str& v);
    void addString(Str&& v);
    void prependString(const Str& v);
    // Each element in order at the end, or each at the start (so reversed).
    void addStrings(const StrVector& v);
    void addStrings(StrVector&& v);
    void prependStrings(const StrVector& v);
    void prependStrings(StrVector&& v);
    JsonNode addObject(const Str& key);
    JsonNode addObject(Str&& key);
    JsonNode addObject();
    JsonNode prependObject();
    JsonNode addArray(const Str& key);
    JsonNode addArray(Str&& key);
    JsonNode addArray();
    JsonNode prependArray();
    // A deep copy of `tree`.
    JsonNode addTree(const Str& key, const JsonNode& tree);
    JsonNode addTree(Str&& key, const JsonNode& tree);
    JsonNode addTree(const JsonNode& tree);
    JsonNode prependTree(const JsonNode& tree);

    // Changing in place: the value is overwritten, or a node of the new type
    // takes this one's place (the handle follows it).
    void setNull();
    void setBool(bool v);
    bool setNumber(double v);
    void setString(const Str& v);
    void setString(Str&& v);
    // Destroys the subtree; the handle becomes invalid.
    void remove();
    // Destroys the children of an array or object.
    void clear();
    // A deep copy of `other` in this node's place; an invalid `other`
    // removes this node, and an invalid receiver does nothing.
    void replace(const JsonNode& other);
    void _replace(impl* node);
    // An object's members by key, stably; nested objects are left alone.
    void sortChildrenByKey();
    // `child` takes this node's place, its siblings being destroyed.
    void replaceWithChild(const JsonNode& child);
    // The two nodes change places (and keys), each keeping its subtree.
    // Neither may lie inside the other's subtree: only a parent and its own
    // child are caught (by assertion); a deeper pair would make a cycle.
    void swapPositionWithNonDirectDescendant(JsonNode& other);

    void renderTo(AppendStr* out) const;
    void renderCborTo(AppendStr* out) const;

private:
    impl* _p = nullptr;
};

void append_stringified(Str* dest, JsonNode::type_t t);
void crashlog_write(CrashLogWriteHandler& h, JsonNode::type_t t);
// A string node appends its bare text.
void append_stringified(Str* dest, const JsonNode& node);
void crashlog_write(CrashLogWriteHandler& h, const JsonNode& node);

class JsonDocument {
public:
    JsonDocument() = default;
    // Parse a whole document (an object or an array); on any exception the
    // document is left empty and the exception passed on.
    explicit JsonDocument(const Pathname& path);
    explicit JsonDocument(FileStar& f);
    explicit JsonDocument(const FileDescriptor& fd);
    explicit JsonDocument(const AppendStr& text);
    JsonDocument(const char* text, size_t length) { _init(text, length); }
    JsonDocument(JsonDocument&& other) noexcept;
    JsonDocument& operator=(JsonDocument&& other) noexcept;
    JsonDocument(const JsonDocument& other);
    JsonDocument& operator=(const JsonDocument& other);
    ~JsonDocument() { _destroy(); }

    bool empty() const { return _linkage.first_child == nullptr; }
    JsonNode root() const { return JsonNode(_linkage.first_child); }
    // Destroys the tree.
    void _destroy() noexcept;
    void _set_to_deep_copy(const JsonNode::impl* node);
    JsonNode::parent_linkage* _rootLinkage() { return &_linkage; }

    // The root; the document must be empty.
    void addNull();
    void addBool(bool v);
    bool addNumber(double v);
    void addString(const Str& v);
    void addString(Str&& v);
    JsonNode addObject();
    JsonNode addArray();
    // `child` of the root becomes the root.
    void replaceWithChild(const JsonNode& child);

    void renderTo(AppendStr* out) const;
    void renderCborTo(AppendStr* out) const;

private:
    void _init(const char* text, size_t length);
    void _setRoot(JsonNode::impl* node);
    JsonNode::parent_linkage _linkage;
};

// Quoted for a string root, unlike the node's form.
void append_stringified(Str* dest, const JsonDocument& doc);
void crashlog_write(CrashLogWriteHandler& h, const JsonDocument& doc);

// False for a null text or bad JSON; the previous tree is gone either way,
// and on bad JSON what was built stays.
bool mem_parse_into(const char* text, size_t length, JsonDocument* doc);

// Fills a document value by value; a false return means the value was
// refused (a second top-level value) and destroyed.
class JsonDocumentBuilder {
public:
    explicit JsonDocumentBuilder(JsonDocument* doc);
    void clear(JsonDocument* doc) noexcept;

    void setObjectKey(const Str& key);
    void setObjectKeyDestructive(Str* key);
    bool addNull();
    bool addBool(bool v);
    bool addNumber(double v);
    bool addStringLiteral(const Str& v);
    bool addStringLiteralDestructive(Str* v);
    bool startArray();
    bool startObject();
    void _endArrayOrObject();

private:
    bool _add(JsonNode::impl* node);
    bool _startArrayOrObject(JsonNode::impl_Array_or_Object* node);
    bool _haveKey = false;
    Str _key;
    std::vector<JsonNode::parent_linkage*> _lstack;
};

// A parser that builds a document: it must be one object or array.
class JsonDocumentFillingParser : public JsonStreamingParser {
public:
    explicit JsonDocumentFillingParser(JsonDocument* doc);
    void clear(JsonDocument* doc) noexcept { _builder.clear(doc); }

protected:
    void gotNull() override;
    void gotBool(bool v) override;
    void gotNumber(Str& text) override;
    void gotStringLiteral(Str& value) override;
    bool gotOpenArray() override;
    void gotCloseArray() override;
    bool gotOpenObject() override;
    void gotCloseObject() override;
    bool gotObjectKey(Str& key) override;

private:
    [[noreturn]] void _expected_eof_exception();
    JsonDocumentBuilder _builder;
};

// Holds the document of JsonStreamingDocumentParser in a base class, so that
// it exists before the filling parser is handed its address.
struct JsonStreamingDocumentParserStorage {
    JsonDocument _doc;
};

// A stream of documents, each an object or an array: each one, once
// complete, goes to gotDocument and is then destroyed, even when
// gotDocument throws. A document starts afresh, whatever an earlier error
// left; a value outside any block is an error ("expected object or array").
// Nothing bounds a document's size: a server caps the bytes it feeds.
class JsonStreamingDocumentParser : private JsonStreamingDocumentParserStorage,
                                    public JsonDocumentFillingParser {
public:
    JsonStreamingDocumentParser();

protected:
    virtual void gotDocument(JsonDocument& doc) = 0;
    void gotStartOfBlock() override;
    int gotEndOfBlock() override;
    void gotNull() override;
    void gotBool(bool v) override;
    void gotNumber(Str& text) override;
    void gotStringLiteral(Str& value) override;

private:
    void refuseTopLevelScalar();
    long _blockStart = 0;
};

class UnexpectedJSON : public BaseException {
public:
    UnexpectedJSON(JsonNode::type_t found, JsonNode::type_t wanted) noexcept;
    // "<found>": unexpected JSON node type; expected "<wanted>"
    static Str make_what(JsonNode::type_t found, JsonNode::type_t wanted);
};

// Indentation state shared by the pretty printer and the crash-log form.
class JsonPrettyPrintingState {
public:
    enum need_t : uint32_t { NEED_NEITHER = 0, NEED_NEWLINE = 1, NEED_COMMA_NEWLINE = 2 };

    template <class Out>
    void beforeValue(Out& out);
    template <class Out>
    void startAggregate(Out& out, unsigned step, char ch);
    template <class Out>
    void endAggregate(Out& out, unsigned step, char ch);
    // A value already rendered as text.
    template <class Out>
    void scalar(Out& out, const char* text, size_t length);
    void afterScalar() { _need = NEED_COMMA_NEWLINE; }
    void afterKey() { _need = NEED_NEITHER; }

    uint32_t _indent = 0;
    need_t _need = NEED_NEITHER;
};

// Re-indents a JSON stream into `out`, numbers kept as written.
class JsonPrettyPrinter : public JsonStreamingParser {
public:
    explicit JsonPrettyPrinter(AppendStr* out, unsigned indentStep = 2);

protected:
    void gotNull() override;
    void gotBool(bool v) override;
    void gotNumber(Str& text) override;
    void gotStringLiteral(Str& value) override;
    bool gotOpenArray() override;
    void gotCloseArray() override;
    bool gotOpenObject() override;
    void gotCloseObject() override;
    bool gotObjectKey(Str& key) override;

private:
    AppendStr* _out;
    JsonPrettyPrintingState _st;
    uint32_t _step;
};
