/*
 * libqvagent: fixed-width types, result codes, state words and message kinds shared by every
 * family of the agent's interface.
 */
#ifndef QVAGENT_QV_AGENT_TYPES_H
#define QVAGENT_QV_AGENT_TYPES_H

#include <stddef.h>
#include <stdint.h>

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* Pins a layout at compile time, in C and in C++. */
#ifdef __cplusplus
#define QV_AGENT_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QV_AGENT_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ---- result codes (u32; 0 is success) ---- */
#define QV_AGENT_OK 0x0u
#define QV_AGENT_ERR_PARAM 0x801701u       /* null pointer, refused kind, bad length or category */
#define QV_AGENT_ERR_DEBUG_TEXT 0x801702u  /* debug text longer than 255 characters */
#define QV_AGENT_ERR_NO_ROOM 0x801703u     /* option, parameter or value does not fit */
#define QV_AGENT_ERR_NO_MEMORY 0x801704u   /* no memory (also: no handle, in the KPI calls) */
#define QV_AGENT_ERR_THREAD 0x80170Bu      /* a socket-mode thread could not be created */
#define QV_AGENT_ERR_LIST_FULL 0x80170Du   /* send list full, or the debug cap of the pass reached */
#define QV_AGENT_ERR_RECOVERY 0x801720u    /* recovery of the socket-mode transport failed */
#define QV_AGENT_ERR_FAILED 0x1u           /* generic failure of a helper step */
#define QV_AGENT_ERR_DEVLOG 0xFFFFFFFFu    /* any failure of the device log */

/* ---- state words ---- */
#define QV_AGENT_STATE_READY 0x0u
#define QV_AGENT_STATE_NO_SOCKET 0x74000001u      /* transport: socket missing */
#define QV_AGENT_STATE_NO_THREADS 0x74000002u     /* transport: threads missing */
#define QV_AGENT_MESH_NOT_CREATED 0x74000003u     /* mesh socket not created yet */
#define QV_AGENT_MESH_ADDR_CHANGED 0x74000004u    /* mesh socket to re-create: own address changed */
#define QV_AGENT_MESH_RECREATE 0x1u               /* mesh socket to re-create after a send error */
#define QV_AGENT_KPI_STORE_NO_MEMORY 0x74000006u  /* the KPI option store could not be created */

/* ---- message kinds: index of the send lists, mesh sockets and collector ports ---- */
#define QV_AGENT_MSG_LOG 0u
#define QV_AGENT_MSG_ALARM 1u
#define QV_AGENT_MSG_DEBUG 2u
#define QV_AGENT_MSG_HIGH_PRECISION 3u
#define QV_AGENT_MSG_KPI 4u
#define QV_AGENT_MSG_KIND_COUNT 5u
#define QV_AGENT_MSG_NONE 5u              /* a datagram that belongs to no kind */

/* System time: UTC calendar fields, milliseconds and the monotonic clock in milliseconds. The first
 * 12 bytes alone also serve as a wall time (alarm times, log option 38). */
typedef struct QvAgentSysTime {
    uint16_t usYear;
    uint8_t ucMonth;      /* 1..12 */
    uint8_t ucDay;        /* 1..31 */
    uint8_t ucHour;
    uint8_t ucMinute;
    uint8_t ucSecond;     /* 0..60 */
    uint8_t ucWeekDay;    /* 0 = Sunday */
    uint32_t uiMilliSec;  /* 0..999 */
    uint32_t uiMonoMsHigh;
    uint32_t uiMonoMsLow;
} QvAgentSysTime;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentSysTime) == 20, "system time is 20 bytes");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentSysTime, uiMilliSec) == 8, "system time layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentSysTime, uiMonoMsLow) == 16, "system time layout");

/* Ordered-tree head kept in agent records and handed to the platform's AVL tree functions: compare
 * function, root, smallest and largest node. The platform maintains the three node pointers;
 * pstFirst is null exactly when the tree is empty. */
typedef int32_t (*QvAgentTreeCompareFn)(const void *key1, const void *key2);
typedef struct QvAgentTree {
    QvAgentTreeCompareFn pfnCompare;
    void *pstRoot;
    void *pstFirst;
    void *pstLast;
} QvAgentTree;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentTree) == 32, "tree head is 32 bytes");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentTree, pstFirst) == 16, "smallest node at offset 16");

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
