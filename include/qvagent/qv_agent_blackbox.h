/*
 * libqvagent: the blackbox, a per-service file ring of log records that outlives the process. A log
 * record is written to the file first; log datagrams are packed from the file; what a datagram took
 * stays recoverable until the collector acknowledges it, so a restart sends it again.
 *
 * The file: a 32-byte head (QvAgentBoxHead) and a data area of uiCapacity bytes holding records laid
 * end to end, each behind an 8-byte record head (length, QV_BOX_REC_MAGIC); positions wrap modulo the
 * capacity. Layout constants are in qv_agent_wire.h.
 */
#ifndef QVAGENT_QV_AGENT_BLACKBOX_H
#define QVAGENT_QV_AGENT_BLACKBOX_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "qv_agent_init.h"
#include "qv_agent_wire.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* The head at offset 0 of the file, in the device's byte order. Positions are data-area offsets. */
typedef struct QvAgentBoxHead {
    uint32_t uiValid;     /* 1 once initialised */
    uint32_t uiCapacity;  /* size of the data area */
    uint32_t uiReadPos;   /* where the next read starts */
    uint32_t uiWritePos;  /* where the next record is written */
    uint32_t uiUsedLen;   /* bytes written and not yet read, record heads included */
    uint32_t uiCommitPos; /* read position at the last acknowledgement: where a restart resumes */
    uint32_t uiReadedLen; /* bytes read into datagrams that are not yet acknowledged */
    uint32_t uiReserved;
} QvAgentBoxHead;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentBoxHead) == QV_BOX_HEAD_LEN, "blackbox head is 32 bytes");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentBoxHead, uiCapacity) == QV_BOX_HEAD_CAPACITY_OFF, "blackbox head layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentBoxHead, uiReadPos) == QV_BOX_HEAD_READ_POS_OFF, "blackbox head layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentBoxHead, uiWritePos) == QV_BOX_HEAD_WRITE_POS_OFF, "blackbox head layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentBoxHead, uiUsedLen) == QV_BOX_HEAD_USED_LEN_OFF, "blackbox head layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentBoxHead, uiCommitPos) == QV_BOX_HEAD_COMMIT_POS_OFF, "blackbox head layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentBoxHead, uiReadedLen) == QV_BOX_HEAD_READED_LEN_OFF, "blackbox head layout");

/* The open blackbox of the process; allocated once at module creation and kept for its life. */
typedef struct QvAgentLogBox {
    pthread_mutex_t stMutex; /* serialises writes and reads of records; taken after stListMutex */
    int32_t iFd;             /* the open file */
    uint32_t uiBoxSize;      /* the data area's capacity chosen at this start */
} QvAgentLogBox;

/* Null while no blackbox is in use. */
extern QvAgentLogBox *g_pstQvAgentLogBox;

/* Result of QV_AGENT_WriteBlackbox when the record does not fit (-6). */
#define QV_AGENT_BOX_FULL 0xFFFFFFFAu
/* Result of QV_AGENT_ReadBlackbox when a record could not be read whole (-1). */
#define QV_AGENT_BOX_SHORT_READ 0xFFFFFFFFu

/* Negative results of QV_AGENT_BoxWrite / QV_AGENT_BoxRead and QV_AGENT_GetBlackbox. */
#define QV_BOX_ERR_RANGE (-1)   /* offset plus length overflows, or a null buffer */
#define QV_BOX_ERR_OPEN (-2)    /* the file cannot be opened */
#define QV_BOX_ERR_READ (-4)    /* read failed */
#define QV_BOX_ERR_WRITE (-5)   /* five write calls failed */
#define QV_BOX_ERR_BEYOND (-6)  /* offset plus length beyond the file's size */
#define QV_BOX_ERR_RESERVE (-7) /* the file's space cannot be reserved */
#define QV_BOX_ERR_FSTAT (-8)   /* fstat failed */

/* Writes "/opt/zanthe/var/LOG_<service type>_blackbox" into name (size bytes). 0; 1 when the service
 * type is not set or the name does not fit (the name is then empty); QV_AGENT_ERR_PARAM for a null
 * buffer. */
uint32_t QV_AGENT_GetFileBufName(char *name, int32_t size);

/* The data area's capacity for this start: 256 KiB for service type "tzk_frm", else by the size of the
 * file system under /opt/zanthe/var/: 32 KiB up to 5 MiB, 64 KiB up to 10 MiB, 128 KiB above. */
uint32_t QV_AGENT_GetBlackBoxSize(QvAgentModule *module);

/* Opens the blackbox named in module->szBlackboxFile and publishes it in g_pstQvAgentLogBox; rolls
 * back what was read but not acknowledged before the last stop. 0 when the blackbox is in use, else 1. */
uint32_t QV_AGENT_InitLogBlackbox(QvAgentModule *module);

/* Initialises box's mutex and opens the file with fileSize bytes reserved. 0, or 1. */
uint32_t QV_AGENT_CreateBlackbox(QvAgentLogBox *box, uint32_t fileSize, QvAgentModule *module);

/* Opens (creating, never truncating) path and reserves fileSize bytes from offset 0. The descriptor;
 * QV_BOX_ERR_OPEN; QV_BOX_ERR_RESERVE (the file is closed again). */
int32_t QV_AGENT_GetBlackbox(const char *path, int32_t fileSize);

/* Transfer the 32-byte head. 0, or 1 when not all 32 bytes were transferred (or a null argument). */
uint32_t QV_AGENT_ReadBlackboxHead(QvAgentLogBox *box, QvAgentBoxHead *head);
uint32_t QV_AGENT_WriteBlackboxHead(QvAgentLogBox *box, const QvAgentBoxHead *head);

/* A fresh head: valid, the box's capacity, everything else 0. */
void QV_AGENT_BoxHeadInit(QvAgentLogBox *box, QvAgentBoxHead *head);

/* 0 when head is valid and its capacity is the box's, else 1. */
uint32_t QV_AGENT_BoxCheckValid(QvAgentLogBox *box, const QvAgentBoxHead *head);

/* len bytes at a file offset, range-checked against the file's size. The bytes transferred, or a
 * QV_BOX_ERR_* code. Writing retries short writes and gives up after five failed calls. */
int32_t QV_AGENT_BoxWrite(int32_t fd, uint32_t offset, uint32_t len, const uint8_t *buf);
int32_t QV_AGENT_BoxRead(int32_t fd, uint32_t offset, uint32_t len, uint8_t *buf);

/* len bytes at a data-area position, continuing at the area's start past its end. The bytes
 * transferred, or 0 when any part was not transferred whole. */
uint32_t QV_AGENT_BoxWriteData(QvAgentLogBox *box, const QvAgentBoxHead *head, uint32_t pos, uint32_t len,
                               const uint8_t *buf);
uint32_t QV_AGENT_BoxReadData(QvAgentLogBox *box, const QvAgentBoxHead *head, uint32_t pos, uint32_t len,
                              uint8_t *buf);

/* Stores one log record. 0; QV_AGENT_BOX_FULL when it does not fit; 1 for any other failure. The
 * caller holds stListMutex. */
uint32_t QV_AGENT_WriteBlackbox(const uint8_t *record, uint32_t len);

/* Reads whole records, without their heads, back to back into dst: *space is the room on entry and
 * the bytes copied on return; *got is set to 1 when anything was read. Stops at the pass's 200th log
 * record, once more than 8096 bytes were copied, or at a record that does not fit. 0; 1 on failure
 * (a corrupt file is emptied); QV_AGENT_BOX_SHORT_READ when a record could not be read whole. The
 * caller holds stListMutex. */
uint32_t QV_AGENT_ReadBlackbox(uint8_t *dst, uint32_t *space, uint32_t *got, QvAgentModule *module);

/* QV_AGENT_ReadBlackbox's work on box, under its mutex (which the caller holds). */
uint32_t QV_AGENT_ReadBlackBoxData(QvAgentLogBox *box, uint8_t *dst, uint32_t *space, uint32_t *got,
                                   QvAgentModule *module);

/* 1 when the blackbox holds no unread record, is not in use or its head cannot be read; else 0. */
uint32_t QV_AGENT_BlackboxIsEmpty(void);

/* After an acknowledged log datagram: what was read is gone for good. 0, or 1 when the head cannot
 * be read or written. The caller holds stListMutex. */
uint32_t QV_AGENT_ClearReadedBoxData(void);

/* Moves the records queued on list (send list 0) into the blackbox, oldest first, stopping at the
 * first that is not stored. The caller holds stListMutex. */
void QV_AGENT_MoveDataList2Box(QvAgentSendList *list, QvAgentModule *module);

/* 1 for the service names "tzk" and "tzkd", else 0. */
uint32_t QV_AGENT_IsNeedUseLogBlackBox(const char *serviceName);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
