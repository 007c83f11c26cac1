// The crash report, read from what a real crashing process leaves: each fatal
// signal on the main thread and on a worker, assertions, exceptions, stack
// overflow, notations, and the rules for reports that go wrong themselves.
// The victim aborts with status 86 if its crash handler allocates.

#include <fcntl.h>
#include <regex.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "libzero/create-crash-dump.h"
#include "support/TestSupport.h"
#include "support/TextMatch.h"

namespace {

using testsupport::contains;
using testsupport::ScratchDir;

constexpr int kGuardTripped = 86;

struct Crash {
    std::shared_ptr<ScratchDir> dir;  // where the victim was told to write
    int signal = 0;                   // what ended the victim, 0 if it exited
    int exitCode = -1;                // its exit status when it exited
    pid_t pid = 0;
    std::vector<std::string> reports;  // file names in the directory
    std::string report;                // the only report's text
    std::string err;                   // the victim's standard error
};

std::vector<std::string> reportsIn(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir)) {
        if (e.path().filename().string().starts_with("crash-"))
            names.push_back(e.path().filename());
    }
    return names;
}

// Runs the victim with its report going to `target` (the directory unless
// given); `whileRunning` is polled until the victim ends and may kill it.
// Unless the scenario breaks the rule on purpose, the crash handler must not
// have allocated.
Crash runVictim(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {},
                const std::function<bool()>& whileRunning = {}, std::string target = "",
                std::shared_ptr<ScratchDir> dirIn = nullptr) {
    Crash c;
    c.dir = dirIn ? dirIn : std::make_shared<ScratchDir>();
    const ScratchDir& dir = *c.dir;
    std::vector<std::string> argv = {CRASH_VICTIM_PATH, target.empty() ? dir.path() : target};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> av;
    for (auto& a : argv) av.push_back(a.data());
    av.push_back(nullptr);
    const std::string errPath = dir / "victim.err";
    c.pid = fork();
    if (c.pid == 0) {
        const int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDERR_FILENO);
        unsetenv("TARVEX_WAIT_ON_CRASH");
        for (const auto& e : extraEnv) putenv(strdup(e.c_str()));
        execv(av[0], av.data());
        _exit(127);
    }
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (waitpid(c.pid, &status, WNOHANG) != c.pid) {
        if ((whileRunning && !whileRunning()) || std::chrono::steady_clock::now() > deadline) {
            kill(c.pid, SIGKILL);
            waitpid(c.pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (WIFSIGNALED(status)) c.signal = WTERMSIG(status);
    if (WIFEXITED(status)) c.exitCode = WEXITSTATUS(status);
    c.reports = reportsIn(dir.path());
    if (c.reports.size() == 1) c.report = testsupport::readFile(dir / c.reports[0]);
    c.err = testsupport::readFile(errPath);
    if (args[0] != "malloc-in-handler") {
        EXPECT_NE(c.exitCode, kGuardTripped) << c.err;
        EXPECT_FALSE(contains(c.err, "called inside the crash handler"));
    }
    return c;
}

// Whether the extended regular expression `re` matches in `text`; its first
// group, if any, goes to `group`.
testing::AssertionResult matches(const std::string& text, const std::string& re,
                                 std::string* group = nullptr) {
    regex_t compiled;
    regmatch_t m[2];
    if (regcomp(&compiled, re.c_str(), REG_EXTENDED) != 0) {
        return testing::AssertionFailure() << "bad expression " << re;
    }
    const bool found = regexec(&compiled, text.c_str(), 2, m, 0) == 0;
    regfree(&compiled);
    if (!found) {
        return testing::AssertionFailure() << "no /" << re << "/ in:\n" << text.substr(0, 4000);
    }
    if (group != nullptr) *group = text.substr(m[1].rm_so, m[1].rm_eo - m[1].rm_so);
    return testing::AssertionSuccess();
}

std::string between(const std::string& text, const std::string& from, const std::string& to) {
    const size_t a = text.find(from);
    if (a == std::string::npos) return "";
    const size_t b = text.find(to, a + from.size());
    return text.substr(a, b == std::string::npos ? std::string::npos : b - a);
}

std::string backtraceOf(const std::string& report) {
    return between(report, " Backtrace (PIC build):\n", "\n Linux / ");
}

// The sections every report has, in their order. Which distribution file is
// named depends on the host: the first of the list that opens.
void expectSectionsInOrder(const std::string& report, bool withMaps) {
    std::vector<std::string> sections = {"[build ",
                                         "Received fatal signal ",
                                         " Cause:\n",
                                         " Crashing thread: ",
                                         " Registers:\n    RIP:  [0x",
                                         "    OLDMASK:  [0x",
                                         "\n OS: Linux\n Arch: x86-64\n\n Backtrace (PIC build):\n",
                                         " Linux / "};
    for (const char* f : {"/etc/fedora-release", "/etc/redhat-release", "/etc/debian_version",
                          "/etc/SuSE-release", "/etc/slackware-version", "/etc/gentoo-release",
                          "/etc/mandrake-release", "/etc/os-release"}) {
        if (access(f, R_OK) == 0) {
            sections.push_back(std::string(" ") + f + ": ");
            break;
        }
    }
    sections.insert(sections.end(), {" glibc version: 2.", " glibc release: "});
    if (withMaps) sections.push_back(" MAP: ");
    sections.insert(sections.end(), {"Last errno: ", "Threads running: ", "Runtime: ", "Thread: \"",
                                     "\nx86 CPUID registers:\n", "         0: "});
    EXPECT_TRUE(testsupport::containsInOrder(report, sections));
    EXPECT_TRUE(report.ends_with("terminating...\n"));
    if (!withMaps) {
        EXPECT_FALSE(contains(report, " MAP: "));
    }
}

// ---------------------------------------------------------------- each way to die

// Each dies in crash_victim_<scenario>, which the back-trace must name.
struct Death {
    const char* scenario;
    int signal;
    const char* cause;  // the line under " Cause:"
};

const Death kDeaths[] = {
    {"segv", SIGSEGV, "   No memory mapped at address [0x0000000000000010].\n"},
    {"bus", SIGBUS, "   Non-existent accessed physical address at address [0x"},
    {"ill", SIGILL, "   Illegal operand for opcode at address [0x"},
    {"fpe", SIGFPE, "   Integer division by zero at address [0x"},
    {"abrt", SIGABRT, "   Signal sent by PID "},
};

class FatalSignal : public ::testing::TestWithParam<std::tuple<Death, bool>> {};

TEST_P(FatalSignal, LeavesOneCompleteReportAndDiesOfTheSignal) {
    const auto& [death, onWorker] = GetParam();
    const Crash c = runVictim(onWorker ? std::vector<std::string>{death.scenario, "worker"}
                                       : std::vector<std::string>{death.scenario});
    ASSERT_EQ(c.signal, death.signal) << c.err;
    ASSERT_EQ(c.reports.size(), 1u);
    expectSectionsInOrder(c.report, death.signal == SIGSEGV || death.signal == SIGBUS);

    // The name says when, the header says which build and the same time.
    std::string when;
    ASSERT_TRUE(matches(c.report,
                        "^\\[build [0-9a-f]{12}\\] ([0-9]{4}-[0-9]{2}-[0-9]{2} "
                        "[0-9]{2}:[0-9]{2}:[0-9]{2})\n",
                        &when));
    EXPECT_TRUE(c.report.starts_with("[build " + std::string(tarvex_build_id) + "] "));
    when[10] = '-';
    EXPECT_EQ(c.reports[0], "crash-" + when + ".log");

    const std::string pid = std::to_string(c.pid), thread = onWorker ? "CrashWorker" : "MainThread";
    EXPECT_TRUE(contains(c.report, "Received fatal signal " + std::to_string(death.signal) + " (" +
                                       sigdescr_np(death.signal) + ") on PID " + pid + ".\n"));
    EXPECT_TRUE(contains(c.report, " Cause:\n" + std::string(death.cause)));
    // A real fault names its address and no sender.
    EXPECT_TRUE(death.signal == SIGABRT
                    ? contains(c.report, "Signal sent by PID " + pid + " running under UID " +
                                             std::to_string(getuid()) + ".\n")
                    : !contains(c.report, "Signal sent by"));
    EXPECT_TRUE(contains(c.report, " Crashing thread: " + thread + "\n"));
    EXPECT_TRUE(contains(c.report, onWorker ? "Threads running: 2\n" : "Threads running: 1\n"));
    EXPECT_TRUE(
        contains(backtraceOf(c.report), "crash_victim_" + std::string(death.scenario) + " + "));
    // The crashing thread's own description comes first among the notations.
    EXPECT_TRUE(matches(
        c.report, "\nThread: \"" + thread + "\", did_join=" +
                      (onWorker ? "[0-9]+, ready_to_run, " : "1, ready_to_run, main_thread, ") +
                      "token=0x[[:xdigit:]]+\n"));
}

INSTANTIATE_TEST_SUITE_P(CrashReport, FatalSignal,
                         ::testing::Combine(::testing::ValuesIn(kDeaths), ::testing::Bool()),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).scenario) +
                                    (std::get<1>(info.param) ? "_OnWorker" : "_OnMainThread");
                         });

// ---------------------------------------------------------------- what ended the process

TEST(CrashReport, AssertionsExceptionsLockErrorsOverflowAndTheCLibrary) {
    struct Ending {
        std::vector<std::string> args;
        int signal;
        const char* err;       // in the victim's standard error
        const char* report;    // an extended regular expression the report matches
        const char* function;  // in the back-trace
    } endings[] = {
        {{"assert", "worker"},
         SIGABRT,
         "Assertion `value == 42' failed.\n",
         "\nassertion_failure=\"value == 42\" assertion_function=\"void "
         "crash_victim_assert\\(int\\)\" assertion_file=\"[^\"\n]*/CrashVictim\\.cpp:[0-9]+\"\n",
         "crash_victim_assert"},
        // The exception is reported from where it was thrown.
        {{"exception", "worker"},
         SIGABRT,
         "terminate called after throwing an instance of 'std::runtime_error'\n"
         "  what():  boom in the worker\n",
         " C\\+\\+ exception:\n  exception_addr=0x[[:xdigit:]]+\n  typeinfo=0x[[:xdigit:]]+, "
         "name=std::runtime_error\n  what\\(\\): boom in the worker\n",
         "crash_victim_throw"},
        // The fatal reason stands on the line before the thread's own.
        {{"lock-error", "worker"},
         SIGABRT,
         "Fatal thread error: MutexByte::assertIsLockedAndHasSleepersFailed(): Success; 2 threads "
         "active, in CrashWorker\n",
         "\nDying on fatal thread error 0 from "
         "MutexByte::assertIsLockedAndHasSleepersFailed\\(\\), "
         "thread CrashWorker\nThread: \"CrashWorker\", did_join=[0-9]",
         "crash_victim_lock_error"},
        {{"stack-overflow", "worker"}, SIGSEGV, "", " Cause:\n   [A-Z]", "crash_victim_recurse"},
        {{"bad-free"},
         SIGABRT,
         "",
         "\n Libc abort message: free\\(\\): invalid pointer\n",
         "crash_victim_bad_free"},
    };
    for (const Ending& e : endings) {
        SCOPED_TRACE(e.args[0]);
        const Crash c = runVictim(e.args);
        ASSERT_EQ(c.signal, e.signal) << c.err;
        ASSERT_EQ(c.reports.size(), 1u);
        expectSectionsInOrder(c.report, e.signal == SIGSEGV);
        EXPECT_TRUE(contains(c.err, e.err));
        EXPECT_TRUE(matches(c.report, e.report));
        EXPECT_TRUE(contains(c.report, e.args.size() > 1 ? " Crashing thread: CrashWorker\n"
                                                         : " Crashing thread: MainThread\n"));
        EXPECT_TRUE(contains(backtraceOf(c.report), e.function + std::string(" + ")));
    }
}

TEST(CrashReport, SignalSentByAnotherProcessNamesTheSenderAndStillKills) {
    const Crash c = runVictim({"kill-segv", "worker"});
    EXPECT_EQ(c.signal, SIGSEGV) << "a sent signal must not let the process carry on";
    EXPECT_TRUE(contains(c.report, " Cause:\n   Signal sent by PID " + std::to_string(c.pid) +
                                       " running under UID " + std::to_string(getuid()) + ".\n"));
    EXPECT_FALSE(contains(c.report, " at address ["));
}

TEST(CrashReport, StandardErrorTailOnAbort) {
    const Crash c = runVictim({"stderr-tail"});
    ASSERT_EQ(c.signal, SIGABRT);
    const std::string tail = between(c.report,
                                     " Last few lines of stderr (may contain info on assertion "
                                     "failure, but also could be old):\n",
                                     "\n\n");
    ASSERT_FALSE(tail.empty()) << c.report.substr(0, 4000);
    // The whole lines that begin within the file's last 800 bytes (lines 1
    // to 9 are 21 bytes, 10 to 99 are 22, 100 is 23: line 65 begins 793
    // bytes before the end), indented, CR dropped and tab made a blank.
    std::string expected;
    for (int i = 65; i <= 100; ++i) expected += "    stderr line " + std::to_string(i) + " (tab)\n";
    EXPECT_EQ(tail.substr(tail.find('\n') + 1) + "\n", expected);
}

TEST(CrashReport, ToStandardErrorWithAFaultingFrameThatAddr2lineResolves) {
    const Crash c = runVictim({"segv"}, {}, {}, "-");
    EXPECT_EQ(c.signal, SIGSEGV);
    EXPECT_TRUE(c.reports.empty());
    expectSectionsInOrder(c.err, true);
    std::string offset;
    ASSERT_TRUE(matches(
        backtraceOf(c.err),
        "\\] crash_victim_segv \\+ [0-9]+/[0-9]+ \\(crash_victim \\+ (0x[[:xdigit:]]+)\\)\n",
        &offset));
    const auto r =
        testsupport::runProcess({"/usr/bin/addr2line", "-f", "-e", CRASH_VICTIM_PATH, offset});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_TRUE(r.out.starts_with("crash_victim_segv\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "CrashVictim.cpp:"));
}

// ---------------------------------------------------------------- notations

TEST(CrashReport, NotationsOfTheCrashingThreadOnlyInnermostLast) {
    for (const std::string me : {"A", "B", "main"}) {
        SCOPED_TRACE(me);
        const Crash c = runVictim({"notations-" + me});
        ASSERT_EQ(c.signal, SIGSEGV);
        EXPECT_TRUE(testsupport::containsInOrder(
            c.report,
            {"global notation of pid " + std::to_string(c.pid) + "\n" +
                 (me == "main" ? "Thread: \"MainThread\"" : "Thread: \"Notations" + me + "\""),
             "\nnotation " + me + " depth 1", "\nnotation " + me + " depth 2\n"}));
        for (const std::string other : {"A", "B", "main"}) {
            if (me != other) {
                EXPECT_FALSE(contains(c.report, "notation " + other + " depth"));
            }
        }
    }
}

// ---------------------------------------------------------------- reports that go wrong

TEST(CrashReport, AllocationGuardOfTheVictimBites) {
    const Crash c = runVictim({"malloc-in-handler"});
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer's own check of signal-unsafe calls comes first.
    EXPECT_NE(c.exitCode, 0);
    EXPECT_TRUE(contains(c.err, "ThreadSanitizer: signal-unsafe call inside of a signal"));
#else
    EXPECT_EQ(c.exitCode, kGuardTripped);
    EXPECT_TRUE(contains(c.err, "crash_victim: malloc called inside the crash handler"));
#endif
}

const std::string kCut = "Crash log has overflowed the allowed limit (512kB), truncated.\n";

TEST(CrashReport, OverlongReportIsCutWithOneLine) {
    const Crash c = runVictim({"overflow"});
    ASSERT_EQ(c.signal, SIGSEGV);
    EXPECT_TRUE(c.report.ends_with(kCut)) << c.report.substr(c.report.size() - 200);
    EXPECT_LE(c.report.size(), 524287 + kCut.size());
    EXPECT_GT(c.report.size(), 524287 - 1000);
}

TEST(CrashReport, NotationThatNeverStopsEndsTheProcessAfterThreeSeconds) {
    const auto start = std::chrono::steady_clock::now();
    const Crash c = runVictim({"loop"});
    EXPECT_EQ(c.exitCode, 87);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_TRUE(c.report.ends_with(kCut + "Crash log writes still attempted after 3 seconds, maybe "
                                          "something is looping?\n"));
}

TEST(CrashReport, FaultInsideTheHandlerEndsTheProcessWithWhatWasWritten) {
    const Crash c = runVictim({"fault-in-handler"});
    EXPECT_EQ(c.signal, SIGSEGV);
    ASSERT_EQ(c.reports.size(), 1u);
    EXPECT_TRUE(c.report.ends_with("about to fault in a notation"))
        << c.report.substr(c.report.size() - 200);
    EXPECT_TRUE(contains(c.report, "Runtime: "));
}

TEST(CrashReport, OutOfFileDescriptorsGivesUpStandardInput) {
    const Crash c = runVictim({"emfile"});
    ASSERT_EQ(c.signal, SIGSEGV);
    ASSERT_EQ(c.reports.size(), 1u);
    EXPECT_TRUE(c.report.starts_with("(Out of file descriptors!)\n[build "))
        << c.report.substr(0, 200);
    // The report took descriptor 0; the listing ends with the count.
    EXPECT_TRUE(contains(c.report, "\nFile descriptors open:\n0: " + *c.dir / c.reports[0] + "\n"));
    std::string total;
    ASSERT_TRUE(matches(c.report, "\n\\(Total ([0-9]+)\\)\nReceived fatal signal", &total));
    EXPECT_GE(std::stoi(total), 60);
}

TEST(CrashReport, ExistingReportOfTheSameSecondMeansNoReport) {
    auto dir = std::make_shared<ScratchDir>();
    std::vector<std::string> taken;
    for (time_t t = time(nullptr) - 1, end = t + 21; t <= end; ++t) {
        struct tm local;
        char name[64];
        strftime(name, sizeof name, "crash-%Y-%m-%d-%H:%M:%S.log", localtime_r(&t, &local));
        testsupport::writeFile(*dir / name, "");
        taken.push_back(name);
    }
    const Crash c = runVictim({"segv"}, {}, {}, "", dir);
    EXPECT_EQ(c.signal, SIGSEGV);
    EXPECT_EQ(c.reports.size(), taken.size());
    for (const auto& name : taken) EXPECT_EQ(testsupport::readFile(*dir / name), "") << name;
}

TEST(CrashReport, WaitsOnCrashOnlyWhenAskedWithExactlyOne) {
    EXPECT_EQ(runVictim({"segv"}, {"TARVEX_WAIT_ON_CRASH=yes"}).signal, SIGSEGV);
    auto dir = std::make_shared<ScratchDir>();
    bool sawWaiting = false;
    std::chrono::steady_clock::time_point finished{};
    const Crash c = runVictim(
        {"segv"}, {"TARVEX_WAIT_ON_CRASH=1"},
        [&] {
            const auto reports = reportsIn(dir->path());
            if (reports.size() != 1) return true;
            if (!testsupport::readFile(*dir / reports[0]).ends_with("terminating...\n"))
                return true;
            const auto now = std::chrono::steady_clock::now();
            if (finished == std::chrono::steady_clock::time_point{}) finished = now;
            // Still alive well after its report ended: it is waiting.
            if (now - finished < std::chrono::milliseconds(500)) return true;
            sawWaiting = true;
            return false;
        },
        "", dir);
    EXPECT_TRUE(sawWaiting);
    EXPECT_EQ(c.signal, SIGKILL);
}

}  // namespace
