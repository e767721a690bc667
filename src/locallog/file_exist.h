// Whether a file exists: the agent's switches that are marker files.
// The exported functions are declared in the installed header qvagent/qv_agent_files.h.
#ifndef QV_LOCALLOG_FILE_EXIST_H
#define QV_LOCALLOG_FILE_EXIST_H

#include "qvagent/qv_agent_files.h"

#endif
