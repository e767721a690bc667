// Mesh mode's heartbeat: the platform scheduler thread ("QV_AGENT_SEND"), the descriptors of the mesh
// sockets registered on it, and the agent's 1000 ms timer, whose tick runs the restraint, one send
// pass per kind, socket re-creation and KPI sending.
#ifndef QV_TRANSPORT_SCHEDULER_H
#define QV_TRANSPORT_SCHEDULER_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"

extern "C" {

// Callbacks the scheduler thread runs: a descriptor's with the events that occurred, a timer's with
// two framework values.
typedef uint32_t (*QvAgentEventProc)(uint32_t *events, void *module);
typedef uint32_t (*QvAgentTimerProc)(uint64_t value1, uint64_t value2, void *module);

// Starts the scheduler thread into ctrl->ulSchedThread. 0, or 1 when its attributes cannot be made.
uint32_t QV_AGENT_CreateKEVSchedulerThread(QvAgentSchedCtrl *ctrl);
// A started timer on the scheduler thread calling callback(…, arg) every period ms (or once); 0 on failure.
uint64_t QV_AGENT_CreateKEVTimer(uint32_t periodMs, QvAgentTimerProc callback, void *arg, uint32_t periodic,
                                 uint64_t schedThread);
// Stops and releases a timer (for the service); 0 for a null timer.
uint32_t QV_AGENT_StopKEVTimer(uint64_t timer);
// Registers descriptor fd on the scheduler thread, readable and hang-up events calling callback with
// the module. 0; 2 when no task attributes could be made; else the first failing platform result.
uint32_t QV_AGENT_AddKEVThreadCtrl(int32_t fd, QvAgentEventProc callback, uint64_t schedThread, QvAgentModule *module);
// Removes descriptor fd from the scheduler thread; the platform's result.
uint32_t QV_AGENT_DelKEVThreadCtrl(uint32_t fd, uint64_t schedThread, QvAgentModule *module);
// The timer tick. 0.
uint32_t QV_AGENT_SendTimerProc(uint64_t value1, uint64_t value2, void *module);
// One send pass of kind k to port: clears the per-pass counters, then sends or re-creates the socket.
void QV_AGENT_SendMeshMsgTimerProc(int32_t k, int32_t port, QvAgentModule *module);

}

#endif
