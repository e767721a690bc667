// The module record: creation, its initial values, refresh after QV_Agent_UnInit, the blackbox name
// and the recovery of the socket-mode transport.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "agent_support.h"
#include "blackbox/blackbox.h"
#include "record_decoder.h"
#include "qvplatform_testctl.h"

namespace {

class ModuleTest : public testing::Test {
protected:
    void SetUp() override { qvtest::ReleaseModule(); }
    void TearDown() override {
        qvtest::ReleaseModule();
        EXPECT_EQ(qvtest::AgentBlocks(), 0u) << "the test left agent memory behind";
    }
};

TEST_F(ModuleTest, FreshRecordCarriesTheDescriptionAndItsInitialValues) {
    EXPECT_EQ(QV_Agent_Init(nullptr), nullptr);
    EXPECT_EQ(g_QvHandle, 0u);
    QvAgentServiceDesc desc = qvtest::MakeDesc("svc_a", 42, 0);
    desc.usLocalPort = 7000;
    desc.ulCallerData1 = 0x1122334455667788ull;
    desc.uiSelfIp = 0x0A000001;
    QvAgentModule *m = QV_Agent_Init(&desc);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m), g_QvHandle);
    EXPECT_STREQ(m->szServiceName, "svc_a");
    EXPECT_EQ(m->uiServiceId, 42u);
    EXPECT_EQ(m->usLocalPort, 7000u);
    EXPECT_EQ(m->ulCallerData1, 0x1122334455667788ull);
    EXPECT_EQ(m->uiSelfIp, 0x0A000001u) << "without device management the caller's address stays";
    EXPECT_EQ(m->uiListLimit, QV_AGENT_DEFAULT_LIST_LIMIT);
    for (uint32_t k = QV_AGENT_MSG_ALARM; k < QV_AGENT_MSG_KIND_COUNT; ++k) {
        const QvAgentSendList &list = m->astSendList[k];
        const auto *head = reinterpret_cast<const QvAgentListItem *>(&list);
        EXPECT_TRUE(list.pstNext == head && list.pstPrev == head && list.uiCount == 0 && list.uiSeqNo == 0) << k;
        EXPECT_EQ(m->aiMeshFd[k], -1);
        EXPECT_EQ(m->auiMeshState[k], QV_AGENT_MESH_NOT_CREATED);
    }
    EXPECT_EQ(m->iReservedFd, -1);
    EXPECT_EQ(m->stDiagTree.pfnCompare, &QV_AGENT_DiagStatisTreeCompare);
}

TEST_F(ModuleTest, CreationStartsTheSchedulerThreadAndItsTimer) {
    QvAgentServiceDesc desc = qvtest::MakeDesc("svc_b");
    QvAgentModule *m = QV_Agent_Init(&desc);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->uiTransportState, QV_AGENT_STATE_READY);
    ASSERT_NE(m->pstSchedCtrl, nullptr);
    EXPECT_NE(m->pstSchedCtrl->ulSchedThread, 0u);
    EXPECT_NE(m->pstSchedCtrl->ulTimer, 0u);
    QVPLAT_KEV_THREAD_INFO_S info{};
    ASSERT_EQ(QVPLAT_TestKevThreadInfo(m->pstSchedCtrl->ulSchedThread, &info), 0u);
    EXPECT_STREQ(info.szName, "QV_AGENT_SEND");
    EXPECT_EQ(info.uiPriority, 32u);
    EXPECT_EQ(info.uiOption, 2u);
    EXPECT_EQ(info.uiTimers, 1u);
    EXPECT_EQ(qvtest::AgentBlocks(), 4u) << "the record, its control block, the allocator report and its restraint entry";
}

TEST_F(ModuleTest, WithoutSchedulerThreadTheRecordWaitsForSocketMode) {
    struct Case {
        const char *name;
        void (*fail)(uint32_t);
        uint32_t expectState;
        bool expectCtrl;
    };
    const Case cases[] = {
        {"no scheduler thread", QVPLAT_TestKevFailThreadCreate, QV_AGENT_STATE_NO_THREADS, false},
        {"no timer: not reported", QVPLAT_TestKevFailTimerCreate, QV_AGENT_STATE_READY, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        qvtest::ReleaseModule();
        QvAgentServiceDesc desc = qvtest::MakeDesc("svc_b");
        c.fail(1);
        QvAgentModule *m = QV_Agent_Init(&desc);
        c.fail(0);
        ASSERT_NE(m, nullptr);
        EXPECT_EQ(m->uiTransportState, c.expectState);
        EXPECT_EQ(m->pstSchedCtrl != nullptr, c.expectCtrl) << "the control block is released without a thread";
        if (m->pstSchedCtrl != nullptr) {
            EXPECT_EQ(m->pstSchedCtrl->ulTimer, 0u);
        }
        EXPECT_EQ(qvtest::AgentBlocks(), c.expectCtrl ? 4u : 3u);
    }
}

TEST_F(ModuleTest, InitQueuesTheAllocatorReport) {
    struct Case {
        uint32_t started;
        uint32_t expectValue;
    };
    for (const Case c : {Case{1, 1}, Case{0, 0}}) {
        SCOPED_TRACE(c.started);
        qvtest::ReleaseModule();
        QVPLAT_TestSetStarted(c.started);
        QvAgentServiceDesc desc = qvtest::MakeDesc("reporter", 17);
        QvAgentModule *m = QV_Agent_Init(&desc);
        QVPLAT_TestSetStarted(1);
        ASSERT_NE(m, nullptr);
        const std::vector<qvtest::Bytes> queued = qvtest::ListRecords(m, QV_AGENT_MSG_LOG);
        ASSERT_EQ(queued.size(), 1u);
        const qvtest::DecodedRecord r = qvtest::DecodeRecord(queued[0]);
        ASSERT_TRUE(r.ok) << r.error;
        EXPECT_EQ(r.recordType, QV_REC_TYPE_LOG);
        EXPECT_EQ(r.length, 48u + (4 + 8) + 8 + 8 + 8 + 6 + 6 + (4 + 4));
        EXPECT_EQ(r.kind, QV_AGENT_OBJ_DIAG);
        EXPECT_EQ(r.msgId, 0x09571075u);
        EXPECT_EQ(r.level, 0xFFu);
        EXPECT_EQ(r.optionWord, 0xAAAAAA06u);
        ASSERT_EQ(r.params.size(), 1u);
        EXPECT_EQ(r.params[0].type, 6u);
        EXPECT_EQ(r.params[0].U32(), c.expectValue);
        EXPECT_EQ(r.options[0].Text(), "reporter");
        EXPECT_EQ(r.options[1].U32(), 17u);
    }
}

TEST_F(ModuleTest, InitAfterUnInitRefreshesTheDescriptionOnce) {
    struct Case {
        const char *name;
        uint32_t newLimit;
        uint32_t expectLimit;
    };
    const Case cases[] = {
        {"zero limit keeps the old one", 0, 5},
        {"nonzero limit replaces it", 12, 12},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        qvtest::ReleaseModule();
        QvAgentServiceDesc old = qvtest::MakeDesc("old_name", 1, 5);
        old.usLocalPort = 100;
        old.uiSelfIp = 0x01020304;
        old.uiAttrReserved = 9;
        QvAgentModule *m = QV_Agent_Init(&old);
        ASSERT_NE(m, nullptr);
        ASSERT_EQ(QV_Agent_UnInit(m), QV_AGENT_OK);
        EXPECT_EQ(m->bNeedFlush, 1u);

        QvAgentServiceDesc fresh = qvtest::MakeDesc("new_name", 77, c.newLimit);
        fresh.ulCallerData1 = 11;
        fresh.ulCallerData2 = 22;
        fresh.usLocalPort = 200;
        fresh.uiSelfIp = 0x05060708;
        fresh.uiAttrReserved = 3;
        EXPECT_EQ(QV_Agent_Init(&fresh), m);
        EXPECT_STREQ(m->szServiceName, "new_name");
        EXPECT_EQ(m->uiServiceId, 77u);
        EXPECT_EQ(m->ulCallerData1, 11u);
        EXPECT_EQ(m->ulCallerData2, 22u);
        EXPECT_EQ(m->uiListLimit, c.expectLimit);
        EXPECT_EQ(m->usLocalPort, 100u) << "only name, id, caller data and limit are refreshed";
        EXPECT_EQ(m->uiSelfIp, 0x01020304u);
        EXPECT_EQ(m->uiAttrReserved, 9u);
        EXPECT_EQ(m->bNeedFlush, 0u);

        const uint64_t blocks = qvtest::AgentBlocks();
        QvAgentServiceDesc later = qvtest::MakeDesc("later", 99, 3);
        EXPECT_EQ(QV_Agent_Init(&later), m);
        EXPECT_STREQ(m->szServiceName, "new_name") << "the refresh happens once per QV_Agent_UnInit";
        EXPECT_EQ(qvtest::AgentBlocks(), blocks) << "nothing is created or reported again";
    }
}

TEST_F(ModuleTest, RefreshWithAnUnterminatedNameStopsAtTheName) {
    QvAgentServiceDesc old = qvtest::MakeDesc("old", 1, 5);
    old.ulCallerData1 = 1;
    QvAgentModule *m = QV_Agent_Init(&old);
    ASSERT_NE(m, nullptr);
    QvAgentServiceDesc bad = qvtest::MakeDesc("", 2, 8);
    std::memset(bad.szServiceName, 'x', sizeof bad.szServiceName);  // 32 characters, no terminator
    bad.ulCallerData1 = 2;
    EXPECT_EQ(QV_AGENT_FlushModule(&bad, m), QV_AGENT_ERR_FAILED);
    EXPECT_EQ(m->uiServiceId, 2u) << "the id is taken before the name";
    EXPECT_STREQ(m->szServiceName, "");
    EXPECT_EQ(m->ulCallerData1, 1u) << "nothing after the name is taken";
    EXPECT_EQ(m->uiListLimit, 5u);

    EXPECT_EQ(QV_AGENT_FlushModule(nullptr, m), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_FlushModule(&old, nullptr), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_Agent_UnInit(nullptr), QV_AGENT_ERR_PARAM);
}

TEST_F(ModuleTest, BlackboxNameFollowsTheServiceType) {
    const std::string longType(300, 't');
    struct Case {
        const char *serviceType;  // null: unset
        const char *expectName;
        uint32_t expectEnable;
        bool expectOpen;  // the file is open, whether or not it queues records
    };
    const Case cases[] = {
        {nullptr, "", 0, false},
        {"tzk_frm", "/opt/zanthe/var/LOG_tzk_frm_blackbox", 1, true},
        {"lmo_xvd", "/opt/zanthe/var/LOG_lmo_xvd_blackbox", 0, true},
        {"ukt", "/opt/zanthe/var/LOG_ukt_blackbox", 0, false},
        {longType.c_str(), "", 0, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.serviceType == nullptr ? "unset" : c.serviceType);
        qvtest::ReleaseModule();
        qvtest::ServiceTypeEnv env(c.serviceType);
        QvAgentServiceDesc desc = qvtest::MakeDesc("svc");
        QvAgentModule *m = QV_Agent_Init(&desc);
        ASSERT_NE(m, nullptr);
        EXPECT_STREQ(m->szBlackboxFile, c.expectName);
        EXPECT_EQ(m->bBlackboxEnable, c.expectEnable);
        EXPECT_EQ(g_pstQvAgentLogBox != nullptr, c.expectOpen);
    }
}

TEST_F(ModuleTest, BlackboxFileNameRefusesBadBuffers) {
    qvtest::ServiceTypeEnv env("svc");
    char name[40];
    EXPECT_EQ(QV_AGENT_GetFileBufName(nullptr, 40), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_GetFileBufName(name, 0), QV_AGENT_ERR_FAILED);
    std::memset(name, 'z', sizeof name);
    // "/opt/zanthe/var/LOG_svc_blackbox" is 32 characters: 33 bytes fit, 32 do not.
    EXPECT_EQ(QV_AGENT_GetFileBufName(name, 32), QV_AGENT_ERR_FAILED);
    EXPECT_STREQ(name, "");
    EXPECT_EQ(QV_AGENT_GetFileBufName(name, 33), QV_AGENT_OK);
    EXPECT_STREQ(name, "/opt/zanthe/var/LOG_svc_blackbox");
}

}  // namespace
