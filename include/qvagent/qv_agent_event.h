/*
 * libqvagent: event objects (alarms and logs), the records they become, the send lists and the
 * restraint of repeated diagnostic logs.
 *
 * A service creates an object with a kind and a message id, adds options and parameters in any order
 * and sends it; sending encodes one record, queues a copy on the send list of its message kind and
 * always releases the object.
 */
#ifndef QVAGENT_QV_AGENT_EVENT_H
#define QVAGENT_QV_AGENT_EVENT_H

#include <stdint.h>

#include "qv_agent_init.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* ---- object kinds ---- */
#define QV_AGENT_OBJ_KIND_MAX 22u
#define QV_AGENT_LOG_KIND_MASK 0x550606u /* bit n set: kind n is a log kind (1, 2, 9, 10, 16, 18, 20, 22) */
#define QV_AGENT_OBJ_ALARM 5u
#define QV_AGENT_OBJ_DEBUG 8u            /* debug logs, reported by identifier only */
#define QV_AGENT_OBJ_DIAG 9u             /* diagnostic log, passes the restraint */
#define QV_AGENT_OBJ_DEBUG_LOG 10u
#define QV_AGENT_OBJ_HIGH_PRECISION 20u

/* Limits of send lists 0-3 come from the module (uiListLimit); list 4 holds KPI entries. */
#define QV_AGENT_KPI_LIST_LIMIT 4000u
#define QV_AGENT_SEND_PASS_CAP 200u      /* log-kind and debug records packed per send pass */

/* An event object, owned by the caller from creation until QV_Agent_Send or QV_Agent_ObjFree. */
typedef struct QvAgentObj {
    uint32_t uiObjType;    /* object kind */
    uint8_t *pucRecord;    /* the record under construction: head, then options */
    uint8_t *pucParaBuf;   /* u16 0, u16 bytes used (head included), then parameter entries */
} QvAgentObj;

/* Alarm common attributes, the argument of QV_Agent_SetAlarmComAttr. */
typedef struct QvAgentAlarmComAttr {
    uint32_t uiCategory;           /* 1, 2 or 4 */
    uint32_t uiOption16Val;        /* sent as alarm option 16 */
    uint32_t uiHeaderByte;         /* low 8 bits: the head's attribute byte */
    const QvAgentSysTime *pstTime; /* alarm time; only the first 12 bytes are read, not the weekday */
    uint32_t uiOption8Val;         /* sent as alarm option 8 */
    uint32_t uiHeaderWord;         /* the head's attribute word */
} QvAgentAlarmComAttr;

/* ---- event objects ---- */

/* Creates an object of kind (a log kind or 5) for message id; *out is null on any failure.
 * 0, QV_AGENT_ERR_PARAM (null argument, refused kind) or QV_AGENT_ERR_NO_MEMORY. */
uint32_t QV_Agent_ObjCreate(uint32_t kind, uint32_t msgId, QvAgentObj **out, QvAgentModule *module);
/* Adds an option; options keep their order. */
uint32_t QV_Agent_AddOption(QvAgentObj *obj, uint32_t type, uint32_t len, const void *value, QvAgentModule *module);
/* Adds a parameter; length 0 only for type 25. A type-25 value longer than the kind allows is cut, and
 * a 0 byte is written into the caller's value at the last kept index. */
uint32_t QV_Agent_AddPara(QvAgentObj *obj, uint32_t type, uint16_t len, void *value, QvAgentModule *module);
/* Sets the time, category and attributes of an alarm and adds its options 8 and 16. */
uint32_t QV_Agent_SetAlarmComAttr(QvAgentObj *obj, const QvAgentAlarmComAttr *attr, QvAgentModule *module);
/* Encodes and queues the record; the object is released whatever the result. */
uint32_t QV_Agent_Send(QvAgentObj *obj, QvAgentModule *module);
/* Releases an object that will not be sent. */
uint32_t QV_Agent_ObjFree(QvAgentObj *obj, QvAgentModule *module);

uint32_t QV_AGENT_ParseMsg(uint32_t kind, uint32_t msgId, QvAgentObj *obj, QvAgentModule *module);
uint32_t QV_AGENT_CheckAlarmComAttr(QvAgentObj *obj, const QvAgentAlarmComAttr *attr, QvAgentModule *module);

/* ---- log records ---- */
uint32_t QV_AGENT_ParseLogMsg(uint8_t kind, uint32_t msgId, QvAgentObj *obj);
uint32_t QV_AGENT_AddLogOption(QvAgentObj *obj, uint32_t type, uint16_t len, const void *value, QvAgentModule *module);
uint32_t QV_AGENT_AddLogPara(QvAgentObj *obj, uint32_t type, uint16_t len, void *value, QvAgentModule *module);
/* Growth test: replaces *buffer by one of largeCap bytes (keeping its first nominalCap bytes) when
 * used + add + 4 would pass nominalCap while used is still below it; *outCap then reports largeCap. */
uint32_t QV_AGENT_IsRellocLogBuff(uint8_t **buffer, uint16_t used, uint16_t add, uint32_t *outCap,
                                  uint32_t largeCap, uint32_t nominalCap, QvAgentModule *module);
uint32_t QV_AGENT_AddAllLogPara(uint8_t *record, const uint8_t *paraBuf);
uint32_t QV_AGENT_SendLogMsg(QvAgentObj *obj, QvAgentModule *module);

/* Fills a system time from the system clocks; 0 when both were read, 1 otherwise. */
uint32_t QV_AGENT_GMT_SystimeGet(QvAgentSysTime *time);
/* Copies a system time into a log record's head (offsets 24 to 43). */
void QV_AGENT_SetLogtime(uint8_t *record, const QvAgentSysTime *time);

/* ---- alarm records ---- */
uint32_t QV_AGENT_ParseAlarmMsg(uint32_t kind, uint32_t alarmId, QvAgentObj *obj);
uint32_t QV_AGENT_AddAlarmOption(QvAgentObj *obj, uint16_t type, uint32_t len, const void *value);
uint32_t QV_AGENT_AddAlarmPara(QvAgentObj *obj, uint32_t type, uint16_t len, void *value, QvAgentModule *module);
uint32_t QV_AGENT_AddAllAlarmPara(uint8_t *record, const uint8_t *paraBuf);
uint32_t QV_AGENT_SendAlarmMsg(QvAgentObj *obj, QvAgentModule *module);
/* Builds an alarm attribute word from two notification bytes: 4, first byte in bits 15-8, bit 0 of the
 * second byte in bit 3. 0, or QV_AGENT_ERR_PARAM for a null argument. */
uint32_t QV_AGENT_GetAttributeExtByNtfOpValue(uint32_t *out, const uint8_t in[2]);

/* ---- send lists ---- */

/* Queues a copy of a finished record on send list k (0-3), under stListMutex. 0,
 * QV_AGENT_ERR_LIST_FULL, QV_AGENT_ERR_NO_MEMORY, QV_AGENT_ERR_NO_ROOM (a record no datagram could
 * carry), or the blackbox's or the copy's error. */
uint32_t QV_AGENT_AddSendBuf(const uint8_t *record, uint32_t len, uint32_t k, QvAgentModule *module);
/* Appends a copy of data to list k; the caller holds the list's mutex. */
uint32_t QV_AGENT_AddLogToDataList(const uint8_t *data, uint32_t len, int32_t k, QvAgentModule *module);

/* ---- restraint of diagnostic logs ---- */

#define QV_AGENT_RESTRAINT_SUMMARY_ID 0x0957106Cu /* kind-9 summary "%u%u%u": id, dropped, ticks */

/* Restraint statistics of one message id; the key of the module's restraint tree. */
typedef struct QvAgentDiagStatis {
    uint32_t uiMsgId;         /* the key */
    uint32_t uiHotLevel;      /* 0..9: raised by each hot tick, lowered by each cool tick */
    uint32_t uiRestrainTicks; /* ticks spent restrained */
    uint32_t uiSendCnt;       /* records queued since the last tick */
    uint32_t bRestrained;     /* 1 while records of this id are dropped */
    uint32_t uiSuppressCnt;   /* records dropped during the restraint */
} QvAgentDiagStatis;

/* Passes a finished kind-9 record through the restraint: queued on the log list unless its id is
 * restrained (then dropped and counted). 0, 1 without memory for new statistics, or the queuing's
 * error. */
uint32_t QV_AGENT_DiagNodeAddOrSend(const uint8_t *record, QvAgentModule *module);
/* The statistics of msgId, or null. The caller holds stDiagMutex. */
QvAgentDiagStatis *QV_AGENT_DiagNodeFind(uint32_t msgId, QvAgentTree *tree);
/* Adds statistics for msgId (or finds those present); null without memory. The caller holds stDiagMutex. */
QvAgentDiagStatis *QV_AGENT_DiagNodeAdd(uint32_t msgId, QvAgentTree *tree, QvAgentModule *module);
/* Forgets every entry. For the service, when no other thread uses the agent. */
uint32_t QV_AGENT_DiagNodeDelete(QvAgentModule *module);
/* One timer tick of the restraint: ages every entry, ends restraints with their summary log. */
uint32_t QV_AGENT_Check_DiagRestrainTree(QvAgentModule *module);

/* Orders restraint statistics by message id (the first u32 of each key), unsigned:
 * 1 when key1 is greater, -1 when smaller, 0 when equal; QV_AGENT_ERR_PARAM for a null key. */
int32_t QV_AGENT_DiagStatisTreeCompare(const void *key1, const void *key2);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
