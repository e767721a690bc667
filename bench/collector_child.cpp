// The collector child process: fork and exec with its output on two pipes, line reading, and a stop
// that always ends with the child reaped.
#include "collector_child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <sstream>

#ifndef QV_BENCH_COLLECTOR_PATH
#error "QV_BENCH_COLLECTOR_PATH names the qvcollector program"
#endif
#ifndef QV_BENCH_COLLECTOR_EMULATOR
#define QV_BENCH_COLLECTOR_EMULATOR ""
#endif

namespace qvbench {

namespace {

constexpr int kPipeBytes = 1 << 20;  // room for a burst of lines while the benchmark is busy reporting

int LeftMs(int64_t deadlineNs) {
    const int64_t left = deadlineNs - NowNs();
    if (left <= 0) return 0;
    return static_cast<int>((left + 999999) / 1000000);
}

// The command: the emulator's parts (joined by '|' in a cross build), then the collector.
std::vector<std::string> Command(const std::vector<std::string> &options) {
    std::vector<std::string> cmd;
    std::stringstream emulator(QV_BENCH_COLLECTOR_EMULATOR);
    for (std::string part; std::getline(emulator, part, '|');) {
        if (!part.empty()) cmd.push_back(part);
    }
    cmd.emplace_back(QV_BENCH_COLLECTOR_PATH);
    cmd.insert(cmd.end(), options.begin(), options.end());
    return cmd;
}

}  // namespace

int64_t NowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

CollectorChild::~CollectorChild() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        Reap(5000);
    }
    CloseFds();
}

void CollectorChild::CloseFds() {
    if (outFd_ >= 0) close(outFd_);
    if (errFd_ >= 0) close(errFd_);
    outFd_ = errFd_ = -1;
}

bool CollectorChild::Start(const std::vector<std::string> &options, int timeoutMs) {
    if (pid_ > 0) {
        error_ = "already running";
        return false;
    }
    out_.clear();
    err_.clear();
    error_.clear();
    status_ = -1;
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) {
        error_ = std::string("pipe: ") + std::strerror(errno);
        return false;
    }
    if (pipe2(err, O_CLOEXEC) != 0) {
        error_ = std::string("pipe: ") + std::strerror(errno);
        close(out[0]);
        close(out[1]);
        return false;
    }
    fcntl(out[0], F_SETPIPE_SZ, kPipeBytes);  // best effort

    // Everything the child needs is made before the fork: after it, only async-signal-safe calls.
    const std::vector<std::string> cmd = Command(options);
    std::vector<char *> argv;
    for (const std::string &a : cmd) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();

    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (dup2(out[1], STDOUT_FILENO) < 0 || dup2(err[1], STDERR_FILENO) < 0) _exit(127);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    outFd_ = out[0];
    errFd_ = err[0];
    if (pid < 0) {
        error_ = std::string("fork: ") + std::strerror(errno);
        CloseFds();
        return false;
    }
    pid_ = pid;

    const int64_t deadline = NowNs() + int64_t{timeoutMs} * 1000000;
    const LineFn keep = [](std::string_view, int64_t) {};
    while (err_.find("listening on") == std::string::npos) {
        if (LeftMs(deadline) == 0 || !ReadOnce(LeftMs(deadline), keep)) break;
    }
    if (err_.find("listening on") != std::string::npos) return true;
    error_ = "qvcollector did not start: " + err_;
    kill(pid_, SIGKILL);
    Reap(5000);
    CloseFds();
    return false;
}

void CollectorChild::DeliverLines(int64_t readNs, const LineFn &onLine) {
    size_t begin = 0;
    for (;;) {
        const void *nl = std::memchr(out_.data() + begin, '\n', out_.size() - begin);
        if (nl == nullptr) break;
        const size_t end = static_cast<size_t>(static_cast<const char *>(nl) - out_.data());
        onLine(std::string_view(out_.data() + begin, end - begin), readNs);
        begin = end + 1;
    }
    out_.erase(0, begin);
}

bool CollectorChild::ReadOnce(int timeoutMs, const LineFn &onLine) {
    pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    if (outFd_ < 0 && errFd_ < 0) return false;
    const int n = poll(fds, 2, timeoutMs);
    if (n < 0 && errno != EINTR) return false;
    if (n <= 0) return true;
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        int &fd = i == 0 ? outFd_ : errFd_;
        const ssize_t got = read(fd, chunk_.data(), chunk_.size());
        const int64_t readNs = NowNs();
        if (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN)) {
            close(fd);
            fd = -1;
            continue;
        }
        if (got < 0) continue;
        (i == 0 ? out_ : err_).append(chunk_.data(), static_cast<size_t>(got));
        if (i == 0) DeliverLines(readNs, onLine);
    }
    return outFd_ >= 0 || errFd_ >= 0;
}

bool CollectorChild::Pump(int timeoutMs, const LineFn &onLine) {
    if (outFd_ < 0) return false;
    ReadOnce(timeoutMs, onLine);
    return outFd_ >= 0;
}

bool CollectorChild::Reap(int timeoutMs) {
    const int64_t deadline = NowNs() + int64_t{timeoutMs} * 1000000;
    while (pid_ > 0) {
        int st = 0;
        const pid_t r = waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
            pid_ = -1;
            return true;
        }
        if (r < 0 && errno != EINTR) {
            pid_ = -1;
            return false;
        }
        if (LeftMs(deadline) == 0) return false;
        usleep(2000);
    }
    return true;
}

int CollectorChild::Stop(int timeoutMs, const LineFn &onLine) {
    if (pid_ <= 0) return status_;
    kill(pid_, SIGTERM);
    const int64_t deadline = NowNs() + int64_t{timeoutMs} * 1000000;
    while ((outFd_ >= 0 || errFd_ >= 0) && LeftMs(deadline) > 0) ReadOnce(LeftMs(deadline), onLine);
    if (!Reap(LeftMs(deadline))) {
        kill(pid_, SIGKILL);
        Reap(5000);
        status_ = -1;
    }
    if (!out_.empty()) {  // a last line without its newline
        onLine(out_, NowNs());
        out_.clear();
    }
    CloseFds();
    return status_;
}

double CollectorChild::CpuSeconds() const {
    if (pid_ <= 0) return -1;
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid_));
    FILE *f = std::fopen(path, "re");
    if (f == nullptr) return -1;
    char text[1024] = {};
    const size_t n = std::fread(text, 1, sizeof text - 1, f);
    std::fclose(f);
    // The fields after the command name, which is in parentheses and may hold spaces: state is the
    // first of them, user and system time the 12th and 13th.
    const char *after = std::strrchr(text, ')');
    if (n == 0 || after == nullptr) return -1;
    unsigned long long user = 0;
    unsigned long long system = 0;
    if (std::sscanf(after + 1, " %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &user, &system) != 2) {
        return -1;
    }
    return static_cast<double>(user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

bool JsonNumber(std::string_view line, std::string_view key, uint64_t &out) {
    std::string pattern;
    pattern.reserve(key.size() + 3);
    pattern += '"';
    pattern += key;
    pattern += "\":";
    const size_t at = line.find(pattern);
    if (at == std::string_view::npos) return false;
    const char *begin = line.data() + at + pattern.size();
    const char *end = line.data() + line.size();
    uint64_t v = 0;
    const auto [ptr, ec] = std::from_chars(begin, end, v);
    if (ec != std::errc() || ptr == begin) return false;
    out = v;
    return true;
}

bool ParseStatsLine(std::string_view line, std::string_view kind, CollectorKindStats &out) {
    if (line.find("\"event\":\"stats\"") == std::string_view::npos) return false;
    const std::string kindField = "\"kind\":\"" + std::string(kind) + "\"";
    if (line.find(kindField) == std::string_view::npos) return false;
    CollectorKindStats s;
    const bool ok = JsonNumber(line, "datagrams", s.datagrams) && JsonNumber(line, "records", s.records) &&
                    JsonNumber(line, "duplicates", s.duplicates) && JsonNumber(line, "gaps", s.gaps) &&
                    JsonNumber(line, "missing", s.missing) && JsonNumber(line, "errors", s.errors);
    if (ok) out = s;
    return ok;
}

bool IsHighPrecisionRecord(std::string_view line) {
    return line.starts_with("{\"kind\":\"hplog\"") && line.find("\"record\":\"log\"") != std::string_view::npos;
}

}  // namespace qvbench
