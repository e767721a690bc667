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

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
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

/* ---- blackbox file: a 32-byte head, then the data area; u32 fields in the device's order ---- */
#define QV_BOX_HEAD_VALID_OFF 0u
#define QV_BOX_HEAD_CAPACITY_OFF 4u
#define QV_BOX_HEAD_READ_POS_OFF 8u
#define QV_BOX_HEAD_WRITE_POS_OFF 12u
#define QV_BOX_HEAD_USED_LEN_OFF 16u
#define QV_BOX_HEAD_COMMIT_POS_OFF 20u
#define QV_BOX_HEAD_READED_LEN_OFF 24u
#define QV_BOX_HEAD_LEN 32u           /* the data area starts here */
#define QV_BOX_HEAD_VALID 1u
#define QV_BOX_REC_LEN_OFF 0u         /* u32: the record's length, this head not included */
#define QV_BOX_REC_MAGIC_OFF 4u       /* u32 */
#define QV_BOX_REC_HEAD_LEN 8u
#define QV_BOX_REC_MAGIC 0xAABBCCDDu
#define QV_BOX_CAPACITY_SMALL 0x8000u   /* file system up to QV_BOX_FS_SMALL bytes */
#define QV_BOX_CAPACITY_MEDIUM 0x10000u /* file system up to QV_BOX_FS_MEDIUM bytes */
#define QV_BOX_CAPACITY_LARGE 0x20000u  /* larger file systems */
#define QV_BOX_CAPACITY_FRAME 0x40000u  /* service type "tzk_frm" */
#define QV_BOX_FS_SMALL 0x500000u
#define QV_BOX_FS_MEDIUM 0xA00000u
#define QV_BOX_READ_BODY_MAX 8096u      /* reading stops once more than this was copied */

/* ---- records: host byte order, carried unchanged inside datagrams and the blackbox ---- */
#define QV_REC_TYPE_OFF 0u          /* u16: QV_REC_TYPE_* */
#define QV_REC_LEN_OFF 2u           /* u16: head + options + parameters (+ debug tail) */
#define QV_REC_TYPE_LOG 1u
#define QV_REC_TYPE_ALARM 2u
#define QV_REC_OPT_MARKER 0xAAAAAA00u /* ORed into the option count when the record is sent */

/* Log record head, 48 bytes (also by-identifier and debug records) */
#define QV_LOG_HEAD_WORD_OFF 4u     /* u32: debug key word, else 0 */
#define QV_LOG_VRID_OFF 8u          /* u32 */
#define QV_LOG_ID_OFF 12u           /* u32: message id */
#define QV_LOG_PARA_NUM_OFF 20u     /* u16 */
#define QV_LOG_LEVEL_OFF 22u        /* u8: 0xFF unless a debug level */
#define QV_LOG_KIND_OFF 23u         /* u8: object kind */
#define QV_LOG_TIME_OFF 24u         /* 20 bytes: the system time, field for field */
#define QV_LOG_OPT_COUNT_OFF 44u    /* u32 */
#define QV_LOG_HEAD_LEN 48u
#define QV_LOG_LEVEL_NONE 0xFFu

/* Alarm record head, 40 bytes */
#define QV_ALARM_ID_OFF 12u         /* u32 */
#define QV_ALARM_ATTR_MARKER_OFF 16u /* u8: 0xFF once the common attributes are set */
#define QV_ALARM_PARA_NUM_OFF 17u   /* u8 */
#define QV_ALARM_ATTR_BYTE_OFF 18u  /* u8 */
#define QV_ALARM_CATEGORY_OFF 19u   /* u8: 1, 2 or 4 */
#define QV_ALARM_ATTR_WORD_OFF 20u  /* u32 */
#define QV_ALARM_TIME_OFF 24u       /* u16 year, u8 month, day, hour, minute, second, reserved, u32 ms */
#define QV_ALARM_OPT_COUNT_OFF 36u  /* u32 */
#define QV_ALARM_HEAD_LEN 40u
#define QV_ALARM_ATTR_MARKER 0xFFu

/* Offsets inside a 20-byte system time (wall time: the first 12 bytes) */
#define QV_TIME_YEAR_OFF 0u
#define QV_TIME_MONTH_OFF 2u
#define QV_TIME_DAY_OFF 3u
#define QV_TIME_HOUR_OFF 4u
#define QV_TIME_MINUTE_OFF 5u
#define QV_TIME_SECOND_OFF 6u
#define QV_TIME_WEEKDAY_OFF 7u
#define QV_TIME_MS_OFF 8u
#define QV_TIME_MONO_HIGH_OFF 12u
#define QV_TIME_MONO_LOW_OFF 16u
#define QV_WALL_TIME_LEN 12u
#define QV_SYS_TIME_LEN 20u

/* Option and parameter entry: u16 type, u16 value length, value */
#define QV_ENTRY_TYPE_OFF 0u
#define QV_ENTRY_LEN_OFF 2u
#define QV_ENTRY_HEAD_LEN 4u

/* Option types */
#define QV_OPT_ALARM_8 8u           /* alarm: 4 bytes from the common attributes */
#define QV_OPT_POSITION 10u         /* log: u32 local id B << 24 | local id A << 16 | CPU << 8 */
#define QV_OPT_PROCESS_ID 11u       /* log: u32 */
#define QV_OPT_ALARM_16 16u         /* alarm: 4 bytes from the common attributes */
#define QV_OPT_LOCAL_ID_A 20u       /* u16 */
#define QV_OPT_LOCAL_ID_B 21u       /* u16 */
#define QV_OPT_LOG_TIME 38u         /* log: 12-byte wall time replacing the head's */
#define QV_OPT_SERVICE_NAME 67u     /* the service name without its terminator */
#define QV_OPT_SERVICE_ID 79u       /* log: u32 */
#define QV_OPT_PROCESS_INFO 80u     /* alarm: 32-byte process name and five u32 */
#define QV_OPT_PROCESS_INFO_LEN 52u

/* Parameter type codes */
#define QV_PARA_TYPE_TEXT 25u       /* the one type that may be empty; cut when too long */

/* Capacities of records built from event objects */
#define QV_REC_NOMINAL_CAPACITY 2548u
#define QV_REC_LARGE_CAPACITY 9716u
#define QV_LOG_TEXT_PARA_MAX 8192u
#define QV_ALARM_TEXT_PARA_MAX 1024u
#define QV_ALARM_PARA_MAX 255u
#define QV_LOG_PARA_MAX 65535u

/* ---- Parameter type codes of the format analyser ----
 * Entries of by-identifier and debug records (u16 type, u16 value length, value in the sending host's
 * order), packed with no alignment. These codes are their own family, apart from the caller-chosen
 * parameter types of event objects. */
#define QV_FMT_PARA_NO_VALUE 0u     /* '%f': no argument taken, value length 0 */
#define QV_FMT_PARA_U64 1u          /* '%lu' */
#define QV_FMT_PARA_I64 2u          /* '%ld', '%li' */
#define QV_FMT_PARA_U32 3u          /* '%u'; also the "%_VRID" value, which never becomes an entry */
#define QV_FMT_PARA_I32 4u          /* '%d', '%i' */
#define QV_FMT_PARA_CHAR 6u         /* '%c': 1 byte */
#define QV_FMT_PARA_U16 10u         /* '%hu' */
#define QV_FMT_PARA_I16 11u         /* '%hd', '%hi' */
#define QV_FMT_PARA_HEX 15u         /* '%x': 4 bytes */
#define QV_FMT_PARA_STRING 16u      /* '%s': text and its terminating zero */
#define QV_FMT_PARA_IPV4 17u        /* "%_ipv4": 4 bytes, a u32 address in host order */
#define QV_FMT_PARA_IPV6 19u        /* "%_ipv6": 16 bytes as given */
#define QV_FMT_PARA_DATETIME 25u    /* "%_datetime": 7 bytes, QV_FMT_DATETIME_* */
#define QV_FMT_PARA_MAC 27u         /* "%_mac": 6 bytes as given */
#define QV_FMT_PARA_BLOCK 29u       /* '%b': u16 total length (itself included), then bytes */
#define QV_FMT_PARA_SIZED 30u       /* "%_T" and a size: that many raw bytes */

#define QV_FMT_IPV4_LEN 4u
#define QV_FMT_IPV6_LEN 16u
#define QV_FMT_MAC_LEN 6u
#define QV_FMT_DATETIME_LEN 7u
#define QV_FMT_BLOCK_LEN_OFF 0u     /* u16 inside a block value */

/* The 7-byte date and time value as services fill it; the agent copies it unchanged */
#define QV_FMT_DATETIME_YEAR_OFF 0u   /* u16, host order */
#define QV_FMT_DATETIME_MONTH_OFF 2u  /* 1..12 */
#define QV_FMT_DATETIME_DAY_OFF 3u
#define QV_FMT_DATETIME_HOUR_OFF 4u
#define QV_FMT_DATETIME_MINUTE_OFF 5u
#define QV_FMT_DATETIME_SECOND_OFF 6u

/* ---- KPI packet: a 12-byte head, then 28-byte records; every field big-endian ---- */
#define QV_KPI_PKT_TOTAL_LEN_OFF 0u     /* u16: whole packet, head included */
#define QV_KPI_PKT_FLAGS_OFF 2u         /* u8: QV_WIRE_FLAG_BYTE_ORDER */
#define QV_KPI_PKT_MSG_TYPE_OFF 3u      /* u8: QV_WIRE_MSG_KPI */
#define QV_KPI_PKT_RESERVED_OFF 4u      /* u32: 0 */
#define QV_KPI_PKT_RECORD_NUM_OFF 8u    /* u32: records that follow */
#define QV_KPI_PKT_HEAD_LEN 12u
#define KPI_PACKET_MAX 8096u            /* bound of a KPI packet, head included */
#define QV_KPI_PKT_RECORDS_MAX 288u     /* records that fit: 12 + 288 * 28 = 8076 bytes */

#define QV_KPI_REC_COMPONENT_OFF 0u     /* u16: the service's component id + QV_KPI_COMPONENT_OFFSET */
#define QV_KPI_REC_KPI_ID_OFF 2u        /* u32 */
#define QV_KPI_REC_OBJECT_OFF 6u        /* u32 */
#define QV_KPI_REC_SUB_OBJECT_OFF 10u   /* u16 */
#define QV_KPI_REC_CPU_OFF 12u          /* u8: the sender's CPU */
#define QV_KPI_REC_LOCAL_ID_A_OFF 13u   /* u8: the sender's local slot numbers */
#define QV_KPI_REC_LOCAL_ID_B_OFF 14u   /* u8 */
#define QV_KPI_REC_FLAG_OFF 15u         /* u8: QV_KPI_FLAG_MODE_* in bits 2-3, other bits the service's */
#define QV_KPI_REC_VALUE_OFF 16u        /* u64 */
#define QV_KPI_REC_TIME_OFF 24u         /* u32: seconds since 1970 */
#define QV_KPI_REC_LEN 28u

#define QV_KPI_COMPONENT_OFFSET 10000u  /* added to a service's component id, modulo 65536 */
#define QV_KPI_FLAG_MODE_MASK 0x0Cu
#define QV_KPI_FLAG_MODE_SHIFT 2u
#define QV_KPI_FLAG_MODE_ON_CHANGE 0u   /* held back by an on-change option */
#define QV_KPI_FLAG_MODE_ALWAYS 1u      /* every sample is sent */

/* ---- collector ports ---- */
#define QV_WIRE_PORT_LOG 6010u
#define QV_WIRE_PORT_ALARM 6011u
#define QV_WIRE_PORT_HIGH_PRECISION 6012u
#define QV_WIRE_PORT_KPI 6013u
#define QV_WIRE_PORT_DEBUG 6014u

/* ---- what the collector and the dumper read besides the above ---- */
#define QV_WIRE_PORT_COUNT 5u           /* the collector's ports, 6010 to 6014 */
#define QV_WIRE_ACK_LEN 8u              /* acknowledgement from every port but the log port */
#define QV_WIRE_ACK_LEN_LOG_PORT 12u    /* from the log port: the stream type follows the head */
#define QV_WIRE_ACK_STREAM_TYPE_OFF 8u  /* u16 little-endian: stream type of the datagram acknowledged */
#define QV_WIRE_SEQ_NO_MAX 0xFFFFFFFFu  /* after it the sequence number goes back to 1, never 0 */
#define QV_WIRE_KPI_COMMON_HEAD_LEN 4u  /* bytes a KPI packet shares with the datagram head */

#define QV_REC_HEAD_MIN_LEN 4u          /* record type and record length */
#define QV_REC_OPT_MARKER_MASK 0xFFFFFF00u
#define QV_REC_OPT_COUNT_MASK 0x000000FFu

#define QV_LOG_RESERVED_OFF 16u         /* u32, 0 */
#define QV_ALARM_RESERVED0_OFF 4u       /* u32, 0 */
#define QV_ALARM_RESERVED1_OFF 8u       /* u32, 0 */
#define QV_ALARM_TIME_RESERVED_OFF 7u   /* inside the alarm time, where a log time has its weekday */

/* By-identifier and debug records: one option (the service name), then the parameter entries of the
 * format analyser; a debug record (object kind QV_REC_KIND_DEBUG) then carries the second key word
 * and its text with the terminating zero. */
#define QV_REC_FORMATTED_OPT_WORD 0xAAAAAA01u
#define QV_REC_KIND_DEBUG 8u
#define QV_DEBUG_KEY_WORD1_LEN 4u

#define QV_OPT_POSITION_LOCAL_ID_B_SHIFT 24u
#define QV_OPT_POSITION_LOCAL_ID_A_SHIFT 16u
#define QV_OPT_POSITION_CPU_SHIFT 8u
#define QV_OPT_PROCESS_NAME_LEN 32u     /* first part of option 80, then QV_OPT_PROCESS_INFO_WORDS u32 */
#define QV_OPT_PROCESS_INFO_WORDS 5u

/* ---- persistent local log file "/opt/zanthe/var/log/<name>.log" (host byte order) ----
 * A 12-byte head, then text lines back to back, each with its own line end, used as a ring.
 * Before the first wrap the lines are data bytes [0, write offset); after it the older lines are
 * [write offset, wrap end) and the newer ones [0, write offset). Offsets count from the end of the
 * head. There is no magic value. */
#define QV_PLOG_HEAD_WRITE_OFFSET_OFF 0u /* u32: where the next line starts */
#define QV_PLOG_HEAD_RESERVED_OFF 4u     /* u32: 0 when created, then kept as read */
#define QV_PLOG_HEAD_WRAP_END_OFF 8u     /* u32: 0 until the first wrap, then the end of the valid data */
#define QV_PLOG_HEAD_LEN 12u
#define QV_PLOG_FILE_MAX 0x400000u       /* head and data never exceed 4194304 bytes */
#define QV_PLOG_DATA_MAX (QV_PLOG_FILE_MAX - QV_PLOG_HEAD_LEN)
#define QV_PLOG_LINE_MAX 599u            /* characters of one line, time prefix and line end included */
/* Every line starts with the local time "YYMMDD-hh:mm:ss.uuuuuu " (23 characters for 2000-2099);
 * a boot-log line goes on "[LEVEL][P:process]text\n". */
#define QV_PLOG_TIME_PREFIX_LEN 23u
#define QV_PLOG_TIME_DATE_LEN 6u         /* YYMMDD, then '-' */
#define QV_PLOG_TIME_CLOCK_OFF 7u        /* hh:mm:ss, then '.' */
#define QV_PLOG_TIME_MICRO_OFF 16u       /* six digits of microseconds, then ' ' */
#define QV_PLOG_TIME_MICRO_LEN 6u
#define QV_PLOG_LINE_END '\n'
#define QV_PLOG_PROCESS_TAG "[P:"     /* after the level in brackets: the process tag up to ']' */

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
