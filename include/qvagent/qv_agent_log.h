/*
 * libqvagent: log by identifier and debug log: the format analyser and its renderers.
 *
 * The format analyser turns a printf-like format and its arguments into a packed list of typed
 * parameter entries. It produces no text: literal characters are dropped, and each conversion yields
 * one entry holding the argument's value as raw bytes in host order. The entry type codes are in
 * qv_agent_wire.h ("Parameter type codes of the format analyser").
 *
 * Conversions: '%', flags (' ', '#', '+', '-', '0'), width digits, '.' and precision digits (all read
 * and ignored), at most one 'h' or 'l', then one of c s x d i u b f, or '_' and a type name: "ipv4",
 * "ipv6", "mac", "VSID", "VRID", "datetime", or 'T', any one character and 1 to 3 digits giving a
 * size in bytes ("%_T.16", "%_T[16]"). There is no escape for '%': "%%" fails, as do '*', "ll", "hh"
 * and unknown letters or names.
 *
 * Argument lists are passed as va_list * everywhere, never by value: on AArch64 va_list is a record
 * passed by value, so a callee that takes it by value advances its own copy and the caller's list
 * would not move. Pass the address of a va_list object of your own (one you va_start'ed, or va_copy'd
 * into a local variable), never the address of a va_list function parameter, which some targets
 * adjust to a pointer type.
 */
#ifndef QVAGENT_QV_AGENT_LOG_H
#define QVAGENT_QV_AGENT_LOG_H

#include <stdarg.h>
#include <stdint.h>

#include "qv_agent_init.h"
#include "qv_agent_types.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* ---- parameter buffer ---- */
#define QV_AGENT_PARA_BUF_SIZE 2048u        /* capacity callers allocate and state in uiBufSize */
#define QV_AGENT_PARA_BUF_GROWN_SIZE 9216u  /* capacity after the one growth of an analysis */
#define QV_AGENT_PARA_SCRATCH_SIZE 9216u    /* the value scratch handed to every renderer */

/* Object kind that selects placeholder mode: no argument is read, every renderer writes its
 * placeholder value. Alarm-kind analyses (QV_AGENT_OBJ_ALARM) never grow the buffer. */
#define QV_AGENT_OBJ_PLACEHOLDER 23u

/* ---- argument modes of the renderers (carried in by the mode/length variable) ---- */
#define QV_AGENT_PARA_MODE_VALUE 0u        /* take the next argument by value */
#define QV_AGENT_PARA_MODE_PLACEHOLDER 1u  /* take nothing; any mode other than 0 and 2 acts so */
#define QV_AGENT_PARA_MODE_REFERENCE 2u    /* take the next argument as a pointer to the value */

/* A 'T' conversion without its size digits (the format ends before them, or no digit there). */
#define QV_AGENT_ERR_FMT_NO_SIZE 0xFFFFFFFFu

/* Parse state, on the caller's stack. */
typedef struct QvAgentParaState {
    uint32_t uiVrid;     /* out: value of the last "%_VRID"/"%_VSID"; not cleared, set it to 0 first */
    uint32_t uiParaLen;  /* out: bytes of entries written (at most 9216), set on success only */
    uint32_t uiParaNum;  /* out: entries written; 0 at the start, counted up per entry */
    uint32_t uiBufSize;  /* in/out: capacity of the parameter buffer; 2048, or 9216 once grown */
    uint32_t uiObjType;  /* in: object kind of the log being built */
} QvAgentParaState;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentParaState) == 20, "parse state is five u32");

/* Head of one parameter entry. Entries are packed one after another from offset 0 of the parameter
 * buffer with no alignment: u16 usParaType, u16 usValueLen, then usValueLen value bytes. Read them
 * at the QV_ENTRY_* offsets with byte copies, never through a pointer to this record. */
typedef struct QvAgentParaEntry {
    uint16_t usParaType;
    uint16_t usValueLen;
} QvAgentParaEntry;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentParaEntry) == 4, "entry head is 4 bytes");

/* Values passed by value (mode 0) to "%_ipv6", "%_mac" and "%_datetime": pass exactly these types.
 * The bytes are copied unchanged; the date and time layout is given in qv_agent_wire.h. */
typedef struct QvAgentIpv6Value {
    uint8_t aucAddr[16];
} QvAgentIpv6Value;
typedef struct QvAgentMacValue {
    uint8_t aucMac[6];
} QvAgentMacValue;
typedef struct QvAgentDateTimeValue {
    uint8_t aucValue[7];
} QvAgentDateTimeValue;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentIpv6Value) == 16, "IPv6 value is 16 bytes");
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentMacValue) == 6, "MAC value is 6 bytes");
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentDateTimeValue) == 7, "date and time value is 7 bytes");

/*
 * Renderer: renders one conversion into the value scratch.
 *   args        the caller's argument list; the renderer takes its argument (if any) from it, and the
 *               next conversion continues after it
 *   modifier    0, 'h' or 'l'
 *   conversion  the conversion character inside the format (the '_' of a named conversion)
 *   paraType    out: the entry's type code
 *   modeLen     in: the argument mode; out: the number of value bytes written
 *   scratch     QV_AGENT_PARA_SCRATCH_SIZE bytes; the value is written at its start
 * Returns 0, or a result code (a null pointer argument, or a null value pointer to read through, is
 * QV_AGENT_ERR_PARAM). On failure only the out-variables, the scratch and the list may have changed.
 */
typedef uint32_t (*QvAgentFmtProcFn)(va_list *args, uint8_t modifier, const char *conversion,
                                     uint16_t *paraType, uint16_t *modeLen, uint8_t *scratch);

/* One row of the format-type table: a conversion character and its renderer. */
typedef struct QvAgentFmtTypeProcFunc {
    uint32_t uiFmtType;
    QvAgentFmtProcFn pfnProc;
} QvAgentFmtTypeProcFunc;

#define QV_AGENT_FMT_TYPE_TBL_SIZE 8u
/* 'c' 's' 'x' 'd' 'i' 'u' 'b' 'f', in this order. */
extern const QvAgentFmtTypeProcFunc g_astQVAgentFmtTypeProcFuncTbl[QV_AGENT_FMT_TYPE_TBL_SIZE];

/* ---- the analyser ---- */

/* Analyses format and appends one entry per conversion to *paraBuf, a block of the agent's allocator
 * of state->uiBufSize bytes (QV_AGENT_PARA_BUF_SIZE). The block may be replaced by a larger one
 * (state->uiBufSize then reads 9216); the caller frees whatever *paraBuf holds afterwards. args is
 * the address of the caller's own va_list; the renderers consume it in order, and it is left
 * positioned after the last argument taken. module only serves as the memory handle and may be null.
 * 0; QV_AGENT_ERR_PARAM (null argument, bad conversion, a renderer's failure, entries past the
 * limit, growth failed); QV_AGENT_ERR_NO_MEMORY (no value scratch); or a bounded copy's error. */
uint32_t QV_Agent_ParaAnalyse(QvAgentModule *module, QvAgentParaState *state, uint8_t **paraBuf,
                              const char *format, va_list *args);

/* The renderer of a conversion character, or null: '_' looks the type name up by name, every other
 * character in the format-type table. */
QvAgentFmtProcFn QV_Agent_GetHandlerByType(const char *conversion);
/* The renderer of a type name, matched by prefix in the order ipv4, ipv6, mac, VSID, VRID, datetime,
 * then any name starting with 'T'; null for none. */
QvAgentFmtProcFn QV_Agent_GetHandlerByUserDefineType(const char *name);

/* Growth of a parameter buffer: when an entry of length bytes at offset would pass oldSize while the
 * offset is still below it (and newSize is not 0), replaces *buffer by a block of newSize bytes that
 * keeps its first oldSize bytes, and stores newSize in *sizeOut (which may be null). 0 when nothing
 * was needed or the buffer was replaced; QV_AGENT_ERR_PARAM; QV_AGENT_ERR_NO_MEMORY; or the copy's
 * error, the old buffer then staying in place. */
uint32_t QV_Agent_IsRellocLogBuff(uint8_t **buffer, uint16_t offset, uint16_t length, uint32_t *sizeOut,
                                  uint32_t newSize, uint32_t oldSize, QvAgentModule *module);

/* Writes the value of an entry at entry (the entry's first byte, at offset in the parameter buffer of
 * state->uiBufSize bytes) that ends beyond softLimit: a string (QV_FMT_PARA_STRING) is cut so that
 * the entry ends at softLimit, its last kept byte set to 0 (one 0 byte when the head alone reaches
 * softLimit); any other value is copied whole. *lengthOut receives the length kept. 0,
 * QV_AGENT_ERR_PARAM, QV_AGENT_ERR_NO_ROOM (no room behind the head) or the copy's error. */
uint32_t QV_Agent_ProcTypeParaString(uint16_t paraType, uint16_t length, uint32_t softLimit, uint32_t offset,
                                     uint16_t *lengthOut, uint8_t *entry, const QvAgentParaState *state,
                                     const uint8_t *scratch);

/* ---- basic renderers ---- */

/* 'c': type 6, 1 byte: an int's low 8 bits, or the byte a pointer points at. */
uint32_t QV_Agent_ProcChar(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch);
/* 's': type 16, the text and its terminating zero, at most 9216 bytes (longer text is cut); the
 * pointer is the argument in modes 0 and 2; placeholder "SimulateStringData". */
uint32_t QV_Agent_ProcString(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                             uint16_t *modeLen, uint8_t *scratch);
/* 'x': type 15, 4 bytes; with 'l' a 64-bit argument's low 32 bits. */
uint32_t QV_Agent_ProcHex(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                          uint16_t *modeLen, uint8_t *scratch);
/* 'd', 'i': 'h' type 11 (2 bytes), none type 4 (4 bytes), 'l' type 2 (8 bytes). */
uint32_t QV_Agent_ProcInt(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                          uint16_t *modeLen, uint8_t *scratch);
/* 'u': 'h' type 10 (2 bytes), none type 3 (4 bytes), 'l' type 1 (8 bytes). */
uint32_t QV_Agent_ProcUInt(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch);
/* 'b': type 29; mode 0 takes a pointer to a block (u16 total length, itself included, then bytes; at
 * most 9216, else QV_AGENT_ERR_NO_ROOM); every other mode writes the 40-byte placeholder block. */
uint32_t QV_Agent_ProcBlock(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                            uint16_t *modeLen, uint8_t *scratch);
/* 'f': takes no argument and writes an empty value of type QV_FMT_PARA_NO_VALUE. */
uint32_t QV_Agent_ProcFloat(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                            uint16_t *modeLen, uint8_t *scratch);

/* ---- named renderers (the modifier is ignored) ---- */

/* "ipv4": type 17, a u32 address in host order, or a pointer to 4 bytes. */
uint32_t QV_Agent_ProcIPV4(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch);
/* "ipv6": type 19, a QvAgentIpv6Value, or a pointer to 16 bytes. */
uint32_t QV_Agent_ProcIPV6(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch);
/* "mac": type 27, a QvAgentMacValue, or a pointer to 6 bytes. */
uint32_t QV_Agent_ProcMAC(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                          uint16_t *modeLen, uint8_t *scratch);
/* "datetime": type 25, a QvAgentDateTimeValue, or a pointer to 7 bytes. */
uint32_t QV_Agent_ProcDateTime(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                               uint16_t *modeLen, uint8_t *scratch);
/* "VRID", "VSID": type 3, a u32 or a pointer to one; the analyser keeps it in uiVrid, not as an entry. */
uint32_t QV_Agent_ProcVRID(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch);
/* 'T': type QV_FMT_PARA_SIZED; the size is the 1 to 3 digits from the fourth character of the
 * conversion ('_' first); the argument (modes 0 and 2) points at that many bytes. Placeholder: zeros.
 * QV_AGENT_ERR_FMT_NO_SIZE, QV_AGENT_ERR_NO_ROOM (more than 3 digits), QV_AGENT_ERR_PARAM. */
uint32_t QV_Agent_ProcNomalType(va_list *args, uint8_t modifier, const char *conversion, uint16_t *paraType,
                                uint16_t *modeLen, uint8_t *scratch);

/* A decimal u32 of at most 10 characters, as a "%u" scan reads it; 0 for null, longer text, or no
 * number. */
uint32_t QV_Agent_atoul(const char *text);

/* ---- reporting a log by identifier and a debug log ---- */

#define QV_AGENT_DEBUG_TEXT_MAX 255u

/* The two key words of a debug log: word 0 goes into the record head, word 1 behind the parameters. */
typedef struct QvAgentDebugKey {
    uint32_t uiKeyWord0;
    uint32_t uiKeyWord1;
} QvAgentDebugKey;

/* What QV_Agent_LogCommon builds a by-identifier or debug record from. */
typedef struct QvAgentLogCommonInfo {
    uint32_t uiHeadWord;          /* 0, or the debug key word 0 */
    uint32_t uiLogId;             /* the log or debug identifier */
    uint32_t uiObjType;           /* the object kind; 8 for debug logs */
    const uint8_t *pucParaBuf;    /* the parameter entries of the analysis */
    uint32_t uiDebugWord;         /* debug: key word 1 */
    const char *pszDebugText;     /* debug: the text, at most 255 characters */
    uint16_t usParaLen;           /* bytes of parameter entries */
    uint16_t usParaNum;           /* number of parameter entries */
    uint8_t ucLevel;              /* 0xFF, or the debug level */
    uint32_t uiVrid;              /* debug: the VRID or VSID of the analysis */
} QvAgentLogCommonInfo;

/* Reports a log of object kind objType by identifier: the format's conversions become typed
 * parameters, its text is not sent. 0; QV_AGENT_ERR_PARAM (logId 0, null format, no module record,
 * kind 8, a bad format); QV_AGENT_ERR_NO_MEMORY; or the queuing's error. */
uint32_t QV_Agent_ReportLogById(uint32_t objType, uint32_t logId, const char *format, ...);
/* The same with an argument list, which is left as the caller passed it. */
uint32_t QV_Agent_VReportLogById(uint32_t objType, uint32_t logId, const char *format, va_list args);
/* Reports a debug log: key, a text of at most 255 characters, the level from bits 14-16 of debugId.
 * As above, and QV_AGENT_ERR_DEBUG_TEXT for a longer text. */
uint32_t QV_Agent_Debug(const QvAgentDebugKey *key, const char *text, uint32_t debugId, const char *format, ...);
/* Builds the record of a by-identifier or debug log in one block and hands it on: to the restraint
 * for kind 9 (but its summary), else to the send list of its message kind. */
uint32_t QV_Agent_LogCommon(QvAgentModule *module, const QvAgentLogCommonInfo *info);
/* The message kind of an object kind for reports by identifier: 5 alarm; 8 and 10 debug; 20 high
 * precision; every other number log. */
uint32_t QV_Agent_GetMsgTypeByQvType(uint32_t objType);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
