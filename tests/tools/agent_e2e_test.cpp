// The agent end to end against the real qvcollector process over loopback: socket mode and the default
// mesh mode on its real timer. Every record reported must be decoded by the collector exactly once,
// field for field, and records kept while the collector was away must arrive once it is back.
#include <arpa/inet.h>

#include <chrono>
#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "collector_process.h"
#include "core/mutex_guard.h"
#include "module_fixture.h"
#include "test_support.h"
#include "transport/socket_mode.h"

namespace {

using wiretest::Field;

bool IsRecord(const std::string &line) { return line.find("\"record\":") != std::string::npos; }

// What a test expects of one reported record.
struct Expect {
    std::string kind;   // collector's kind: log, alarm, debug, hplog
    std::string idKey;  // log_id or alarm_id
    uint32_t id;
    std::map<std::string, std::string> fields;  // more fields to compare
};

class AgentEndToEnd : public testing::Test {
protected:
    void SetUp() override { qvtest::ReleaseModule(); }
    void TearDown() override {
        qvtest::ReleaseModule();
        EXPECT_EQ(qvtest::AgentBlocks(), 0u);
    }
    static QvAgentServiceDesc Desc() {
        QvAgentServiceDesc desc = qvtest::MakeDesc("e2esvc", 9);
        desc.uiSelfIp = htonl(INADDR_LOOPBACK);
        return desc;
    }
    std::unique_ptr<wiretest::CollectorProcess> StartCollector(const std::vector<std::string> &options) {
        auto collector = std::make_unique<wiretest::CollectorProcess>();
        EXPECT_TRUE(collector->StartAt(QV_WIRE_PORT_LOG, options)) << collector->Stderr();
        return collector;
    }
    // Record lines until count were read or the time is up.
    static std::vector<std::string> Records(wiretest::CollectorProcess &c, size_t count, int timeoutMs) {
        std::vector<std::string> records;
        c.ReadLines(timeoutMs, [&](const std::string &line) {
            if (IsRecord(line)) records.push_back(line);
            return records.size() >= count;
        });
        return records;
    }

    // Reports one record of every kind, with the id base + n, and says what the collector must show.
    std::vector<Expect> ReportEveryKind(QvAgentModule *m, uint32_t base) {
        std::vector<Expect> expect;
        for (uint32_t n = 0; n < 3; ++n) {
            QvAgentObj *obj = nullptr;
            EXPECT_EQ(QV_Agent_ObjCreate(1, base + n, &obj, m), QV_AGENT_OK);
            char text[] = "link down";
            QV_Agent_AddPara(obj, 25, sizeof text, text, m);
            EXPECT_EQ(QV_Agent_Send(obj, m), QV_AGENT_OK);
            expect.push_back({"log", "log_id", base + n, {{"form", "object"}, {"obj_kind", "1"}, {"para_num", "1"}}});
        }
        const QvAgentSysTime now{2026, 11, 23, 4, 5, 6, 1, 7, 0, 0};
        QvAgentAlarmComAttr attr{};
        attr.uiCategory = 2;
        attr.pstTime = &now;
        attr.uiHeaderWord = 0x30C;
        QvAgentObj *alarm = nullptr;
        EXPECT_EQ(QV_Agent_ObjCreate(5, base + 10, &alarm, m), QV_AGENT_OK);
        EXPECT_EQ(QV_Agent_SetAlarmComAttr(alarm, &attr, m), QV_AGENT_OK);
        EXPECT_EQ(QV_Agent_Send(alarm, m), QV_AGENT_OK);
        expect.push_back({"alarm", "alarm_id", base + 10, {{"category", "2"}, {"attr_word", "780"}, {"attr_marker", "255"}}});
        const QvAgentDebugKey key{0x1111, 0x2222};
        EXPECT_EQ(QV_Agent_Debug(&key, "fan", base + 20, "%u rpm", 3000u), QV_AGENT_OK);
        expect.push_back({"debug", "log_id", base + 20, {{"form", "debug"}, {"text", "fan"}, {"key_word1", "8738"}}});
        EXPECT_EQ(QV_Agent_ReportLogById(20, base + 30, "port %u down", 7u), QV_AGENT_OK);
        expect.push_back({"hplog", "log_id", base + 30, {{"form", "by_id"}, {"obj_kind", "20"}, {"para_num", "1"}}});
        return expect;
    }
    // Every expected record appears exactly once with its fields; returns how many lines were matched.
    void CheckEachOnce(const std::vector<std::string> &records, const std::vector<Expect> &expect) {
        for (const Expect &e : expect) {
            SCOPED_TRACE(e.kind + " " + std::to_string(e.id));
            int seen = 0;
            for (const std::string &line : records) {
                if (Field(line, "kind") != e.kind || Field(line, e.idKey) != std::to_string(e.id)) continue;
                ++seen;
                EXPECT_NE(line.find(R"({"type":67,"len":6,"as":"text","value":"e2esvc"})"), std::string::npos)
                    << "the service name option: " << line;
                for (const auto &[key, value] : e.fields) EXPECT_EQ(Field(line, key), value) << key << " in " << line;
            }
            EXPECT_EQ(seen, 1) << "reported once, decoded once";
        }
    }
};

TEST_F(AgentEndToEnd, SocketModeRecordsAreDecodedOnceFieldByField) {
    auto collector = StartCollector({});
    QvAgentModule *m = qvtest::InitWithoutScheduler(Desc());
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(QV_Agent_SetMainBoardIP(m, htonl(INADDR_LOOPBACK)), QV_AGENT_OK);
    const std::vector<Expect> expect = ReportEveryKind(m, 0x5000);
    ASSERT_EQ(QV_AGENT_CreateModuleRecovery(m), QV_AGENT_OK);
    const auto records = Records(*collector, expect.size() + 1, 10000);  // and the allocator report
    ASSERT_EQ(records.size(), expect.size() + 1) << "lost records";
    CheckEachOnce(records, expect);
    EXPECT_TRUE(Records(*collector, 1, 1500).empty()) << "nothing more, nothing twice";
    QV_AGENT_DeleteThread(m);
    m->ulRecvThread = m->ulSendThread = 0;
}

TEST_F(AgentEndToEnd, UnacknowledgedDatagramArrivesAgainWithItsNumber) {
    auto collector = StartCollector({"--drop-acks", "1"});
    QvAgentModule *m = qvtest::InitWithoutScheduler(Desc());
    ASSERT_NE(m, nullptr);
    qvtest::DrainLists(m);
    ASSERT_EQ(QV_AGENT_CreateModuleRecovery(m), QV_AGENT_OK);
    // The alarm kind's stream start (number 1) is not acknowledged the first time: it comes again.
    std::vector<std::string> starts;
    collector->ReadLines(6000, [&](const std::string &line) {
        if (Field(line, "kind") == "alarm") starts.push_back(line);
        return starts.size() == 2;
    });
    ASSERT_EQ(starts.size(), 2u);
    EXPECT_EQ(Field(starts[0], "event"), "stream_start");
    EXPECT_EQ(Field(starts[0], "seq"), "1");
    EXPECT_EQ(Field(starts[1], "seq"), "1") << "the same datagram again";
    EXPECT_EQ(Field(starts[1], "event"), "duplicate") << starts[1];
    QV_AGENT_DeleteThread(m);
    m->ulRecvThread = m->ulSendThread = 0;
}

// The kernel thread id of the thread of that name, or 0 when there is none.
int ThreadId(const std::string &name) {
    for (const auto &[tid, threadName] : qvtest::Threads()) {
        if (threadName == name) return tid;
    }
    return 0;
}

// Waits until the receive thread is present (true) or gone (false); whether it came to that.
bool WaitForReceiveThread(bool present) {
    for (int i = 0; i < 400; ++i) {
        if ((ThreadId("QV_AGENT_RCV") != 0) == present) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST_F(AgentEndToEnd, SocketModeRecoveryRestartsADeadThreadAndNothingIsLost) {
    auto collector = StartCollector({});
    QvAgentModule *m = qvtest::InitWithoutScheduler(Desc());
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(QV_Agent_SetMainBoardIP(m, htonl(INADDR_LOOPBACK)), QV_AGENT_OK);
    const std::vector<Expect> before = ReportEveryKind(m, 0x8000);
    ASSERT_EQ(QV_AGENT_CreateModuleRecovery(m), QV_AGENT_OK);
    ASSERT_EQ(Records(*collector, before.size() + 1, 10000).size(), before.size() + 1);
    ASSERT_TRUE(WaitForReceiveThread(true));
    const int recv = ThreadId("QV_AGENT_RCV"), send = ThreadId("QV_AGENT_SEND");
    EXPECT_EQ(QV_AGENT_RecoveryThread(m), QV_AGENT_OK);
    EXPECT_EQ(ThreadId("QV_AGENT_RCV"), recv) << "both alive: nothing re-created";

    qv::socketmode::SetEndHookForTest([](qv::socketmode::Role role) { return role == qv::socketmode::Role::Receive; });
    ASSERT_TRUE(WaitForReceiveThread(false)) << "the receive thread did not end";
    qv::socketmode::SetEndHookForTest(nullptr);
    const std::vector<Expect> during = ReportEveryKind(m, 0x9000);  // sent, but no acknowledgement is taken
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(QV_AGENT_RecoveryThread(m), QV_AGENT_OK);
    ASSERT_TRUE(WaitForReceiveThread(true)) << "the dead thread is re-created";
    EXPECT_NE(ThreadId("QV_AGENT_RCV"), recv);
    EXPECT_EQ(ThreadId("QV_AGENT_SEND"), send) << "the live one is left alone";
    const std::vector<Expect> after = ReportEveryKind(m, 0xA000);
    std::vector<Expect> expect = during;
    expect.insert(expect.end(), after.begin(), after.end());
    const auto records = Records(*collector, expect.size(), 30000);
    ASSERT_EQ(records.size(), expect.size()) << "records queued before and after the recovery arrive";
    CheckEachOnce(records, expect);
    EXPECT_EQ(QV_AGENT_DeleteThread(m), QV_AGENT_OK);
    EXPECT_EQ(QV_AGENT_DeleteThread(m), QV_AGENT_OK) << "threads already joined";
    m->ulRecvThread = m->ulSendThread = 0;
}

TEST_F(AgentEndToEnd, MeshModeKeepsRecordsWhileTheCollectorIsAway) {
    auto collector = StartCollector({});
    const QvAgentServiceDesc desc = Desc();
    QvAgentModule *m = QV_Agent_Init(&desc);
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(m->uiTransportState, QV_AGENT_STATE_READY);
    ASSERT_EQ(QV_Agent_SetMainBoardIP(m, htonl(INADDR_LOOPBACK)), QV_AGENT_OK);
    const std::vector<Expect> first = ReportEveryKind(m, 0x6000);
    const auto records = Records(*collector, first.size() + 1, 10000);
    ASSERT_EQ(records.size(), first.size() + 1);
    CheckEachOnce(records, first);

    ASSERT_EQ(collector->Stop(SIGTERM, 5000), 0);
    const std::vector<Expect> later = ReportEveryKind(m, 0x7000);  // sent into the void, then kept
    std::this_thread::sleep_for(std::chrono::milliseconds(2500));
    collector = StartCollector({});
    // A kept datagram is offered again on the 5th, 10th and 20th pass of its life: well within 25 s.
    const auto arrived = Records(*collector, later.size(), 25000);
    ASSERT_EQ(arrived.size(), later.size()) << "records kept in the window and on the lists arrive";
    CheckEachOnce(arrived, later);
}

}  // namespace
