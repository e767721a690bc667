// Event objects: argument checks and refused kinds, which list each kind reaches, and allocation
// failure at every block of creation, growth and queuing.
#include <unistd.h>

#include <cstring>
#include <string>

#include "module_fixture.h"

namespace {

using EventObjectTest = AgentTest;

// Log kinds and alarms are created and reach their list; every other kind is refused.
TEST_F(EventObjectTest, EachAcceptedKindReachesItsListAndOthersAreRefused) {
    for (uint32_t kind = 0; kind <= 24; ++kind) {
        SCOPED_TRACE(kind);
        const uint32_t list = kind == 5 ? QV_AGENT_MSG_ALARM : kind == 20 ? QV_AGENT_MSG_HIGH_PRECISION : QV_AGENT_MSG_LOG;
        const bool accepted = kind == 1 || kind == 2 || kind == 5 || kind == 9 || kind == 10 || kind == 16 ||
                              kind == 18 || kind == 20 || kind == 22;
        QvAgentObj *obj = reinterpret_cast<QvAgentObj *>(0x1);  // must be cleared on refusal
        qvtest::DrainLists(module_);
        ASSERT_EQ(QV_Agent_ObjCreate(kind, 0xABC0 + kind, &obj, module_), accepted ? QV_AGENT_OK : QV_AGENT_ERR_PARAM);
        if (!accepted) {
            EXPECT_EQ(obj, nullptr);
            continue;
        }
        EXPECT_EQ(obj->uiObjType, kind);
        ASSERT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_OK);
        for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) {
            EXPECT_EQ(module_->astSendList[k].uiCount, k == list ? 1u : 0u) << "list " << k;
        }
        EXPECT_EQ(Queued(list).at(0).msgId, 0xABC0 + kind);
    }
    qvtest::DrainLists(module_);
    EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_ + 1) << "only the diagnostic kind's restraint entry stays";
    QvAgentObj *obj = reinterpret_cast<QvAgentObj *>(0x1);
    EXPECT_EQ(QV_Agent_ObjCreate(0xFFFFFFFFu, 1, &obj, module_), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(obj, nullptr);
    EXPECT_EQ(QV_Agent_ObjCreate(1, 1, &obj, nullptr), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_Agent_ObjCreate(1, 1, nullptr, module_), QV_AGENT_ERR_PARAM);
}

TEST_F(EventObjectTest, NullArgumentsAreRefusedAndReleaseNothing) {
    QvAgentObj *obj = Create(1, 7);
    uint32_t value = 3;
    QvAgentAlarmComAttr attr{};
    const struct {
        const char *call;
        uint32_t rc;
    } cases[] = {
        {"AddPara null object", QV_Agent_AddPara(nullptr, 1, 4, &value, module_)},
        {"AddPara null value", QV_Agent_AddPara(obj, 1, 4, nullptr, module_)},
        {"AddPara null module", QV_Agent_AddPara(obj, 1, 4, &value, nullptr)},
        {"AddPara empty non-text", QV_Agent_AddPara(obj, 1, 0, &value, module_)},
        {"AddOption null object", QV_Agent_AddOption(nullptr, 1, 4, &value, module_)},
        {"AddOption null value", QV_Agent_AddOption(obj, 1, 4, nullptr, module_)},
        {"AddOption null module", QV_Agent_AddOption(obj, 1, 4, &value, nullptr)},
        {"SetAlarmComAttr null attributes", QV_Agent_SetAlarmComAttr(obj, nullptr, module_)},
        {"SetAlarmComAttr null time", QV_Agent_SetAlarmComAttr(obj, &attr, module_)},
        {"Send null object", QV_Agent_Send(nullptr, module_)},
        {"Send null module", QV_Agent_Send(obj, nullptr)},
        {"ObjFree null object", QV_Agent_ObjFree(nullptr, module_)},
        {"ObjFree null module", QV_Agent_ObjFree(obj, nullptr)},
    };
    for (const auto &c : cases) EXPECT_EQ(c.rc, QV_AGENT_ERR_PARAM) << c.call;
    EXPECT_EQ(qvtest::DecodeRecord(qvtest::Bytes(obj->pucRecord, obj->pucRecord + QV_LOG_HEAD_LEN)).paraCount, 0u);
    EXPECT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_OK) << "the object is still whole";
}

}  // namespace
