// A small in-process collector for tests.
#include "udp_collector.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "qvagent/qv_agent_wire.h"

namespace qvtest {

std::vector<uint8_t> AcknowledgementOf(const std::vector<uint8_t> &d, uint16_t port) {
    const bool fromLogPort = port == QV_WIRE_PORT_LOG;
    std::vector<uint8_t> ack(fromLogPort ? QV_WIRE_ACK_MIN_LEN_LOG_PORT : QV_WIRE_ACK_MIN_LEN, 0);
    ack[1] = static_cast<uint8_t>(ack.size());
    ack[QV_WIRE_HEAD_FLAGS_OFF] = QV_WIRE_FLAG_ACK;
    ack[QV_WIRE_HEAD_MSG_TYPE_OFF] = QV_WIRE_MSG_NUMBERED;
    for (int i = 0; i < 4 && d.size() >= 8; ++i) ack[4 + i] = d[4 + i];
    if (fromLogPort && d.size() >= 10) {
        ack[8] = d[8];
        ack[9] = d[9];
    }
    return ack;
}

namespace {
constexpr int kReceiveBuffer = 4 << 20;
}  // namespace

UdpCollector::UdpCollector(std::vector<uint16_t> ports, bool acknowledge)
    : ports_(std::move(ports)), acknowledge_(acknowledge) {
    ok_ = true;
    for (uint16_t port : ports_) {
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_port = htons(port);
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        // Room for a burst of datagrams sent back to back (a KPI send of a full list is 14 packets of
        // 8 KiB) while the receiving thread is not scheduled; beyond the system's cap where allowed.
        const int room = kReceiveBuffer;
        if (fd >= 0 && ::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room) != 0) {
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        }
        if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) ok_ = false;
        fds_.push_back(fd);
    }
    if (ok_) thread_ = std::thread([this] { Run(); });
}

UdpCollector::~UdpCollector() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    for (int fd : fds_) {
        if (fd >= 0) ::close(fd);
    }
}

void UdpCollector::Run() {
    std::vector<pollfd> polls;
    for (int fd : fds_) polls.push_back(pollfd{fd, POLLIN, 0});
    std::vector<uint8_t> buffer(QV_WIRE_SEND_BUFFER_LEN);
    while (!stop_) {
        if (::poll(polls.data(), polls.size(), 20) <= 0) continue;
        for (size_t i = 0; i < polls.size(); ++i) {
            if ((polls[i].revents & POLLIN) == 0) continue;
            sockaddr_in from{};
            socklen_t fromLen = sizeof from;
            const ssize_t n = ::recvfrom(fds_[i], buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr *>(&from), &fromLen);
            if (n <= 0) continue;
            Datagram d{ports_[i], std::vector<uint8_t>(buffer.begin(), buffer.begin() + n)};
            if (acknowledge_ && d.bytes.size() >= 8 && d.bytes[QV_WIRE_HEAD_MSG_TYPE_OFF] == QV_WIRE_MSG_NUMBERED) {
                const std::vector<uint8_t> ack = AcknowledgementOf(d.bytes, d.port);
                ::sendto(fds_[i], ack.data(), ack.size(), 0, reinterpret_cast<sockaddr *>(&from), fromLen);
            }
            std::lock_guard<std::mutex> lock(mutex_);
            received_.push_back(std::move(d));
        }
    }
}

std::vector<Datagram> UdpCollector::Received() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
}

bool UdpCollector::WaitFor(const std::function<bool(const std::vector<Datagram> &)> &pred,
                           std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const bool done = pred(Received());
        if (done || std::chrono::steady_clock::now() >= deadline) return done;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace qvtest
