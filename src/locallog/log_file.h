// What the local log file's parts share inside the agent: the mutex that serialises the threads of
// this process around the file, and the rule for the descriptor variable.
#ifndef QV_LOCALLOG_LOG_FILE_H
#define QV_LOCALLOG_LOG_FILE_H

#include <pthread.h>

namespace qv::plog {

// Taken around every line and every change of the path: record locks exclude other processes only.
// Nothing is locked inside it.
extern pthread_mutex_t g_writerMutex;

// A descriptor variable holds one of the agent's descriptors only when it is positive: 0 is its
// value at load and standard input's number, so the agent never keeps its file on descriptor 0.
constexpr bool HoldsDescriptor(int fd) { return fd > 0; }

// Closes the descriptor held in *fd, if any, and marks none (-1).
void ReleaseDescriptor(int *fd);

}  // namespace qv::plog

#endif
