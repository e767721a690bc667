/*
 * libqvagent: initialisation and the handle.
 *
 * A service calls QV_Agent_Init once with its service description and receives the module record,
 * the handle that every other call of the agent takes. The process has exactly one module record,
 * published in g_QvHandle; it lives until the process ends.
 */
#ifndef QVAGENT_QV_AGENT_INIT_H
#define QVAGENT_QV_AGENT_INIT_H

#include <pthread.h>
#include <stdint.h>

#include "qv_agent_types.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

#define QV_AGENT_NAME_LEN 32u          /* service and process names, terminator included */
#define QV_AGENT_DESC_SPARE_LEN 26u
#define QV_AGENT_BLACKBOX_PATH_LEN 256u
#define QV_AGENT_PROCESS_VALUES 5u
#define QV_AGENT_DEFAULT_LIST_LIMIT 1000u

/* The fields of the service description. The module record begins with the same fields, so that
 * a verbatim copy of the description seeds it and its fields read as the module's own. */
#define QV_AGENT_SERVICE_DESC_FIELDS                                                      \
    char szServiceName[QV_AGENT_NAME_LEN]; /* NUL-terminated service name */            \
    uint32_t uiServiceId;                  /* instance number, sent as log option 79 */  \
    uint16_t usLocalPort;                  /* UDP port that socket mode binds */         \
    uint8_t aucSpare[QV_AGENT_DESC_SPARE_LEN]; /* the caller's, copied, never read */    \
    uint64_t ulCallerData1;                /* copied and refreshed, not interpreted */   \
    uint64_t ulCallerData2;                                                              \
    uint32_t uiAttrReserved;               /* attribute 1, not interpreted */            \
    uint32_t uiListLimit;                  /* limit of send lists 0-3; 0 selects 1000 */ \
    uint32_t uiSelfIp;                     /* own board IPv4 address, network order */

/* Service description, the argument of QV_Agent_Init; the caller owns it. */
typedef struct QvAgentServiceDesc {
    QV_AGENT_SERVICE_DESC_FIELDS
} QvAgentServiceDesc;
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentServiceDesc, uiServiceId) == 32, "service description layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentServiceDesc, usLocalPort) == 36, "service description layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentServiceDesc, ulCallerData1) == 64, "service description layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentServiceDesc, uiAttrReserved) == 80, "service description layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentServiceDesc, uiListLimit) == 84, "service description layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentServiceDesc, uiSelfIp) == 88, "service description layout");
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentServiceDesc) == 96, "service description layout");

/* One queued record (or KPI entry) on a send list; owned by the list. */
typedef struct QvAgentListItem {
    struct QvAgentListItem *pstNext; /* next item, or the list block when last */
    struct QvAgentListItem *pstPrev; /* previous item, or the list block when first */
    uint8_t *pucData;                /* the agent's own copy of the record */
    uint32_t uiLen;
} QvAgentListItem;

/* Send list block, one per message kind: a circular doubly linked list whose head is the block
 * itself (both links point at the block when the list is empty), and the send window's state. */
typedef struct QvAgentSendList {
    QvAgentListItem *pstNext;  /* first queued item */
    QvAgentListItem *pstPrev;  /* last queued item */
    uint32_t uiCount;          /* items queued */
    uint8_t *pucResendMsg;     /* last datagram sent and not yet acknowledged */
    uint32_t uiResendMsgLen;
    uint32_t uiSeqNo;          /* sequence number of the last datagram of this kind */
    uint32_t bSynced;          /* 1 once the stream start datagram went out */
    uint32_t bAckRecv;         /* 1 once an acknowledgement of this kind arrived */
    uint32_t uiSendTimes;      /* times the retained datagram has been sent */
} QvAgentSendList;

/* Scheduler control block: the platform scheduler thread and the agent's periodic timer. */
typedef struct QvAgentSchedCtrl {
    uint64_t ulSchedThread;
    uint64_t ulTimer;
    uint8_t aucReserved[8];
} QvAgentSchedCtrl;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentSchedCtrl) == 24, "scheduler control block is 24 bytes");

/* Functions of the device-management libraries; each returns 0 on success. */
typedef uint32_t (*QvAgentDevmGetU32Fn)(uint32_t *value);
typedef uint32_t (*QvAgentDevmGetMasterFn)(uint32_t *masterIp, uint32_t *masterSlotId);
typedef uint32_t (*QvAgentDevmSlotMapFn)(uint32_t globalSlotId, uint32_t *localA, uint32_t *localB);

/* The module record: the per-process state and the handle of every call. */
typedef struct QvAgentModule {
    QV_AGENT_SERVICE_DESC_FIELDS
    QvAgentSendList astSendList[QV_AGENT_MSG_KIND_COUNT]; /* log, alarm, debug, high precision, KPI */
    uint32_t bCreated;            /* creation reached the transport step */
    int32_t iSockFd;              /* socket-mode UDP socket, -1 when closed */
    uint64_t ulRecvThread;        /* socket-mode receive thread */
    uint64_t ulSendThread;        /* socket-mode send thread */
    pthread_mutex_t stListMutex;  /* send lists 0-3, their resend state and the send counters */
    uint32_t uiMainBoardIp;       /* main board IPv4 address, network order */
    uint32_t uiTransportState;    /* 0, QV_AGENT_STATE_NO_SOCKET or QV_AGENT_STATE_NO_THREADS */
    char szBlackboxFile[QV_AGENT_BLACKBOX_PATH_LEN]; /* empty when no blackbox is used */
    uint32_t uiBlackboxSize;      /* configured size; 0 selects the automatic size */
    uint32_t bBlackboxEnable;     /* log-kind records go to the blackbox first */
    char szProcessName[QV_AGENT_NAME_LEN];
    uint32_t auiProcessInfo[QV_AGENT_PROCESS_VALUES];
    int32_t iReservedFd;          /* unused descriptor slot, -1 */
    int32_t aiMeshFd[QV_AGENT_MSG_KIND_COUNT];      /* mesh socket per message kind, -1 when none */
    uint32_t auiMeshState[QV_AGENT_MSG_KIND_COUNT]; /* QV_AGENT_MESH_* or 0 when ready */
    uint32_t bLocalCollector;     /* the collector runs on this board */
    uint32_t bServerInfoValid;    /* the collector location has been resolved */
    uint32_t auiRecreateTick[QV_AGENT_MSG_KIND_COUNT];
    uint32_t auiRecreateTimes[QV_AGENT_MSG_KIND_COUNT];
    pthread_mutex_t stKpiMutex;   /* the KPI option store and send list 4 */
    QvAgentSchedCtrl *pstSchedCtrl;
    uint8_t ucCpuId;
    uint8_t ucLocalIdB;
    uint8_t ucLocalIdA;
    void *pDevmBasicLib;
    QvAgentDevmGetU32Fn pfnGetSelfCpuId;
    QvAgentDevmGetU32Fn pfnGetSelfSlotId;
    QvAgentDevmGetU32Fn pfnGetSelfBoardType;
    QvAgentDevmGetMasterFn pfnGetSystemMasterIpAndSlotId;
    void *pDevmDbLib;
    QvAgentDevmSlotMapFn pfnGlobalSlotId2LocalSlotId;
    QvAgentDevmGetU32Fn pfnGetSelfBoardIp;
    QvAgentTree stDiagTree;       /* restraint statistics of diagnostic logs */
    pthread_mutex_t stDiagMutex;  /* guards stDiagTree; taken before stListMutex */
    uint32_t bNeedFlush;          /* set by QV_Agent_UnInit; the next QV_Agent_Init refreshes */
    uint32_t uiKpiTick;           /* ticks counted while the KPI mesh socket is ready */
    uint32_t uiTick;              /* timer ticks since creation */
    uint32_t uiLogSendCnt;        /* log-kind records packed in the current send pass */
    uint32_t uiDebugSendCnt;      /* debug records packed in the current send pass */
} QvAgentModule;
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentModule, astSendList) == sizeof(QvAgentServiceDesc),
                       "the module record begins with the service description");

/* ---- process-wide state (all zero at load) ---- */
extern uintptr_t g_QvHandle;                /* the module record of this process, or 0 */
extern pthread_mutex_t g_handleMutex;       /* recursive: handle, refresh flag, transport states */
extern uint32_t g_handleMutexInited;
extern pthread_mutex_t g_qvagntInitMutex;   /* serialises the initialisation of g_handleMutex */

/* ---- the interface ---- */

/* Returns the process's module record, creating it on the first call; null on failure (the caller
 * may call again). After QV_Agent_UnInit the next call refreshes the record from desc. */
QvAgentModule *QV_Agent_Init(const QvAgentServiceDesc *desc);

/* Marks the record for refresh by the next QV_Agent_Init; releases nothing. */
uint32_t QV_Agent_UnInit(QvAgentModule *module);

QvAgentModule *QV_Agent_GetHandle(void);
void QV_Agent_SetHandle(QvAgentModule *module);

/* Lock and unlock g_handleMutex; the result of the mutex call. */
uint32_t QV_Agent_HandleMutexLock(void);
uint32_t QV_Agent_HandleUnMutexLock(void);

/* Creates g_handleMutex once; 0, or 1 on failure. */
uint32_t QV_Agent_InitHandleMutexLock(void);

/* Chooses the allocator and gets the platform memory handle; 0, or 1 on failure. */
uint32_t QV_Agent_InitMemHandle(void);

/* ---- creation, refresh and recovery ---- */

QvAgentModule *QV_AGENT_CreateModule(const QvAgentServiceDesc *desc);
uint32_t QV_AGENT_CreateModuleDatalistInit(QvAgentModule *module);
uint32_t QV_AGENT_CreateModuleLogFileBufferInit(QvAgentModule *module);
uint32_t QV_AGENT_CreateModuleKpiInfoInit(QvAgentModule *module);
uint32_t QV_AGENT_CreateModuleTimerInit(QvAgentModule *module);

/* Takes over id, name, caller data and a nonzero list limit; 0, 1 when the name cannot be copied,
 * QV_AGENT_ERR_PARAM for a null argument. */
uint32_t QV_AGENT_FlushModule(const QvAgentServiceDesc *desc, QvAgentModule *module);

/* Restarts the socket-mode transport; 0, QV_AGENT_ERR_PARAM or QV_AGENT_ERR_RECOVERY. */
uint32_t QV_AGENT_CreateModuleRecovery(QvAgentModule *module);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
