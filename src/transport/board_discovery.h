// Where the agent runs and where the collector is: the device-management libraries, loaded at module
// creation, give the CPU, slot, board type and addresses; from them the agent decides whether the
// collector is on its own board (127.0.0.1) or on the main board, and fills mesh addresses.
#ifndef QV_TRANSPORT_BOARD_DISCOVERY_H
#define QV_TRANSPORT_BOARD_DISCOVERY_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"
#include "qvplatform/mesh.h"

extern "C" {

// Load the basic and the database library and resolve their functions; anything missing stays null.
void QV_AGENT_DevmBasicInfoApiInit(QvAgentModule *module);
void QV_AGENT_DevmDBInfoApiInit(QvAgentModule *module);
// Unload them again (for the service; the agent keeps them).
void QV_AGENT_DevmBasicInfoApiUninit(QvAgentModule *module);
void QV_AGENT_DevmDBInfoApiUninit(QvAgentModule *module);
// Read the CPU, the local slot numbers and the own address into the module.
void QV_AGENT_GetPositionInfo(QvAgentModule *module);
// Refresh uiSelfIp from the database library.
void QV_AGENT_GetSelfBoardIp(QvAgentModule *module);
// Decide whether the collector is local (bLocalCollector) and mark the location resolved.
void QV_AGENT_GetLocalServerInfo(QvAgentModule *module);
// The address mesh sockets bind: the own board's, or 127.0.0.1 while the collector is local or its
// location unknown. 0.
uint32_t QV_AGENT_GetLocalIpAddr(MESH_ADDR_S *addr, QvAgentModule *module);
// The main board's address: from the device-management library, else uiMainBoardIp.
void QV_AGENT_GetMainBoardIpAddr(MESH_ADDR_S *addr, QvAgentModule *module);
// The collector's address and port for kind k. 0.
uint32_t QV_AGENT_GetDestIpAddr(MESH_ADDR_S *addr, uint32_t k, QvAgentModule *module);
// The collector port of kind k in host order, 0 for a kind above 4.
uint16_t QV_AGENT_GetDestPortByType(uint32_t k);

}

#endif
