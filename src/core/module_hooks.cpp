// Hooks for the subsystems still to be built into the agent (see module_hooks.h). Each answers "not
// available" in the terms of its caller, so the module is created with the feature off.
#include "core/module_hooks.h"

namespace qv::hook {

void SendKpi(QvAgentModule * /*module*/) {}

void SimulateKpi(uint32_t /*pass*/, QvAgentModule * /*module*/) {}

}  // namespace qv::hook
