/*
 * libqvagent: files on the board that the agent names or looks for: the blackbox's file name and the
 * marker files that switch features on.
 */
#ifndef QVAGENT_QV_AGENT_FILES_H
#define QVAGENT_QV_AGENT_FILES_H

#include <stdint.h>

#include "qv_agent_types.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* Writes "/opt/zanthe/var/LOG_<service type>_blackbox" into name (size bytes). 0; 1 when the service
 * type is not set or the name does not fit (the name is then empty); QV_AGENT_ERR_PARAM for a null
 * buffer. */
uint32_t QV_AGENT_GetFileBufName(char *name, int32_t size);

/* 1 when path names an existing file, else 0 (also for a null path). */
uint32_t QV_AGENT_IsFileExist(const char *path);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
