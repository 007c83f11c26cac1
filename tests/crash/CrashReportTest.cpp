// The crash report, read from what a real crashing process leaves: each fatal
// signal on the main thread and on a worker, assertions, exceptions, stack
// overflow, notations, and the rules for reports that go wrong themselves.
// The victim aborts with status 86 if its crash handler allocates.

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "libzero/create-crash-dump.h"
#include "support/TestSupport.h"

extern char** environ;

namespace {

using testsupport::ScratchDir;

constexpr int kGuardTripped = 86;

struct Crash {
    int signal = 0;     // what ended the victim, 0 if it exited
    int exitCode = -1;  // its exit status when it exited
    pid_t pid = 0;
    std::vector<std::string> reports;  // file names in the directory
    std::string report;                // the only report's text
    std::string err;                   // the victim's standard error
};

std::vector<std::string> reportsIn(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (strncmp(e->d_name, "crash-", 6) == 0) names.push_back(e->d_name);
        }
        closedir(d);
    }
    return names;
}

// Runs the victim with its report going to `dir`; `whileRunning` is polled
// until the victim ends and may decide to kill it.
Crash runVictim(const ScratchDir& dir, const std::vector<std::string>& args,
                const std::vector<std::string>& extraEnv = {},
                const std::function<bool(pid_t)>& whileRunning = {}) {
    std::vector<std::string> argv = {CRASH_VICTIM_PATH, dir.path()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        if (strncmp(*e, "TARVEX_WAIT_ON_CRASH=", 21) != 0) env.push_back(*e);
    }
    env.insert(env.end(), extraEnv.begin(), extraEnv.end());
    const std::string errPath = dir / "victim.err";

    Crash c;
    c.pid = fork();
    if (c.pid == 0) {
        const int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, STDERR_FILENO);
        std::vector<char*> av, ev;
        for (auto& a : argv) av.push_back(a.data());
        for (auto& e : env) ev.push_back(e.data());
        av.push_back(nullptr);
        ev.push_back(nullptr);
        execve(av[0], av.data(), ev.data());
        _exit(127);
    }
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        const pid_t r = waitpid(c.pid, &status, WNOHANG);
        if (r == c.pid) break;
        if ((whileRunning && !whileRunning(c.pid)) || std::chrono::steady_clock::now() > deadline) {
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
    return c;
}

// Whether `pattern` occurs in `text`, where in the pattern '#' stands for
// one or more decimal digits, '%' for one or more hexadecimal digits and '*'
// for any run of bytes within a line.
bool matchesAt(const char* t, const char* p) {
    for (;; ++p) {
        switch (*p) {
            case '\0':
                return true;
            case '#':
            case '%': {
                const char* set = *p == '#' ? "0123456789" : "0123456789abcdefABCDEF";
                if (*t == '\0' || !strchr(set, *t)) return false;
                while (*t != '\0' && strchr(set, *t)) ++t;
                continue;
            }
            case '*':
                for (;; ++t) {
                    if (matchesAt(t, p + 1)) return true;
                    if (*t == '\0' || *t == '\n') return false;
                }
            default:
                if (*t++ != *p) return false;
        }
    }
}

bool containsPattern(const std::string& text, const std::string& pattern) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (matchesAt(text.c_str() + i, pattern.c_str())) return true;
    }
    return false;
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

// The sections every report has, in their order.
void expectSectionsInOrder(const std::string& report, bool withMaps) {
    std::vector<std::string> sections = {"[build ",
                                         "Received fatal signal ",
                                         " Cause:\n",
                                         " Crashing thread: ",
                                         " Registers:\n    RIP:  [0x",
                                         "    OLDMASK:  [0x",
                                         "\n OS: Linux\n Arch: x86-64\n\n Backtrace (PIC build):\n",
                                         " Linux / ",
                                         " /etc/debian_version: ",
                                         " glibc version: 2.",
                                         " glibc release: "};
    if (withMaps) sections.push_back(" MAP: ");
    for (const char* s : {"Last errno: ", "Threads running: ", "Runtime: ", "Thread: \"",
                          "\nx86 CPUID registers:\n", "         0: "}) {
        sections.push_back(s);
    }
    size_t at = 0;
    for (const auto& s : sections) {
        const size_t found = report.find(s, at);
        ASSERT_NE(found, std::string::npos) << "missing after offset " << at << ": " << s;
        at = found + s.size();
    }
    EXPECT_TRUE(report.ends_with("terminating...\n"));
}

void expectNoAllocationInHandler(const Crash& c) {
    EXPECT_NE(c.exitCode, kGuardTripped) << c.err;
    EXPECT_EQ(c.err.find("called inside the crash handler"), std::string::npos) << c.err;
}

// ---------------------------------------------------------------- each way to die

struct Death {
    const char* scenario;
    int signal;
    const char* cause;     // the line under " Cause:"
    const char* function;  // must be named in the back-trace
};

const Death kDeaths[] = {
    {"segv", SIGSEGV, "   No memory mapped at address [0x0000000000000010].\n",
     "crash_victim_segv"},
    {"bus", SIGBUS, "   Non-existent accessed physical address at address [0x", "crash_victim_bus"},
    {"ill", SIGILL, "   Illegal operand for opcode at address [0x", "crash_victim_ill"},
    {"fpe", SIGFPE, "   Integer division by zero at address [0x", "crash_victim_fpe"},
    {"abrt", SIGABRT, "   Signal sent by PID ", "crash_victim_abrt"},
};

class FatalSignal : public ::testing::TestWithParam<std::tuple<Death, bool>> {};

TEST_P(FatalSignal, LeavesOneCompleteReportAndDiesOfTheSignal) {
    const auto& [death, onWorker] = GetParam();
    ScratchDir dir;
    std::vector<std::string> args = {death.scenario};
    if (onWorker) args.push_back("worker");
    const Crash c = runVictim(dir, args);
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, death.signal) << c.err;
    ASSERT_EQ(c.reports.size(), 1u);
    const bool withMaps = death.signal == SIGSEGV || death.signal == SIGBUS;
    expectSectionsInOrder(c.report, withMaps);
    if (!withMaps) {
        EXPECT_EQ(c.report.find(" MAP: "), std::string::npos);
    }

    // The name says when, the header says which build and the same time.
    char build[13] = {};
    int year, month, day, hour, minute, second;
    ASSERT_EQ(sscanf(c.report.c_str(), "[build %12[0-9a-f]] %4d-%2d-%2d %2d:%2d:%2d\n", build,
                     &year, &month, &day, &hour, &minute, &second),
              7)
        << c.report.substr(0, 80);
    EXPECT_EQ(std::string(build), tarvex_build_id);
    EXPECT_EQ(strlen(build), 12u);
    char name[64];
    snprintf(name, sizeof name, "crash-%04d-%02d-%02d-%02d:%02d:%02d.log", year, month, day, hour,
             minute, second);
    EXPECT_EQ(c.reports[0], name);

    EXPECT_NE(
        c.report.find("Received fatal signal " + std::to_string(death.signal) + " (" +
                      sigdescr_np(death.signal) + ") on PID " + std::to_string(c.pid) + ".\n"),
        std::string::npos);
    EXPECT_NE(c.report.find(" Cause:\n" + std::string(death.cause)), std::string::npos)
        << between(c.report, " Cause:", " Registers:");
    if (death.signal == SIGABRT) {
        EXPECT_NE(c.report.find("Signal sent by PID " + std::to_string(c.pid) +
                                " running under UID " + std::to_string(getuid()) + ".\n"),
                  std::string::npos);
    } else {
        // A real fault names its address and no sender.
        EXPECT_EQ(c.report.find("Signal sent by"), std::string::npos);
    }
    EXPECT_NE(c.report.find(onWorker ? " Crashing thread: CrashWorker\n"
                                     : " Crashing thread: MainThread\n"),
              std::string::npos);
    EXPECT_NE(c.report.find(onWorker ? "Threads running: 2\n" : "Threads running: 1\n"),
              std::string::npos);
    EXPECT_NE(backtraceOf(c.report).find(std::string(death.function) + " + "), std::string::npos)
        << backtraceOf(c.report);
    // The crashing thread's own description comes first among the notations.
    EXPECT_TRUE(containsPattern(
        c.report, onWorker ? "\nThread: \"CrashWorker\", did_join=#, ready_to_run, token=0x%\n"
                           : "\nThread: \"MainThread\", did_join=1, ready_to_run, "
                             "main_thread, token=0x%\n"));
}

INSTANTIATE_TEST_SUITE_P(CrashReport, FatalSignal,
                         ::testing::Combine(::testing::ValuesIn(kDeaths), ::testing::Bool()),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).scenario) +
                                    (std::get<1>(info.param) ? "_OnWorker" : "_OnMainThread");
                         });

TEST(CrashReport, FaultingFrameResolvesWithAddr2line) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"segv"});
    ASSERT_EQ(c.signal, SIGSEGV);
    const std::string trace = backtraceOf(c.report);
    ASSERT_TRUE(containsPattern(trace, "] crash_victim_segv + #/# (crash_victim + 0x%)\n"))
        << trace;
    const std::string module = "(crash_victim + 0x";
    const size_t at = trace.find(module, trace.find("] crash_victim_segv + ")) + module.size();
    const std::string hex = trace.substr(at, trace.find(')', at) - at);
    const auto r =
        testsupport::runProcess({"/usr/bin/addr2line", "-f", "-e", CRASH_VICTIM_PATH, "0x" + hex});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_TRUE(r.out.starts_with("crash_victim_segv\n")) << r.out;
    EXPECT_NE(r.out.find("CrashVictim.cpp:"), std::string::npos) << r.out;
}

// ---------------------------------------------------------------- what ended the process

TEST(CrashReport, FailedAssertionInWorker) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"assert", "worker"});
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, SIGABRT);
    EXPECT_NE(c.err.find("Assertion `value == 42' failed.\n"), std::string::npos) << c.err;
    EXPECT_TRUE(
        containsPattern(c.report,
                        "\nassertion_failure=\"value == 42\" assertion_function=\"void "
                        "crash_victim_assert(int)\" assertion_file=\"*/CrashVictim.cpp:#\"\n"))
        << c.report.substr(0, 3000);
    EXPECT_NE(backtraceOf(c.report).find("crash_victim_assert + "), std::string::npos);
}

TEST(CrashReport, UncaughtExceptionInWorker) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"exception", "worker"});
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, SIGABRT);
    EXPECT_NE(c.err.find("terminate called after throwing an instance of 'std::runtime_error'\n"
                         "  what():  boom in the worker\n"),
              std::string::npos)
        << c.err;
    EXPECT_TRUE(containsPattern(c.report,
                                " C++ exception:\n  exception_addr=0x%\n"
                                "  typeinfo=0x%, name=std::runtime_error\n"
                                "  what(): boom in the worker\n"))
        << c.report.substr(0, 3000);
    // The exception is reported from where it was thrown.
    EXPECT_NE(backtraceOf(c.report).find("crash_victim_throw + "), std::string::npos);
    EXPECT_NE(c.report.find(" Crashing thread: CrashWorker\n"), std::string::npos);
}

TEST(CrashReport, FatalLockErrorInWorkerNamesTheReasonOnTheThreadLine) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"lock-error", "worker"});
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, SIGABRT);
    EXPECT_NE(c.err.find("Fatal thread error: MutexByte::assertIsLockedAndHasSleepersFailed(): "
                         "Success; 2 threads active, in CrashWorker\n"),
              std::string::npos)
        << c.err;
    EXPECT_TRUE(containsPattern(
        c.report,
        "\nDying on fatal thread error 0 from MutexByte::assertIsLockedAndHasSleepersFailed(), "
        "thread CrashWorker\nThread: \"CrashWorker\", did_join=#"))
        << between(c.report, "Runtime:", "x86 CPUID");
    EXPECT_NE(backtraceOf(c.report).find("crash_victim_lock_error + "), std::string::npos);
}

TEST(CrashReport, StackOverflowInWorkerIsReported) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"stack-overflow", "worker"});
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, SIGSEGV);
    ASSERT_EQ(c.reports.size(), 1u);
    expectSectionsInOrder(c.report, true);
    EXPECT_NE(c.report.find(" Crashing thread: CrashWorker\n"), std::string::npos);
    EXPECT_NE(backtraceOf(c.report).find("crash_victim_recurse + "), std::string::npos);
}

TEST(CrashReport, CLibraryAbortMessage) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"bad-free"});
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, SIGABRT);
    EXPECT_NE(c.report.find("\n Libc abort message: free(): invalid pointer\n"), std::string::npos)
        << c.report.substr(0, 3000);
}

TEST(CrashReport, SignalSentByAnotherProcessNamesTheSenderAndStillKills) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"kill-segv", "worker"});
    expectNoAllocationInHandler(c);
    EXPECT_EQ(c.signal, SIGSEGV) << "a sent signal must not let the process carry on";
    EXPECT_NE(c.report.find(" Cause:\n   Signal sent by PID " + std::to_string(c.pid) +
                            " running under UID " + std::to_string(getuid()) + ".\n"),
              std::string::npos);
    EXPECT_EQ(c.report.find(" at address ["), std::string::npos);
}

TEST(CrashReport, StandardErrorTailOnAbort) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"stderr-tail"});
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, SIGABRT);
    const std::string tail = between(
        c.report,
        " Last few lines of stderr (may contain info on assertion failure, but also could be "
        "old):\n",
        "\n\n");
    ASSERT_FALSE(tail.empty()) << c.report.substr(0, 4000);
    // The whole lines that begin within the file's last 800 bytes, indented,
    // CR dropped and tab made a blank.
    const std::string written = testsupport::readFile(dir / "stderr.txt");
    ASSERT_GT(written.size(), 800u);
    std::string expected;
    std::istringstream lines(written.substr(written.find('\n', written.size() - 800) + 1));
    std::string line;
    while (std::getline(lines, line)) {
        line.erase(line.find('\r'));
        line[line.find('\t')] = ' ';
        expected += "    " + line + "\n";
    }
    EXPECT_EQ(tail.substr(tail.find('\n') + 1) + "\n", expected);
    EXPECT_TRUE(expected.ends_with("    stderr line 100 (tab)\n"));
}

TEST(CrashReport, ToStandardError) {
    ScratchDir dir;
    std::vector<std::string> none;
    // "-" in place of a directory: the victim takes standard error.
    const std::string errPath = dir / "victim.err";
    const Crash c = [&] {
        Crash r;
        r.pid = fork();
        if (r.pid == 0) {
            const int fd = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(fd, STDERR_FILENO);
            execl(CRASH_VICTIM_PATH, CRASH_VICTIM_PATH, "-", "segv", nullptr);
            _exit(127);
        }
        int status = 0;
        waitpid(r.pid, &status, 0);
        r.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        r.err = testsupport::readFile(errPath);
        return r;
    }();
    EXPECT_EQ(c.signal, SIGSEGV);
    expectSectionsInOrder(c.err, true);
}

// ---------------------------------------------------------------- notations

TEST(CrashReport, NotationsOfTheCrashingThreadOnlyInnermostLast) {
    for (const char* who : {"A", "B", "main"}) {
        SCOPED_TRACE(who);
        ScratchDir dir;
        const Crash c = runVictim(dir, {std::string("notations-") + who});
        expectNoAllocationInHandler(c);
        ASSERT_EQ(c.signal, SIGSEGV);
        const std::string me = who;
        const std::string threadLine =
            me == "main" ? "Thread: \"MainThread\"" : "Thread: \"Notations" + me + "\"";
        const std::string expected =
            "global notation of pid " + std::to_string(c.pid) + "\n" + threadLine;
        const size_t start = c.report.find(expected);
        ASSERT_NE(start, std::string::npos) << between(c.report, "Runtime:", "x86 CPUID");
        const size_t outer = c.report.find("\nnotation " + me + " depth 1\n", start);
        const size_t inner = c.report.find("\nnotation " + me + " depth 2\n", start);
        ASSERT_NE(outer, std::string::npos);
        ASSERT_NE(inner, std::string::npos);
        EXPECT_LT(outer, inner);
        for (const char* other : {"A", "B", "main"}) {
            if (me != other) {
                EXPECT_EQ(c.report.find("notation " + std::string(other) + " depth"),
                          std::string::npos);
            }
        }
    }
}

// ---------------------------------------------------------------- reports that go wrong

TEST(CrashReport, AllocationGuardOfTheVictimBites) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"malloc-in-handler"});
#if defined(__SANITIZE_THREAD__)
    // ThreadSanitizer's own check of signal-unsafe calls comes first.
    EXPECT_NE(c.exitCode, 0);
    EXPECT_NE(c.err.find("ThreadSanitizer: signal-unsafe call inside of a signal"),
              std::string::npos)
        << c.err;
#else
    EXPECT_EQ(c.exitCode, kGuardTripped);
    EXPECT_NE(c.err.find("crash_victim: malloc called inside the crash handler"), std::string::npos)
        << c.err;
#endif
}

TEST(CrashReport, OverlongReportIsCutWithOneLine) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"overflow"});
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, SIGSEGV);
    static const std::string kCut =
        "Crash log has overflowed the allowed limit (512kB), truncated.\n";
    EXPECT_TRUE(c.report.ends_with(kCut)) << c.report.substr(c.report.size() - 200);
    EXPECT_LE(c.report.size(), 524287 + kCut.size());
    EXPECT_GT(c.report.size(), 524287 - 1000);
}

TEST(CrashReport, NotationThatNeverStopsEndsTheProcessAfterThreeSeconds) {
    ScratchDir dir;
    const auto start = std::chrono::steady_clock::now();
    const Crash c = runVictim(dir, {"loop"});
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    expectNoAllocationInHandler(c);
    EXPECT_EQ(c.exitCode, 87);
    EXPECT_GE(seconds, 3.0);
    EXPECT_TRUE(c.report.ends_with(
        "Crash log has overflowed the allowed limit (512kB), truncated.\n"
        "Crash log writes still attempted after 3 seconds, maybe something is looping?\n"));
}

TEST(CrashReport, FaultInsideTheHandlerEndsTheProcessWithWhatWasWritten) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"fault-in-handler"});
    EXPECT_EQ(c.signal, SIGSEGV);
    ASSERT_EQ(c.reports.size(), 1u);
    EXPECT_TRUE(c.report.ends_with("about to fault in a notation"))
        << c.report.substr(c.report.size() - 200);
    EXPECT_NE(c.report.find("Runtime: "), std::string::npos);
}

TEST(CrashReport, OutOfFileDescriptorsGivesUpStandardInput) {
    ScratchDir dir;
    const Crash c = runVictim(dir, {"emfile"});
    expectNoAllocationInHandler(c);
    ASSERT_EQ(c.signal, SIGSEGV);
    ASSERT_EQ(c.reports.size(), 1u);
    EXPECT_TRUE(c.report.starts_with("(Out of file descriptors!)\n[build "))
        << c.report.substr(0, 200);
    // The report took descriptor 0; the listing ends with the count.
    EXPECT_NE(
        c.report.find("\nFile descriptors open:\n0: " + dir.path() + "/" + c.reports[0] + "\n"),
        std::string::npos)
        << c.report.substr(0, 600);
    ASSERT_TRUE(containsPattern(c.report, "\n(Total #)\nReceived fatal signal"));
    EXPECT_GE(std::stoi(c.report.substr(c.report.find("\n(Total ") + 8)), 60);
}

TEST(CrashReport, ExistingReportOfTheSameSecondMeansNoReport) {
    ScratchDir dir;
    const time_t now = time(nullptr);
    std::vector<std::string> taken;
    for (time_t t = now - 1; t <= now + 20; ++t) {
        struct tm local;
        localtime_r(&t, &local);
        char name[64];
        strftime(name, sizeof name, "crash-%Y-%m-%d-%H:%M:%S.log", &local);
        std::ofstream(dir / name).flush();
        taken.push_back(name);
    }
    const Crash c = runVictim(dir, {"segv"});
    EXPECT_EQ(c.signal, SIGSEGV);
    EXPECT_EQ(c.reports.size(), taken.size());
    for (const auto& name : taken) EXPECT_EQ(testsupport::readFile(dir / name), "") << name;
}

TEST(CrashReport, WaitsOnCrashOnlyWhenAskedWithExactlyOne) {
    {
        ScratchDir dir;
        const Crash c = runVictim(dir, {"segv"}, {"TARVEX_WAIT_ON_CRASH=yes"});
        EXPECT_EQ(c.signal, SIGSEGV);
    }
    ScratchDir dir;
    bool sawWaiting = false;
    std::chrono::steady_clock::time_point finished{};
    const Crash c = runVictim(dir, {"segv"}, {"TARVEX_WAIT_ON_CRASH=1"}, [&](pid_t) {
        const auto reports = reportsIn(dir.path());
        if (reports.size() != 1) return true;
        if (!testsupport::readFile(dir / reports[0]).ends_with("terminating...\n")) return true;
        const auto now = std::chrono::steady_clock::now();
        if (finished == std::chrono::steady_clock::time_point{}) finished = now;
        // Still alive well after its report ended: it is waiting.
        if (now - finished < std::chrono::milliseconds(500)) return true;
        sawWaiting = true;
        return false;
    });
    EXPECT_TRUE(sawWaiting);
    EXPECT_EQ(c.signal, SIGKILL);
}

}  // namespace
