/*
 * Test control of the platform stand-in: what tests switch and read that a device's platform has no
 * interface for. Only tests and tools include this header; the agent never does.
 */
#ifndef QVPLATFORM_TESTCTL_H
#define QVPLATFORM_TESTCTL_H

#include <stdint.h>

#include "qvplatform/pal.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Platform runtime started (nonzero, the default) or not: what PAL_StarterSystemStartUpIs answers. */
void QVPLAT_TestSetStarted(uint32_t started);

/* Nonzero: every new block of PAL_MemAlloc_F is filled with 0xA5 instead of left as it comes, so
 * that a caller relying on zeroed memory fails visibly. Off by default; the test programs turn it on. */
void QVPLAT_TestSetFreshFill(uint32_t on);

/* Blocks and bytes of PAL_MemAlloc_F outstanding on one memory handle. */
uint64_t QVPLAT_TestBlocksOutstanding(uint32_t handle);
uint64_t QVPLAT_TestBytesOutstanding(uint32_t handle);

/* Calls of PAL_MemAlloc_F since the start of the process, failed ones included. */
uint64_t QVPLAT_TestAllocCalls(void);

/* Makes the nth call of PAL_MemAlloc_F from now on fail (n >= 1), once; 0 cancels. */
void QVPLAT_TestFailAllocation(uint64_t nth);

/* QVPLAT_TestSetTime makes PAL_SystimeGet answer *time exactly as given (null: the real clock again);
 * while QVPLAT_TestFailTime's fail is nonzero PAL_SystimeGet fails; QVPLAT_TestClearTime drops both and
 * returns to the real clock. */
void QVPLAT_TestSetTime(const PAL_SYSTIME_S *time);
void QVPLAT_TestFailTime(uint32_t fail);
void QVPLAT_TestClearTime(void);

/* ---- scheduler framework (KEV_) ----
 * Scheduler threads run until the process ends; tests stop theirs so that none is left behind. */

/* Nonzero: the next KEV_ThreadCreate fails (returns 0), once; 0 cancels. */
void QVPLAT_TestKevFailThreadCreate(uint32_t on);
/* Nonzero: the next KEV_TimerCreate fails (returns 0), once; 0 cancels. */
void QVPLAT_TestKevFailTimerCreate(uint32_t on);

/* Stops a scheduler thread, joins it and releases its timers and registrations (the registered
 * descriptors stay open: they are the caller's). 0, or nonzero for an unknown handle or when called on
 * that thread itself. Its handle and those of its timers are unknown afterwards. */
uint32_t QVPLAT_TestKevStopThread(uint64_t thread);
/* Stops every scheduler thread as above, except the calling thread's own; the number stopped. */
uint32_t QVPLAT_TestKevStopAll(void);

/* Scheduler threads running, and timers existing on them (started or not). */
uint32_t QVPLAT_TestKevLiveThreads(void);
uint32_t QVPLAT_TestKevLiveTimers(void);

/* What a scheduler thread was created with and holds now. */
typedef struct QVPLAT_KEV_THREAD_INFO_S {
    char szName[64];        /* the whole name attribute, terminated; empty when none was set */
    uint32_t uiPriority;    /* KEV_THREAD_ATTR_PRIORITY, 0 when not set */
    uint32_t uiOption;      /* KEV_THREAD_ATTR_OPTION, 0 when not set */
    uint32_t uiDescriptors; /* descriptors registered */
    uint32_t uiTimers;      /* timers existing */
} QVPLAT_KEV_THREAD_INFO_S;
/* 0 and *info filled, or nonzero for an unknown handle or null info. */
uint32_t QVPLAT_TestKevThreadInfo(uint64_t thread, QVPLAT_KEV_THREAD_INFO_S *info);
/* The registration of fd on a thread: 0 with its event mask and KEV_TASK_ATTR_OPTION value (0 when not
 * set; either pointer may be null), or nonzero when fd is not registered there. */
uint32_t QVPLAT_TestKevDescriptorInfo(uint64_t thread, int32_t fd, uint32_t *events, uint32_t *option);

/* ---- mesh socket library (MESH_) ---- */

/* The calls whose failure QVPLAT_TestMeshFailCall injects. */
#define QVPLAT_MESH_CALL_SOCKET 0u
#define QVPLAT_MESH_CALL_FCNTL 1u
#define QVPLAT_MESH_CALL_BIND 2u
#define QVPLAT_MESH_CALL_SENDTO 3u
#define QVPLAT_MESH_CALL_RECVFROM 4u
#define QVPLAT_MESH_CALL_COUNT 5u

/* The next count calls of one function (from any thread) fail at once: they return -1, do nothing
 * else, and leave errorNo as the calling thread's error number. count 0 cancels. An unknown call is
 * ignored. */
void QVPLAT_TestMeshFailCall(uint32_t call, uint32_t count, uint32_t errorNo);
/* The same for MESH_SendTo: QVPLAT_TestMeshFailCall(QVPLAT_MESH_CALL_SENDTO, count, errorNo). */
void QVPLAT_TestMeshFailSend(uint32_t count, uint32_t errorNo);

/* Mesh sockets open (made by MESH_Socket, not yet closed). */
uint32_t QVPLAT_TestMeshOpenSockets(void);
/* Closes every open mesh socket; the number closed. */
uint32_t QVPLAT_TestMeshCloseAll(void);

#ifdef __cplusplus
}
#endif

#endif
