// Sockets, signals and the receive loop.
#include "socket_loop.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "qvagent/qv_agent_wire.h"

namespace qvcollector {

namespace {

volatile sig_atomic_t g_stopSignal = 0;

void OnStopSignal(int sig) { g_stopSignal = sig; }

// Each socket closed when the loop ends, whichever way.
struct Sockets {
    std::array<int, kPortCount> fd;
    Sockets() { fd.fill(-1); }
    ~Sockets() {
        for (const int f : fd) {
            if (f >= 0) close(f);
        }
    }
    Sockets(const Sockets &) = delete;
    Sockets &operator=(const Sockets &) = delete;
};

std::string BindAll(const Options &o, Sockets &s) {
    in_addr addr{};
    if (inet_pton(AF_INET, o.bind.c_str(), &addr) != 1) return "bad address " + o.bind;
    for (size_t i = 0; i < kPortCount; ++i) {
        const unsigned port = o.basePort + static_cast<unsigned>(i);
        s.fd[i] = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (s.fd[i] < 0) return std::string("socket: ") + std::strerror(errno);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        sa.sin_addr = addr;
        if (bind(s.fd[i], reinterpret_cast<const sockaddr *>(&sa), sizeof sa) != 0) {
            return "cannot bind " + o.bind + ":" + std::to_string(port) + ": " + std::strerror(errno);
        }
    }
    return {};
}

void WriteLines(const std::vector<std::string> &lines) {
    for (const std::string &line : lines) {
        std::fwrite(line.data(), 1, line.size(), stdout);
        std::fputc('\n', stdout);
    }
    std::fflush(stdout);
}

}  // namespace

LoopEnd RunLoop(const Options &options, Collector &collector) {
    LoopEnd end;
    Sockets sockets;
    end.error = BindAll(options, sockets);
    if (!end.error.empty()) return end;
    end.bound = true;

    // The stop signals stay blocked except while waiting, so none is lost between two waits.
    sigset_t stopSet;
    sigset_t waitMask;
    sigemptyset(&stopSet);
    sigaddset(&stopSet, SIGINT);
    sigaddset(&stopSet, SIGTERM);
    sigprocmask(SIG_BLOCK, &stopSet, &waitMask);
    sigdelset(&waitMask, SIGINT);
    sigdelset(&waitMask, SIGTERM);
    struct sigaction sa {};
    sa.sa_handler = OnStopSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    std::fprintf(stderr, "qvcollector: listening on %s, ports %u-%u\n", options.bind.c_str(), options.basePort,
                 options.basePort + static_cast<unsigned>(kPortCount - 1));
    std::fflush(stderr);

    std::array<pollfd, kPortCount> pfd{};
    for (size_t i = 0; i < kPortCount; ++i) pfd[i] = {sockets.fd[i], POLLIN, 0};
    std::vector<uint8_t> buf(QV_WIRE_SEND_BUFFER_LEN + 1);

    while (!collector.Done() && g_stopSignal == 0) {
        const int n = ppoll(pfd.data(), pfd.size(), nullptr, &waitMask);
        if (n < 0) {
            if (errno == EINTR) continue;
            end.error = std::string("ppoll: ") + std::strerror(errno);
            break;
        }
        for (size_t i = 0; i < kPortCount && !collector.Done(); ++i) {
            if ((pfd[i].revents & (POLLIN | POLLERR)) == 0) continue;
            // A bounded number per wake-up, so that one busy port cannot starve the others.
            for (int k = 0; k < 64 && !collector.Done(); ++k) {
                sockaddr_in from{};
                socklen_t fromLen = sizeof from;
                const ssize_t got = recvfrom(sockets.fd[i], buf.data(), buf.size(), 0,
                                             reinterpret_cast<sockaddr *>(&from), &fromLen);
                if (got < 0) {
                    if (errno == EAGAIN || errno == EWOULDBLOCK) break;  // drained
                    continue;  // a reported socket error is consumed by this read; go on reading
                }
                const Sender sender{ntohl(from.sin_addr.s_addr), ntohs(from.sin_port)};
                const Outcome out = collector.Handle(static_cast<Port>(i), sender,
                                                     qvdecode::Bytes(buf.data(), static_cast<size_t>(got)));
                if (!out.ack.empty()) {
                    sendto(sockets.fd[i], out.ack.data(), out.ack.size(), MSG_DONTWAIT,
                           reinterpret_cast<const sockaddr *>(&from), fromLen);
                }
                WriteLines(out.lines);
            }
        }
    }
    end.signal = g_stopSignal;
    return end;
}

}  // namespace qvcollector
