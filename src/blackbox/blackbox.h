// The blackbox: the per-service file-backed ring of log records that outlives the process.
#ifndef QV_BLACKBOX_BLACKBOX_H
#define QV_BLACKBOX_BLACKBOX_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"

extern "C" {

// Writes "/opt/zanthe/var/LOG_<service type>_blackbox" into name (size bytes). 0; 1 when the service
// type is not set or the name does not fit (the name is then empty); QV_AGENT_ERR_PARAM for a null
// buffer.
uint32_t QV_AGENT_GetFileBufName(char *name, int32_t size);

}

#endif
