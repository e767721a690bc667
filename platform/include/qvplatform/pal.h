/*
 * Platform runtime framework: start-up state, memory handles with accounted allocation, AVL trees,
 * dynamic loading, the system clock and a few string helpers.
 *
 * This is the interface the agent sees. On a device the platform vendor's runtime provides it; on a
 * build machine the stand-in library qvplatform does.
 */
#ifndef QVPLATFORM_PAL_H
#define QVPLATFORM_PAL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- start-up state and memory handles ---- */

/* Nonzero once the platform runtime has started. */
uint32_t PAL_StarterSystemStartUpIs(void);

/* Gives the memory handle registered under name (the same handle for the same name, never 0); 0 on
 * success. */
uint32_t PAL_HandleInitialize(const char *name, uint32_t *handle);

/* Accounted allocation: counts blocks and bytes outstanding per handle. Null on failure. Blocks are
 * 8-byte aligned. Allocation and release take no lock: callers serialise their calls. */
void *PAL_MemAlloc_F(uint32_t handle, uint32_t flags, uint32_t size, const char *file, uint32_t line);

/* Releases a block of PAL_MemAlloc_F; 0 on success, nonzero (and nothing changed) for null or a block
 * whose head is not that of a live block. As with free(), passing anything else is undefined. */
uint32_t PAL_MemFree_F(uint32_t handle, void *ptr, const char *file, uint32_t line);

/* ---- AVL trees ----
 * The caller owns nodes and keys. Records are packed to 4 bytes and laid out exactly as below, since
 * services keep them inside records of their own. */

typedef int32_t (*PAL_AVL_COMPARE_FUNC)(const void *key1, const void *key2);

#pragma pack(push, 4)
typedef struct PAL_AVL_NODE_S {
    struct PAL_AVL_NODE_S *pstParent; /* 0 */
    struct PAL_AVL_NODE_S *pstLeft;   /* 8 */
    struct PAL_AVL_NODE_S *pstRight;  /* 16 */
    int32_t iHeight;                  /* 24: -1 while the node is in no tree */
    void *pSelf;                      /* 28: the node's own address */
    void *pKey;                       /* 36: the caller's record, whose first bytes are the key */
} PAL_AVL_NODE_S;

typedef struct PAL_AVL_TREE_S {
    PAL_AVL_COMPARE_FUNC pfnCompare; /* 0: set by the caller */
    PAL_AVL_NODE_S *pstRoot;         /* 8 */
    PAL_AVL_NODE_S *pstFirst;        /* 16: smallest node, null exactly when the tree is empty */
    PAL_AVL_NODE_S *pstLast;         /* 24: largest node */
} PAL_AVL_TREE_S;
#pragma pack(pop)

/* Inserts node unless a node with an equal key exists: null when inserted, else the existing node
 * (the tree is then unchanged). */
PAL_AVL_NODE_S *PAL_AVL_Insert_Or_Find(PAL_AVL_TREE_S *tree, PAL_AVL_NODE_S *node);

/* The node whose key compares equal to key, or null (also for a null tree). */
PAL_AVL_NODE_S *PAL_AVL_Find(PAL_AVL_TREE_S *tree, const void *key);

/* Unlinks node from the tree; the caller frees it afterwards. */
void PAL_AVL_Delete(PAL_AVL_TREE_S *tree, PAL_AVL_NODE_S *node);

/* The in-order successor of node, or null after the last node. */
PAL_AVL_NODE_S *PAL_AVL_Next(PAL_AVL_NODE_S *node);

/* ---- dynamic loading ---- */

#define PAL_DL_NOW 1u

/* Opens a shared library; null on failure. */
void *PAL_DlOpen(const char *path, uint32_t mode);
/* Looks a symbol up; null when missing or when handle is null. */
void *PAL_DlSym(void *handle, const char *symbol);
/* Closes a library; 0 on success. */
uint32_t PAL_DlClose(void *handle);

/* ---- clock ---- */

typedef struct PAL_SYSTIME_S {
    uint16_t usYear;
    uint8_t ucMonth;    /* 1..12 */
    uint8_t ucDate;     /* 1..31 */
    uint8_t ucHour;
    uint8_t ucMinute;
    uint8_t ucSecond;
    uint8_t ucWeek;     /* 0 = Sunday */
    uint32_t uiMillSec; /* 0..999 */
} PAL_SYSTIME_S;

/* Fills the wall-clock time (UTC); 0 on success. */
uint32_t PAL_SystimeGet(PAL_SYSTIME_S *time);
/* Converts a time of PAL_SystimeGet to seconds since 1970 into *seconds; 0 on success. */
uint32_t PAL_SystimeSecSince1970(const PAL_SYSTIME_S *time, uint32_t *seconds);

/* ---- string helpers ---- */

/* First occurrence of needle in haystack, or null (also for a null argument). */
const char *PAL_StrStr(const char *haystack, const char *needle);
int32_t PAL_StrCmp(const char *s1, const char *s2);
int32_t PAL_MemCmp(const void *s1, const void *s2, uint32_t len);

#ifdef __cplusplus
}
#endif

#endif
