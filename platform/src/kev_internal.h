// Internals shared by the scheduler framework's files: the attribute objects (kev_attr.cpp), the
// scheduler thread with its registrations (kev_scheduler.cpp) and the timer handles (kev_timer.cpp).
#ifndef QVPLATFORM_KEV_INTERNAL_H
#define QVPLATFORM_KEV_INTERNAL_H

#include <cstdint>
#include <memory>

#include "qvplatform/kev.h"

namespace qvkev {

// Every attribute object starts with its kind's magic, so that an object of one kind handed to
// another kind's call is refused instead of misread. Cleared on destruction.
constexpr uint32_t kThreadAttrMagic = 0x4B455654u;
constexpr uint32_t kTaskAttrMagic = 0x4B45564Bu;
constexpr uint32_t kTimerAttrMagic = 0x4B45564Du;

struct ThreadAttr {
    uint32_t magic;
    uint32_t nameLen;  // 0: no name set
    char name[KEV_THREAD_NAME_MAX_LEN + 1];
    uint32_t priority;
    uint32_t option;
};

struct TaskAttr {
    uint32_t magic;
    bool hasFunc;
    KEV_TASK_FUNC_S func;
    uint32_t option;
};

struct TimerAttr {
    uint32_t magic;
    bool hasFunc;
    bool hasPeriod;
    KEV_TIMER_FUNC_S func;
    uint32_t periodic;  // 1 periodic, 0 one-shot
    uint32_t periodMs;
};

// The object behind an attribute handle, or null when the handle is null or of another kind.
const ThreadAttr *AsThreadAttr(const void *attr);
const TaskAttr *AsTaskAttr(const void *attr);
const TimerAttr *AsTimerAttr(const void *attr);

// A fresh value for a thread handle, a timer handle or a registration token: never 0, never reused.
uint64_t NextHandle();

struct Scheduler;

// The running scheduler of a thread handle, or null. The pointer keeps the object alive; once the
// thread is stopped every call below answers KEV_ERR_NOT_FOUND.
std::shared_ptr<Scheduler> FindScheduler(uint64_t thread);

// Timers on a scheduler's loop, identified by their handle (which is also their registration token).
// AddTimer makes the timer's descriptor and watches it, disarmed; StartTimer arms it; RemoveEntry
// (shared with descriptor removal) stops watching, closes it and, off the loop thread, waits for a
// callback in progress to return.
uint32_t AddTimer(Scheduler &sched, uint64_t timer, const TimerAttr &attr);
uint32_t StartTimer(Scheduler &sched, uint64_t timer);
uint32_t RemoveEntry(Scheduler &sched, uint64_t token);

// Drops the timer handles that belong to a stopped scheduler (kev_timer.cpp).
void ForgetTimersOf(const Scheduler *sched);

}  // namespace qvkev

#endif
