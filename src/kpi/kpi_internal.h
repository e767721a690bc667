// What the files of KPI reporting share inside the agent.
#ifndef QV_KPI_KPI_INTERNAL_H
#define QV_KPI_KPI_INTERNAL_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"

namespace qv::kpi {

// The component identifier as stored, compared and sent: the caller's plus the offset, in 16 bits.
uint16_t StoredComponent(uint32_t componentId);

// The three generators of the KPI simulation, after a KPI send of the send loop whose counter is given.
void Simulate(uint32_t counter, QvAgentModule *module);

// Marker file and service type that switch the KPI simulation on.
inline constexpr char kSimulationMarker[] = "/opt/zanthe/var/log/qvagentKpiTest1";
inline constexpr char kSimulationServiceType[] = "serla-daemon";

}  // namespace qv::kpi

#endif
