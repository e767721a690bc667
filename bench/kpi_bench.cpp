// Cost of KPI reporting: one update queued on the KPI list (one and two threads), and one KPI send of a
// full list (4001 records) packed and sent over the KPI mesh socket, with and without on-change options
// on the instances the samples belong to.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>

#include <chrono>
#include <thread>

#include "bench_support.h"
#include "core/mutex_guard.h"
#include "event/send_list.h"

namespace {

constexpr uint8_t kOnChangeFlag = 0xD1;
constexpr uint32_t kFullList = QV_AGENT_KPI_LIST_LIMIT + 1;
constexpr uint32_t kObjects = 16;  // instances the send's samples are spread over
// Below the KPI list's limit even when two threads fill it between drains.
constexpr int kKpiDrainEvery = 1000;

void DrainKpiList(QvAgentModule *module) {
    qv::MutexGuard guard(module->stKpiMutex);
    QvAgentSendList &list = module->astSendList[QV_AGENT_MSG_KPI];
    while (QvAgentListItem *item = qv::sendlist::First(list)) {
        qv::sendlist::Unlink(list, item);
        qv::sendlist::Release(item, module);
    }
}

void BM_KpiUpdate(benchmark::State &state) {
    QvAgentModule *module = qvbench::Agent();
    int n = 0;
    uint64_t value = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(QV_AGENT_UpdateKpi(5, 7, static_cast<uint32_t>(state.thread_index()), &kOnChangeFlag, ++value));
        if (++n % kKpiDrainEvery == 0) {
            state.PauseTiming();
            DrainKpiList(module);
            state.ResumeTiming();
        }
    }
    DrainKpiList(module);
}
BENCHMARK(BM_KpiUpdate)->Threads(1)->Threads(2)->UseRealTime();

// Points the agent at a collector on loopback and waits (up to two timer ticks) for the KPI mesh socket
// that the timer then creates. Nothing listens on the KPI port: the packets are dropped at delivery.
bool KpiSocketReady(QvAgentModule *module) {
    const uint32_t loopback = htonl(INADDR_LOOPBACK);
    QV_Agent_SetMainBoardIP(module, loopback);
    if (module->uiSelfIp != loopback) QV_Agent_SetLocalIP(module, loopback);
    for (int i = 0; i < 40 && module->auiMeshState[QV_AGENT_MSG_KPI] != QV_AGENT_STATE_READY; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return module->auiMeshState[QV_AGENT_MSG_KPI] == QV_AGENT_STATE_READY;
}

// Arg 0: no options, every record leaves (14 packets). Arg 1: each instance has the largest on-change
// option and a constant value, so the filter holds almost every record back.
void BM_KpiSendFullList(benchmark::State &state) {
    QvAgentModule *module = qvbench::Agent();
    if (!KpiSocketReady(module)) {
        state.SkipWithError("the KPI mesh socket was not created");
        return;
    }
    const bool options = state.range(0) != 0;
    for (uint32_t object = 0; options && object < kObjects; ++object) {
        const QvAgentKpiObject instance{7, object, 0, 6};
        const uint32_t limit = KPI_ONCHANGE_MAX;
        QV_Agent_SetKpiOption(&instance, KPI_OPTION_ONCHANGE, sizeof limit, &limit);
    }
    const uint32_t component = options ? 6 : 5;
    for (auto _ : state) {
        state.PauseTiming();
        for (uint32_t i = 0; i < kFullList; ++i) QV_AGENT_UpdateKpi(component, 7, i % kObjects, &kOnChangeFlag, 1);
        state.ResumeTiming();
        benchmark::DoNotOptimize(QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, module));
    }
    state.SetItemsProcessed(state.iterations() * kFullList);
    qvbench::DrainLists(module);  // failure logs, should a send have failed
}
BENCHMARK(BM_KpiSendFullList)->ArgName("on_change")->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
