/*
 * libqvagent: memory and the trace file.
 *
 * Every block of the agent comes from these allocation functions, which choose between the platform
 * runtime's accounted allocator and the system allocator. The agent's own diagnostics go to the trace
 * file "/opt/zanthe/var/log/qvagent.log", written only while g_bQvagentDbgSwitch is set and the
 * environment names the service type (PX_SERVICE_TYPE).
 */
#ifndef QVAGENT_QV_AGENT_MEMORY_H
#define QVAGENT_QV_AGENT_MEMORY_H

#include <pthread.h>
#include <stdint.h>

#include "qv_agent_types.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

struct QvAgentModule;
struct QvAgentServiceDesc;

extern uint32_t g_bQvagentDbgSwitch;    /* trace switch, set by an operator or another component */
extern uint32_t g_farnoInited;          /* nonzero: the platform allocator is in use */
extern uint32_t g_qvagentMemHandle;     /* the platform memory handle "qvagent" */
extern pthread_mutex_t g_farnoInitMutex; /* guards the two above and every allocation and release */

#define QV_AGENT_TRACE_TEXT_MAX 511u     /* characters of one trace message */
#define QV_AGENT_TRACE_LINE_MAX 1023u    /* characters of one trace line */

/* Memory for size bytes, not cleared, or null. The module is not used. */
void *QV_AGENT_Malloc(uint32_t size, struct QvAgentModule *module);
/* Releases a block of either allocation pair; null is ignored. */
void QV_AGENT_Free(void *ptr, struct QvAgentModule *module);
/* The same pair for use while the module record is being created. */
void *QV_AGENT_MallocWithInit(uint32_t size, const struct QvAgentServiceDesc *desc);
void QV_AGENT_FreeWithInit(void *ptr, const struct QvAgentServiceDesc *desc);

/* Formats one trace message (at most 511 characters) and writes it as a trace line while tracing is on. */
void QV_AGENT_WriteToFile(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Writes a finished text as one trace line "time[service type]text\n", whatever the switch. */
void QV_AGENT_WriteToFileStr(const char *text);
/* Writes the calling thread's stack, one trace line per frame, while tracing is on. */
void QV_AGENT_Backtrace(void);

/* Reports the allocator in use as a diagnostic log; the result of the send. */
uint32_t QV_AGENT_SendMallocLog(struct QvAgentModule *module);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
