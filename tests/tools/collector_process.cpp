// Child process handling of the end-to-end tests.
#include "collector_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>

extern char **environ;

namespace wiretest {

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point After(int ms) { return Clock::now() + std::chrono::milliseconds(ms); }

int Left(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

}  // namespace

CollectorProcess::~CollectorProcess() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    WaitExit(5000);
    for (const int fd : fd_) {
        if (fd >= 0) close(fd);
    }
}

bool CollectorProcess::Spawn(const std::vector<std::string> &args) { return SpawnProgram(QV_COLLECTOR_PATH, args); }

bool CollectorProcess::SpawnProgram(const std::string &path, const std::vector<std::string> &args) {
    int pipes[2][2];  // standard output, standard error
    if (pipe2(pipes[0], O_CLOEXEC) != 0 || pipe2(pipes[1], O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (int i = 0; i < 2; ++i) posix_spawn_file_actions_adddup2(&actions, pipes[i][1], STDOUT_FILENO + i);
    std::vector<std::string> command;
    std::stringstream emulator(QV_COLLECTOR_EMULATOR);  // parts separated by '|'
    for (std::string part; std::getline(emulator, part, '|');) {
        if (!part.empty()) command.push_back(part);
    }
    command.push_back(path);
    command.insert(command.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : command) argv.push_back(a.data());
    argv.push_back(nullptr);
    if (posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    for (int i = 0; i < 2; ++i) {
        close(pipes[i][1]);
        fd_[static_cast<size_t>(i)] = pipes[i][0];
    }
    return pid_ > 0;
}

bool CollectorProcess::StartAt(uint16_t base, const std::vector<std::string> &options) {
    std::vector<std::string> args = options;
    args.insert(args.end(), {"--base-port", std::to_string(base)});
    const auto deadline = After(10000);
    if (!Spawn(args)) return false;
    while (text_[1].find("listening on") == std::string::npos) {
        if (Left(deadline) == 0 || !Pump(Left(deadline))) return false;
    }
    return true;
}

bool CollectorProcess::Pump(int timeoutMs) {
    if (fd_[0] < 0 && fd_[1] < 0) return false;
    pollfd fds[2] = {{fd_[0], POLLIN, 0}, {fd_[1], POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) <= 0) return true;
    for (size_t i = 0; i < 2; ++i) {
        if (fds[i].revents == 0) continue;
        char buf[4096];
        const ssize_t n = read(fd_[i], buf, sizeof buf);
        if (n > 0) {
            text_[i].append(buf, static_cast<size_t>(n));
        } else {
            close(fd_[i]);
            fd_[i] = -1;
        }
    }
    return true;
}

std::optional<std::string> CollectorProcess::NextLine(int timeoutMs) {
    const auto deadline = After(timeoutMs);
    for (;;) {
        const size_t nl = text_[0].find('\n');
        if (nl != std::string::npos) {
            std::string line = text_[0].substr(0, nl);
            text_[0].erase(0, nl + 1);
            return line;
        }
        const bool open = Pump(Left(deadline));
        if (text_[0].find('\n') == std::string::npos && (!open || Left(deadline) == 0)) return std::nullopt;
    }
}

bool CollectorProcess::ReadLines(int timeoutMs, const std::function<bool(const std::string &)> &take) {
    const auto deadline = After(timeoutMs);
    while (auto line = NextLine(Left(deadline))) {
        if (take(*line)) return true;
    }
    return false;
}

int CollectorProcess::WaitExit(int timeoutMs) {
    const auto deadline = After(timeoutMs);
    while (pid_ > 0) {
        int st = 0;
        const pid_t r = waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
            pid_ = -1;
        } else if (r < 0 || Left(deadline) == 0) {
            return -1;
        } else if (!Pump(10)) {
            usleep(10000);  // the pipes are closed: nothing to keep flowing while waiting
        }
    }
    while (Pump(0)) {
    }
    return status_;
}

int CollectorProcess::Stop(int sig, int timeoutMs) {
    if (pid_ > 0) kill(pid_, sig);
    return WaitExit(timeoutMs);
}

std::string Field(const std::string &line, const std::string &key, size_t from) {
    const std::string tag = "\"" + key + "\":";
    const size_t at = from == std::string::npos ? from : line.find(tag, from);
    if (at == std::string::npos) return {};
    const size_t begin = at + tag.size();
    if (begin < line.size() && line[begin] == '"') return line.substr(begin + 1, line.find('"', begin + 1) - begin - 1);
    return line.substr(begin, line.find_first_of(",}]", begin) - begin);
}

}  // namespace wiretest
