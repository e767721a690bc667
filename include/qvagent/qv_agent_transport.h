/*
 * libqvagent: the transport. Datagrams and their acknowledgements, the send window of kinds 0 to 3,
 * socket mode (the agent's own socket and send and receive threads), mesh mode (one mesh socket per
 * kind on the platform's scheduler thread, the default), board discovery through the
 * device-management libraries, and the test load generators. QV_Agent_Init starts the transport; a
 * service calls these functions only to drive or inspect it by hand.
 */
#ifndef QVAGENT_QV_AGENT_TRANSPORT_H
#define QVAGENT_QV_AGENT_TRANSPORT_H

#include <netinet/in.h>
#include <stdint.h>

#include "qv_agent_init.h"
#include "qv_agent_types.h"
#include "qvplatform/mesh.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* ---- datagrams: head, body, acknowledgements ---- */

/* Builds the head of the next datagram of kind k into a zeroed buffer: raises the kind's sequence
 * number (0xFFFFFFFF wraps to 1), marks the first datagram of the kind as stream start. 0. */
uint32_t QV_AGENT_AssembleMsgHead(uint32_t k, QvAgentSendList *list, uint8_t *buf, uint32_t size,
                                  QvAgentModule *module);

/* Packs whole records behind the head, from the blackbox (log kind with the blackbox in use) or from
 * the kind's send list, within 8096 bytes and the per-pass caps. 0, or QV_AGENT_ERR_PARAM when nothing
 * was packed (the head is then left as it was). */
uint32_t QV_AGENT_AssembleMsgBody(int32_t k, QvAgentSendList *list, uint8_t *buf, uint32_t size,
                                  QvAgentModule *module);

/* Sets the byte-order flag in the head of a datagram the agent builds; 0, or QV_AGENT_ERR_PARAM for a
 * null head. */
uint32_t QV_AGENT_SetMsgByteOrder(uint8_t *head);

/* 0 when the datagram from `from` is an acknowledgement, else QV_AGENT_ERR_PARAM. */
uint32_t QV_AGENT_CheckRecvMsg(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from);

/* The message kind (0 to 3) an acknowledgement belongs to, by the collector port it came from, or
 * QV_AGENT_MSG_NONE. */
uint32_t QV_AGENT_GetRecvMsgType(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from);

/* ---- the send window of kinds 0 to 3 ---- */

/* One send pass of kind k into buf (size bytes): the bytes to send (at least 1), 0 when there is
 * nothing to send, -1 while the kept datagram waits for its acknowledgement. */
int32_t QV_AGENT_GetSendMsg(uint32_t k, uint8_t *buf, uint32_t size, QvAgentModule *module);

/* 1 when kind k is to build a new datagram on this pass, else 0. The caller holds stListMutex. */
uint32_t QV_AGETN_IsNeedSendMsg(int32_t k, QvAgentSendList *list, QvAgentModule *module);

/* 1 when the kept datagram is to be resent on this pass; else 0, and the copy is released when its
 * last pass has come. The caller holds stListMutex. */
uint32_t QV_AGENT_CheckReSendLimit(QvAgentSendList *list, QvAgentModule *module);

/* Keeps a copy of the datagram just built. 0; 1 for length 0; QV_AGENT_ERR_NO_MEMORY; the copy's error. */
uint32_t QV_AGENT_AddRetransMsg(QvAgentSendList *list, const uint8_t *msg, uint32_t len,
                                QvAgentModule *module);

/* Releases the kept copy and its send count. */
uint32_t QV_AGENT_FreeResendMsg(QvAgentSendList *list, QvAgentModule *module);

/* Takes an acknowledgement from the collector (socket mode) and sends the next datagram of its kind.
 * 0, or QV_AGENT_ERR_PARAM for a datagram that is no acknowledgement. */
uint32_t QV_AGENT_ProcRecvMsg(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from,
                              QvAgentModule *module);

/* Starts a send pass: clears the per-pass record counters under stListMutex; the lock's result. */
uint32_t QV_AGENT_ClearSendCountInfo(QvAgentModule *module);

/* ---- socket mode: the agent's own socket and threads ---- */

/* Creates the UDP socket bound to usLocalPort and uiSelfIp into iSockFd. 0; 0xFFFFFFFF when no socket
 * could be made; the negative result of bind (the socket is then closed). */
uint32_t QV_AGENT_CreateSocket(QvAgentModule *module);
/* Closes iSockFd (if open) and sets it to -1; 0. */
uint32_t QV_AGENT_CloseSocket(QvAgentModule *module);
/* One send of kind k: the next datagram, a resend, or nothing. 0; QV_AGENT_ERR_NO_MEMORY. */
uint32_t QV_AGENT_SendMsg(uint32_t k, QvAgentModule *module);
/* The collector's address for kind k (port 6010 for log and debug, 6011 alarm, 6012 high precision). */
uint32_t QV_AGENT_GetMainAddr(struct sockaddr_in *addr, uint32_t k, QvAgentModule *module);
/* The collector's IPv4 address in network order: the main board's, or 127.0.0.1 while unknown. */
uint32_t QV_AGENT_GetIpAddr(QvAgentModule *module);
/* Thread bodies; the argument is the module record. They run until cancelled, and mark their end
 * for QV_AGENT_RecoveryThread however they end. */
void *QV_AGENT_RecvThreadProc(void *module);
void *QV_AGENT_SendThreadProc(void *module);
/* Starts both threads (128 KiB stacks). 0, or QV_AGENT_ERR_THREAD with neither left running. */
uint32_t QV_AGENT_CreateThread(QvAgentModule *module);
/* Re-creates a thread of the pair that has ended (joining it first) or was never started. 0;
 * QV_AGENT_ERR_THREAD; QV_AGENT_ERR_RECOVERY. */
uint32_t QV_AGENT_RecoveryThread(QvAgentModule *module);
/* Cancels and joins both threads not joined yet; the socket stays open. 0, or the result of joining. */
uint32_t QV_AGENT_DeleteThread(QvAgentModule *module);

/* ---- the scheduler thread and the 1000 ms timer ---- */

/* Callbacks the scheduler thread runs: a descriptor's with the events that occurred, a timer's with
 * two framework values. */
typedef uint32_t (*QvAgentEventProc)(uint32_t *events, void *module);
typedef uint32_t (*QvAgentTimerProc)(uint64_t value1, uint64_t value2, void *module);

/* Starts the scheduler thread into ctrl->ulSchedThread. 0, or 1 when its attributes cannot be made. */
uint32_t QV_AGENT_CreateKEVSchedulerThread(QvAgentSchedCtrl *ctrl);
/* A started timer on the scheduler thread calling callback(…, arg) every period ms (or once); 0 on
 * failure. */
uint64_t QV_AGENT_CreateKEVTimer(uint32_t periodMs, QvAgentTimerProc callback, void *arg, uint32_t periodic,
                                 uint64_t schedThread);
/* Stops and releases a timer (for the service); 0 for a null timer. */
uint32_t QV_AGENT_StopKEVTimer(uint64_t timer);
/* Registers descriptor fd on the scheduler thread, readable and hang-up events calling callback with
 * the module. 0; 2 when no task attributes could be made; else the first failing platform result. */
uint32_t QV_AGENT_AddKEVThreadCtrl(int32_t fd, QvAgentEventProc callback, uint64_t schedThread,
                                   QvAgentModule *module);
/* Removes descriptor fd from the scheduler thread; the platform's result. */
uint32_t QV_AGENT_DelKEVThreadCtrl(uint32_t fd, uint64_t schedThread, QvAgentModule *module);
/* The timer tick. 0. */
uint32_t QV_AGENT_SendTimerProc(uint64_t value1, uint64_t value2, void *module);
/* One send pass of kind k to port: clears the per-pass counters, then sends or re-creates the socket. */
void QV_AGENT_SendMeshMsgTimerProc(int32_t k, int32_t port, QvAgentModule *module);

/* ---- mesh mode: one mesh socket per kind ---- */

/* Create the mesh socket of one kind: 0, or QV_AGENT_ERR_RECOVERY with the state "to re-create" (the
 * log kind answers 0xFFFFFFFF when no socket can be had at all). */
uint32_t QV_AGENT_CreateMeshSendLog(QvAgentModule *module);
uint32_t QV_AGENT_CreateMeshSendAlarm(QvAgentModule *module);
uint32_t QV_AGENT_CreateMeshSendDebug(QvAgentModule *module);
uint32_t QV_AGENT_CreateMeshSendHighPreciLog(QvAgentModule *module);
uint32_t QV_AGENT_CreateMeshSendKPI(QvAgentModule *module);
/* Closes the kind's socket when it is not ready and creates it anew, on the process's module record. */
void QV_AGENT_ReCreateMeshFd(uint32_t k, QvAgentModule *module);
/* One send of kind k to the collector's port: the next datagram, a resend, or nothing.
 * 0, or QV_AGENT_ERR_NO_MEMORY. */
uint32_t QV_AGENT_SendMeshMsg(uint32_t k, int32_t port, QvAgentModule *module);
/* Sends a datagram on the kind's mesh socket, re-creating a lost socket (rate-limited) and trying once
 * more. 0, or the mesh error number. */
uint32_t QV_AGENT_MeshSendTo(int32_t k, const uint8_t *buf, uint32_t len, const MESH_ADDR_S *dest,
                             QvAgentModule *module);
/* A readable mesh socket of kind k: its datagram acknowledges the kept one, and the next goes out. 0. */
uint32_t QV_AGENT_RecieveUdpEventDeal(uint32_t fd, uint32_t events, uint32_t k, uint32_t port,
                                      QvAgentModule *module);
/* The scheduler thread's callbacks of the four acknowledged kinds. 0. */
uint32_t QV_AGENT_EpollLogEventProc(uint32_t *events, void *module);
uint32_t QV_AGENT_EpollAlarmEventProc(uint32_t *events, void *module);
uint32_t QV_AGENT_EpollDebugEventProc(uint32_t *events, void *module);
uint32_t QV_AGENT_EpollHighPreciLogEventProc(uint32_t *events, void *module);

/* ---- board discovery: device-management libraries and addresses ---- */

/* Load the basic and the database library and resolve their functions; anything missing stays null. */
void QV_AGENT_DevmBasicInfoApiInit(QvAgentModule *module);
void QV_AGENT_DevmDBInfoApiInit(QvAgentModule *module);
/* Unload them again (for the service; the agent keeps them). */
void QV_AGENT_DevmBasicInfoApiUninit(QvAgentModule *module);
void QV_AGENT_DevmDBInfoApiUninit(QvAgentModule *module);
/* Read the CPU, the local slot numbers and the own address into the module. */
void QV_AGENT_GetPositionInfo(QvAgentModule *module);
/* Refresh uiSelfIp from the database library. */
void QV_AGENT_GetSelfBoardIp(QvAgentModule *module);
/* Decide whether the collector is local (bLocalCollector) and mark the location resolved. */
void QV_AGENT_GetLocalServerInfo(QvAgentModule *module);
/* The address mesh sockets bind: the own board's, or 127.0.0.1 while the collector is local or its
 * location unknown. 0. */
uint32_t QV_AGENT_GetLocalIpAddr(MESH_ADDR_S *addr, QvAgentModule *module);
/* The main board's address: from the device-management library, else uiMainBoardIp. */
void QV_AGENT_GetMainBoardIpAddr(MESH_ADDR_S *addr, QvAgentModule *module);
/* The collector's address and port for kind k. 0. */
uint32_t QV_AGENT_GetDestIpAddr(MESH_ADDR_S *addr, uint32_t k, QvAgentModule *module);
/* The collector port of kind k in host order, 0 for a kind above 4. */
uint16_t QV_AGENT_GetDestPortByType(uint32_t k);

/* ---- test load generators ---- */

/* Test logs per tick of the two counter-driven generators; set from outside the agent, 0 at load. */
extern int32_t g_QvagentTestReportNum;
extern int32_t g_QvagentHighPrecReportNum;

/* 100 diagnostic test logs when the service is "nbqrd_frame"; the last send's result, or the name
 * comparison's when the service differs. */
uint32_t QV_AGENT_ReportTestLog(QvAgentModule *module);
/* min(g_QvagentTestReportNum, 501) diagnostic test logs; the last send's result. */
uint32_t QV_AGENT_ReportTestLogForGlobalVariables(QvAgentModule *module);
/* min(g_QvagentHighPrecReportNum, 801) high-precision test logs; the last send's result. */
uint32_t QV_AGENT_ReportTestHighPrecLogForGlbVar(QvAgentModule *module);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
