// Timers of the scheduler framework: KEV_TimerCreate, KEV_TimerStart, KEV_TimerDestroy and their test
// controls. A timer is a timer descriptor watched by its scheduler's loop (kev_scheduler.cpp); this
// file keeps which scheduler each timer handle belongs to.
#include <atomic>
#include <cstdint>
#include <iterator>
#include <memory>
#include <mutex>
#include <unordered_map>

#include "kev_internal.h"
#include "qvplatform/kev.h"
#include "qvplatform_testctl.h"

namespace qvkev {

namespace {

// Timer handle -> its scheduler. On the heap and never destroyed, like the thread registry, since
// timer callbacks may still run while static objects are torn down.
struct TimerTable {
    std::mutex mutex;
    std::unordered_map<uint64_t, std::shared_ptr<Scheduler>> timers;
};

TimerTable &Timers() {
    static TimerTable *table = new TimerTable;
    return *table;
}

constinit std::atomic<uint32_t> g_failTimerCreate{0};

std::shared_ptr<Scheduler> SchedulerOf(uint64_t timer) {
    TimerTable &table = Timers();
    const std::lock_guard lock(table.mutex);
    const auto it = table.timers.find(timer);
    return it != table.timers.end() ? it->second : nullptr;
}

void Forget(uint64_t timer) {
    TimerTable &table = Timers();
    const std::lock_guard lock(table.mutex);
    table.timers.erase(timer);
}

}  // namespace

void ForgetTimersOf(const Scheduler *sched) {
    TimerTable &table = Timers();
    const std::lock_guard lock(table.mutex);
    for (auto it = table.timers.begin(); it != table.timers.end();) {
        it = it->second.get() == sched ? table.timers.erase(it) : std::next(it);
    }
}

}  // namespace qvkev

extern "C" uint64_t KEV_TimerCreate(uint64_t thread, void *attr) {
    const qvkev::TimerAttr *timerAttr = qvkev::AsTimerAttr(attr);
    if (timerAttr == nullptr || !timerAttr->hasFunc || !timerAttr->hasPeriod) {
        return 0;
    }
    if (qvkev::g_failTimerCreate.exchange(0) != 0) {
        return 0;
    }
    std::shared_ptr<qvkev::Scheduler> sched = qvkev::FindScheduler(thread);
    if (sched == nullptr) {
        return 0;
    }
    // The handle is known before the timer is watched, so that a scheduler stopped meanwhile forgets
    // it too; the timer is not armed yet, so nothing can call back before creation returns.
    const uint64_t timer = qvkev::NextHandle();
    {
        qvkev::TimerTable &table = qvkev::Timers();
        const std::lock_guard lock(table.mutex);
        table.timers.emplace(timer, sched);
    }
    if (qvkev::AddTimer(*sched, timer, *timerAttr) != KEV_OK) {
        qvkev::Forget(timer);
        return 0;
    }
    return timer;
}

extern "C" uint32_t KEV_TimerStart(uint64_t timer) {
    const std::shared_ptr<qvkev::Scheduler> sched = qvkev::SchedulerOf(timer);
    return sched != nullptr ? qvkev::StartTimer(*sched, timer) : KEV_ERR_NOT_FOUND;
}

extern "C" uint32_t KEV_TimerDestroy(uint64_t timer) {
    std::shared_ptr<qvkev::Scheduler> sched;
    {
        qvkev::TimerTable &table = qvkev::Timers();
        const std::lock_guard lock(table.mutex);
        const auto it = table.timers.find(timer);
        if (it == table.timers.end()) {
            return KEV_ERR_NOT_FOUND;
        }
        sched = std::move(it->second);
        table.timers.erase(it);
    }
    // Not found here only when the scheduler stopped meanwhile, which released the timer already.
    static_cast<void>(qvkev::RemoveEntry(*sched, timer));
    return KEV_OK;
}

extern "C" void QVPLAT_TestKevFailTimerCreate(uint32_t on) {
    qvkev::g_failTimerCreate.store(on != 0 ? 1u : 0u);
}

extern "C" uint32_t QVPLAT_TestKevLiveTimers(void) {
    qvkev::TimerTable &table = qvkev::Timers();
    const std::lock_guard lock(table.mutex);
    return static_cast<uint32_t>(table.timers.size());
}
