/*
 * libqvagent: KPI reporting. A service reports samples of key performance indicators; each becomes a
 * 28-byte KPI record on send list 4. Per KPI instance (component, KPI, object, sub-object) an on-change
 * option lets a number of unchanged samples in a row be held back. Each timer tick (or socket-mode
 * send pass) the records pass that filter and leave in big-endian KPI packets.
 *
 * The component identifier the agent stores, compares and sends is always the caller's plus 10000, kept
 * in 16 bits (QV_KPI_COMPONENT_OFFSET); options and samples of one component thus meet under the same
 * key. Record, packet and flag layouts are in qv_agent_wire.h.
 */
#ifndef QVAGENT_QV_AGENT_KPI_H
#define QVAGENT_QV_AGENT_KPI_H

#include <stdint.h>

#include "qv_agent_init.h"
#include "qv_agent_wire.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

#define KPI_OPTION_ONCHANGE 2                /* the one option type: u32 count of samples held back */
#define KPI_ONCHANGE_MAX 720u                /* the largest on-change count kept */
#define QV_AGENT_KPI_PACKET_FULL 0x71000008u /* a packet is full and records remain on the list */
#define QV_AGENT_KPI_SEND_FAIL_LOG_ID 0x08311047u /* kind-9 log reporting a failed KPI packet send */

/* One KPI sample as queued on send list 4: packed, host byte order. */
#pragma pack(push, 1)
typedef struct QvAgentKpiRecord {
    uint16_t usComponentId; /* caller's component id + 10000 */
    uint32_t uiKpiId;
    uint32_t uiObjectId;
    uint16_t usSubObjectId; /* 0 when the sample has none */
    uint8_t ucCpuId;        /* the module's CPU at the time of the update */
    uint8_t ucLocalIdA;     /* 0 here; the packet carries the module's local slot bytes */
    uint8_t ucLocalIdB;
    uint8_t ucKpiFlag;      /* caller's flag byte; bits 2-3 the report mode */
    uint64_t ulValue;
    uint32_t uiTimeStamp;   /* seconds since 1970, 0 when the clock could not be read */
} QvAgentKpiRecord;
#pragma pack(pop)
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentKpiRecord) == 28, "KPI record is 28 bytes");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiRecord, uiKpiId) == 2, "KPI record layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiRecord, uiObjectId) == 6, "KPI record layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiRecord, usSubObjectId) == 10, "KPI record layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiRecord, ucCpuId) == 12, "KPI record layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiRecord, ucKpiFlag) == 15, "KPI record layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiRecord, ulValue) == 16, "KPI record layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiRecord, uiTimeStamp) == 24, "KPI record layout");

/* A KPI instance as callers name it; the component id without the offset. Also the lookup key of the
 * option store, where the component id carries the offset. */
typedef struct QvAgentKpiObject {
    uint32_t uiKpiId;
    uint32_t uiObjectId;
    uint16_t usSubObjectId;
    uint16_t usComponentId;
} QvAgentKpiObject;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentKpiObject) == 12, "KPI object is 12 bytes");

/* A KPI instance with a 16-bit KPI id; the component id without the offset. */
typedef struct StlmKpiKey {
    uint16_t usComponentId;
    uint16_t usKpiId;
    uint32_t uiObjectId;
    uint16_t usSubObjectId;
} StlmKpiKey;
QV_AGENT_STATIC_ASSERT(sizeof(StlmKpiKey) == 12, "KPI key is 12 bytes");

/* ---- the option store: components, each with a tree of KPIs, each with a tree of objects ---- */

/* What the on-change filter compares: the flag byte, three zero bytes, the value in host order. */
typedef struct QvAgentKpiValueImage {
    uint8_t ucKpiFlag;
    uint8_t aucZero[3];
    uint8_t aucValue[8];
} QvAgentKpiValueImage;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentKpiValueImage) == 12, "value image is 12 bytes");

/* One KPI instance with an on-change option; its first 8 bytes are the key. */
typedef struct QvAgentKpiObjectNode {
    uint32_t uiObjectId;
    uint16_t usSubObjectId;
    uint16_t usReserved;
    uint32_t uiOnChangeLimit;          /* unchanged samples in a row that may be held back, <= 720 */
    uint32_t bHasLast;                 /* a sample has been let through */
    uint32_t uiSameCount;              /* unchanged samples held back since the last one let through */
    QvAgentKpiValueImage stLastValue;  /* the last sample let through */
} QvAgentKpiObjectNode;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentKpiObjectNode) == 32, "object node is 32 bytes");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiObjectNode, uiOnChangeLimit) == 8, "object node layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentKpiObjectNode, stLastValue) == 20, "object node layout");

typedef struct QvAgentKpiNode {
    uint32_t uiKpiId;
    QvAgentTree stObjectTree; /* QvAgentKpiObjectNode by object, then sub-object */
} QvAgentKpiNode;

typedef struct QvAgentKpiComponentNode {
    uint16_t usComponentId;   /* with the offset */
    QvAgentTree stKpiTree;    /* QvAgentKpiNode by KPI id */
} QvAgentKpiComponentNode;

/* The process's option store: a tree of QvAgentKpiComponentNode, null before the first option and
 * after QV_AGENT_KpiMngMouduleUnInit. Guarded by the module's stKpiMutex. */
extern QvAgentTree *g_kpiMng;

/* ---- updates: 0, QV_AGENT_ERR_PARAM (null pointer), QV_AGENT_ERR_NO_MEMORY (no handle or memory),
 * QV_AGENT_ERR_LIST_FULL (4001 records wait) ---- */

/* A sample without a sub-object, time-stamped now. */
uint32_t QV_AGENT_UpdateKpi(uint32_t componentId, uint16_t kpiId, uint32_t objectId, const uint8_t *pucKpiFlag,
                            uint64_t value);
/* A sample with a sub-object, time-stamped now; writes one trace line. */
uint32_t QV_AGENT_UpdateSubKpi(uint32_t componentId, uint16_t kpiId, uint32_t objectId, uint16_t subObjectId,
                               const uint8_t *pucKpiFlag, uint64_t value);
/* A sample named by a key, with the caller's time stamp (seconds since 1970). */
uint32_t QV_AGENT_UpdateSubKpiWithTimeStamp(const StlmKpiKey *key, const uint8_t *pucKpiFlag, uint32_t timeStamp,
                                            uint64_t value);
/* Queues a copy of a ready record on send list 4 under stKpiMutex. */
uint32_t QV_AGENT_KpiReportById(const QvAgentKpiRecord *record, QvAgentModule *handle);
/* Seconds since 1970 into *seconds: 0, or the clock's failure (then *seconds is untouched). */
uint32_t QV_AGENT_KpiGetTimeStampSecond(uint32_t *seconds);
/* Seconds since 1970, or 0 without a handle or a clock. */
uint32_t QV_AGENT_KpiGetTimeStamp(void);

/* ---- options: 0, QV_AGENT_ERR_PARAM (null pointer, type other than 2), QV_AGENT_ERR_NO_MEMORY ---- */

/* Sets the on-change count (value, capped at 720) of a KPI instance; the length is not examined. */
uint32_t QV_Agent_SetKpiOption(const QvAgentKpiObject *object, int32_t optionType, uint32_t optionLen,
                               const uint32_t *value);
uint32_t StlmSetKpiOption(const StlmKpiKey *key, int32_t optionType, uint32_t optionLen, const uint32_t *value);
/* Create the path to key's object as far as it is missing and set its count to min(limit, 720); key's
 * component carries the offset. The two are the same. */
uint32_t QV_AGNET_SetOnchangeInfo(const QvAgentKpiObject *key, uint32_t limit);
uint32_t QV_AGNET_SetOnchangeInfoEx(const QvAgentKpiObject *key, uint32_t limit);
/* The object node of a KPI instance (component with the offset), or null. The caller holds stKpiMutex. */
QvAgentKpiObjectNode *QV_AGENT_GetKpiMngInfoNode(const QvAgentKpiObject *key);

/* ---- store maintenance: the caller holds stKpiMutex, or knows that no KPI send runs ---- */

/* Creates the component tree when there is none: 0, or QV_AGENT_KPI_STORE_NO_MEMORY. */
uint32_t QV_AGENT_KpiMngMouduleInit(QvAgentModule *module);
/* Releases the whole store and sets g_kpiMng to null. */
uint32_t QV_AGENT_KpiMngMouduleUnInit(QvAgentModule *module);
/* Add: the record with that key, inserted when missing; null without memory. Delete: removes the
 * record with all it holds (nothing when absent). Destory: empties the record's own tree. */
QvAgentKpiComponentNode *QV_AGENT_KpiMngComponenetNodeAdd(uint16_t componentId, QvAgentTree *tree,
                                                          QvAgentModule *module);
QvAgentKpiComponentNode *QV_AGENT_KpiMngComponenetNodeFind(uint16_t componentId, QvAgentTree *tree);
uint32_t QV_AGENT_KpiMngComponenetNodeDelete(uint16_t componentId, QvAgentTree *tree, QvAgentModule *module);
uint32_t QV_AGENT_KpiMngComponentNodeDestory(QvAgentKpiComponentNode *component, QvAgentModule *module);
QvAgentKpiNode *QV_AGENT_KpiMngKpiNodeAdd(uint32_t kpiId, QvAgentTree *tree, QvAgentModule *module);
QvAgentKpiNode *QV_AGENT_KpiMngKpiNodeFind(uint32_t kpiId, QvAgentTree *tree);
uint32_t QV_AGENT_KpiMngKpiNodeDelete(uint32_t kpiId, QvAgentTree *tree, QvAgentModule *module);
uint32_t QV_AGENT_KpiMngKpiNodeDestory(QvAgentKpiNode *kpi, QvAgentModule *module);
/* The new object record is a copy of the 32-byte image. */
QvAgentKpiObjectNode *QV_AGENT_KpiMngObjectNodeAdd(const QvAgentKpiObjectNode *image, QvAgentTree *tree,
                                                   QvAgentModule *module);
QvAgentKpiObjectNode *QV_AGENT_KpiMngObjectNodeFind(const QvAgentKpiObjectNode *image, QvAgentTree *tree);
uint32_t QV_AGENT_KpiMngObjectNodeDelete(const QvAgentKpiObjectNode *image, QvAgentTree *tree,
                                         QvAgentModule *module);

/* Orders of the three levels, unsigned: -1, 0 or 1; QV_AGENT_ERR_PARAM for a null key. */
int32_t QV_AGENT_KpiUSHORTKeyCompare(const void *key1, const void *key2);
int32_t QV_AGENT_KpiUINT32KeyCompare(const void *key1, const void *key2);
int32_t QV_AGENT_KpiObjectKeyCompare(const void *key1, const void *key2); /* object id, then sub-object */

/* ---- KPI packets ---- */

struct MESH_ADDR_S;

/* One KPI send of message type 4 in a 65535-byte buffer of its own: 0 whatever was sent,
 * QV_AGENT_ERR_PARAM or QV_AGENT_ERR_NO_MEMORY (the records wait). */
uint32_t QV_AGENT_SendKpiMsg(uint32_t msgType, QvAgentModule *handle);
/* Drains send list 4 through the on-change filter into packets of at most 8096 bytes and sends them:
 * 0, QV_AGENT_ERR_PARAM (type other than 4) or the destination's failure. */
uint32_t QV_AGENT_SendKpiDataByPacket(int32_t msgType, uint8_t *buffer, uint32_t bufferLen, QvAgentModule *handle);
/* Writes the head of an empty packet into a cleared buffer. 0. */
uint32_t QV_AGENT_AssembleKpiMsgHead(QvAgentSendList *kpiList, uint8_t *buffer, uint32_t bufferLen,
                                     QvAgentModule *handle);
/* Moves records from the list into the packet: 0 (list drained, records packed),
 * QV_AGENT_KPI_PACKET_FULL (packet full, records packed, some remain), QV_AGENT_ERR_PARAM (none packed). */
uint32_t QV_AGENT_AssembleKpiMsgBody(QvAgentSendList *kpiList, uint8_t *buffer, uint32_t bufferLen,
                                     QvAgentModule *handle);
/* The on-change filter: 1 send, 0 hold back. The caller holds stKpiMutex. */
uint32_t QV_AGENT_IsKpiDataNeedRpt(const QvAgentKpiRecord *record, QvAgentModule *handle);
/* Reports a failed send of a packet holding a record as one diagnostic log: 0 when reported,
 * QV_AGENT_ERR_PARAM, or QV_AGENT_ERR_FAILED when there was nothing to report. */
uint32_t QV_AGENT_SendKpiReportLog(const struct MESH_ADDR_S *dest, const uint8_t *packet, uint32_t packetLen,
                                   int32_t sendResult, QvAgentModule *handle);
/* "a.b.c.d" of an address in network order, truncated to outLen: 0 or QV_AGENT_ERR_PARAM. */
uint32_t QV_AGENT_IPv4ToStr(uint32_t address, char *out, uint32_t outLen);

/* ---- KPI simulation: fixed samples from the send loop, switched on per process ---- */

/* 1 when the marker file exists and PX_SERVICE_TYPE is "serla-daemon", else 0. */
uint32_t QV_Agent_IsKpiSimuReport(void);
/* Fills an object (component without the offset); nothing for a null pointer. */
void QV_Agent_ConstructKpiObject(QvAgentKpiObject *object, uint16_t componentId, uint32_t kpiId, uint32_t objectId,
                                 uint16_t subObjectId);
/* Fills a record from an object: the sub-object only when withSubObject is 1, the given time stamp when
 * withTimeStamp is nonzero (else now), CPU and byte 14 from the module. Nothing for a null pointer or
 * without a handle. */
void QV_Agent_ConstructKpiData(QvAgentKpiRecord *record, const QvAgentKpiObject *object, const uint8_t *flag,
                               uint64_t value, uint32_t timeStamp, uint32_t withSubObject, int32_t withTimeStamp);
/* The generators, every 60, 10 and 61 counts of the send loop's counter; the handle is not used. */
void StlmUpdateKpiTest(int32_t tick, QvAgentModule *handle);
void StlmUpdateKpiTestFast(uint32_t tick, QvAgentModule *handle);
void StlmUpdateKpiTestKeyKPI(uint32_t tick, QvAgentModule *handle);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
