// Entry point of the benchmarks, their shared module record and the event-object reports they time.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include "bench_support.h"
#include "core/mutex_guard.h"
#include "event/send_list.h"
#include "qvplatform_testctl.h"

namespace qvbench {

QvAgentModule *Agent() {
    static QvAgentModule *module = [] {
        QvAgentServiceDesc desc{};
        std::strcpy(desc.szServiceName, "bench_service");
        desc.uiServiceId = 1;
        desc.uiListLimit = 1u << 20;
        if (std::getenv("QV_BENCH_SYSTEM_ALLOCATOR") != nullptr) QVPLAT_TestSetStarted(0);
        // A service type opens the blackbox; only the blackbox benchmarks switch it on, for their run.
        setenv("PX_SERVICE_TYPE", "bench", 0);
        QvAgentModule *m = QV_Agent_Init(&desc);
        if (m != nullptr) m->bBlackboxEnable = 0;
        return m;
    }();
    return module;
}

void DrainLists(QvAgentModule *module) {
    qv::MutexGuard guard(module->stListMutex);
    for (uint32_t k = 0; k < QV_AGENT_MSG_KPI; ++k) {
        QvAgentSendList &list = module->astSendList[k];
        while (QvAgentListItem *item = qv::sendlist::First(list)) {
            qv::sendlist::Unlink(list, item);
            qv::sendlist::Release(item, module);
        }
    }
}

uint32_t ReportLogObject(QvAgentModule *module) {
    uint32_t port = 7, speed = 10000, up = 1;
    uint16_t vlan = 100;
    char text[] = "link down";
    QvAgentObj *obj = nullptr;
    QV_Agent_ObjCreate(1, 0x1234, &obj, module);
    QV_Agent_AddOption(obj, 100, sizeof port, &port, module);
    QV_Agent_AddOption(obj, 101, sizeof vlan, &vlan, module);
    QV_Agent_AddPara(obj, 6, sizeof speed, &speed, module);
    QV_Agent_AddPara(obj, 6, sizeof up, &up, module);
    QV_Agent_AddPara(obj, 25, sizeof text, text, module);
    return QV_Agent_Send(obj, module);
}

uint32_t ReportAlarm(QvAgentModule *module) {
    static QvAgentSysTime time = [] {
        QvAgentSysTime now{};
        QV_AGENT_GMT_SystimeGet(&now);
        return now;
    }();
    QvAgentAlarmComAttr attr{};
    attr.uiCategory = 1;
    attr.pstTime = &time;
    uint32_t slot = 3;
    char text[] = "fan failure";
    QvAgentObj *obj = nullptr;
    QV_Agent_ObjCreate(5, 0x5678, &obj, module);
    QV_Agent_SetAlarmComAttr(obj, &attr, module);
    QV_Agent_AddPara(obj, 6, sizeof slot, &slot, module);
    QV_Agent_AddPara(obj, 25, sizeof text, text, module);
    return QV_Agent_Send(obj, module);
}

}  // namespace qvbench

BENCHMARK_MAIN();
