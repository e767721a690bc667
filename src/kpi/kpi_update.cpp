// KPI updates: each call turns one sample into a 28-byte KPI record and queues a copy on send list 4
// under stKpiMutex; the KPI send drains the list later. Also the time stamps of the samples.
#include <cstring>

#include "core/mutex_guard.h"
#include "kpi/kpi_internal.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_kpi.h"
#include "qvagent/qv_agent_memory.h"
#include "qvplatform/pal.h"
#include "qvplatform/qv_bounded.h"

namespace {

// A record of the module's CPU with the identity and value of one sample; the flag byte is copied with
// the bounded copy, whose failure is returned.
uint32_t BuildRecord(QvAgentKpiRecord &record, uint32_t componentId, uint32_t kpiId, uint32_t objectId,
                     uint16_t subObjectId, const uint8_t *flag, uint64_t value, const QvAgentModule *module) {
    std::memset(&record, 0, sizeof record);
    record.usComponentId = qv::kpi::StoredComponent(componentId);
    record.uiKpiId = kpiId;
    record.uiObjectId = objectId;
    record.usSubObjectId = subObjectId;
    record.ucCpuId = module->ucCpuId;
    record.ulValue = value;
    return static_cast<uint32_t>(memcpy_s(&record.ucKpiFlag, sizeof record.ucKpiFlag, flag, sizeof *flag));
}

}  // namespace

namespace qv::kpi {

uint16_t StoredComponent(uint32_t componentId) {
    return static_cast<uint16_t>(componentId + QV_KPI_COMPONENT_OFFSET);
}

}  // namespace qv::kpi

uint32_t QV_AGENT_KpiReportById(const QvAgentKpiRecord *record, QvAgentModule *handle) {
    if (record == nullptr || handle == nullptr) return QV_AGENT_ERR_PARAM;
    qv::MutexGuard guard(handle->stKpiMutex);
    return QV_AGENT_AddLogToDataList(reinterpret_cast<const uint8_t *>(record), sizeof *record,
                                     static_cast<int32_t>(QV_AGENT_MSG_KPI), handle);
}

uint32_t QV_AGENT_UpdateKpi(uint32_t componentId, uint16_t kpiId, uint32_t objectId, const uint8_t *pucKpiFlag,
                            uint64_t value) {
    if (pucKpiFlag == nullptr) return QV_AGENT_ERR_PARAM;
    QvAgentModule *module = QV_Agent_GetHandle();
    if (module == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    QvAgentKpiRecord record;
    const uint32_t rc = BuildRecord(record, componentId, kpiId, objectId, 0, pucKpiFlag, value, module);
    if (rc != QV_AGENT_OK) return rc;
    QV_AGENT_KpiGetTimeStampSecond(&record.uiTimeStamp);  // stays 0 without a clock
    return QV_AGENT_KpiReportById(&record, module);
}

uint32_t QV_AGENT_UpdateSubKpi(uint32_t componentId, uint16_t kpiId, uint32_t objectId, uint16_t subObjectId,
                               const uint8_t *pucKpiFlag, uint64_t value) {
    if (pucKpiFlag == nullptr) return QV_AGENT_ERR_PARAM;
    QvAgentModule *module = QV_Agent_GetHandle();
    if (module == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    QvAgentKpiRecord record;
    // A flag byte that cannot be copied leaves the flag 0; the sample still goes.
    BuildRecord(record, componentId, kpiId, objectId, subObjectId, pucKpiFlag, value, module);
    QV_AGENT_KpiGetTimeStampSecond(&record.uiTimeStamp);
    QV_AGENT_WriteToFile("UpdateSubKpi componentId = %u, kpiId = %u, objectId = %u, subObjectId = %u",
                         static_cast<unsigned>(record.usComponentId), static_cast<unsigned>(record.uiKpiId),
                         static_cast<unsigned>(record.uiObjectId), static_cast<unsigned>(record.usSubObjectId));
    return QV_AGENT_KpiReportById(&record, module);
}

uint32_t QV_AGENT_UpdateSubKpiWithTimeStamp(const StlmKpiKey *key, const uint8_t *pucKpiFlag, uint32_t timeStamp,
                                            uint64_t value) {
    if (key == nullptr || pucKpiFlag == nullptr) return QV_AGENT_ERR_PARAM;
    QvAgentModule *module = QV_Agent_GetHandle();
    if (module == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    QvAgentKpiRecord record;
    const uint32_t rc = BuildRecord(record, key->usComponentId, key->usKpiId, key->uiObjectId, key->usSubObjectId,
                                    pucKpiFlag, value, module);
    if (rc != QV_AGENT_OK) return rc;
    record.uiTimeStamp = timeStamp;
    return QV_AGENT_KpiReportById(&record, module);
}

uint32_t QV_AGENT_KpiGetTimeStampSecond(uint32_t *seconds) {
    if (seconds == nullptr) return QV_AGENT_ERR_PARAM;
    PAL_SYSTIME_S now{};
    uint32_t rc = PAL_SystimeGet(&now);
    if (rc != QV_AGENT_OK) return rc;
    uint32_t value = 0;
    rc = PAL_SystimeSecSince1970(&now, &value);
    if (rc != QV_AGENT_OK) return rc;
    *seconds = value;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_KpiGetTimeStamp(void) {
    if (QV_Agent_GetHandle() == nullptr) return 0;
    uint32_t seconds = 0;
    return QV_AGENT_KpiGetTimeStampSecond(&seconds) == QV_AGENT_OK ? seconds : 0;
}
