// Whether a file exists: the agent's switches that are marker files.
#ifndef QV_LOCALLOG_FILE_EXIST_H
#define QV_LOCALLOG_FILE_EXIST_H

#include <cstdint>

extern "C" {

// 1 when path names an existing file, else 0 (also for a null path).
uint32_t QV_AGENT_IsFileExist(const char *path);

}

#endif
