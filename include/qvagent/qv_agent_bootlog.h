/*
 * libqvagent: the persistent local log file and the boot log written through it.
 *
 * The local log file keeps time-stamped text lines on the board's own file system: a 12-byte head
 * (QvAgentPlogHead) and a ring of lines of at most 4194304 bytes in all; its layout is in
 * qv_agent_wire.h (QV_PLOG_*). Processes that write the same file exclude each other with a
 * whole-file fcntl write lock held from reading the head to writing it back; the threads of one
 * process are serialised by the agent around each line. A file deleted while the process runs is
 * re-created, with a fresh head, by the next line.
 *
 * The boot log names the file once ("/opt/zanthe/var/log/<name>.log") and writes level-tagged lines
 * "<time>[LEVEL][P:process]text\n" into it; it needs no module record and works before QV_Agent_Init.
 *
 * The file functions answer with small codes of their own (QV_AGENT_PLOG_*), the path functions with
 * theirs (QV_AGENT_PATH_*).
 */
#ifndef QVAGENT_QV_AGENT_BOOTLOG_H
#define QVAGENT_QV_AGENT_BOOTLOG_H

#include <stdarg.h>
#include <stdint.h>
#include <sys/types.h>

#include "qv_agent_types.h"

/* The library is built with hidden visibility; what is declared here is its exported interface. */
#pragma GCC visibility push(default)
#ifdef __cplusplus
extern "C" {
#endif

/* ---- result codes of the local log file functions ---- */
#define QV_AGENT_PLOG_OK 0u
#define QV_AGENT_PLOG_FAILED 1u       /* any failure, a null argument included */
#define QV_AGENT_PLOG_ERR_OPEN 6u     /* open() failed */
#define QV_AGENT_PLOG_ERR_LOCK 7u     /* the fcntl record-lock call failed */

/* ---- result codes of QV_AGENT_GetAbsolutePathAndFileName ---- */
#define QV_AGENT_PATH_OK 0u
#define QV_AGENT_PATH_ERR_NO_ROOM 0x71000002u /* output size 0 */
#define QV_AGENT_PATH_ERR_FAILED 0xFFFFFFFu   /* any other failure */

#define QV_AGENT_LOG_PATH_LEN 256u       /* g_stQvAgentLogInfo, terminator included */
#define QV_AGENT_LOG_LINE_BUF 600u       /* a line is formatted into this many bytes: 599 characters */
#define QV_AGENT_BOOTLOG_TEXT_MAX 600u   /* characters of a boot-log caller's text */
#define QV_AGENT_LOG_FILE_MODE 0640      /* mode of a newly created local log file */

/* Boot-log levels; any level above QV_AGENT_BOOTLOG_FATAL is written as "FATAL". */
#define QV_AGENT_BOOTLOG_DEBUG 0u
#define QV_AGENT_BOOTLOG_INFO 1u
#define QV_AGENT_BOOTLOG_WARNING 2u
#define QV_AGENT_BOOTLOG_ERROR 3u
#define QV_AGENT_BOOTLOG_FATAL 4u

/* The head at the start of the file; offsets count from its end. */
typedef struct QvAgentPlogHead {
    uint32_t uiWriteOffset; /* where the next line starts */
    uint32_t uiReserved;    /* 0 when created; afterwards written back as read */
    uint32_t uiWrapEnd;     /* 0 until the first wrap; afterwards the end of the valid data */
} QvAgentPlogHead;
QV_AGENT_STATIC_ASSERT(sizeof(QvAgentPlogHead) == 12, "local log head is 12 bytes");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentPlogHead, uiReserved) == 4, "local log head layout");
QV_AGENT_STATIC_ASSERT(offsetof(QvAgentPlogHead, uiWrapEnd) == 8, "local log head layout");

/* The file's path, empty until QV_Agent_SysbootLogInit sets it. */
extern char g_stQvAgentLogInfo[QV_AGENT_LOG_PATH_LEN];
/* The descriptor the agent holds open on the file; 0 or negative: none. 0 at load. */
extern int g_iQvAgentLogFileFd;

/* ---- boot log ---- */

/* Sets the file's path to "/opt/zanthe/var/log/<name>.log" and lets go of the descriptor of the
 * previous one; the length of the path, or a negative value (the path is then empty and every line
 * fails). */
int32_t QV_Agent_SysbootLogInit(const char *name);
/* Writes "<time>[LEVEL][P:<process>]<text>\n"; 0, or 1 when the text is longer than 600 characters,
 * the line longer than 599, no path is set or the file cannot be written. */
uint32_t QV_Agent_SysbootLog(const char *process, uint32_t level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- local log file ---- */

/* Formats one line (time prefix and text) and stores it in the ring; 0 or 1. */
uint32_t QV_AGENT_PLOG_LogFile(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* Makes sure that the file at path exists with a head and that *fd is open on it; 0 or 1. */
uint32_t QV_AGENT_LOG_CheckAndCreateFile(const char *path, int *fd);
/* Stores one formatted line in the ring of the file open on fd, whose size may not exceed maxSize
 * bytes, under the whole-file write lock; 0 or 1. */
uint32_t QV_AGENT_PLOG_Buff2File(int fd, const uint8_t *line, uint32_t length, uint32_t maxSize);
/* Writes the time prefix and the formatted text into buffer (size bytes) and their length into
 * *length; 0, or 1 when they do not fit or the text cannot be formatted. */
uint32_t QV_AGENT_LOG_BuffAddTime(char *buffer, int32_t size, uint32_t *length, const char *format,
                                  va_list args) __attribute__((format(printf, 4, 0)));
/* Writes the local time prefix "YYMMDD-hh:mm:ss.uuuuuu " into buffer (at most size - 1 characters);
 * its length, or a negative value. */
int32_t QV_AGENT_LOG_GetCurTime(char *buffer, uint32_t size);
/* Write or read the 12-byte head at offset 0; the byte count, or -1. */
ssize_t QV_AGENT_PLOG_WriteHead(int fd, const QvAgentPlogHead *head);
ssize_t QV_AGENT_PLOG_ReadHead(int fd, QvAgentPlogHead *head);
/* write() at the current offset; -1 for a negative descriptor or null data. */
ssize_t QV_AGENT_LOG_Write(int fd, uint32_t length, const void *data);
/* Opens path with flags (mode 0640, close-on-exec) into *fd; 0, QV_AGENT_PLOG_ERR_OPEN when open()
 * fails, 1 for a refused path ("monitor_log.buffer"), a directory that does not exist or a failed
 * close-on-exec. */
uint32_t QV_AGENT_LOG_OpenFile(const char *path, uint32_t flags, int *fd);
/* Adds FD_CLOEXEC to the descriptor's flags; the last fcntl result. */
int32_t QV_AGENT_LOG_SetCloexecFlag(int fd);
/* One fcntl record-lock call (command F_SETLK, F_SETLKW or F_GETLK) with a lock of that type, start,
 * whence and length; 0, or QV_AGENT_PLOG_ERR_LOCK. */
uint32_t QV_AGENT_DBG_LockReg(int fd, int32_t command, int16_t type, off_t start, int16_t whence, off_t length);
/* Writes "<resolved directory>/<file name>" of path into out (at most outSize - 1 characters);
 * QV_AGENT_PATH_OK, QV_AGENT_PATH_ERR_NO_ROOM or QV_AGENT_PATH_ERR_FAILED. */
uint32_t QV_AGENT_GetAbsolutePathAndFileName(const char *path, char *out, uint32_t outSize);
/* Splits path after its last '/' or '\\' into dir (that separator included; empty when there is none)
 * and name; 1 on success, 0 for a null or empty path or a part that does not fit. */
uint32_t QV_AGENT_SplitPathFileName(const char *path, char *dir, uint32_t dirSize, char *name, uint32_t nameSize);
/* 1 when stat() succeeds on path, else 0 (also for a null path). */
uint32_t QV_AGENT_IsFileExist(const char *path);
/* 1 when stat() succeeds on path and the size is 0, else 0. */
uint32_t QV_AGENT_IsFileEmpty(const char *path);
/* The path buffer g_stQvAgentLogInfo. */
char *QvAgent_GetLogInfo(void);

#ifdef __cplusplus
}
#endif
#pragma GCC visibility pop

#endif
