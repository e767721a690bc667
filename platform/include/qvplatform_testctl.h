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

#ifdef __cplusplus
}
#endif

#endif
