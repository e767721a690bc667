// The three generators of numbered test logs. Each report is an event object with one text parameter
// "<service name> <number>".
#include "transport/test_reports.h"

#include <atomic>
#include <cstring>

#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/pal.h"
#include "qvplatform/qv_bounded.h"

int32_t g_QvagentTestReportNum = 0;
int32_t g_QvagentHighPrecReportNum = 0;

namespace {

constexpr char kMarkerService[] = "nbqrd_frame";
constexpr uint32_t kTestLogId = 0x8301007;
constexpr uint32_t kHighPrecTestLogId = 0xDD91008;
constexpr int32_t kMarkerReports = 100;
constexpr int32_t kLastTestLog = 500;          // numbers 0 to 500 at most per tick
constexpr int32_t kLastHighPrecTestLog = 800;  // numbers 0 to 800 at most per tick
constexpr size_t kTextBuffer = 128;

// Sends test report number i into rc; false when its text cannot be made (nothing is sent).
bool Report(QvAgentModule *module, uint32_t kind, uint32_t id, int32_t i, uint32_t &rc) {
    char text[kTextBuffer];
    if (snprintf_s(text, sizeof text, "%s %d", module->szServiceName, i) < 0) return false;
    QvAgentObj *obj = nullptr;
    QV_Agent_ObjCreate(kind, id, &obj, module);
    QV_Agent_AddPara(obj, QV_PARA_TYPE_TEXT, static_cast<uint16_t>(std::strlen(text)), text, module);
    rc = QV_Agent_Send(obj, module);
    return true;
}

int32_t ReadCounter(int32_t &counter) { return std::atomic_ref<int32_t>(counter).load(std::memory_order_relaxed); }

// Reports 0, 1, … while the counter (read again after each report) allows, up to the last number.
uint32_t ReportWhileCounted(QvAgentModule *module, int32_t &counter, uint32_t kind, uint32_t id, int32_t last) {
    uint32_t rc = QV_AGENT_OK;
    if (module == nullptr || ReadCounter(counter) < 1) return rc;
    for (int32_t i = 0; Report(module, kind, id, i, rc) && i < last && i + 1 < ReadCounter(counter); ++i) {
    }
    return rc;
}

}  // namespace

uint32_t QV_AGENT_ReportTestLog(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    const int32_t differs = PAL_StrCmp(module->szServiceName, kMarkerService);
    if (differs != 0) return static_cast<uint32_t>(differs);
    uint32_t rc = QV_AGENT_OK;
    for (int32_t i = 0; i < kMarkerReports && Report(module, QV_AGENT_OBJ_DIAG, kTestLogId, i, rc); ++i) {
    }
    return rc;
}

uint32_t QV_AGENT_ReportTestLogForGlobalVariables(QvAgentModule *module) {
    return ReportWhileCounted(module, g_QvagentTestReportNum, QV_AGENT_OBJ_DIAG, kTestLogId, kLastTestLog);
}

uint32_t QV_AGENT_ReportTestHighPrecLogForGlbVar(QvAgentModule *module) {
    return ReportWhileCounted(module, g_QvagentHighPrecReportNum, QV_AGENT_OBJ_HIGH_PRECISION, kHighPrecTestLogId,
                              kLastHighPrecTestLog);
}
