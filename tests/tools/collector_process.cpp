// Child process handling and the loopback UDP client of the end-to-end tests.
#include "collector_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

extern char **environ;

namespace wiretest {

namespace {

int64_t NowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int Left(int64_t deadline) {
    const int64_t left = deadline - NowMs();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Starts args with its standard output and error on two pipes.
pid_t SpawnWithPipes(const std::vector<std::string> &args, int &outFd, int &errFd) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0) return -1;
    if (pipe2(err, O_CLOEXEC) != 0) {
        close(out[0]);
        close(out[1]);
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    std::vector<char *> argv;
    for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = -1;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    close(err[1]);
    outFd = out[0];
    errFd = err[0];
    return pid;
}

}  // namespace

std::vector<std::string> CollectorCommand() {
    std::vector<std::string> cmd;
    std::stringstream emulator(QV_COLLECTOR_EMULATOR);  // parts separated by '|'
    for (std::string part; std::getline(emulator, part, '|');) {
        if (!part.empty()) cmd.push_back(part);
    }
    cmd.push_back(QV_COLLECTOR_PATH);
    return cmd;
}

RunResult RunToEnd(const std::vector<std::string> &args, int timeoutMs) {
    CollectorProcess p;
    RunResult r;
    if (!p.Spawn(args)) return r;
    r.status = p.WaitExit(timeoutMs);
    while (auto line = p.NextLine(0)) r.out += *line + "\n";
    r.err = p.Stderr();
    return r;
}

CollectorProcess::~CollectorProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        Reap(5000);
    }
    if (outFd_ >= 0) close(outFd_);
    if (errFd_ >= 0) close(errFd_);
}

bool CollectorProcess::Spawn(const std::vector<std::string> &args) {
    pid_ = SpawnWithPipes(args, outFd_, errFd_);
    return pid_ > 0;
}

bool CollectorProcess::Start(const std::vector<std::string> &options) {
    // Bases below the usual ephemeral range, spread by process id so that parallel tests rarely meet.
    for (int attempt = 0; attempt < 8; ++attempt) {
        const unsigned slot = (static_cast<unsigned>(getpid()) * 7u + static_cast<unsigned>(attempt) * 409u) % 2400u;
        if (StartAt(static_cast<uint16_t>(20000u + slot * 5u), options)) return true;
        if (err_.find("cannot bind") == std::string::npos) return false;
        err_.clear();
        out_.clear();
    }
    return false;
}

bool CollectorProcess::StartAt(uint16_t base, const std::vector<std::string> &options) {
    base_ = base;
    std::vector<std::string> args = CollectorCommand();
    args.insert(args.end(), options.begin(), options.end());
    args.push_back("--base-port");
    args.push_back(std::to_string(base_));
    if (!Spawn(args)) return false;
    const int64_t deadline = NowMs() + 10000;
    while (err_.find("listening on") == std::string::npos && pid_ > 0 && Left(deadline) > 0) {
        if (!Pump(Left(deadline))) break;
    }
    if (err_.find("listening on") != std::string::npos) return true;
    kill(pid_, SIGKILL);
    Reap(5000);
    close(outFd_);
    close(errFd_);
    outFd_ = errFd_ = -1;
    return false;
}

bool CollectorProcess::Pump(int timeoutMs) {
    pollfd fds[2] = {{outFd_, POLLIN, 0}, {errFd_, POLLIN, 0}};
    if (outFd_ < 0 && errFd_ < 0) return false;
    if (poll(fds, 2, timeoutMs) <= 0) return true;
    for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        char buf[4096];
        const ssize_t n = read(fds[i].fd, buf, sizeof buf);
        int &fd = i == 0 ? outFd_ : errFd_;
        if (n <= 0) {
            close(fd);
            fd = -1;
            continue;
        }
        (i == 0 ? out_ : err_).append(buf, static_cast<size_t>(n));
    }
    return outFd_ >= 0 || errFd_ >= 0;
}

std::optional<std::string> CollectorProcess::NextLine(int timeoutMs) {
    const int64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        const size_t nl = out_.find('\n');
        if (nl != std::string::npos) {
            std::string line = out_.substr(0, nl);
            out_.erase(0, nl + 1);
            return line;
        }
        if (!Pump(Left(deadline)) || Left(deadline) == 0) {
            if (out_.find('\n') == std::string::npos) return std::nullopt;
        }
    }
}

std::vector<std::string> CollectorProcess::Lines(size_t count, int timeoutMs) {
    const int64_t deadline = NowMs() + timeoutMs;
    std::vector<std::string> lines;
    while (lines.size() < count) {
        auto line = NextLine(Left(deadline));
        if (!line) break;
        lines.push_back(*line);
    }
    return lines;
}

void CollectorProcess::Reap(int timeoutMs) {
    const int64_t deadline = NowMs() + timeoutMs;
    while (pid_ > 0) {
        int st = 0;
        const pid_t r = waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
            pid_ = -1;
            return;
        }
        if (r < 0 || Left(deadline) == 0) return;
        if (!Pump(10)) usleep(10000);  // keep the pipes flowing while waiting
    }
}

int CollectorProcess::WaitExit(int timeoutMs) {
    Reap(timeoutMs);
    if (pid_ > 0) return -1;
    while (Pump(0)) {
    }
    return status_;
}

int CollectorProcess::Stop(int sig, int timeoutMs) {
    if (pid_ > 0) kill(pid_, sig);
    return WaitExit(timeoutMs);
}

const std::string &CollectorProcess::Stderr() {
    while (errFd_ >= 0) {
        pollfd f{errFd_, POLLIN, 0};
        if (poll(&f, 1, 0) <= 0) break;
        Pump(0);
    }
    return err_;
}

UdpClient::UdpClient() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return;
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    if (bind(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&sa), &len) != 0) {
        close(fd_);
        fd_ = -1;
        return;
    }
    port_ = ntohs(sa.sin_port);
}

UdpClient::~UdpClient() {
    if (fd_ >= 0) close(fd_);
}

void UdpClient::Send(uint16_t port, const Bytes &d) {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(fd_, d.data(), d.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
}

std::optional<UdpClient::Reply> UdpClient::Receive(int timeoutMs) {
    pollfd f{fd_, POLLIN, 0};
    if (poll(&f, 1, timeoutMs) <= 0) return std::nullopt;
    Bytes buf(65536);
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n = recvfrom(fd_, buf.data(), buf.size(), 0, reinterpret_cast<sockaddr *>(&from), &len);
    if (n < 0) return std::nullopt;
    buf.resize(static_cast<size_t>(n));
    return Reply{buf, ntohs(from.sin_port)};
}

}  // namespace wiretest
