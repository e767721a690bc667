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

/* Blocks and bytes of PAL_MemAlloc_F outstanding on one memory handle. */
uint64_t QVPLAT_TestBlocksOutstanding(uint32_t handle);
uint64_t QVPLAT_TestBytesOutstanding(uint32_t handle);

/* Calls of PAL_MemAlloc_F since the start of the process, failed ones included. */
uint64_t QVPLAT_TestAllocCalls(void);

/* Makes the nth call of PAL_MemAlloc_F from now on fail (n >= 1), once; 0 cancels. */
void QVPLAT_TestFailAllocation(uint64_t nth);

/* Makes PAL_SystimeGet answer this time (and PAL_SystimeGet fail when time is null and fail is
 * nonzero); QVPLAT_TestClearTime returns to the real clock. */
void QVPLAT_TestSetTime(const PAL_SYSTIME_S *time);
void QVPLAT_TestFailTime(uint32_t fail);
void QVPLAT_TestClearTime(void);

#ifdef __cplusplus
}
#endif

#endif
