// Random datagrams sprayed at the agent's own sockets while a service reports. Socket mode checks an
// acknowledgement against the kept datagram's number, so every record still arrives. In mesh mode any
// reply on a kind's socket acknowledges its kept datagram, so a stray one can release that datagram
// before the collector has it: the test measures that cost and holds it to one kept datagram per
// stray. Neither mode may crash, block or leak (the fixture's teardown counts the blocks).
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "agent_support.h"
#include "core/bytes.h"
#include "core/mutex_guard.h"
#include "fast_scheduler.h"
#include "qvplatform_testctl.h"
#include "record_decoder.h"
#include "transport/send_window.h"
#include "udp_collector.h"

namespace {

using namespace std::chrono_literals;

constexpr uint32_t kLogs = 300;
constexpr uint32_t kAlarmEvery = 5;   // one alarm after every fifth log
constexpr auto kReportPace = 5ms;
constexpr auto kSprayPace = 10ms;     // the socket-mode receive thread rests 10 ms after each datagram
constexpr uint32_t kUnmatchedSeqNo = 0x40000000;  // above any number the run reaches
const std::vector<uint16_t> kAllPorts = {QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM, QV_WIRE_PORT_HIGH_PRECISION,
                                         QV_WIRE_PORT_KPI, QV_WIRE_PORT_DEBUG};

// A UDP socket bound to 127.0.0.2 (loopback too) on port, so that it can pose as a collector port that
// the collector fixture holds on 127.0.0.1; -1 on failure.
int SprayerSocket(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_port = htons(port);
    at.sin_addr.s_addr = htonl(0x7F000002);
    if (fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr *>(&at), sizeof at) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

// One random datagram, 1 to 300 bytes: half of them shaped as acknowledgements (numbered, the
// acknowledgement flag, a stream type of the log port or none) with a number no datagram carries.
std::vector<uint8_t> RandomDatagram(std::mt19937 &rng) {
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<uint8_t> d(std::uniform_int_distribution<size_t>(1, 300)(rng));
    for (uint8_t &b : d) b = static_cast<uint8_t>(byte(rng));
    if (d.size() >= QV_WIRE_ACK_MIN_LEN_LOG_PORT && (byte(rng) & 1) != 0) {
        qv::bytes::StoreBe16(d.data(), static_cast<uint16_t>(d.size()));
        d[QV_WIRE_HEAD_FLAGS_OFF] = QV_WIRE_FLAG_ACK;
        d[QV_WIRE_HEAD_MSG_TYPE_OFF] = QV_WIRE_MSG_NUMBERED;
        qv::bytes::StoreBe32(d.data() + QV_WIRE_HEAD_SEQ_NO_OFF, kUnmatchedSeqNo + static_cast<uint32_t>(byte(rng)));
        qv::bytes::StoreLe16(d.data() + QV_WIRE_ACK_STREAM_TYPE_OFF, static_cast<uint16_t>(byte(rng) % 3));
    }
    return d;
}

// Sends random datagrams to the agent's ports from the given sockets, one every kSprayPace, until
// stopped; counts what went to each target.
class Sprayer {
public:
    Sprayer(std::vector<int> from, std::vector<uint16_t> to) : from_(std::move(from)), to_(std::move(to)), sent_(to_.size()) {
        thread_ = std::thread([this] { Run(); });
    }
    ~Sprayer() { Stop(); }
    void Stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        for (int fd : from_) ::close(fd);
        from_.clear();
    }
    // Datagrams sent to target i.
    uint64_t Sent(size_t i) const { return sent_[i]; }

private:
    void Run() {
        std::mt19937 rng(18);
        while (!stop_) {
            const size_t target = std::uniform_int_distribution<size_t>(0, to_.size() - 1)(rng);
            const int fd = from_[std::uniform_int_distribution<size_t>(0, from_.size() - 1)(rng)];
            const std::vector<uint8_t> d = RandomDatagram(rng);
            sockaddr_in dest{};
            dest.sin_family = AF_INET;
            dest.sin_port = htons(to_[target]);
            dest.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            if (::sendto(fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&dest), sizeof dest) > 0) ++sent_[target];
            std::this_thread::sleep_for(kSprayPace);
        }
    }

    std::vector<int> from_;
    std::vector<uint16_t> to_;
    std::vector<std::atomic<uint64_t>> sent_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// The message ids of the records the collector received on port (log records of stream type st when
// st is nonzero), in order of arrival.
std::vector<uint32_t> IdsOn(const std::vector<qvtest::Datagram> &got, uint16_t port, uint8_t st) {
    std::vector<uint32_t> ids;
    for (const qvtest::Datagram &d : got) {
        const size_t head = port == QV_WIRE_PORT_ALARM ? QV_WIRE_SHORT_HEAD_LEN : QV_WIRE_STREAM_HEAD_LEN;
        if (d.port != port || d.bytes.size() <= head || (st != 0 && d.bytes[QV_WIRE_HEAD_STREAM_TYPE_OFF] != st)) continue;
        for (size_t at = head; at + QV_REC_LEN_OFF + 2 <= d.bytes.size();) {
            const size_t len = qv::bytes::LoadLe16(d.bytes.data() + at + QV_REC_LEN_OFF);
            if (len == 0 || at + len > d.bytes.size()) break;
            ids.push_back(qvtest::DecodeRecord(qvtest::Bytes(d.bytes.begin() + static_cast<long>(at),
                                                             d.bytes.begin() + static_cast<long>(at + len)))
                              .msgId);
            at += len;
        }
    }
    return ids;
}

// Whether every id of `want` is among `got`.
bool AllArrived(const std::vector<uint32_t> &got, const std::vector<uint32_t> &want) {
    const std::set<uint32_t> have(got.begin(), got.end());
    for (uint32_t id : want) {
        if (have.count(id) == 0) return false;
    }
    return true;
}

class Spray : public testing::Test {
protected:
    void SetUp() override {
        qvtest::ReleaseModule();
        module_ = qvtest::InitWithoutScheduler(qvtest::MakeDesc("spraysvc", 7, 100000));
        ASSERT_NE(module_, nullptr);
        module_->uiSelfIp = module_->uiMainBoardIp = htonl(INADDR_LOOPBACK);
        for (uint32_t id = 1; id <= kLogs; ++id) {
            logIds_.push_back(id);
            if (id % kAlarmEvery == 0) alarmIds_.push_back(id);
        }
    }
    void TearDown() override {
        qvtest::ReleaseModule();
        EXPECT_EQ(qvtest::AgentBlocks(), 0u) << "agent memory left behind";
    }

    // Reports every log and alarm at a steady pace; each report must be taken.
    void Report() {
        for (uint32_t id : logIds_) {
            QvAgentObj *obj = nullptr;
            ASSERT_EQ(QV_Agent_ObjCreate(1, id, &obj, module_), QV_AGENT_OK);
            ASSERT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_OK);
            if (id % kAlarmEvery == 0) {
                ASSERT_EQ(QV_Agent_ObjCreate(QV_AGENT_OBJ_ALARM, id, &obj, module_), QV_AGENT_OK);
                ASSERT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_OK);
            }
            std::this_thread::sleep_for(kReportPace);
        }
    }

    bool EverythingArrived(const std::vector<qvtest::Datagram> &got) const {
        return AllArrived(IdsOn(got, QV_WIRE_PORT_LOG, QV_WIRE_STREAM_TYPE_LOG), logIds_) &&
               AllArrived(IdsOn(got, QV_WIRE_PORT_ALARM, 0), alarmIds_);
    }

    QvAgentModule *module_ = nullptr;
    std::vector<uint32_t> logIds_, alarmIds_;
};

TEST_F(Spray, SocketModeLosesNoRecord) {
    qvtest::UdpCollector collector({QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM, QV_WIRE_PORT_HIGH_PRECISION});
    ASSERT_TRUE(collector.ok());
    module_->usLocalPort = 0;  // any free port
    ASSERT_EQ(QV_AGENT_CreateModuleRecovery(module_), QV_AGENT_OK);
    const uint16_t agentPort = qvtest::LocalPort(module_->iSockFd);
    ASSERT_NE(agentPort, 0);
    // Posing as each collector port that acknowledges, and as a stranger.
    std::vector<int> from;
    for (uint32_t port : {QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM, QV_WIRE_PORT_HIGH_PRECISION, 0u}) {
        from.push_back(SprayerSocket(static_cast<uint16_t>(port)));
        ASSERT_NE(from.back(), -1);
    }
    Sprayer sprayer(from, {agentPort});
    Report();
    EXPECT_TRUE(collector.WaitFor([this](const auto &got) { return EverythingArrived(got); }, 20000ms));
    sprayer.Stop();
    EXPECT_GT(sprayer.Sent(0), 100u);
    // A stray shaped as an acknowledgement counts as a pass of the kept datagram and may have it sent
    // again: records may arrive twice, but first in order.
    std::vector<uint32_t> firsts;
    std::set<uint32_t> seen;
    for (uint32_t id : IdsOn(collector.Received(), QV_WIRE_PORT_LOG, QV_WIRE_STREAM_TYPE_LOG)) {
        if (id <= kLogs && seen.insert(id).second) firsts.push_back(id);  // not the agent's own report
    }
    EXPECT_TRUE(std::is_sorted(firsts.begin(), firsts.end())) << "in order";
}

// The collector acknowledges the first datagram of every kind, then nothing: from then on a kept
// datagram is released either at the end of its schedule (counted by the agent) or by a reply on its
// socket, and every reply is a stray one. The difference is the cost of the strays.
TEST_F(Spray, MeshModeStrayReleasesAtMostTheKeptDatagram) {
    constexpr uint32_t kTickMs = 20;
    constexpr uint32_t kAcked = QV_AGENT_MSG_KPI;  // kinds 0 to 3
    qvtest::UdpCollector collector(kAllPorts);
    ASSERT_TRUE(collector.ok());
    ASSERT_TRUE(qvtest::StartFastScheduler(module_, kTickMs));
    std::vector<uint16_t> ports;
    for (uint32_t k = 0; k < kAcked; ++k) ports.push_back(qvtest::LocalPort(module_->aiMeshFd[k]));
    const uint8_t record[QV_LOG_HEAD_LEN] = {};
    ASSERT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, QV_AGENT_MSG_HIGH_PRECISION, module_), QV_AGENT_OK);
    struct Window {
        uint32_t seqNo;
        bool kept;
    };
    auto window = [this](uint32_t k) {
        qv::MutexGuard guard(module_->stListMutex);
        return Window{module_->astSendList[k].uiSeqNo, module_->astSendList[k].pucResendMsg != nullptr};
    };
    auto started = [&] {
        for (uint32_t k = 0; k < kAcked; ++k) {
            if (window(k).seqNo == 0 || window(k).kept) return false;
        }
        return true;
    };
    for (int i = 0; i < 500 && !started(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(started()) << "every kind's first datagram acknowledged";
    collector.SetAcknowledge(false);
    std::vector<Window> before;
    std::vector<uint64_t> droppedBefore;
    for (uint32_t k = 0; k < kAcked; ++k) {
        before.push_back(window(k));
        droppedBefore.push_back(qv::window::Dropped(k));
    }

    std::vector<int> from{SprayerSocket(0)};
    ASSERT_NE(from[0], -1);
    Sprayer sprayer(from, ports);
    Report();
    sprayer.Stop();
    // First sends are never lost on loopback: every record arrives, early release or not.
    EXPECT_TRUE(collector.WaitFor([this](const auto &got) { return EverythingArrived(got); }, 20000ms));

    uint64_t early = 0;
    for (uint32_t k = 0; k < kAcked; ++k) {
        const Window now = window(k);
        const uint64_t released = now.seqNo - before[k].seqNo - (now.kept ? 1 : 0);
        const uint64_t dropped = qv::window::Dropped(k) - droppedBefore[k];
        ASSERT_GE(released, dropped) << k;
        const uint64_t byStrays = released - dropped;
        EXPECT_LE(byStrays, sprayer.Sent(k)) << "kind " << k << ": a stray releases at most one kept datagram";
        std::printf("kind %u: %llu stray datagrams released %llu kept datagrams early; %llu ran their schedule\n", k,
                    static_cast<unsigned long long>(sprayer.Sent(k)), static_cast<unsigned long long>(byStrays),
                    static_cast<unsigned long long>(dropped));
        early += byStrays;
    }
    EXPECT_GT(early, 0u) << "the strays met kept datagrams";
}

}  // namespace
