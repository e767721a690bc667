// Mesh mode, the default transport: one mesh socket per message kind, bound to the board's own
// address, non-blocking, and (kinds 0 to 3) registered on the scheduler thread with a callback that
// takes the collector's acknowledgement and sends the next datagram at once.
#ifndef QV_TRANSPORT_MESH_MODE_H
#define QV_TRANSPORT_MESH_MODE_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"
#include "qvplatform/mesh.h"

extern "C" {

// Create the mesh socket of one kind: 0, or QV_AGENT_ERR_RECOVERY with the state "to re-create" (the
// log kind answers 0xFFFFFFFF when no socket can be had at all).
uint32_t QV_AGENT_CreateMeshSendLog(QvAgentModule *module);
uint32_t QV_AGENT_CreateMeshSendAlarm(QvAgentModule *module);
uint32_t QV_AGENT_CreateMeshSendDebug(QvAgentModule *module);
uint32_t QV_AGENT_CreateMeshSendHighPreciLog(QvAgentModule *module);
uint32_t QV_AGENT_CreateMeshSendKPI(QvAgentModule *module);
// Closes the kind's socket when it is not ready and creates it anew, on the process's module record.
void QV_AGENT_ReCreateMeshFd(uint32_t k, QvAgentModule *module);
// One send of kind k to the collector's port: the next datagram, a resend, or nothing.
// 0, or QV_AGENT_ERR_NO_MEMORY.
uint32_t QV_AGENT_SendMeshMsg(uint32_t k, int32_t port, QvAgentModule *module);
// Sends a datagram on the kind's mesh socket, re-creating a lost socket (rate-limited) and trying once
// more. 0, or the mesh error number.
uint32_t QV_AGENT_MeshSendTo(int32_t k, const uint8_t *buf, uint32_t len, const MESH_ADDR_S *dest,
                             QvAgentModule *module);
// A readable mesh socket of kind k: its datagram acknowledges the kept one, and the next goes out. 0.
uint32_t QV_AGENT_RecieveUdpEventDeal(uint32_t fd, uint32_t events, uint32_t k, uint32_t port, QvAgentModule *module);
// The scheduler thread's callbacks of the four acknowledged kinds. 0.
uint32_t QV_AGENT_EpollLogEventProc(uint32_t *events, void *module);
uint32_t QV_AGENT_EpollAlarmEventProc(uint32_t *events, void *module);
uint32_t QV_AGENT_EpollDebugEventProc(uint32_t *events, void *module);
uint32_t QV_AGENT_EpollHighPreciLogEventProc(uint32_t *events, void *module);

}

#endif
