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
#include <optional>
#include <unordered_map>
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

// How long the collector waits at its end for the answers of what it handed to the store.
constexpr int kSettleMs = 2000;

// What was handed to the store and waits for its answer: for a numbered datagram, the
// acknowledgement to send once the answer is positive.
struct Waiting {
    Kind kind = Kind::Log;
    std::optional<Held> held;
    size_t port = 0;
    sockaddr_in to{};
    std::vector<uint8_t> ack;
};

class StoreGate {
public:
    StoreGate(Collector &collector, RecordStore *store, const Sockets &sockets)
        : collector_(collector), store_(store), sockets_(sockets) {}

    // The datagram's acknowledgement (if any) goes out now, or once the store has its records.
    void Route(Outcome &out, size_t port, const sockaddr_in &from) {
        if (out.store) {
            const uint64_t token = next_++;
            const Kind kind = out.store->kind;
            collector_.Publishing(kind);
            waiting_[token] = Waiting{kind, out.held, port, from, std::move(out.ack)};
            if (!store_->Publish(*out.store, token)) {
                waiting_.erase(token);
                collector_.PublishDone(kind, false, false);
            }
            return;
        }
        if (out.held && !collector_.Release(*out.held)) return;
        SendAck(port, from, out.ack);
    }

    // Takes the store's answers and sends what they release.
    void Answers() {
        answers_.clear();
        store_->TakeAnswers(answers_);
        for (const RecordStore::Answer &a : answers_) {
            const auto it = waiting_.find(a.token);
            if (it == waiting_.end()) continue;
            Waiting &w = it->second;
            collector_.PublishDone(w.kind, a.stored, a.duplicate);
            if (a.stored && w.held && collector_.Release(*w.held)) SendAck(w.port, w.to, w.ack);
            waiting_.erase(it);
        }
    }

private:
    void SendAck(size_t port, const sockaddr_in &to, const std::vector<uint8_t> &ack) const {
        if (ack.empty()) return;
        sendto(sockets_.fd[port], ack.data(), ack.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to),
               sizeof to);
    }

    Collector &collector_;
    RecordStore *store_;
    const Sockets &sockets_;
    uint64_t next_ = 1;
    std::unordered_map<uint64_t, Waiting> waiting_;
    std::vector<RecordStore::Answer> answers_;
};

}  // namespace

LoopEnd RunLoop(const Options &options, Collector &collector, RecordStore *store,
                const std::function<void()> &afterWake) {
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

    // The store's wake-up descriptor, when there is a store, is polled after the ports.
    std::array<pollfd, kPortCount + 1> pfd{};
    for (size_t i = 0; i < kPortCount; ++i) pfd[i] = {sockets.fd[i], POLLIN, 0};
    const size_t polled = store != nullptr ? kPortCount + 1 : kPortCount;
    if (store != nullptr) pfd[kPortCount] = {store->WakeFd(), POLLIN, 0};
    std::optional<StoreGate> gate;
    if (store != nullptr) gate.emplace(collector, store, sockets);
    std::vector<uint8_t> buf(QV_WIRE_SEND_BUFFER_LEN + 1);

    while (!collector.Done() && g_stopSignal == 0) {
        if (afterWake) afterWake();
        const int n = ppoll(pfd.data(), polled, nullptr, &waitMask);
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
                Outcome out = collector.Handle(static_cast<Port>(i), sender,
                                               qvdecode::Bytes(buf.data(), static_cast<size_t>(got)));
                if (gate) {
                    gate->Route(out, i, from);
                } else if (!out.ack.empty()) {
                    sendto(sockets.fd[i], out.ack.data(), out.ack.size(), MSG_DONTWAIT,
                           reinterpret_cast<const sockaddr *>(&from), fromLen);
                }
                WriteLines(out.lines);
            }
        }
        if (gate && (pfd[kPortCount].revents & POLLIN) != 0) gate->Answers();
    }
    if (gate) {
        // What is already handed over still gets its answer, and its datagram the acknowledgement.
        store->Settle(kSettleMs);
        gate->Answers();
    }
    if (afterWake) afterWake();
    end.signal = g_stopSignal;
    return end;
}

}  // namespace qvcollector
