#include "support/TestSupport.h"

#include <fcntl.h>
#include <ftw.h>
#include <grp.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#ifndef TARVEX_TEST_SCRATCH
#error "TARVEX_TEST_SCRATCH must name the scratch root"
#endif

extern char** environ;

namespace testsupport {

ScratchDir::ScratchDir() {
    mkdir(TARVEX_TEST_SCRATCH, 0777);
    std::string templ = std::string(TARVEX_TEST_SCRATCH) + "/t.XXXXXX";
    if (mkdtemp(templ.data()) == nullptr) {
        throw std::runtime_error("mkdtemp under " TARVEX_TEST_SCRATCH " failed");
    }
    // Children that drop privileges must be able to work in here.
    chmod(templ.c_str(), 0777);
    _path = templ;
}

ScratchDir::~ScratchDir() { removeTree(_path); }

bool removeTree(const std::string& path) {
    auto remove = [](const char* p, const struct stat*, int, struct FTW*) -> int {
        ::remove(p);
        return 0;
    };
    nftw(path.c_str(), remove, 16, FTW_DEPTH | FTW_PHYS);
    return access(path.c_str(), F_OK) != 0;
}

int inChild(const std::function<int()>& body) {
    pid_t pid = fork();
    if (pid < 0) return -1;
    if (pid == 0) {
        int rc = 127;
        try {
            rc = body();
        } catch (...) {}
        _exit(rc);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int inChildAs(uid_t uid, gid_t gid, const std::function<int()>& body) {
    return inChild([&] {
        if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 ||
            setresuid(uid, uid, uid) != 0) {
            return 126;
        }
        return body();
    });
}

ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::vector<std::string>& extraEnv) {
    ProcessResult result;
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) return result;

    // The extra entries replace inherited ones of the same name: getenv()
    // would find whichever comes first.
    auto nameOf = [](const std::string& e) { return e.substr(0, e.find('=')); };
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    for (const std::string& extra : extraEnv) {
        std::erase_if(env, [&](const std::string& e) { return nameOf(e) == nameOf(extra); });
        env.push_back(extra);
    }
    std::vector<char*> cargv, cenv;
    for (const std::string& a : argv) cargv.push_back(const_cast<char*>(a.c_str()));
    cargv.push_back(nullptr);
    for (const std::string& e : env) cenv.push_back(const_cast<char*>(e.c_str()));
    cenv.push_back(nullptr);

    const auto start = std::chrono::steady_clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        execve(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);

    struct pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0) {
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return result;
}

bool waitUntil(const std::function<bool()>& condition, double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::vector<std::vector<std::string>> dataRows(const std::string& name) {
    const std::string path = TARVEX_SOURCE_DIR "/tests/data/" + name;
    std::istringstream in(readFile(path));
    std::vector<std::vector<std::string>> out;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        auto& row = out.emplace_back(1);
        for (size_t i = 0; i < line.size(); ++i) {
            char c = line[i];
            if (c == '|') {
                row.emplace_back();
                continue;
            }
            if (c == '\\' && ++i < line.size()) {
                c = line[i];
                if (c == 'r' || c == 'n' || c == 't') c = c == 'r' ? '\r' : c == 'n' ? '\n' : '\t';
                if (c == 'x') c = char(std::stoi(line.substr(i + 1, 2), nullptr, 16)), i += 2;
            }
            row.back() += c;
        }
    }
    if (out.empty()) throw std::runtime_error("no rows in " + path);
    return out;
}

void writeFile(const std::string& path, const std::string& contents) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << contents;
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace testsupport
