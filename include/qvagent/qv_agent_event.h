/*
 * libqvagent: event objects (alarms and logs), their records, the send lists and the restraint of
 * repeated diagnostic logs.
 */
#ifndef QVAGENT_QV_AGENT_EVENT_H
#define QVAGENT_QV_AGENT_EVENT_H

#include <stdint.h>

#include "qv_agent_init.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Orders restraint statistics by message id (the first u32 of each key), unsigned:
 * 1 when key1 is greater, -1 when smaller, 0 when equal; QV_AGENT_ERR_PARAM for a null key. */
int32_t QV_AGENT_DiagStatisTreeCompare(const void *key1, const void *key2);

#ifdef __cplusplus
}
#endif

#endif
