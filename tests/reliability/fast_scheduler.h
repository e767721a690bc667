// The agent's mesh-mode transport on a timer faster than its 1000 ms, so that a whole resend schedule
// (25 passes) takes a fraction of a second in tests that run the real scheduler thread.
#ifndef QV_TEST_RELIABILITY_FAST_SCHEDULER_H
#define QV_TEST_RELIABILITY_FAST_SCHEDULER_H

#include <cstdint>

#include "qvagent/qvagent.h"

namespace qvtest {

// On a module made without scheduler thread (InitWithoutScheduler) and with its addresses set: starts
// the scheduler thread, creates the mesh socket of every kind (registered on that thread), then the
// tick every periodMs. True when all of it is there; qvtest::ReleaseModule stops it.
bool StartFastScheduler(QvAgentModule *module, uint32_t periodMs);

// The local port of a socket of the agent, host order; 0 when it cannot be read.
uint16_t LocalPort(int fd);

}  // namespace qvtest

#endif
