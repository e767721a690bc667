// The blackbox: the per-service file-backed ring of log records that outlives the process.
// The exported functions are declared in the installed header qvagent/qv_agent_files.h.
#ifndef QV_BLACKBOX_BLACKBOX_H
#define QV_BLACKBOX_BLACKBOX_H

#include "qvagent/qv_agent_files.h"

#endif
