// Every public call that allocates, run with the stand-in allocator failing its 1st, 2nd, ... block in
// turn until the call succeeds without a failure: each time the call gives the result it documents for
// that block, queues nothing and builds no datagram when it fails, leaves no block behind, and the same
// call works at once afterwards. The table pins each call's blocks in order, so a new allocation on a
// path shows up here with the result it needs. Calls that allocate nothing (setters, blackbox and
// local-log writes) are in the table with no block: the sweep proves they stay that way.
#include <arpa/inet.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "agent_support.h"
#include "qvagent/qvagent.h"
#include "qvplatform_testctl.h"
#include "record_decoder.h"

namespace {

constexpr uint32_t kNoMem = QV_AGENT_ERR_NO_MEMORY;
constexpr uint32_t kLeaked = 0xDEAD;  // a failed initialisation that left a block behind

// What a call works on; prepared anew for every run of it.
struct Ctx {
    QvAgentModule *module = nullptr;
    QvAgentObj *obj = nullptr;  // an object the call takes (released by the cleanup if the call did not)
    std::optional<qvtest::ServiceTypeEnv> boxEnv;
};

struct Call {
    const char *name;
    void (*prepare)(Ctx &);  // outside the failing window
    uint32_t (*run)(Ctx &);
    std::vector<uint32_t> results;  // the call's result when its nth block fails, one per block
    bool (*intact)(Ctx &, uint32_t rc);  // optional: the state after a failed run with result rc is whole
};

char g_text[3000];
const QvAgentDebugKey kKey{1, 2};
const uint8_t kKpiFlag = 0xD1;
const QvAgentKpiObject kKpiObject{1, 2, 3, 4};
const uint32_t kOnChange = 3;

void NoPrep(Ctx &) {}
void Make(Ctx &c, uint32_t kind) { ASSERT_EQ(QV_Agent_ObjCreate(kind, 77, &c.obj, c.module), QV_AGENT_OK); }
uint32_t SendObj(Ctx &c) {
    QvAgentObj *obj = c.obj;
    c.obj = nullptr;  // released by the send whatever it gives
    return QV_Agent_Send(obj, c.module);
}
uint32_t Create(Ctx &c, uint32_t kind) { return QV_Agent_ObjCreate(kind, 77, &c.obj, c.module); }

// The blackbox of the service type "sweep": named, then opened for the log calls that go to it.
void NameBox(Ctx &c) {
    c.boxEnv.emplace("sweep");
    ASSERT_EQ(QV_AGENT_GetFileBufName(c.module->szBlackboxFile, QV_AGENT_BLACKBOX_PATH_LEN), QV_AGENT_OK);
}
void OpenBox(Ctx &c) {
    NameBox(c);
    ASSERT_EQ(QV_AGENT_InitLogBlackbox(c.module), QV_AGENT_OK);
    c.module->bBlackboxEnable = 1;
}

// A log record queued on kind k, for the send passes to take.
void QueueOn(Ctx &c, uint32_t k) {
    const uint8_t record[QV_LOG_HEAD_LEN] = {};
    ASSERT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, k, c.module), QV_AGENT_OK);
}

const Call kCalls[] = {
    {"initialisation",
     [](Ctx &c) {
         qvtest::ReleaseModule();
         c.module = nullptr;
     },
     [](Ctx &c) {
         const QvAgentServiceDesc desc = qvtest::MakeDesc("sweep", 9, 50);
         c.module = qvtest::InitWithoutScheduler(desc);
         if (c.module != nullptr) return static_cast<uint32_t>(QV_AGENT_OK);
         return qvtest::AgentBlocks() == 0 ? kNoMem : kLeaked;
     },
     // The record and its control block are required; a failure in the allocator report (its object's
     // three blocks, its restraint entry, its queued copy) loses the report, nothing else.
     {kNoMem, kNoMem, QV_AGENT_OK, QV_AGENT_OK, QV_AGENT_OK, QV_AGENT_OK, QV_AGENT_OK}, nullptr},
    {"create a log object", NoPrep, [](Ctx &c) { return Create(c, 1); }, {kNoMem, kNoMem, kNoMem},
     [](Ctx &c, uint32_t) { return c.obj == nullptr; }},
    {"create an alarm object", NoPrep, [](Ctx &c) { return Create(c, QV_AGENT_OBJ_ALARM); }, {kNoMem, kNoMem, kNoMem},
     [](Ctx &c, uint32_t) { return c.obj == nullptr; }},
    {"option", [](Ctx &c) { Make(c, 1); },
     [](Ctx &c) {
         const uint32_t v = 5;
         return QV_Agent_AddOption(c.obj, 40, sizeof v, &v, c.module);
     },
     {}, nullptr},
    {"parameter growing the buffers", [](Ctx &c) { Make(c, 1); },
     [](Ctx &c) { return QV_Agent_AddPara(c.obj, 25, sizeof g_text, g_text, c.module); }, {kNoMem, kNoMem},
     nullptr},
    {"alarm attributes", [](Ctx &c) { Make(c, QV_AGENT_OBJ_ALARM); },
     [](Ctx &c) {
         static const QvAgentSysTime time{2026, 11, 25, 17, 30, 0, 3, 0, 0, 0};
         const QvAgentAlarmComAttr attr{1, 16, 0, &time, 8, 0};
         return QV_Agent_SetAlarmComAttr(c.obj, &attr, c.module);
     },
     {}, nullptr},
    {"send a log", [](Ctx &c) { Make(c, 1); }, SendObj, {kNoMem}, nullptr},
    {"send an alarm", [](Ctx &c) { Make(c, QV_AGENT_OBJ_ALARM); }, SendObj, {kNoMem}, nullptr},
    {"send a high-precision log", [](Ctx &c) { Make(c, QV_AGENT_OBJ_HIGH_PRECISION); }, SendObj, {kNoMem}, nullptr},
    {"send a diagnostic log", [](Ctx &c) { Make(c, QV_AGENT_OBJ_DIAG); }, SendObj,
     // The restraint's entry, then the queued copy; a refused copy still counts in the entry's statistics.
     {QV_AGENT_ERR_FAILED, kNoMem},
     [](Ctx &c, uint32_t rc) { return rc != QV_AGENT_ERR_FAILED || qvtest::RestraintEntries(c.module) == 0; }},
    {"open the blackbox", NameBox, [](Ctx &c) { return QV_AGENT_InitLogBlackbox(c.module); }, {QV_AGENT_ERR_FAILED},
     [](Ctx &, uint32_t) { return g_pstQvAgentLogBox == nullptr; }},
    {"send a log into the blackbox",
     [](Ctx &c) {
         OpenBox(c);
         Make(c, 1);
     },
     SendObj, {}, nullptr},
    {"log by identifier", NoPrep, [](Ctx &) { return QV_Agent_ReportLogById(4, 0x1234, "port %u %s", 7u, "down"); },
     {kNoMem, kNoMem, kNoMem, kNoMem}, nullptr},
    {"high-precision log by identifier", NoPrep,
     [](Ctx &) { return QV_Agent_ReportLogById(QV_AGENT_OBJ_HIGH_PRECISION, 0x1235, "%d", 1); },
     {kNoMem, kNoMem, kNoMem, kNoMem}, nullptr},
    {"debug log", NoPrep, [](Ctx &) { return QV_Agent_Debug(&kKey, "text", 0x4000, "%d%s", 1, "s"); },
     {kNoMem, kNoMem, kNoMem, kNoMem, kNoMem}, nullptr},
    {"setters", NoPrep,
     [](Ctx &c) {
         const QvAgentProcessInfo info{"proc", {1, 2, 3, 4, 5}};
         const uint32_t limit = 50;
         uint32_t rc = QV_Agent_SetMainBoardIP(c.module, htonl(INADDR_LOOPBACK));
         rc |= QV_Agent_SetLocalIP(c.module, htonl(INADDR_LOOPBACK));
         rc |= QV_Agent_SetProcessInfo(c.module, &info);
         rc |= QV_Agent_SetServiceInfo(c.module, "sweep", 9);
         return rc | QV_Agent_SetAttribute(c.module, QV_AGENT_ATTR_LIST_LIMIT, &limit);
     },
     {}, nullptr},
    {"flush notice",
     [](Ctx &c) {
         if (c.module->aiMeshFd[QV_AGENT_MSG_LOG] == -1) {
             ASSERT_EQ(QV_AGENT_CreateMeshSendLog(c.module), QV_AGENT_OK);
         }
     },
     [](Ctx &c) { return QV_Agent_FlushToLogFile(c.module); }, {kNoMem}, nullptr},
    {"KPI update", NoPrep, [](Ctx &) { return QV_AGENT_UpdateKpi(1, 2, 3, &kKpiFlag, 4); }, {kNoMem}, nullptr},
    {"KPI update with sub-object", NoPrep, [](Ctx &) { return QV_AGENT_UpdateSubKpi(1, 2, 3, 4, &kKpiFlag, 5); },
     {kNoMem}, nullptr},
    {"KPI option", NoPrep, [](Ctx &) { return QV_Agent_SetKpiOption(&kKpiObject, KPI_OPTION_ONCHANGE, 4, &kOnChange); },
     {kNoMem, kNoMem, kNoMem, kNoMem, kNoMem, kNoMem, kNoMem},  // the store, a record and a node per level
     [](Ctx &, uint32_t) {
         const QvAgentKpiObject key{1, 2, 3, 4 + QV_KPI_COMPONENT_OFFSET};
         return QV_AGENT_GetKpiMngInfoNode(&key) == nullptr;
     }},
    {"send pass, socket mode", [](Ctx &c) { QueueOn(c, QV_AGENT_MSG_ALARM); },
     [](Ctx &c) { return QV_AGENT_SendMsg(QV_AGENT_MSG_ALARM, c.module); },
     {kNoMem, QV_AGENT_OK}, nullptr},  // without its kept copy the datagram is sent all the same
    {"send pass, mesh mode", [](Ctx &c) { QueueOn(c, QV_AGENT_MSG_ALARM); },
     [](Ctx &c) { return QV_AGENT_SendMeshMsg(QV_AGENT_MSG_ALARM, QV_WIRE_PORT_ALARM, c.module); },
     {kNoMem, QV_AGENT_OK}, nullptr},
    {"KPI send", [](Ctx &) { ASSERT_EQ(QV_AGENT_UpdateKpi(1, 2, 3, &kKpiFlag, 4), QV_AGENT_OK); },
     [](Ctx &c) { return QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, c.module); }, {kNoMem}, nullptr},
    {"local log and boot log", NoPrep,
     [](Ctx &) {
         const uint8_t bytes[] = {1, 2, 3};
         uint32_t rc = QV_Agent_SysbootLogInit("sweep_boot") > 0 ? 0u : 1u;
         rc |= QV_AGENT_PLOG_LogFile("line %d", 1);
         rc |= QV_Agent_SysbootLog("proc", 1, "boot %d", 2);
         return rc | QV_Agent_DevLog("sweep", bytes, sizeof bytes);
     },
     {}, nullptr},
};

class AllocSweep : public testing::Test {
protected:
    void SetUp() override {
        std::memset(g_text, 't', sizeof g_text);
        QVPLAT_TestFailAllocation(0);
        qvtest::ReleaseModule();
        Reset();
        baseBlocks_ = qvtest::AgentBlocks();
    }
    void TearDown() override {
        QVPLAT_TestFailAllocation(0);
        qvtest::ReleaseModule();
        EXPECT_EQ(qvtest::AgentBlocks(), 0u);
    }

    // A module without scheduler thread or socket, with nothing queued, kept, restrained or stored.
    void Reset() {
        if (c_.obj != nullptr) QV_Agent_ObjFree(c_.obj, c_.module);
        c_.obj = nullptr;
        c_.module = QV_Agent_GetHandle();
        if (c_.module == nullptr) c_.module = qvtest::InitWithoutScheduler(qvtest::MakeDesc("sweep", 9, 50));
        ASSERT_NE(c_.module, nullptr);
        c_.module->iSockFd = -1;
        c_.module->uiSelfIp = c_.module->uiMainBoardIp = htonl(INADDR_LOOPBACK);
        for (QvAgentSendList &list : c_.module->astSendList) QV_AGENT_FreeResendMsg(&list, c_.module);
        qvtest::DrainLists(c_.module);
        QV_AGENT_DiagNodeDelete(c_.module);
        QV_AGENT_KpiMngMouduleUnInit(c_.module);
        qvtest::CloseBlackbox(c_.module);
        c_.module->bBlackboxEnable = 0;
        c_.boxEnv.reset();
    }

    struct Lists {
        std::array<uint32_t, QV_AGENT_MSG_KIND_COUNT> count{}, seqNo{};
        bool operator==(const Lists &) const = default;
    };
    Lists Snapshot() const {
        Lists s;
        if (c_.module == nullptr) return s;
        for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) {
            s.count[k] = c_.module->astSendList[k].uiCount;
            s.seqNo[k] = c_.module->astSendList[k].uiSeqNo;
        }
        return s;
    }

    struct Change {
        std::array<int64_t, QV_AGENT_MSG_KIND_COUNT> count{}, seqNo{};
        bool operator==(const Change &) const = default;
    };
    // How the lists changed since before.
    Change Delta(const Lists &before) const {
        const Lists now = Snapshot();
        Change d;
        for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) {
            d.count[k] = int64_t{now.count[k]} - before.count[k];
            d.seqNo[k] = int64_t{now.seqNo[k]} - before.seqNo[k];
        }
        return d;
    }

    // Runs the call with its nth block failing (0: none); its result, and the blocks it asked for.
    uint32_t RunFailing(const Call &call, uint64_t nth, uint64_t &asked, Lists &before) {
        call.prepare(c_);
        before = Snapshot();
        const uint64_t calls = QVPLAT_TestAllocCalls();
        QVPLAT_TestFailAllocation(nth);
        const uint32_t rc = call.run(c_);
        QVPLAT_TestFailAllocation(0);
        asked = QVPLAT_TestAllocCalls() - calls;
        return rc;
    }

    Ctx c_;
    uint64_t baseBlocks_ = 0;
};

TEST_F(AllocSweep, EveryBlockOfEveryCallCanFail) {
    for (const Call &call : kCalls) {
        SCOPED_TRACE(call.name);
        uint64_t asked = 0;
        Lists before;
        ASSERT_EQ(RunFailing(call, 0, asked, before), QV_AGENT_OK);
        const Change clean = Delta(before);  // what the call does to the lists when nothing fails
        Reset();
        for (uint64_t nth = 1;; ++nth) {
            SCOPED_TRACE("failing block " + std::to_string(nth));
            const uint32_t rc = RunFailing(call, nth, asked, before);
            const Change delta = Delta(before);
            if (asked < nth) {  // no block failed: the sweep is through
                EXPECT_EQ(rc, QV_AGENT_OK);
                EXPECT_EQ(nth - 1, call.results.size()) << "blocks of the call";
                Reset();
                break;
            }
            if (nth > call.results.size()) {
                ADD_FAILURE() << "more blocks than the table knows";
                Reset();
                break;
            }
            EXPECT_EQ(rc, call.results[nth - 1]);
            if (rc != QV_AGENT_OK) {
                EXPECT_TRUE(delta == Change{}) << "a failed call queues nothing and numbers no datagram";
                if (call.intact != nullptr) {
                    EXPECT_TRUE(call.intact(c_, rc));
                }
            } else {
                // Taken without the failed block: the same datagrams numbered, and at most what the
                // clean call queues (a lost report is the only difference).
                EXPECT_EQ(delta.seqNo, clean.seqNo);
                for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) EXPECT_LE(delta.count[k], clean.count[k]) << k;
            }
            Reset();
            EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_) << "no block left behind";
            // The same call works at once afterwards.
            EXPECT_EQ(RunFailing(call, 0, asked, before), QV_AGENT_OK);
            EXPECT_EQ(asked, call.results.size());
            Reset();
        }
    }
}

}  // namespace
