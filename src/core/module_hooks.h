// The steps of module creation, recovery and the flush notice that belong to subsystems still to be
// built into the agent: the blackbox, board discovery, the scheduler thread and its timer, socket
// mode, mesh sending and the restraint of diagnostic logs. Each hook answers what the agent sees today: the feature
// is not available. As a subsystem lands, its hook is removed and the call site calls the subsystem.
#ifndef QV_CORE_MODULE_HOOKS_H
#define QV_CORE_MODULE_HOOKS_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"

namespace qv::hook {

// Opens the blackbox file named in szBlackboxFile; 0 when the blackbox is in use, else 1.
uint32_t InitLogBlackbox(QvAgentModule *module);

// Loads the device-management libraries and reads the board position into the module.
void LoadDeviceManagement(QvAgentModule *module);

// Starts the platform scheduler thread into the control block; 0, or 1 when it cannot.
uint32_t CreateSchedulerThread(QvAgentSchedCtrl *ctrl);

// Starts the 1000 ms timer of the module on the scheduler thread; the timer, or 0.
uint64_t CreateSendTimer(QvAgentModule *module);

// Socket mode: creates the UDP socket (0 on success), and the send and receive threads (0 on success).
uint32_t CreateSocket(QvAgentModule *module);
uint32_t CreateSocketThreads(QvAgentModule *module);

// Sends a datagram on the mesh socket of message kind `kind` to the log port of the collector at
// `collectorIp` (network order); 0 or the send's error.
uint32_t MeshSendToCollector(QvAgentModule *module, uint32_t kind, uint32_t collectorIp, const uint8_t *data,
                             uint32_t len);

// The main board address that board discovery yields (network order).
uint32_t MainBoardIp(QvAgentModule *module);

// Passes a finished diagnostic log (kind 9) through the restraint of repeated logs; today it is queued
// on the log list. 0, or the queuing's error.
uint32_t RestrainDiagnosticLog(const uint8_t *record, uint32_t len, QvAgentModule *module);

// Writes a log record into the blackbox: 0 stored, 0xFFFFFFFA full, 1 any other failure.
uint32_t WriteBlackbox(const uint8_t *record, uint32_t len);

}  // namespace qv::hook

#endif
