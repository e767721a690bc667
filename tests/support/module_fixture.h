// A fresh module record with empty send lists, released after each test with nothing left allocated.
#ifndef QV_TEST_MODULE_FIXTURE_H
#define QV_TEST_MODULE_FIXTURE_H

#include <gtest/gtest.h>

#include <vector>

#include "agent_support.h"
#include "qvplatform_testctl.h"
#include "record_decoder.h"

class AgentTest : public testing::Test {
protected:
    void SetUp() override {
        qvtest::ReleaseModule();
        QVPLAT_TestFailAllocation(0);
        QvAgentServiceDesc desc = qvtest::MakeDesc("evtsvc", 31, 100000);
        module_ = qvtest::InitWithoutScheduler(desc);
        ASSERT_NE(module_, nullptr);
        qvtest::DrainLists(module_);  // the allocator report
        baseBlocks_ = qvtest::AgentBlocks();
    }
    void TearDown() override {
        QVPLAT_TestFailAllocation(0);
        g_bQvagentDbgSwitch = 0;
        qvtest::ReleaseModule();
        EXPECT_EQ(qvtest::AgentBlocks(), 0u) << "agent memory left behind";
    }

    // The records queued on list k, decoded; every one must decode cleanly.
    std::vector<qvtest::DecodedRecord> Queued(uint32_t k) {
        std::vector<qvtest::DecodedRecord> out;
        for (const qvtest::Bytes &bytes : qvtest::ListRecords(module_, k)) {
            out.push_back(qvtest::DecodeRecord(bytes));
            EXPECT_TRUE(out.back().ok) << out.back().error;
        }
        return out;
    }

    QvAgentObj *Create(uint32_t kind, uint32_t id) {
        QvAgentObj *obj = nullptr;
        EXPECT_EQ(QV_Agent_ObjCreate(kind, id, &obj, module_), QV_AGENT_OK);
        return obj;
    }

    QvAgentModule *module_ = nullptr;
    uint64_t baseBlocks_ = 0;
};

#endif
