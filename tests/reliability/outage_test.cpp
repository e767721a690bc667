// A collector that goes away for longer than a datagram's whole resend schedule, against the real
// qvcollector process. The service logs at a steady rate throughout, in mesh mode on a 20 ms tick (a
// schedule of 25 passes takes half a second) with lists of 20 records: it never stops reporting, its
// memory stays within what the lists allow, and afterwards the collector has every record the lists,
// the blackbox (in the second case) and the kept datagram still held when it came back, while the
// numbers missing across both of its lives are the datagrams the agent let go at the end of their
// schedule and the numbers it raised for a datagram that found nothing to pack (and, when the
// collector acknowledged a resend twice, at most one more per such duplicate).
#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "agent_support.h"
#include "collector_process.h"
#include "core/bytes.h"
#include "core/mutex_guard.h"
#include "fast_scheduler.h"
#include "record_decoder.h"
#include "transport/send_window.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr uint32_t kTickMs = 20;
constexpr uint32_t kListLimit = 20;
constexpr uint32_t kLastResendPass = 20;  // a kept datagram past this pass is let go at the 25th
constexpr uint32_t kFirstId = 0x10000;  // the service's log ids, apart from the agent's own
constexpr uint32_t kIdRange = 0x100000;
constexpr auto kPace = 5ms;
constexpr auto kUp = 1000ms;
constexpr auto kAway = 2000ms;  // four whole schedules
constexpr int kStopMs = 10000;

// The number behind "key": in a collector line, if any.
std::optional<uint64_t> Number(const std::string &line, const std::string &key) {
    const std::string tag = "\"" + key + "\":";
    const size_t at = line.find(tag);
    if (at == std::string::npos || at + tag.size() >= line.size() || line[at + tag.size()] == '"') return std::nullopt;
    return std::stoull(line.substr(at + tag.size()));
}

bool IsLog(const std::string &line) { return line.find("\"kind\":\"log\"") != std::string::npos; }

// What one life of the collector printed of the log kind.
struct Life {
    std::set<uint32_t> ids;            // log records of the service, by id
    std::optional<uint64_t> firstSeq;  // numbers of the log kind's datagrams
    uint64_t lastSeq = 0;
    uint64_t missing = 0;              // its own counts ("stats"): numbers skipped, resends received
    uint64_t duplicates = 0;

    void Take(const std::string &line) {
        if (!IsLog(line)) return;
        if (line.find("\"event\":\"stats\"") != std::string::npos) {
            missing = Number(line, "missing").value_or(0);
            duplicates = Number(line, "duplicates").value_or(0);
            return;
        }
        if (const auto seq = Number(line, "seq")) {
            if (!firstSeq) firstSeq = seq;
            lastSeq = std::max(lastSeq, *seq);
        }
        const auto id = Number(line, "log_id");
        if (id && *id >= kFirstId && *id < kFirstId + kIdRange) ids.insert(static_cast<uint32_t>(*id));
    }
};

// The parameter: log records go to the blackbox first (true) or to the send list.
class CollectorOutage : public testing::TestWithParam<bool> {
protected:
    void SetUp() override { qvtest::ReleaseModule(); }
    void TearDown() override {
        stop_ = true;
        if (reporter_.joinable()) reporter_.join();
        qvtest::ReleaseModule();
        EXPECT_EQ(qvtest::AgentBlocks(), 0u);
    }

    std::unique_ptr<wiretest::CollectorProcess> Start() {
        auto c = std::make_unique<wiretest::CollectorProcess>();
        EXPECT_TRUE(c->StartAt(QV_WIRE_PORT_LOG, {"--stats"})) << c->Stderr();
        return c;
    }
    // Reads the collector's lines (if it runs) into life until the time is up, so its pipe never
    // fills; meanwhile notes the largest log list and the most blocks of the agent.
    void Follow(wiretest::CollectorProcess *c, Life &life, Clock::duration span) {
        const auto until = Clock::now() + span;
        do {
            if (c == nullptr) {
                std::this_thread::sleep_for(5ms);
            } else if (auto line = c->NextLine(5)) {
                life.Take(*line);
            }
            {
                qv::MutexGuard guard(module_->stListMutex);
                maxListed_ = std::max(maxListed_, module_->astSendList[QV_AGENT_MSG_LOG].uiCount);
            }
            maxBlocks_ = std::max(maxBlocks_, qvtest::AgentBlocks());
        } while (Clock::now() < until);
    }
    void Stop(std::unique_ptr<wiretest::CollectorProcess> &c, Life &life) {
        EXPECT_EQ(c->Stop(SIGTERM, kStopMs), 0);
        while (auto line = c->NextLine(0)) life.Take(*line);
    }

    // The ids the log list and the kept log datagram hold now; the kept one's only while it has a
    // resend ahead of it.
    std::set<uint32_t> Held() {
        std::set<uint32_t> ids;
        qv::MutexGuard guard(module_->stListMutex);
        for (const qvtest::Bytes &r : qvtest::ListRecords(module_, QV_AGENT_MSG_LOG)) ids.insert(qvtest::DecodeRecord(r).msgId);
        const QvAgentSendList &list = module_->astSendList[QV_AGENT_MSG_LOG];
        if (list.pucResendMsg == nullptr || list.uiSendTimes >= kLastResendPass) return ids;
        for (uint32_t at = QV_WIRE_STREAM_HEAD_LEN; at + QV_LOG_HEAD_LEN <= list.uiResendMsgLen;) {
            const uint16_t len = qv::bytes::LoadLe16(list.pucResendMsg + at + QV_REC_LEN_OFF);
            if (len == 0) break;
            const uint8_t *record = list.pucResendMsg + at;
            ids.insert(qvtest::DecodeRecord(qvtest::Bytes(record, record + len)).msgId);
            at += len;
        }
        return ids;
    }

    // Logs one record every kPace until stopped; each report is taken or refused for a full list.
    void Report() {
        for (uint32_t id = kFirstId; !stop_; ++id) {
            QvAgentObj *obj = nullptr;
            ASSERT_EQ(QV_Agent_ObjCreate(1, id, &obj, module_), QV_AGENT_OK);
            const uint32_t rc = QV_Agent_Send(obj, module_);
            ASSERT_TRUE(rc == QV_AGENT_OK || rc == QV_AGENT_ERR_LIST_FULL) << rc;
            if (rc == QV_AGENT_OK) {
                std::lock_guard<std::mutex> lock(acceptedMutex_);
                accepted_.push_back(id);
            }
            reported_ = id - kFirstId + 1;
            std::this_thread::sleep_for(kPace);
        }
    }
    std::vector<uint32_t> Accepted() {
        std::lock_guard<std::mutex> lock(acceptedMutex_);
        return accepted_;
    }

    QvAgentModule *module_ = nullptr;
    std::thread reporter_;
    std::atomic<bool> stop_{false};
    std::atomic<uint32_t> reported_{0};
    std::mutex acceptedMutex_;
    std::vector<uint32_t> accepted_;
    uint32_t maxListed_ = 0;
    uint64_t maxBlocks_ = 0;
};

TEST_P(CollectorOutage, KeepsWhatTheListsHoldAndCountsEveryDrop) {
    auto collector = Start();
    ASSERT_TRUE(collector->Running());
    {
        qvtest::ServiceTypeEnv type(GetParam() ? "outage" : nullptr);
        module_ = qvtest::InitWithoutScheduler(qvtest::MakeDesc("outagesvc", 3, kListLimit));
    }
    ASSERT_NE(module_, nullptr);
    ASSERT_EQ(module_->bBlackboxEnable, GetParam() ? 1u : 0u);
    module_->uiSelfIp = module_->uiMainBoardIp = htonl(INADDR_LOOPBACK);
    const uint64_t baseBlocks = qvtest::AgentBlocks();
    const uint64_t droppedBefore = qv::window::Dropped(QV_AGENT_MSG_LOG);
    const uint64_t skippedBefore = qv::window::Skipped(QV_AGENT_MSG_LOG);
    ASSERT_TRUE(qvtest::StartFastScheduler(module_, kTickMs));
    reporter_ = std::thread([this] { Report(); });

    Life first, second;
    Follow(collector.get(), first, kUp);
    Stop(collector, first);
    const uint32_t reportedAtStop = reported_;
    maxListed_ = 0;
    maxBlocks_ = 0;
    Follow(nullptr, first, kAway);
    EXPECT_LE(maxListed_, kListLimit + 1) << "a list holds at most its limit and one";
    // Beyond what the module holds of its own: the lists, a kept datagram per kind, a send buffer and
    // the object under construction.
    EXPECT_LE(maxBlocks_, baseBlocks + QV_AGENT_MSG_KPI * (kListLimit + 2) + 1 + 3);
    // Not a measure of speed (the machine may be loaded): a service waiting on the collector would
    // report nothing at all in that time.
    EXPECT_GT(reported_ - reportedAtStop, static_cast<uint32_t>(kAway / kPace / 20)) << "the service went on reporting";

    collector = Start();
    const std::set<uint32_t> held = Held();
    const std::vector<uint32_t> acceptedAtRestart = Accepted();
    Follow(collector.get(), second, kUp);
    stop_ = true;
    reporter_.join();
    // Until the list and the blackbox are empty and the last datagram acknowledged.
    for (int i = 0; i < 200; ++i) {
        Follow(collector.get(), second, 20ms);
        qv::MutexGuard guard(module_->stListMutex);
        const QvAgentSendList &list = module_->astSendList[QV_AGENT_MSG_LOG];
        if (list.uiCount == 0 && list.pucResendMsg == nullptr && QV_AGENT_BlackboxIsEmpty() == 1) break;
    }
    Stop(collector, second);

    const std::vector<uint32_t> accepted = Accepted();
    std::set<uint32_t> received = first.ids;
    received.insert(second.ids.begin(), second.ids.end());
    std::vector<uint32_t> lost;
    for (uint32_t id : accepted) {
        if (received.count(id) == 0) lost.push_back(id);
    }
    for (uint32_t id : received) EXPECT_TRUE(std::binary_search(accepted.begin(), accepted.end(), id)) << id;
    for (uint32_t id : held) EXPECT_EQ(received.count(id), 1u) << "held at the return, lost: " << id;
    // What the blackbox held unread at the return came after every record let go.
    if (!lost.empty()) {
        for (auto at = std::upper_bound(accepted.begin(), accepted.end(), lost.back()); at != accepted.end(); ++at) {
            EXPECT_EQ(received.count(*at), 1u) << "after the last one let go, lost: " << *at;
        }
    }
    for (size_t i = acceptedAtRestart.size(); i < accepted.size(); ++i) {
        EXPECT_EQ(received.count(accepted[i]), 1u) << "reported after the return, lost: " << accepted[i];
    }
    const uint64_t dropped = qv::window::Dropped(QV_AGENT_MSG_LOG) - droppedBefore;
    EXPECT_GE(dropped, 2u) << "the outage outlasted several schedules";
    EXPECT_FALSE(lost.empty());
    // Each datagram let go carried a run of consecutive records: the lost ones form no more runs.
    size_t runs = 0;
    for (size_t i = 0; i < lost.size(); ++i) {
        const auto at = std::lower_bound(accepted.begin(), accepted.end(), lost[i]);
        if (i == 0 || at == accepted.begin() || *(at - 1) != lost[i - 1]) ++runs;
    }
    EXPECT_LE(runs, dropped);
    // The collector's own gap counts in each life, and the numbers between its two lives.
    ASSERT_TRUE(second.firstSeq.has_value());
    const uint64_t across = *second.firstSeq > first.lastSeq ? *second.firstSeq - first.lastSeq - 1 : 0;
    const uint64_t skipped = qv::window::Skipped(QV_AGENT_MSG_LOG) - skippedBefore;
    // A resend that the collector acknowledges again (its first acknowledgement was slow) makes a
    // second reply, which releases the next datagram as any stray one would: a gap the agent cannot
    // tell from a delivery. Without duplicates the counts are equal.
    const uint64_t missing = first.missing + second.missing + across;
    EXPECT_GE(missing, dropped + skipped) << "numbers the collector never saw";
    EXPECT_LE(missing, dropped + skipped + first.duplicates + second.duplicates) << "numbers the collector never saw";
    std::printf("accepted %zu of %u records, lost %zu in %zu runs; %llu datagrams let go, %llu numbers skipped, "
                "%llu missing, list at most %u\n",
                accepted.size(), reported_.load(), lost.size(), runs, static_cast<unsigned long long>(dropped),
                static_cast<unsigned long long>(skipped), static_cast<unsigned long long>(missing), maxListed_);
}

INSTANTIATE_TEST_SUITE_P(Records, CollectorOutage, testing::Bool(),
                         [](const testing::TestParamInfo<bool> &p) { return p.param ? "Blackbox" : "Lists"; });

}  // namespace
