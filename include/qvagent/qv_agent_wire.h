/*
 * libqvagent: every layout that leaves the process, on the wire or on disk: offsets, sizes, magic
 * values, flag bits, ports and type codes. Shared by the agent and the tools (collector, dumper),
 * which decode with these names and nothing else.
 *
 * Datagram heads are big-endian except the two stream fields, which are little-endian; records
 * inside datagrams are in the sending host's order.
 */
#ifndef QVAGENT_QV_AGENT_WIRE_H
#define QVAGENT_QV_AGENT_WIRE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- numbered datagram head ---- */
#define QV_WIRE_HEAD_TOTAL_LEN_OFF 0u   /* u16 big-endian: whole datagram, head included */
#define QV_WIRE_HEAD_FLAGS_OFF 2u       /* u8: QV_WIRE_FLAG_* */
#define QV_WIRE_HEAD_MSG_TYPE_OFF 3u    /* u8: QV_WIRE_MSG_* */
#define QV_WIRE_HEAD_SEQ_NO_OFF 4u      /* u32 big-endian */
#define QV_WIRE_HEAD_STREAM_TYPE_OFF 8u /* u16 little-endian: 1 log, 2 other kinds */
#define QV_WIRE_HEAD_STREAM_LEN_OFF 10u /* u16 little-endian: 8 */
#define QV_WIRE_HEAD_STREAM_DATA_OFF 12u /* 8 zero bytes */

#define QV_WIRE_SHORT_HEAD_LEN 8u       /* alarm kind, flush notice: no stream fields */
#define QV_WIRE_STREAM_HEAD_LEN 20u     /* every other kind */
#define QV_WIRE_STREAM_DATA_LEN 8u
#define QV_WIRE_STREAM_TYPE_LOG 1u
#define QV_WIRE_STREAM_TYPE_OTHER 2u

#define QV_WIRE_FLAG_BYTE_ORDER 0x04u   /* set in every datagram the agent builds */
#define QV_WIRE_FLAG_STREAM_START 0x40u /* first datagram of a kind */
#define QV_WIRE_FLAG_ACK 0x80u          /* set by the collector in its replies */

#define QV_WIRE_MSG_NUMBERED 1u         /* numbered datagram and its acknowledgement */
#define QV_WIRE_MSG_FLUSH 2u            /* flush notice */
#define QV_WIRE_MSG_KPI 4u              /* KPI packet */

#define QV_WIRE_ACK_MIN_LEN 8u
#define QV_WIRE_ACK_MIN_LEN_LOG_PORT 12u /* replies from the log port carry the stream type */

#define QV_WIRE_FLUSH_NOTICE_LEN 8u
#define QV_WIRE_MAX_LIST_DATAGRAM 8096u /* bound of a datagram packed from a send list */
#define QV_WIRE_SEND_BUFFER_LEN 65535u

/* ---- collector ports ---- */
#define QV_WIRE_PORT_LOG 6010u
#define QV_WIRE_PORT_ALARM 6011u
#define QV_WIRE_PORT_HIGH_PRECISION 6012u
#define QV_WIRE_PORT_KPI 6013u
#define QV_WIRE_PORT_DEBUG 6014u

#ifdef __cplusplus
}
#endif

#endif
