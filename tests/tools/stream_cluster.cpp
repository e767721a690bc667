// Child processes and the nats-server cluster of the stream tests.
#include "stream_cluster.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

namespace streamtest {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kPollStep = std::chrono::milliseconds(20);
constexpr uint16_t kRouteOffset = 100;  // a node's cluster port lies this far above its client port
constexpr int kKillWaitMs = 5000;

int OpenFile(const std::string &path) { return open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644); }

}  // namespace

Child::~Child() {
    if (pid_ > 0) Stop(SIGKILL, kKillWaitMs);
}

Child::Child(Child &&other) noexcept : pid_(other.pid_) { other.pid_ = -1; }

bool Child::Start(const std::vector<std::string> &argv, const std::string &outFile, const std::string &errFile) {
    const int out = OpenFile(outFile);
    const int err = OpenFile(errFile);
    if (out < 0 || err < 0) return false;
    std::vector<char *> args;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    args.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        execvp(args[0], args.data());
        _exit(127);
    }
    close(out);
    close(err);
    return pid_ > 0;
}

void Child::Signal(int sig) const {
    if (pid_ > 0) kill(pid_, sig);
}

int Child::Stop(int sig, int timeoutMs) {
    if (pid_ <= 0) return -1;
    kill(pid_, sig);
    int status = 0;
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (waitpid(pid_, &status, WNOHANG) == 0) {
        if (Clock::now() > end) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            pid_ = -1;
            return -1;
        }
        std::this_thread::sleep_for(kPollStep);
    }
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool WaitListening(uint16_t port, int timeoutMs) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < end) {
        const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(port);
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const bool up = connect(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) == 0;
        close(fd);
        if (up) return true;
        std::this_thread::sleep_for(kPollStep);
    }
    return false;
}

std::string ReadFile(const std::string &path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string HttpGet(uint16_t port, const std::string &path, const std::string &accept) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string response;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&sa), sizeof sa) == 0) {
        std::string request = "GET " + path + " HTTP/1.0\r\n";
        if (!accept.empty()) request += "Accept: " + accept + "\r\n";
        request += "\r\n";
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
            char buf[4096];
            for (ssize_t n; (n = recv(fd, buf, sizeof buf, 0)) > 0;) response.append(buf, static_cast<size_t>(n));
        }
    }
    close(fd);
    return response;
}

Cluster::Cluster(std::string dir, uint16_t base, int nodes) : dir_(std::move(dir)), base_(base) {
    mkdir(dir_.c_str(), 0755);
    nodes_.resize(static_cast<size_t>(nodes));
}

bool Cluster::Start(int node, int timeoutMs) {
    const auto port = static_cast<uint16_t>(base_ + node);
    char nameText[16];  // formatted: gcc 12 at -O3 warns falsely about "n" + std::to_string(node)
    std::snprintf(nameText, sizeof nameText, "n%d", node);
    const std::string name = nameText;
    std::vector<std::string> argv = {"nats-server", "-js", "-a", "127.0.0.1", "-p", std::to_string(port),
                                     "--server_name", name, "-sd", dir_ + "/" + name};
    if (nodes_.size() > 1) {
        std::string routes;
        for (size_t i = 0; i < nodes_.size(); ++i) {
            routes += (i ? "," : "") + std::string("nats://127.0.0.1:") + std::to_string(base_ + kRouteOffset + i);
        }
        argv.insert(argv.end(), {"--cluster_name", "qv", "--cluster",
                                 "nats://127.0.0.1:" + std::to_string(port + kRouteOffset), "--routes", routes});
    }
    const std::string log = dir_ + "/" + name + ".log";
    return nodes_[static_cast<size_t>(node)].Start(argv, log, log) && WaitListening(port, timeoutMs);
}

bool Cluster::StartAll(int timeoutMs) {
    for (size_t i = 0; i < nodes_.size(); ++i) {
        if (!Start(static_cast<int>(i), timeoutMs)) return false;
    }
    return true;
}

void Cluster::Kill(int node) { nodes_[static_cast<size_t>(node)].Stop(SIGKILL, kKillWaitMs); }

std::string Cluster::Urls() const {
    std::string urls;
    for (size_t i = 0; i < nodes_.size(); ++i) {
        urls += (i ? "," : "") + std::string("nats://127.0.0.1:") + std::to_string(base_ + i);
    }
    return urls;
}

}  // namespace streamtest
