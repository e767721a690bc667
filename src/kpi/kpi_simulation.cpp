// The KPI simulation: fixed, recognisable samples fed into the agent's own KPI path from the send loop,
// so that the way from send list 4 to the collector can be checked on a device without a KPI source.
// It runs only where the marker file exists and the service type is the messaging daemon's.
#include <cstdlib>
#include <span>

#include "core/paths.h"
#include "kpi/kpi_internal.h"
#include "locallog/file_exist.h"
#include "qvagent/qv_agent_kpi.h"
#include "qvplatform/pal.h"
#include "qvplatform/qv_bounded.h"

namespace {

constexpr uint8_t kFilteredFlag = 0xD1;  // report mode 00: held back by on-change options
constexpr uint8_t kAlwaysFlag = 0xD5;    // report mode 01: always sent
constexpr uint32_t kNoOption = 0xFFFFFFFFu;
constexpr uint32_t kOptionLen = sizeof(uint32_t);

constexpr int32_t kSlowPeriod = 60;
constexpr uint32_t kFastPeriod = 10;
constexpr uint32_t kKeyPeriod = 61;
constexpr int32_t kBumpEveryRuns = 3;  // the slow generator's last value changes every third run

enum class Stamp : uint8_t { Clock, StartTime };

// One sample of a generator: the object (component without the offset), the option set before it, the
// value, whether the object's sub-object enters the record, and where its time stamp comes from.
struct Step {
    uint16_t component;
    uint32_t kpi;
    uint32_t object;
    uint16_t subObject;
    uint32_t onChangeLimit;  // kNoOption: none
    uint64_t value;
    bool withSubObject;
    Stamp stamp;
    uint8_t flag;
};

constexpr Step kSlowSteps[] = {
    {1000, 1, 10, 100, 3, 10000, true, Stamp::Clock, kFilteredFlag},
    {2000, 2, 20, 200, kNoOption, 20000, false, Stamp::Clock, kFilteredFlag},
    {3000, 3, 30, 300, kNoOption, 30000, true, Stamp::StartTime, kFilteredFlag},
    {4000, 70000, 40, 400, 5, 40000, true, Stamp::Clock, kFilteredFlag},
    {5000, 5, 50, 500, 4, 50000, true, Stamp::Clock, kFilteredFlag},
};
constexpr uint64_t kSlowBumpedValue = 50050;  // the last step's value on every third run

constexpr Step kFastSteps[] = {
    {10000, 10, 100, 1000, kNoOption, 10000, true, Stamp::Clock, kFilteredFlag},
    {20000, 1, 10, 100, 3, 10000, true, Stamp::Clock, kFilteredFlag},
    {20000, 1, 10, 100, kNoOption, 10000, true, Stamp::Clock, kAlwaysFlag},
};

constexpr Step kKeySteps[] = {
    {98, 1, 10, 100, kNoOption, 10000, true, Stamp::Clock, kAlwaysFlag},
};

// Queues the steps' samples. One record and one object serve every step, so a step without its
// sub-object carries the one of the step before. bumpLast replaces the last step's value.
void RunSteps(std::span<const Step> steps, uint32_t startTime, bool bumpLast) {
    QvAgentKpiRecord record{};
    QvAgentKpiObject object{};
    for (size_t i = 0; i < steps.size(); ++i) {
        const Step &s = steps[i];
        QV_Agent_ConstructKpiObject(&object, s.component, s.kpi, s.object, s.subObject);
        if (s.onChangeLimit != kNoOption) QV_Agent_SetKpiOption(&object, KPI_OPTION_ONCHANGE, kOptionLen, &s.onChangeLimit);
        const uint64_t value = bumpLast && i + 1 == steps.size() ? kSlowBumpedValue : s.value;
        QV_Agent_ConstructKpiData(&record, &object, &s.flag, value, startTime, s.withSubObject ? 1 : 0,
                                  s.stamp == Stamp::StartTime ? 1 : 0);
        QV_AGENT_KpiReportById(&record, QV_Agent_GetHandle());
    }
}

}  // namespace

namespace qv::kpi {

void Simulate(uint32_t counter, QvAgentModule *module) {
    StlmUpdateKpiTest(static_cast<int32_t>(counter), module);
    StlmUpdateKpiTestFast(counter, module);
    StlmUpdateKpiTestKeyKPI(counter, module);
}

}  // namespace qv::kpi

uint32_t QV_Agent_IsKpiSimuReport(void) {
    if (QV_AGENT_IsFileExist(qv::kpi::kSimulationMarker) == 0) return 0;
    const char *serviceType = std::getenv(qv::path::kServiceTypeEnv);
    return serviceType != nullptr && PAL_StrCmp(serviceType, qv::kpi::kSimulationServiceType) == 0 ? 1 : 0;
}

void QV_Agent_ConstructKpiObject(QvAgentKpiObject *object, uint16_t componentId, uint32_t kpiId, uint32_t objectId,
                                 uint16_t subObjectId) {
    if (object == nullptr) return;
    object->usComponentId = componentId;
    object->uiKpiId = kpiId;
    object->uiObjectId = objectId;
    object->usSubObjectId = subObjectId;
}

void QV_Agent_ConstructKpiData(QvAgentKpiRecord *record, const QvAgentKpiObject *object, const uint8_t *flag,
                               uint64_t value, uint32_t timeStamp, uint32_t withSubObject, int32_t withTimeStamp) {
    if (record == nullptr || object == nullptr || flag == nullptr) return;
    const QvAgentModule *module = QV_Agent_GetHandle();
    if (module == nullptr) return;
    record->usComponentId = qv::kpi::StoredComponent(object->usComponentId);
    record->uiKpiId = object->uiKpiId;
    record->uiObjectId = object->uiObjectId;
    if (withSubObject == 1) record->usSubObjectId = object->usSubObjectId;
    record->ucCpuId = module->ucCpuId;
    record->ucLocalIdB = module->ucLocalIdB;
    record->ulValue = value;
    memcpy_s(&record->ucKpiFlag, sizeof record->ucKpiFlag, flag, sizeof *flag);
    if (withTimeStamp != 0) {
        record->uiTimeStamp = timeStamp;
    } else {
        QV_AGENT_KpiGetTimeStampSecond(&record->uiTimeStamp);
    }
}

void StlmUpdateKpiTest(int32_t tick, QvAgentModule * /*handle*/) {
    if (tick % kSlowPeriod != 0 || QV_Agent_IsKpiSimuReport() != 1) return;
    const uint32_t startTime = QV_AGENT_KpiGetTimeStamp();
    RunSteps(kSlowSteps, startTime, (tick / kSlowPeriod) % kBumpEveryRuns == 0);
}

void StlmUpdateKpiTestFast(uint32_t tick, QvAgentModule * /*handle*/) {
    if (tick % kFastPeriod != 0 || QV_Agent_IsKpiSimuReport() != 1) return;
    RunSteps(kFastSteps, 0, false);
}

void StlmUpdateKpiTestKeyKPI(uint32_t tick, QvAgentModule * /*handle*/) {
    if (tick % kKeyPeriod != 0 || QV_Agent_IsKpiSimuReport() != 1) return;
    RunSteps(kKeySteps, 0, false);
}
