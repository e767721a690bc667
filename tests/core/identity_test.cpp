// Identity and attributes after initialisation, the device log's bytes and the flush notice's codes.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "agent_support.h"
#include "qvplatform_testctl.h"
#include "qvplatform/mesh.h"
#include "test_support.h"
#include "transport/mesh_mode.h"
#include "udp_collector.h"

namespace {

size_t CountDevLogs() {
    size_t count = 0;
    for (const auto &entry : std::filesystem::directory_iterator("/opt/zanthe/var/log")) {
        if (entry.path().filename().string().rfind("DevLog_", 0) == 0) ++count;
    }
    return count;
}

class IdentityTest : public testing::Test {
protected:
    void SetUp() override {
        qvtest::ReleaseModule();
        std::filesystem::remove_all("/opt/zanthe/var/log");
        std::filesystem::create_directories("/opt/zanthe/var/log");
        QvAgentServiceDesc desc = qvtest::MakeDesc("ident", 4, 0);
        desc.uiSelfIp = 0x0100000A;
        module_ = qvtest::InitWithoutScheduler(desc);
        ASSERT_NE(module_, nullptr);
        for (uint32_t &state : module_->auiMeshState) state = QV_AGENT_STATE_READY;
    }
    void TearDown() override {
        qvtest::ReleaseModule();
        EXPECT_EQ(qvtest::AgentBlocks(), 0u);
    }
    QvAgentModule *module_ = nullptr;
};

TEST_F(IdentityTest, SettersRefuseNullArgumentsAndZeroAddresses) {
    const QvAgentProcessInfo info{};
    const uint32_t value = 1;
    const uint32_t refused[] = {
        QV_Agent_SetMainBoardIP(nullptr, 1),        QV_Agent_SetMainBoardIP(module_, 0),
        QV_Agent_SetLocalIP(nullptr, 1),            QV_Agent_SetLocalIP(module_, 0),
        QV_Agent_SetProcessInfo(nullptr, &info),    QV_Agent_SetProcessInfo(module_, nullptr),
        QV_Agent_SetServiceInfo(nullptr, "x", 1),   QV_Agent_SetServiceInfo(module_, nullptr, 1),
        QV_Agent_SetAttribute(nullptr, 0, &value),  QV_Agent_SetAttribute(module_, 0, nullptr),
    };
    for (const uint32_t &rc : refused) EXPECT_EQ(rc, QV_AGENT_ERR_PARAM) << "call " << &rc - refused;
    EXPECT_EQ(module_->uiMainBoardIp, 0u);
    EXPECT_EQ(module_->uiSelfIp, 0x0100000Au);
    EXPECT_EQ(QV_Agent_SetMainBoardIP(module_, 0x0200000A), QV_AGENT_OK);
    EXPECT_EQ(module_->uiMainBoardIp, 0x0200000Au);
}

TEST_F(IdentityTest, NewLocalAddressMarksMeshSocketsForRecreation) {
    struct Case {
        const char *name;
        uint32_t localCollector;
        uint32_t ip;
        uint32_t expectState;
    };
    const Case cases[] = {
        {"same address", 0, 0x0100000A, QV_AGENT_STATE_READY},
        {"new address", 0, 0x0300000A, QV_AGENT_MESH_ADDR_CHANGED},
        {"new address, local collector", 1, 0x0400000A, QV_AGENT_STATE_READY},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        module_->uiSelfIp = 0x0100000A;
        module_->bLocalCollector = c.localCollector;
        for (uint32_t &state : module_->auiMeshState) state = QV_AGENT_STATE_READY;
        EXPECT_EQ(QV_Agent_SetLocalIP(module_, c.ip), QV_AGENT_OK);
        EXPECT_EQ(module_->uiSelfIp, c.ip);
        for (uint32_t state : module_->auiMeshState) EXPECT_EQ(state, c.expectState);
    }
}

TEST_F(IdentityTest, ProcessInfoTakesValuesFirstThenTheName) {
    QvAgentProcessInfo info{};
    std::strcpy(info.szProcessName, "worker");
    for (uint32_t i = 0; i < QV_AGENT_PROCESS_VALUES; ++i) info.auiProcessInfo[i] = 10 + i;
    EXPECT_EQ(QV_Agent_SetProcessInfo(module_, &info), QV_AGENT_OK);
    EXPECT_STREQ(module_->szProcessName, "worker");
    EXPECT_EQ(module_->auiProcessInfo[4], 14u);

    std::memset(info.szProcessName, 'p', sizeof info.szProcessName);  // no terminator within 32 bytes
    info.auiProcessInfo[0] = 99;
    EXPECT_NE(QV_Agent_SetProcessInfo(module_, &info), QV_AGENT_OK);
    EXPECT_EQ(module_->auiProcessInfo[0], 99u) << "the values are taken over before the name fails";
    EXPECT_STREQ(module_->szProcessName, "");
}

TEST_F(IdentityTest, ServiceInfoStoresTheIdOnlyWithTheName) {
    const std::string fits(31, 'n');
    const std::string tooLong(32, 'n');
    EXPECT_EQ(QV_Agent_SetServiceInfo(module_, fits.c_str(), 8), QV_AGENT_OK);
    EXPECT_EQ(std::string(module_->szServiceName), fits);
    EXPECT_EQ(module_->uiServiceId, 8u);

    EXPECT_NE(QV_Agent_SetServiceInfo(module_, tooLong.c_str(), 9), QV_AGENT_OK);
    EXPECT_STREQ(module_->szServiceName, "");
    EXPECT_EQ(module_->uiServiceId, 8u);
}

TEST_F(IdentityTest, AttributesZeroAndOneOnly) {
    struct Case {
        int32_t attribute;
        uint32_t value;
        uint32_t expectResult;
        uint32_t expectLimit;
        uint32_t expectReserved;
    };
    const Case cases[] = {
        {QV_AGENT_ATTR_LIST_LIMIT, 0, QV_AGENT_OK, 0, 0},  // no default after creation
        {QV_AGENT_ATTR_LIST_LIMIT, 250, QV_AGENT_OK, 250, 0},
        {QV_AGENT_ATTR_RESERVED, 6, QV_AGENT_OK, 250, 6},
        {2, 7, QV_AGENT_ERR_PARAM, 250, 6},
        {-1, 7, QV_AGENT_ERR_PARAM, 250, 6},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.attribute);
        EXPECT_EQ(QV_Agent_SetAttribute(module_, c.attribute, &c.value), c.expectResult);
        EXPECT_EQ(module_->uiListLimit, c.expectLimit);
        EXPECT_EQ(module_->uiAttrReserved, c.expectReserved);
    }
}

TEST_F(IdentityTest, DeviceLogAppendsExactlyTheBytesGiven) {
    const std::string path = "/opt/zanthe/var/log/DevLog_dev1.log";
    const uint8_t first[] = {0x00, 0xFF, 'a', '\n', 0x80};
    const uint8_t second[] = {'z'};
    EXPECT_EQ(QV_Agent_DevLog("dev1", first, 0), QV_AGENT_OK);
    EXPECT_TRUE(qvtest::FileExists(path)) << "length 0 still creates the file";
    EXPECT_EQ(qvtest::ReadFile(path), "");
    EXPECT_EQ(QV_Agent_DevLog("dev1", first, sizeof first), QV_AGENT_OK);
    EXPECT_EQ(QV_Agent_DevLog("dev1", second, sizeof second), QV_AGENT_OK);
    EXPECT_EQ(qvtest::ReadFile(path), std::string("\x00\xFF" "a\n\x80z", 6));
    struct stat st{};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(IdentityTest, DeviceLogFailuresAreAllTheSameCode) {
    const uint8_t bytes[] = {1, 2, 3};
    // "/opt/zanthe/var/log/DevLog_" + name + ".log" must stay within 127 characters.
    const std::string longest(127 - 31, 'n');
    const std::string tooLong(128 - 31, 'n');
    EXPECT_EQ(QV_Agent_DevLog(longest.c_str(), bytes, 3), QV_AGENT_OK);
    EXPECT_EQ(QV_Agent_DevLog(tooLong.c_str(), bytes, 3), QV_AGENT_ERR_DEVLOG);
    EXPECT_EQ(CountDevLogs(), 1u) << "no file under a cut name";
    EXPECT_EQ(QV_Agent_DevLog("x", nullptr, 3), QV_AGENT_ERR_DEVLOG);
    EXPECT_EQ(QV_Agent_DevLog(nullptr, bytes, 3), QV_AGENT_ERR_DEVLOG);
    EXPECT_EQ(QV_Agent_DevLog("x", bytes, -1), QV_AGENT_ERR_DEVLOG);
    EXPECT_EQ(QV_Agent_DevLog("no/such/dir", bytes, 3), QV_AGENT_ERR_DEVLOG);
}

TEST_F(IdentityTest, FlushNoticeGoesToTheLogPortAsEightBytes) {
    qvtest::UdpCollector collector({QV_WIRE_PORT_LOG});
    ASSERT_TRUE(collector.ok());
    // Without device-management libraries the collector is on the main board the service names.
    module_->uiSelfIp = module_->uiMainBoardIp = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(QV_AGENT_CreateMeshSendLog(module_), QV_AGENT_OK);
    EXPECT_EQ(QV_Agent_FlushToLogFile(module_), QV_AGENT_OK);
    ASSERT_TRUE(collector.WaitFor([](const std::vector<qvtest::Datagram> &got) { return !got.empty(); }));
    const std::vector<qvtest::Datagram> got = collector.Received();
    ASSERT_EQ(got.size(), 1u) << "not kept, not resent";
    EXPECT_EQ(got[0].bytes, (std::vector<uint8_t>{0x00, 0x08, 0x04, 0x02, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].pucResendMsg, nullptr);
}

TEST_F(IdentityTest, FlushNoticeFailures) {
    EXPECT_EQ(QV_Agent_FlushToLogFile(nullptr), QV_AGENT_ERR_PARAM);
    QVPLAT_TestFailAllocation(1);
    EXPECT_EQ(QV_Agent_FlushToLogFile(module_), QV_AGENT_ERR_NO_MEMORY);
    QVPLAT_TestFailAllocation(0);
    module_->uiSelfIp = module_->uiMainBoardIp = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(QV_AGENT_CreateMeshSendLog(module_), QV_AGENT_OK);
    const uint64_t blocks = qvtest::AgentBlocks();
    QVPLAT_TestMeshFailSend(1, MESH_ERR_BASE | 11);
    EXPECT_EQ(QV_Agent_FlushToLogFile(module_), MESH_ERR_BASE | 11) << "the send's error";
    EXPECT_EQ(qvtest::AgentBlocks(), blocks) << "the notice buffer is released whatever the send gives";
}

}  // namespace
