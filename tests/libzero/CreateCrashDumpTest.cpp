// The crash report's parts that can run in this process: the built-in
// formatter, files copied into a report, symbol look-up, the notation lists
// and the signal stacks of threads. Whole reports are tested in
// tests/crash, from a process that really dies.

#include "libzero/create-crash-dump.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/TestSupport.h"
#include "util/AppendStr.h"
#include "util/CrashLog.h"
#include "util/Thread.h"

#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-overflow"

extern "C" __attribute__((noinline)) int crash_dump_test_symbol(int x) { return x * 3 + 1; }

namespace {

using testsupport::ScratchDir;
using testsupport::writeFile;

struct Collect : backtrace_writing_handler {
    std::string text;
    size_t writes = 0;
    Collect() { do_write = &write; }
    static void write(backtrace_writing_handler* h, const char* p, size_t n) {
        auto* self = static_cast<Collect*>(h);
        self->text.append(p, n);
        ++self->writes;
    }
};

// What the copy of a file, or of its last bytes, writes into a report.
std::string inserted(const std::string& path, size_t limit, bool lastBytes = false) {
    Collect c;
    EXPECT_EQ(lastBytes ? crash_log_insert_file_last_n_bytes(&c, path.c_str(), limit)
                        : crash_log_insert_file(&c, path.c_str(), limit),
              0)
        << path;
    return c.text;
}

// ---------------------------------------------------------------- formatting

// Without a registered engine the report formats by itself; the C library
// is the oracle for every conversion it knows.
TEST(CrashLogFormat, BuiltInFormatterAgreesWithTheCLibrary) {
#define SAME(...)                                         \
    {                                                     \
        char expected[512];                               \
        snprintf(expected, sizeof expected, __VA_ARGS__); \
        Collect c;                                        \
        crash_log_format(&c, __VA_ARGS__);                \
        EXPECT_EQ(c.text, expected) << #__VA_ARGS__;      \
        EXPECT_EQ(c.writes, 1u) << "one write per call";  \
    }
    SAME("plain text, no directives")
    SAME("[%d|%i|%u|%ld|%lu|%lld|%llu|%zu]", -42, 7, 4000000000u, -1234567890123L,
         18446744073709551615UL, -9223372036854775807LL - 1, 18446744073709551615ULL, sizeof(long))
    SAME("[%5d|%-5d|%05d|%-05d|%03d|%1d]", -42, 42, -42, 42, 12345, 99)
    SAME("[%x|%X|%08X|%016llX|%lx|%8X]", 0xbeefu, 0xbeefu, 0xabcu, 0x1234ULL, 0xdeadbeefcafeUL, 7u)
    SAME("[%s|%10s|%-10s|%.3s|%.*s|%c|%%]", "abc", "right", "left", "truncated", 2, "xyz", 'Q')
    SAME("[%p|%p]", reinterpret_cast<void*>(0x7fff1234), reinterpret_cast<void*>(1))
    SAME("Runtime: %lu.%06us\n", 12UL, 3456u)
    SAME("  %8X: %08X %08X %08X %08X\n", 0x80000001u, 1u, 0xffffffffu, 0u, 0x12u)
    SAME("%d", 0)
#undef SAME
    Collect c;
    crash_log_format(&c, "[%s]", static_cast<const char*>(nullptr));
    EXPECT_EQ(c.text, "[(null)]");
    c.text.clear();
    crash_log_format(&c, "unknown %q and a dangling %");
    EXPECT_EQ(c.text, "unknown %q and a dangling %");
}

// ---------------------------------------------------------------- files

TEST(CrashLogInsertFile, LimitCleaningAndTheTruncationMark) {
    ScratchDir dir;
    const std::string path = dir / "f", z(3000, 'z');
    writeFile(path, std::string("tab\there\x01\x7f\xc3\xa9\r\nline two\n") + z);
    const std::string clean = "tab here?????\nline two\n" + z;  // as long as the file

    Collect whole;
    ASSERT_EQ(crash_log_insert_file(&whole, path.c_str(), 100000), 0);
    EXPECT_EQ(whole.text, clean);
    EXPECT_GE(whole.writes, 3u) << "1024-byte reads";
    // A limit of exactly the file's size leaves nothing out.
    EXPECT_EQ(inserted(path, clean.size()), clean);
    EXPECT_EQ(inserted(path, clean.size() - 1),
              clean.substr(0, clean.size() - 1) + "<truncating output>\n");
    EXPECT_EQ(inserted(path, 10),
              "tab here?"
              "?<truncating output>\n");

    Collect missing;
    errno = 0;
    EXPECT_EQ(crash_log_insert_file(&missing, (dir / "absent").c_str(), 100), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(missing.text, "");
}

TEST(CrashLogInsertFile, LastBytesSkipThePartialLineAndIndent) {
    ScratchDir dir;
    const std::string path = dir / "log", head = " Last few lines of the file):\n";
    std::string content, all = head;
    for (int i = 1; i <= 50; ++i) {
        content += "entry " + std::to_string(i) + "\tok\r\n";
        all += "    entry " + std::to_string(i) + " ok\n";
    }
    writeFile(path, content);
    EXPECT_EQ(inserted(path, content.size(), true), all);
    // Lines are 13 bytes. 38 bytes before the end is inside "entry 48", so
    // the copy starts at 49; 40 bytes before is the newline ending 47.
    EXPECT_EQ(inserted(path, 38, true), head + "    entry 49 ok\n    entry 50 ok\n");
    EXPECT_EQ(inserted(path, 40, true),
              head + "    entry 48 ok\n    entry 49 ok\n    entry 50 ok\n");

    // No final newline: the last line still ends the output with one.
    writeFile(path, "first\nsecond");
    EXPECT_EQ(inserted(path, 100, true), head + "    first\n    second\n");
}

TEST(CrashLogWriteHandler, FileSectionsAndBufferDumps) {
    ScratchDir dir;
    writeFile(dir / "conf", "key=value\n");
    Str s;
    CrashLogWriteHandlerAppendToStr h(&s);
    h.writeFileContents((dir / "conf").c_str(), 1000);
    EXPECT_EQ(s, "-------------------- FILE CONTENTS OF \"" + dir / "conf" +
                     "\"\nkey=value\n--------------------\n\n");
    s.clear();
    h.writeLastnBytesOfFileContent((dir / "missing").c_str(), 100);
    EXPECT_EQ(s, "-------------------- LAST FEW LINE OF FILE \"" + dir / "missing" +
                     "\"\n*** ERROR OPENING FILE: No such file or directory\n"
                     "--------------------\n\n");

    AppendStr small;
    small.append("0123456789", 10);
    s.clear();
    h.dumpMemory("reply", small, 64);
    EXPECT_TRUE(s.starts_with("All 10 bytes of reply:\n00000000  30 31")) << s;

    // Across chunks only the first is dumped, and the header says of how many.
    AppendStr big;
    big.append(std::string(10000, 'a').data(), 10000);
    s.clear();
    h.dumpMemory("body", big, 32);
    EXPECT_TRUE(s.starts_with("First 32 (/10000) bytes of body:\n")) << s;
    s.clear();
    h.dumpMemory("body", big, 100000);
    EXPECT_TRUE(s.starts_with("First 8192 (/10000) bytes of body:\n")) << s.substr(0, 80);
}

// ---------------------------------------------------------------- symbols

TEST(BacktraceSymbols, NamesAnExportedFunctionAndItsModule) {
    EXPECT_EQ(crash_dump_test_symbol(1), 4);
    const auto* fn = reinterpret_cast<const char*>(&crash_dump_test_symbol);
    backtrace_symbol_information info;
    ASSERT_EQ(backtrace_symbol_information_get(&info, fn + 3), 0);
    ASSERT_NE(info.symbol_name, nullptr);
    EXPECT_STREQ(info.symbol_name, "crash_dump_test_symbol");
    EXPECT_EQ(info.offset_in_symbol, 3u);
    EXPECT_GT(info.symbol_size, 3u);
    const std::string exe = program_invocation_short_name;
    EXPECT_EQ(std::string(info.module_name, info.module_name_length), exe);

    auto printed = [&info] {
        Collect c;
        backtrace_symbol_information_print(&c, &info);
        return c.text;
    };
    // No maps were read in this process, so no module offset.
    EXPECT_EQ(printed(),
              "crash_dump_test_symbol + 3/" + std::to_string(info.symbol_size) + " (" + exe + ")");

    // File and line are printed when some source fills them in.
    info.source_file = "x.cpp";
    info.source_line = 12;
    info.offset_in_module = 0x1f0;
    EXPECT_TRUE(printed().ends_with(" (" + exe + " + 0x1F0) [x.cpp:12]")) << printed();

    // Heap memory belongs to no loaded object.
    auto heap = std::make_unique<char[]>(64);
    EXPECT_EQ(backtrace_symbol_information_get(&info, heap.get()), -1);
    EXPECT_EQ(printed(), "? ()");
}

TEST(BacktraceSymbols, BacktraceDropsNoFrameOfOurs) {
    void* frames[64];
    const int n = get_backtrace(frames, 64);
    ASSERT_GT(n, 2);
    for (int i = 0; i < n; ++i) EXPECT_GE(reinterpret_cast<uintptr_t>(frames[i]), 4096u);
    backtrace_symbol_information info;
    // get_backtrace itself comes first (after the sanitizer's wrapper of
    // backtrace, in such builds), then its caller.
    int self = -1;
    for (int i = 0; i < 2 && self < 0; ++i) {
        ASSERT_EQ(backtrace_symbol_information_get(&info, frames[i]), 0);
        if (info.symbol_name != nullptr && strstr(info.symbol_name, "get_backtrace") != nullptr) {
            self = i;
        }
    }
    ASSERT_GE(self, 0);
    // The caller, this test's body, is local to this file: no symbol name,
    // but the module.
    ASSERT_EQ(backtrace_symbol_information_get(&info, frames[self + 1]), 0);
    EXPECT_EQ(std::string(info.module_name, info.module_name_length),
              program_invocation_short_name);
}

// ---------------------------------------------------------------- notations

class Numbered : public ScopedPerThreadCrashLogNotation {
public:
    explicit Numbered(int n) : _n(n) { publish(); }
    void renderTo(CrashLogWriteHandler& h) const override { h.format("notation %d", _n); }

private:
    int _n;
};

// What the report would print as this thread's and the process's notations.
std::string notationsHere() {
    Collect c;
    crash_log_write_notations(&c);
    return c.text;
}

std::string notationLines(const std::string& report) {
    std::string out;
    size_t at = 0;
    while ((at = report.find("notation ", at)) != std::string::npos) {
        const size_t end = report.find('\n', at);
        out += report.substr(at, end - at) + ";";
        at = end;
    }
    return out;
}

// Which threads see which notations, and in what order, the crash report
// tests show from a dying process; here, removal from every place.
TEST(CrashLogNotations, EndInAnyOrderAndGlobalsComeFirst) {
    Thread::registerCrashlogHooks();
    const std::string globals = notationLines(notationsHere());  // of earlier cases
    auto a = std::make_unique<Numbered>(1);
    ASSERT_TRUE(a->wasPushed());
    auto b = std::make_unique<Numbered>(2);
    auto c = std::make_unique<Numbered>(3);
    b.reset();  // from the middle
    EXPECT_EQ(notationLines(notationsHere()), globals + "notation 1;notation 3;");
    c.reset();  // the last
    EXPECT_EQ(notationLines(notationsHere()), globals + "notation 1;");
    Numbered d(4);
    a.reset();  // the first, not the last
    EXPECT_EQ(notationLines(notationsHere()), globals + "notation 4;");

    ASSERT_TRUE(addGlobalCrashLogNotation("notation global %d", 7));
    ASSERT_TRUE(addGlobalCrashLogNotationConstant("notation global constant"));
    const std::string lines = notationLines(notationsHere());
    EXPECT_TRUE(lines.ends_with("notation global 7;notation global constant;notation 4;")) << lines;
}

TEST(CrashLogNotations, StringFormsAndTheCountLimit) {
    Thread::registerCrashlogHooks();
    std::string seen;
    ThreadFunction worker(
        [&] {
            // Global notations of earlier cases in this process come first.
            const std::string globals = notationLines(notationsHere());
            ASSERT_EQ(crashlog_notation_perthread_push("notation pushed", 15), 0);
            EXPECT_EQ(notationLines(notationsHere()), globals + "notation pushed;");
            crashlog_notation_perthread_pop();
            EXPECT_EQ(notationLines(notationsHere()), globals);

            // A list longer than any real one is cut, as a corrupt one would be.
            for (int i = 0; i < 1100; ++i) ASSERT_EQ(crashlog_notation_perthread_push("x", 1), 0);
            seen = notationsHere();
            for (int i = 0; i < 1100; ++i) crashlog_notation_perthread_pop();
        },
        "LongList");
    worker.go();
    worker.join();
    // The thread's own line is the first of the 1024 entries shown.
    size_t entries = 0;
    for (size_t at = 0; (at = seen.find("\nx\n", at)) != std::string::npos; at += 2) ++entries;
    EXPECT_EQ(entries, 1023u);
    EXPECT_TRUE(seen.ends_with(
        "x\nMax crashlog notation count exceeded (1024), probably linked list of notations "
        "corrupted. breaking out.\n"))
        << seen.substr(seen.size() - 200);

    // A thread the library did not start has no notation state.
    bool pushed = true;
    int pushResult = 0;
    std::thread([&] {
        Numbered n(1);
        pushed = n.wasPushed();
        pushResult = crashlog_notation_perthread_push("y", 1);
    }).join();
    EXPECT_FALSE(pushed);
    EXPECT_EQ(pushResult, -1);
}

// ---------------------------------------------------------------- signal stacks

TEST(CrashLogAltStack, EveryThreadGetsAGuardedStackOfItsOwn) {
    stack_t mainStack;
    ASSERT_EQ(sigaltstack(nullptr, &mainStack), 0);
    stack_t seen[2] = {};
    std::atomic<int> recorded{0};
    // Both stand at once, so that one can't reuse the other's memory.
    auto record = [&seen, &recorded](int i) {
        return [&seen, &recorded, i] {
            sigaltstack(nullptr, &seen[i]);
            recorded.fetch_add(1);
            while (recorded.load() < 2) sched_yield();
        };
    };
    ThreadFunction t0(record(0), "AltStack0"), t1(record(1), "AltStack1");
    for (Thread* t : {&t0, &t1}) t->go();
    for (Thread* t : {&t0, &t1}) t->join();
    const long page = sysconf(_SC_PAGESIZE);
    for (const stack_t& s : seen) {
        EXPECT_EQ(s.ss_flags, 0);
        EXPECT_EQ(s.ss_size, static_cast<size_t>((2047 / page + 9) * page));
    }
    EXPECT_NE(seen[0].ss_sp, seen[1].ss_sp);

    // Installing and removing by hand puts back what was there.
    crashdumper_alt_stack mine = {};
    ASSERT_EQ(crash_log_alt_stack_install(&mine), 0);
    stack_t during, after;
    sigaltstack(nullptr, &during);
    EXPECT_EQ(static_cast<char*>(during.ss_sp), static_cast<char*>(mine.mapping) + page);
    crash_log_alt_stack_remove(&mine);
    sigaltstack(nullptr, &after);
    EXPECT_EQ(after.ss_sp, mainStack.ss_sp);
    EXPECT_EQ(after.ss_flags, mainStack.ss_flags);
    EXPECT_EQ(mine.mapping, nullptr);
}

}  // namespace
