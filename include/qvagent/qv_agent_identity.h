/*
 * libqvagent: identity and attributes of the service, the device log and the flush notice.
 *
 * The setters take the module record first. Each writes one field without a lock, except
 * QV_Agent_SetLocalIP, which also marks the mesh sockets for re-creation.
 */
#ifndef QVAGENT_QV_AGENT_IDENTITY_H
#define QVAGENT_QV_AGENT_IDENTITY_H

#include <stdint.h>

#include "qv_agent_init.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* Argument of QV_Agent_SetProcessInfo; alarms carry this 52-byte block as option 80. */
typedef struct QvAgentProcessInfo {
    char szProcessName[QV_AGENT_NAME_LEN];
    uint32_t auiProcessInfo[QV_AGENT_PROCESS_VALUES];
} QvAgentProcessInfo;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentProcessInfo) == 52, "process information is 52 bytes");

/* Attribute numbers of QV_Agent_SetAttribute. */
#define QV_AGENT_ATTR_LIST_LIMIT 0
#define QV_AGENT_ATTR_RESERVED 1

#define QV_AGENT_DEVLOG_PATH_MAX 128u /* bytes of a device log path, terminator included */

/* Addresses are IPv4 in network order; 0 is refused with QV_AGENT_ERR_PARAM. */
uint32_t QV_Agent_SetMainBoardIP(QvAgentModule *module, uint32_t ip);
uint32_t QV_Agent_SetLocalIP(QvAgentModule *module, uint32_t ip);

/* Takes over the five values, then the name (at most 31 characters); the name copy's result. */
uint32_t QV_Agent_SetProcessInfo(QvAgentModule *module, const QvAgentProcessInfo *info);

/* Clears the name, copies the new one (at most 31 characters), and only then stores the id. */
uint32_t QV_Agent_SetServiceInfo(QvAgentModule *module, const char *name, uint32_t serviceId);

/* Stores *value as attribute 0 (list limit) or 1; QV_AGENT_ERR_PARAM for any other attribute. */
uint32_t QV_Agent_SetAttribute(QvAgentModule *module, int32_t attribute, const uint32_t *value);

/* Appends len bytes as they are to "/opt/zanthe/var/log/DevLog_<name>.log"; 0 or QV_AGENT_ERR_DEVLOG. */
uint32_t QV_Agent_DevLog(const char *name, const uint8_t *bytes, int32_t len);

/* Sends the collector the 8-byte notice to flush its log file; 0, QV_AGENT_ERR_NO_MEMORY or the
 * send's error. */
uint32_t QV_Agent_FlushToLogFile(QvAgentModule *module);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
