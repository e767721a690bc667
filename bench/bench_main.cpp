// Entry point of the benchmarks and their shared module record.
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

}  // namespace qvbench

BENCHMARK_MAIN();
