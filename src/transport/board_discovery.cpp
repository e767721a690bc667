// Board and collector discovery through the device-management libraries. Every missing library or
// symbol and every failing call leaves the affected field as it was.
#include "transport/board_discovery.h"

#include <arpa/inet.h>

#include <iterator>

#include "core/paths.h"
#include "core/shared_field.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/pal.h"

namespace {

constexpr uint32_t kBoardTypeMainCapable = 1;  // local collector only on CPU 0 of the master slot
// Board types that always send to the main board.
constexpr uint32_t kBoardTypesRemote[] = {4, 5, 6};

constexpr uint16_t kPortOfKind[QV_AGENT_MSG_KIND_COUNT] = {QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM, QV_WIRE_PORT_DEBUG,
                                                           QV_WIRE_PORT_HIGH_PRECISION, QV_WIRE_PORT_KPI};

template <typename Fn>
Fn Resolve(void *library, const char *symbol) {
    return reinterpret_cast<Fn>(PAL_DlSym(library, symbol));
}

void ClearBasic(QvAgentModule *module) {
    module->pDevmBasicLib = nullptr;
    module->pfnGetSelfCpuId = nullptr;
    module->pfnGetSelfSlotId = nullptr;
    module->pfnGetSelfBoardType = nullptr;
    module->pfnGetSystemMasterIpAndSlotId = nullptr;
}

bool IsRemoteBoardType(uint32_t type) {
    for (uint32_t remote : kBoardTypesRemote) {
        if (type == remote) return true;
    }
    return false;
}

// Board type 1: the collector is local on CPU 0 of the master slot. -1 when it cannot be told.
int LocalOnMainCapableBoard(const QvAgentModule *module) {
    if (module->pfnGetSelfSlotId == nullptr || module->pfnGetSystemMasterIpAndSlotId == nullptr) return -1;
    if (module->ucCpuId != 0) return 0;
    uint32_t slot = 0;
    uint32_t masterIp = 0;
    uint32_t masterSlot = 0;
    if (module->pfnGetSelfSlotId(&slot) != 0 || module->pfnGetSystemMasterIpAndSlotId(&masterIp, &masterSlot) != 0) {
        return 0;
    }
    return slot == masterSlot ? 1 : 0;
}

bool CollectorIsRemote(const QvAgentModule *module) {
    return qv::LoadShared(module->bLocalCollector) != 1 && qv::LoadShared(module->bServerInfoValid) == 1;
}

}  // namespace

void QV_AGENT_DevmBasicInfoApiInit(QvAgentModule *module) {
    if (module == nullptr) return;
    ClearBasic(module);
    void *library = PAL_DlOpen(qv::path::kDevmBasicLib, PAL_DL_NOW);
    if (library == nullptr) return;
    module->pDevmBasicLib = library;
    module->pfnGetSelfCpuId = Resolve<QvAgentDevmGetU32Fn>(library, "DEVM_GetSelfCpuId");
    module->pfnGetSelfSlotId = Resolve<QvAgentDevmGetU32Fn>(library, "DEVM_GetSelfSlotId");
    module->pfnGetSelfBoardType = Resolve<QvAgentDevmGetU32Fn>(library, "DEVM_GetSelfBoardType");
    module->pfnGetSystemMasterIpAndSlotId = Resolve<QvAgentDevmGetMasterFn>(library, "DEVM_GetSystemMasterIpAndSlotId");
    if (module->pfnGetSelfCpuId == nullptr || module->pfnGetSelfSlotId == nullptr ||
        module->pfnGetSelfBoardType == nullptr || module->pfnGetSystemMasterIpAndSlotId == nullptr) {
        PAL_DlClose(library);
        ClearBasic(module);
    }
}

void QV_AGENT_DevmDBInfoApiInit(QvAgentModule *module) {
    if (module == nullptr) return;
    module->pDevmDbLib = PAL_DlOpen(qv::path::kDevmDbLib, PAL_DL_NOW);
    if (module->pDevmDbLib == nullptr) return;
    module->pfnGlobalSlotId2LocalSlotId = Resolve<QvAgentDevmSlotMapFn>(module->pDevmDbLib, "DEVM_GlobalSlotId2LocalSlotId");
    if (module->pfnGlobalSlotId2LocalSlotId == nullptr) {
        PAL_DlClose(module->pDevmDbLib);
        module->pDevmDbLib = nullptr;
    }
    // Looked up with the handle as it now is: a library without the slot map gives no address either.
    module->pfnGetSelfBoardIp = Resolve<QvAgentDevmGetU32Fn>(module->pDevmDbLib, "DEVM_GetSelfBoardIp");
    if (module->pfnGetSelfBoardIp == nullptr && module->pDevmDbLib != nullptr) {
        PAL_DlClose(module->pDevmDbLib);
        module->pDevmDbLib = nullptr;
        module->pfnGlobalSlotId2LocalSlotId = nullptr;  // its code is gone with the library
    }
}

void QV_AGENT_DevmBasicInfoApiUninit(QvAgentModule *module) {
    if (module == nullptr || module->pDevmBasicLib == nullptr) return;
    PAL_DlClose(module->pDevmBasicLib);
    ClearBasic(module);
}

void QV_AGENT_DevmDBInfoApiUninit(QvAgentModule *module) {
    if (module == nullptr || module->pDevmDbLib == nullptr) return;
    PAL_DlClose(module->pDevmDbLib);
    module->pDevmDbLib = nullptr;
    module->pfnGlobalSlotId2LocalSlotId = nullptr;
    module->pfnGetSelfBoardIp = nullptr;
}

void QV_AGENT_GetSelfBoardIp(QvAgentModule *module) {
    if (module == nullptr || module->pfnGetSelfBoardIp == nullptr) return;
    uint32_t ip = 0;
    if (module->pfnGetSelfBoardIp(&ip) == 0) qv::StoreShared(module->uiSelfIp, htonl(ip));
}

void QV_AGENT_GetPositionInfo(QvAgentModule *module) {
    if (module == nullptr || module->pDevmBasicLib == nullptr || module->pfnGetSelfCpuId == nullptr) return;
    uint32_t cpu = 0;
    if (module->pfnGetSelfCpuId(&cpu) == 0) module->ucCpuId = static_cast<uint8_t>(cpu);
    uint32_t slot = 0;
    if (module->pfnGetSelfSlotId == nullptr || module->pfnGetSelfSlotId(&slot) != 0 || module->pDevmDbLib == nullptr) {
        return;
    }
    uint32_t localA = 0;
    uint32_t localB = 0;
    if (module->pfnGlobalSlotId2LocalSlotId(slot, &localA, &localB) != 0) return;
    module->ucLocalIdA = static_cast<uint8_t>(localA);
    module->ucLocalIdB = static_cast<uint8_t>(localB);
    QV_AGENT_GetSelfBoardIp(module);
}

void QV_AGENT_GetLocalServerInfo(QvAgentModule *module) {
    if (module == nullptr) return;
    qv::StoreShared(module->bServerInfoValid, 1);
    if (module->pfnGetSelfBoardType == nullptr) return;
    uint32_t type = 0;
    if (module->pfnGetSelfBoardType(&type) != 0 || IsRemoteBoardType(type)) {
        qv::StoreShared(module->bLocalCollector, 0);
    } else if (type != kBoardTypeMainCapable) {
        qv::StoreShared(module->bLocalCollector, 1);
    } else if (const int local = LocalOnMainCapableBoard(module); local >= 0) {
        qv::StoreShared(module->bLocalCollector, static_cast<uint32_t>(local));
    }
}

uint32_t QV_AGENT_GetLocalIpAddr(MESH_ADDR_S *addr, QvAgentModule *module) {
    if (addr == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    addr->ucAddrType = 0;
    addr->uiIpAddr = CollectorIsRemote(module) ? qv::LoadShared(module->uiSelfIp) : htonl(INADDR_LOOPBACK);
    return QV_AGENT_OK;
}

void QV_AGENT_GetMainBoardIpAddr(MESH_ADDR_S *addr, QvAgentModule *module) {
    if (addr == nullptr || module == nullptr) return;
    uint32_t masterIp = 0;
    uint32_t masterSlot = 0;
    const bool fromLibrary = module->pfnGetSystemMasterIpAndSlotId != nullptr &&
                             module->pfnGetSystemMasterIpAndSlotId(&masterIp, &masterSlot) == 0;
    addr->uiIpAddr = fromLibrary ? masterIp : qv::LoadShared(module->uiMainBoardIp);
}

uint32_t QV_AGENT_GetDestIpAddr(MESH_ADDR_S *addr, uint32_t k, QvAgentModule *module) {
    if (addr == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    if (CollectorIsRemote(module)) {
        QV_AGENT_GetMainBoardIpAddr(addr, module);
    } else {
        addr->uiIpAddr = htonl(INADDR_LOOPBACK);
    }
    addr->ucAddrType = 0;
    addr->usPort = htons(QV_AGENT_GetDestPortByType(k));
    return QV_AGENT_OK;
}

uint16_t QV_AGENT_GetDestPortByType(uint32_t k) { return k < std::size(kPortOfKind) ? kPortOfKind[k] : uint16_t{0}; }
