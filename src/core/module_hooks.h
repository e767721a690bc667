// The calls into subsystems still to be built into the agent: KPI reporting. Each hook
// answers what the agent sees today: the feature is not available. As a subsystem lands, its hook is
// removed and the call site calls the subsystem.
#ifndef QV_CORE_MODULE_HOOKS_H
#define QV_CORE_MODULE_HOOKS_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"

namespace qv::hook {

// The parts of a send pass that belong to KPI reporting: one KPI send and the KPI simulation.
void SendKpi(QvAgentModule *module);
void SimulateKpi(uint32_t pass, QvAgentModule *module);

}  // namespace qv::hook

#endif
