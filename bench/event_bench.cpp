// Cost of reporting through event objects: a log (create, two options, three parameters, send) and
// an alarm (create, common attributes, two parameters, send), each queued on its send list.
#include <benchmark/benchmark.h>

#include "bench_support.h"

namespace {

void BM_LogObject(benchmark::State &state) {
    uint32_t port = 7;
    uint16_t vlan = 100;
    uint32_t speed = 10000;
    uint32_t state1 = 1;
    char text[] = "link down";
    qvbench::RunReports(state, [&](QvAgentModule *module) {
        QvAgentObj *obj = nullptr;
        QV_Agent_ObjCreate(1, 0x1234, &obj, module);
        QV_Agent_AddOption(obj, 100, sizeof port, &port, module);
        QV_Agent_AddOption(obj, 101, sizeof vlan, &vlan, module);
        QV_Agent_AddPara(obj, 6, sizeof speed, &speed, module);
        QV_Agent_AddPara(obj, 6, sizeof state1, &state1, module);
        QV_Agent_AddPara(obj, 25, sizeof text, text, module);
        return QV_Agent_Send(obj, module);
    });
}
BENCHMARK(BM_LogObject)->Threads(1)->Threads(2)->UseRealTime();

void BM_Alarm(benchmark::State &state) {
    QvAgentSysTime time{};
    QV_AGENT_GMT_SystimeGet(&time);
    QvAgentAlarmComAttr attr{};
    attr.uiCategory = 1;
    attr.pstTime = &time;
    uint32_t slot = 3;
    char text[] = "fan failure";
    qvbench::RunReports(state, [&](QvAgentModule *module) {
        QvAgentObj *obj = nullptr;
        QV_Agent_ObjCreate(5, 0x5678, &obj, module);
        QV_Agent_SetAlarmComAttr(obj, &attr, module);
        QV_Agent_AddPara(obj, 6, sizeof slot, &slot, module);
        QV_Agent_AddPara(obj, 25, sizeof text, text, module);
        return QV_Agent_Send(obj, module);
    });
}
BENCHMARK(BM_Alarm)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace
