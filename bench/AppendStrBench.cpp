// Building replies: a 1 MB reply of small appends in AppendStr against
// std::string with reserve and fmt::memory_buffer; JSON string escaping
// against RapidJSON's Writer::String.

#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <charconv>
#include <string>

#include "BenchSupport.h"
#include "util/AppendStr.h"

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;

constexpr size_t kReply = 1 << 20;

// A reply as a server builds one: a header-like piece, a number, a value, a
// separator, again and again. The buffer is kept across replies, as a
// connection keeps its own.
void Reply_tarvex(State& state) {
    AppendStr out;
    for (auto _ : state) {
        out.clear();
        for (int64_t i = 0; out.size() < kReply; ++i) {
            out.append("\"id\":", 5);
            out.append_int64(i * 7919);
            out.append(",\"name\":\"item\",", 15);
            out.push_back('\n');
        }
        DoNotOptimize(out.size());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * kReply));
}

void Reply_string(State& state) {
    std::string out;
    for (auto _ : state) {
        out.clear();
        out.reserve(kReply + 64);
        char digits[24];
        for (int64_t i = 0; out.size() < kReply; ++i) {
            out.append("\"id\":", 5);
            auto [end, ec] = std::to_chars(digits, digits + sizeof digits, i * 7919);
            out.append(digits, size_t(end - digits));
            out.append(",\"name\":\"item\",", 15);
            out.push_back('\n');
        }
        DoNotOptimize(out.size());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * kReply));
}

void Reply_fmt(State& state) {
    fmt::memory_buffer out;
    for (auto _ : state) {
        out.clear();
        for (int64_t i = 0; out.size() < kReply; ++i) {
            out.append(std::string_view("\"id\":"));
            fmt::format_to(std::back_inserter(out), "{}", i * 7919);
            out.append(std::string_view(",\"name\":\"item\","));
            out.push_back('\n');
        }
        DoNotOptimize(out.size());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * kReply));
}

// Mostly plain text with the odd quote, backslash and control byte, as
// log messages and user strings are.
const std::string& jsonInput() {
    static const std::string s = [] {
        std::string t = benchsupport::mixedUtf8Text(1 << 20, 20);
        for (size_t i = 97; i < t.size(); i += 211) t[i] = "\"\\\n\t"[i % 4];
        return t;
    }();
    return s;
}

void Json_tarvex(State& state) {
    AppendStr out;
    const std::string& in = jsonInput();
    for (auto _ : state) {
        out.clear();
        out.push_back('"');
        out.appendJsonEscaped(in.data(), in.size());
        out.push_back('"');
        DoNotOptimize(out.size());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * in.size()));
}

void Json_rapidjson(State& state) {
    rapidjson::StringBuffer buffer;
    const std::string& in = jsonInput();
    for (auto _ : state) {
        buffer.Clear();
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        writer.String(in.data(), rapidjson::SizeType(in.size()));
        DoNotOptimize(buffer.GetSize());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * in.size()));
}

}  // namespace

BENCHMARK(Reply_tarvex)->Name("reply_1MB_small_appends/tarvex");
BENCHMARK(Reply_string)->Name("reply_1MB_small_appends/std_string_reserved");
BENCHMARK(Reply_fmt)->Name("reply_1MB_small_appends/fmt_memory_buffer");
BENCHMARK(Json_tarvex)->Name("json_escape_1MB/tarvex");
BENCHMARK(Json_rapidjson)->Name("json_escape_1MB/rapidjson_Writer_String");
