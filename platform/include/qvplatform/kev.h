/*
 * Platform scheduler framework: scheduler threads, descriptor event control and timers.
 *
 * A scheduler thread runs an event loop. Descriptors registered on it with KEV_ThreadCtrl and timers
 * created on it with KEV_TimerCreate call their callbacks on that thread, one at a time, never two at
 * once. Callbacks may register, remove and destroy (their own included) from inside.
 *
 * Settings are handed over in attribute objects: create one, set attributes by number, hand it to
 * the create or control call (which copies what it needs), then destroy it. Handles of threads and
 * timers are 64-bit values that are never 0 and never reused within a process; a stale or foreign
 * handle is refused, not followed.
 *
 * This is the interface the agent sees. On a device the platform vendor's framework provides it; on
 * a build machine the stand-in library qvplatform does.
 */
#ifndef QVPLATFORM_KEV_H
#define QVPLATFORM_KEV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
#define KEV_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define KEV_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ---- result codes (u32; 0 is success) ---- */
#define KEV_OK 0x0u
#define KEV_ERR_PARAM 0x1u     /* null or malformed argument, unknown attribute, operation or bit */
#define KEV_ERR_NOT_FOUND 0x2u /* unknown or stopped thread, unknown timer, descriptor not registered */
#define KEV_ERR_EXIST 0x3u     /* descriptor already registered on that thread */
#define KEV_ERR_SYSTEM 0x4u    /* the kernel refused (descriptor that cannot be polled, no memory) */

/* ---- scheduler threads ---- */

/* Thread attribute numbers.
 * KEV_THREAD_ATTR_NAME: the thread's name as bytes, len 1 to KEV_THREAD_NAME_MAX_LEN, no terminator
 *   counted (a NUL ends the name early). The scheduler thread names itself with its first
 *   KEV_THREAD_NAME_VISIBLE_LEN bytes, as much as Linux keeps. Unnamed threads are called "kev_sched".
 * KEV_THREAD_ATTR_PRIORITY: u32 (len 4); kept with the thread, no effect in the stand-in.
 * KEV_THREAD_ATTR_OPTION: u32 (len 4); kept with the thread, no effect in the stand-in. */
#define KEV_THREAD_ATTR_NAME 0u
#define KEV_THREAD_ATTR_PRIORITY 1u
#define KEV_THREAD_ATTR_OPTION 100u
#define KEV_THREAD_NAME_MAX_LEN 63u
#define KEV_THREAD_NAME_VISIBLE_LEN 15u

/* A new thread attribute object with no attribute set, or null. */
void *KEV_ThreadCreateAttr(void);
/* Sets one attribute: 0, or KEV_ERR_PARAM for a null object or value, an unknown id, a wrong len
 * (attributes 1 and 100 take exactly 4) or a name of len 0 or over KEV_THREAD_NAME_MAX_LEN. A failed
 * call leaves the object as it was. */
uint32_t KEV_ThreadSetAttr(void *attr, uint32_t id, const void *value, uint32_t len);
/* Starts a scheduler thread with the attributes (null: all defaults); its handle, or 0 on failure.
 * The attribute object may be destroyed right after. The thread runs until the process ends. */
uint64_t KEV_ThreadCreate(void *attr);
/* Releases a thread attribute object; null is ignored. */
void KEV_ThreadDestroyAttr(void *attr);

/* ---- tasks: the callback of a registered descriptor ---- */

/* Called on the scheduler thread with the events that occurred (KEV_EVENT_* bits, see below) and the
 * task's argument. The result is not used. */
typedef uint32_t (*KEV_TASK_FUNC)(uint32_t *events, void *arg);

typedef struct KEV_TASK_FUNC_S {
    KEV_TASK_FUNC pfnTask; /* 0 */
    void *pArg;            /* 8 */
} KEV_TASK_FUNC_S;
KEV_STATIC_ASSERT(sizeof(void *) != 8 || sizeof(KEV_TASK_FUNC_S) == 16, "task record is 16 bytes");

/* Task attribute numbers.
 * KEV_TASK_ATTR_FUNC: a KEV_TASK_FUNC_S (len 16 on 64-bit targets); pfnTask must not be null.
 * KEV_TASK_ATTR_OPTION: u32 (len 4); kept with the registration, no effect in the stand-in. */
#define KEV_TASK_ATTR_FUNC 0u
#define KEV_TASK_ATTR_OPTION 4u

void *KEV_TaskCreateAttr(void);
/* As KEV_ThreadSetAttr, for task attributes. */
uint32_t KEV_TaskSetAttr(void *attr, uint32_t id, const void *value, uint32_t len);
void KEV_TaskDestroyAttr(void *attr);

/* ---- descriptor event control ---- */

/* Event bits, in registration masks and in the mask handed to a task. */
#define KEV_EVENT_READ 0x1u  /* data (or a pending error) to read */
#define KEV_EVENT_WRITE 0x4u /* room to write */
#define KEV_EVENT_ERR 0x8u   /* an error is pending on the descriptor */
#define KEV_EVENT_HUP 0x10u  /* hang-up: the peer closed, or the descriptor was shut down */
#define KEV_EVENT_ALL (KEV_EVENT_READ | KEV_EVENT_WRITE | KEV_EVENT_ERR | KEV_EVENT_HUP)

/* Operations of KEV_ThreadCtrl. */
#define KEV_CTRL_ADD 0u
#define KEV_CTRL_DEL 2u

typedef struct KEV_CTRL_S {
    uint32_t uiEvents; /* 0: KEV_EVENT_* bits to wait for, e.g. KEV_EVENT_READ | KEV_EVENT_HUP */
    void *pTaskAttr;   /* 8: a task attribute object with KEV_TASK_ATTR_FUNC set */
} KEV_CTRL_S;
KEV_STATIC_ASSERT(sizeof(void *) != 8 || sizeof(KEV_CTRL_S) == 16, "control record is 16 bytes");

/* Registers or removes a descriptor on a scheduler thread; 0 on success.
 *
 * KEV_CTRL_ADD: watches fd for rec->uiEvents (nonzero, KEV_EVENT_ALL bits only) and keeps a copy of the
 *   task, so the caller may destroy the task attribute object right after. Watching is level-triggered:
 *   while the condition lasts (a datagram unread), the task is called again after every return. The
 *   mask handed to the task holds the bits that occurred among those asked for; KEV_EVENT_ERR and
 *   KEV_EVENT_HUP are reported even when not asked for, as the kernel reports them, and a pending error
 *   on a descriptor watched for KEV_EVENT_READ is reported as KEV_EVENT_READ | KEV_EVENT_ERR, since
 *   reading is what collects it. Results: KEV_ERR_PARAM (null record or task, task without callback,
 *   fd < 0, bad mask), KEV_ERR_NOT_FOUND (unknown thread), KEV_ERR_EXIST (fd already registered on
 *   this thread), KEV_ERR_SYSTEM (fd not open or cannot be watched). A descriptor closed without being
 *   removed is forgotten by the kernel; adding its number again then replaces the stale registration.
 * KEV_CTRL_DEL: stops watching fd (rec is not read and may be null). Once it returns, the descriptor's
 *   task is never called again, not even with an event already collected. Called on the scheduler
 *   thread itself (from a callback) it takes effect at once; called on another thread while the task is
 *   running, it waits until the task returns, so do not call it while holding a lock that the task
 *   takes. Results: KEV_ERR_NOT_FOUND (unknown thread, fd not registered). Remove before closing.
 * Other operations: KEV_ERR_PARAM. */
uint32_t KEV_ThreadCtrl(uint64_t thread, uint32_t op, int32_t fd, KEV_CTRL_S *rec);

/* ---- timers ---- */

/* Called on the scheduler thread. value1 is the timer's own handle (as KEV_TimerCreate returned it),
 * value2 the number of expirations since the previous call (1, more when the thread fell behind).
 * The result is not used. */
typedef uint32_t (*KEV_TIMER_FUNC)(uint64_t value1, uint64_t value2, void *arg);

typedef struct KEV_TIMER_FUNC_S {
    KEV_TIMER_FUNC pfnTimer; /* 0 */
    void *pArg;              /* 8 */
} KEV_TIMER_FUNC_S;
KEV_STATIC_ASSERT(sizeof(void *) != 8 || sizeof(KEV_TIMER_FUNC_S) == 16, "timer record is 16 bytes");

/* Timer attribute numbers.
 * KEV_TIMER_ATTR_FUNC: a KEV_TIMER_FUNC_S (len 16 on 64-bit targets); pfnTimer must not be null.
 * KEV_TIMER_ATTR_PERIODIC: u32 (len 4), 1 periodic, 0 one-shot (the default); other values refused.
 * KEV_TIMER_ATTR_PERIOD_MS: u32 (len 4), the period (or, one-shot, the delay) in ms, at least 1. */
#define KEV_TIMER_ATTR_FUNC 0u
#define KEV_TIMER_ATTR_PERIODIC 1u
#define KEV_TIMER_ATTR_PERIOD_MS 2u

void *KEV_TimerCreateAttr(void);
/* As KEV_ThreadSetAttr, for timer attributes. */
uint32_t KEV_TimerSetAttr(void *attr, uint32_t id, const void *value, uint32_t len);
void KEV_TimerDestroyAttr(void *attr);

/* A timer on a scheduler thread, not yet running; its handle, or 0 when the thread is unknown, the
 * attributes lack the callback or the period, or the kernel refuses. The attribute object may be
 * destroyed right after. */
uint64_t KEV_TimerCreate(uint64_t thread, void *attr);
/* Arms the timer: the first expiry one period from now; periodic timers then every period. Starting a
 * running timer starts its period afresh. A one-shot timer that has fired stays until destroyed and
 * may be started again. 0, or KEV_ERR_NOT_FOUND for an unknown timer. */
uint32_t KEV_TimerStart(uint64_t timer);
/* Stops and releases the timer; 0, or KEV_ERR_NOT_FOUND for an unknown timer. Safe from any thread and
 * from inside the timer's own callback; as with KEV_CTRL_DEL, once it returns the callback is never
 * called again, and called on another thread while the callback runs it waits until it returns. */
uint32_t KEV_TimerDestroy(uint64_t timer);

#ifdef __cplusplus
}
#endif

#endif
