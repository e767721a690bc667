// Whether a file exists or is empty: the agent's switches that are marker files. The prototypes are
// in the public boot-log header.
#ifndef QV_LOCALLOG_FILE_EXIST_H
#define QV_LOCALLOG_FILE_EXIST_H

#include "qvagent/qv_agent_bootlog.h"

#endif
