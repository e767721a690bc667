// Board and collector discovery with fake device-management libraries (and without any): what the
// module learns of its position and address, where the collector is, and the addresses and ports of
// mesh mode.
#include <arpa/inet.h>

#include <cstdlib>
#include <string>

#include "module_fixture.h"
#include "transport/board_discovery.h"

namespace {

uint32_t Ip(const char *dotted) { return inet_addr(dotted); }  // network order

class BoardDiscoveryTest : public testing::Test {
protected:
    void TearDown() override {
        if (module_ != nullptr) {
            QV_AGENT_DevmBasicInfoApiUninit(module_);
            QV_AGENT_DevmDBInfoApiUninit(module_);
        }
        qvtest::ReleaseModule();
        EXPECT_EQ(qvtest::AgentBlocks(), 0u);
    }
    // Creates the module with the given libraries mounted and environment answers set.
    void Start(const std::string &variant, std::initializer_list<std::pair<const char *, const char *>> answers) {
        qvtest::ReleaseModule();
        libs_.reset();  // unmount the previous variant before mounting the next over it
        libs_ = std::make_unique<qvtest::DevmLibraries>(variant);
        ASSERT_TRUE(libs_->ok()) << variant;
        for (const auto &[name, value] : answers) setenv(name, value, 1);
        QvAgentServiceDesc desc = qvtest::MakeDesc("board");
        desc.uiSelfIp = Ip("10.9.9.9");
        module_ = qvtest::InitWithoutScheduler(desc);
        ASSERT_NE(module_, nullptr);
        module_->uiMainBoardIp = Ip("10.0.0.100");
    }
    uint32_t Dest(uint32_t k = QV_AGENT_MSG_ALARM) {
        MESH_ADDR_S addr{};
        EXPECT_EQ(QV_AGENT_GetDestIpAddr(&addr, k, module_), QV_AGENT_OK);
        return addr.uiIpAddr;
    }
    uint32_t Local() {
        MESH_ADDR_S addr{};
        EXPECT_EQ(QV_AGENT_GetLocalIpAddr(&addr, module_), QV_AGENT_OK);
        return addr.uiIpAddr;
    }
    std::unique_ptr<qvtest::DevmLibraries> libs_;
    QvAgentModule *module_ = nullptr;
};

TEST_F(BoardDiscoveryTest, PositionFromTheLibraries) {
    Start("full", {{"QV_FAKE_DEVM_CPU", "0x103"}, {"QV_FAKE_DEVM_SLOT", "7"}, {"QV_FAKE_DEVM_LOCAL_A", "0x12"},
                   {"QV_FAKE_DEVM_LOCAL_B", "0x34"}, {"QV_FAKE_DEVM_SELF_IP", "10.1.2.3"}});
    EXPECT_EQ(module_->ucCpuId, 0x03u) << "the low byte";
    EXPECT_EQ(module_->ucLocalIdA, 0x12u);
    EXPECT_EQ(module_->ucLocalIdB, 0x34u);
    EXPECT_EQ(module_->uiSelfIp, Ip("10.1.2.3")) << "stored in network order";
    EXPECT_NE(module_->pDevmBasicLib, nullptr);
    EXPECT_NE(module_->pDevmDbLib, nullptr);
}

TEST_F(BoardDiscoveryTest, MissingLibrariesSymbolsAndFailuresLeaveFieldsAlone) {
    const struct {
        const char *name;
        const char *variant;
        const char *fail;
        bool basic;
        bool db;
        uint8_t cpu;
        uint8_t localA;
        const char *selfIp;
    } cases[] = {
        {"no libraries", "none", "", false, false, 0, 0, "10.9.9.9"},
        {"basic library without the master lookup", "no_master", "", false, true, 0, 0, "10.9.9.9"},
        {"database library without the slot map", "no_slot_map", "", true, false, 4, 0, "10.9.9.9"},
        {"database library without the own address", "no_self_ip", "", true, false, 4, 0, "10.9.9.9"},
        {"slot lookup fails", "full", "DEVM_GetSelfSlotId", true, true, 4, 0, "10.9.9.9"},
        {"slot map fails", "full", "DEVM_GlobalSlotId2LocalSlotId", true, true, 4, 0, "10.9.9.9"},
        {"own address fails", "full", "DEVM_GetSelfBoardIp", true, true, 4, 6, "10.9.9.9"},
        {"CPU lookup fails", "full", "DEVM_GetSelfCpuId", true, true, 0, 6, "10.4.4.4"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Start(c.variant, {{"QV_FAKE_DEVM_CPU", "4"}, {"QV_FAKE_DEVM_SLOT", "6"}, {"QV_FAKE_DEVM_SELF_IP", "10.4.4.4"},
                          {"QV_FAKE_DEVM_FAIL", c.fail}});
        EXPECT_EQ(module_->pDevmBasicLib != nullptr, c.basic);
        EXPECT_EQ(module_->pfnGetSelfCpuId != nullptr, c.basic);
        EXPECT_EQ(module_->pfnGetSystemMasterIpAndSlotId != nullptr, c.basic);
        EXPECT_EQ(module_->pDevmDbLib != nullptr, c.db);
        EXPECT_EQ(module_->pfnGlobalSlotId2LocalSlotId != nullptr, c.db);
        EXPECT_EQ(module_->ucCpuId, c.cpu);
        EXPECT_EQ(module_->ucLocalIdA, c.localA);
        EXPECT_EQ(module_->uiSelfIp, Ip(c.selfIp));
        QV_AGENT_DevmBasicInfoApiUninit(module_);
        QV_AGENT_DevmDBInfoApiUninit(module_);
        EXPECT_EQ(module_->pDevmBasicLib, nullptr);
        EXPECT_EQ(module_->pDevmDbLib, nullptr);
    }
}

TEST_F(BoardDiscoveryTest, WhereTheCollectorIs) {
    const struct {
        const char *name;
        const char *variant;
        const char *boardType;
        const char *cpu;
        const char *slot;
        const char *fail;
        uint32_t expectLocal;
        const char *expectDest;  // the alarm kind's destination
    } cases[] = {
        {"board type 5 sends to the master", "full", "5", "0", "1", "", 0, "10.0.0.1"},
        {"board type 5, master lookup fails", "full", "5", "0", "1", "DEVM_GetSystemMasterIpAndSlotId", 0,
         "10.0.0.100"},
        {"board type 4", "full", "4", "0", "1", "", 0, "10.0.0.1"},
        {"board type 6", "full", "6", "0", "1", "", 0, "10.0.0.1"},
        {"board type 1, CPU 0 in the master slot", "full", "1", "0", "3", "", 1, "127.0.0.1"},
        {"board type 1 in another slot", "full", "1", "0", "2", "", 0, "10.0.0.1"},
        {"board type 1 on CPU 1", "full", "1", "1", "3", "", 0, "10.0.0.1"},
        {"board type 1, slot lookup fails", "full", "1", "0", "3", "DEVM_GetSelfSlotId", 0, "10.0.0.1"},
        {"any other board type is local", "full", "2", "0", "1", "", 1, "127.0.0.1"},
        {"board type lookup fails", "full", "2", "0", "1", "DEVM_GetSelfBoardType", 0, "10.0.0.1"},
        {"no libraries: the main board set by the service", "none", "2", "0", "1", "", 0, "10.0.0.100"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Start(c.variant, {{"QV_FAKE_DEVM_BOARD_TYPE", c.boardType}, {"QV_FAKE_DEVM_CPU", c.cpu},
                          {"QV_FAKE_DEVM_SLOT", c.slot}, {"QV_FAKE_DEVM_MASTER_SLOT", "3"},
                          {"QV_FAKE_DEVM_MASTER_IP", "10.0.0.1"}, {"QV_FAKE_DEVM_SELF_IP", "10.5.5.5"}});
        EXPECT_EQ(Dest(), Ip("127.0.0.1")) << "unresolved: this board";
        EXPECT_EQ(Local(), Ip("127.0.0.1"));
        setenv("QV_FAKE_DEVM_FAIL", c.fail, 1);
        QV_AGENT_GetLocalServerInfo(module_);
        EXPECT_EQ(module_->bServerInfoValid, 1u);
        EXPECT_EQ(module_->bLocalCollector, c.expectLocal);
        EXPECT_EQ(Dest(), Ip(c.expectDest));
        const char *ownAddress = std::string(c.variant) == "none" ? "10.9.9.9" : "10.5.5.5";
        EXPECT_EQ(Local(), c.expectLocal == 1 ? Ip("127.0.0.1") : Ip(ownAddress));
    }
}

}  // namespace
