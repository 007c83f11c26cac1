// JSON on the three usual documents (twitter: text, canada: numbers,
// citm_catalog: nesting), in MB/s:
//   tokens/<doc>  the push parser with hooks that only count, against
//                 RapidJSON's SAX reader and yajl (also a chunked parser);
//                 simdjson's DOM parse is the ceiling;
//   tree/<doc>    a whole document tree, against RapidJSON's DOM,
//                 nlohmann::json and simdjson;
//   print/<doc>   the tree back to compact text.
#include <benchmark/benchmark.h>
#include <rapidjson/document.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <yajl/yajl_parse.h>

#include <simdjson.h>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "util/AppendStr.h"
#include "util/JsonParser.h"

namespace {

using benchmark::State;

const std::string& document(const char* name) {
    static std::string texts[3];
    static const char* const names[3] = {"twitter", "canada", "citm_catalog"};
    for (int i = 0; i < 3; ++i) {
        if (strcmp(name, names[i]) != 0) continue;
        if (texts[i].empty()) {
            const std::string path =
                std::string(TARVEX_SOURCE_DIR "/tests/data/json/bench/") + name + ".json";
            FILE* f = fopen(path.c_str(), "rb");
            if (f == nullptr) {
                fprintf(stderr, "cannot read %s\n", path.c_str());
                abort();
            }
            char buf[65536];
            size_t n;
            while ((n = fread(buf, 1, sizeof buf, f)) > 0) texts[i].append(buf, n);
            fclose(f);
        }
        return texts[i];
    }
    abort();
}

void setBytes(State& state, const std::string& text) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}

// ---------------------------------------------------------------- tokens

struct Counter : JsonStreamingParser {
    size_t tokens = 0;
    void gotNull() override { ++tokens; }
    void gotBool(bool) override { ++tokens; }
    void gotNumber(Str&) override { ++tokens; }
    void gotStringLiteral(Str&) override { ++tokens; }
    bool gotOpenArray() override { return ++tokens; }
    void gotCloseArray() override { ++tokens; }
    bool gotOpenObject() override { return ++tokens; }
    void gotCloseObject() override { ++tokens; }
    bool gotObjectKey(Str&) override { return ++tokens; }
};

void TokensTarvex(State& state, const char* name) {
    const std::string& text = document(name);
    for (auto _ : state) {
        Counter c;
        c.parse(text.data(), text.size());
        c.finish();
        benchmark::DoNotOptimize(c.tokens);
    }
    setBytes(state, text);
}

struct RapidCounter : rapidjson::BaseReaderHandler<rapidjson::UTF8<>, RapidCounter> {
    size_t tokens = 0;
    bool Default() { return ++tokens; }
    bool String(const char*, rapidjson::SizeType, bool) { return ++tokens; }
    bool Key(const char*, rapidjson::SizeType, bool) { return ++tokens; }
};

void TokensRapidjson(State& state, const char* name) {
    const std::string& text = document(name);
    for (auto _ : state) {
        RapidCounter c;
        rapidjson::Reader reader;
        rapidjson::StringStream ss(text.c_str());
        if (reader.Parse(ss, c).IsError()) state.SkipWithError("rapidjson refused");
        benchmark::DoNotOptimize(c.tokens);
    }
    setBytes(state, text);
}

int yajlCount(void* ctx) { return ++*static_cast<size_t*>(ctx) != 0; }
int yajlBool(void* ctx, int) { return yajlCount(ctx); }
int yajlText(void* ctx, const char*, size_t) { return yajlCount(ctx); }
int yajlString(void* ctx, const unsigned char*, size_t) { return yajlCount(ctx); }

void TokensYajl(State& state, const char* name) {
    const std::string& text = document(name);
    // The number callback gets the text, as ours does: no conversion either side.
    const yajl_callbacks callbacks = {yajlCount, yajlBool,   nullptr,   nullptr,
                                      yajlText,  yajlString, yajlCount, yajlString,
                                      yajlCount, yajlCount,  yajlCount};
    for (auto _ : state) {
        size_t tokens = 0;
        yajl_handle h = yajl_alloc(&callbacks, nullptr, &tokens);
        if (yajl_parse(h, reinterpret_cast<const unsigned char*>(text.data()), text.size()) !=
                yajl_status_ok ||
            yajl_complete_parse(h) != yajl_status_ok) {
            state.SkipWithError("yajl refused");
        }
        yajl_free(h);
        benchmark::DoNotOptimize(tokens);
    }
    setBytes(state, text);
}

void ParseSimdjson(State& state, const char* name) {
    const std::string& text = document(name);
    const simdjson::padded_string padded(text);
    simdjson::dom::parser parser;
    for (auto _ : state) {
        simdjson::dom::element doc;
        if (parser.parse(padded).get(doc)) state.SkipWithError("simdjson refused");
        benchmark::DoNotOptimize(doc);
    }
    setBytes(state, text);
}

// ---------------------------------------------------------------- trees

void TreeTarvex(State& state, const char* name) {
    const std::string& text = document(name);
    for (auto _ : state) {
        JsonDocument doc(text.data(), text.size());
        benchmark::DoNotOptimize(doc.root());
    }
    setBytes(state, text);
}

void TreeRapidjson(State& state, const char* name) {
    const std::string& text = document(name);
    for (auto _ : state) {
        rapidjson::Document doc;
        doc.Parse(text.c_str(), text.size());
        if (doc.HasParseError()) state.SkipWithError("rapidjson refused");
        benchmark::DoNotOptimize(doc);
    }
    setBytes(state, text);
}

void TreeNlohmann(State& state, const char* name) {
    const std::string& text = document(name);
    for (auto _ : state) {
        nlohmann::json doc = nlohmann::json::parse(text);
        benchmark::DoNotOptimize(doc);
    }
    setBytes(state, text);
}

// ---------------------------------------------------------------- printing

void PrintTarvex(State& state, const char* name) {
    const std::string& text = document(name);
    const JsonDocument doc(text.data(), text.size());
    AppendStr out;
    for (auto _ : state) {
        out.clear();
        doc.renderTo(&out);
        benchmark::DoNotOptimize(out.size());
    }
    setBytes(state, text);
}

void PrintRapidjson(State& state, const char* name) {
    const std::string& text = document(name);
    rapidjson::Document doc;
    doc.Parse(text.c_str(), text.size());
    rapidjson::StringBuffer out;
    for (auto _ : state) {
        out.Clear();
        rapidjson::Writer<rapidjson::StringBuffer> writer(out);
        doc.Accept(writer);
        benchmark::DoNotOptimize(out.GetSize());
    }
    setBytes(state, text);
}

void PrintNlohmann(State& state, const char* name) {
    const std::string& text = document(name);
    const nlohmann::json doc = nlohmann::json::parse(text);
    for (auto _ : state) {
        std::string out = doc.dump();
        benchmark::DoNotOptimize(out.size());
    }
    setBytes(state, text);
}

void PrintSimdjson(State& state, const char* name) {
    const std::string& text = document(name);
    const simdjson::padded_string padded(text);
    simdjson::dom::parser parser;
    simdjson::dom::element doc;
    if (parser.parse(padded).get(doc)) abort();
    for (auto _ : state) {
        std::string out = simdjson::minify(doc);
        benchmark::DoNotOptimize(out.size());
    }
    setBytes(state, text);
}

#define TARVEX_JSON_BENCH(doc)                                                             \
    BENCHMARK_CAPTURE(TokensTarvex, doc, #doc)->Name("tokens/" #doc "/tarvex");            \
    BENCHMARK_CAPTURE(TokensRapidjson, doc, #doc)->Name("tokens/" #doc "/rapidjson_sax");  \
    BENCHMARK_CAPTURE(TokensYajl, doc, #doc)->Name("tokens/" #doc "/yajl");                \
    BENCHMARK_CAPTURE(ParseSimdjson, doc, #doc)->Name("tokens/" #doc "/simdjson_ceiling"); \
    BENCHMARK_CAPTURE(TreeTarvex, doc, #doc)->Name("tree/" #doc "/tarvex");                \
    BENCHMARK_CAPTURE(TreeRapidjson, doc, #doc)->Name("tree/" #doc "/rapidjson_dom");      \
    BENCHMARK_CAPTURE(TreeNlohmann, doc, #doc)->Name("tree/" #doc "/nlohmann");            \
    BENCHMARK_CAPTURE(ParseSimdjson, doc, #doc)->Name("tree/" #doc "/simdjson_ceiling");   \
    BENCHMARK_CAPTURE(PrintTarvex, doc, #doc)->Name("print/" #doc "/tarvex");              \
    BENCHMARK_CAPTURE(PrintRapidjson, doc, #doc)->Name("print/" #doc "/rapidjson");        \
    BENCHMARK_CAPTURE(PrintNlohmann, doc, #doc)->Name("print/" #doc "/nlohmann");          \
    BENCHMARK_CAPTURE(PrintSimdjson, doc, #doc)->Name("print/" #doc "/simdjson")

TARVEX_JSON_BENCH(twitter);
TARVEX_JSON_BENCH(canada);
TARVEX_JSON_BENCH(citm_catalog);

}  // namespace
