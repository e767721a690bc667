/*
 * Mesh socket library: datagram sockets on the device's internal network.
 *
 * Descriptors are the library's own: every call other than MESH_Socket takes only a descriptor that
 * MESH_Socket gave and MESH_Close has not yet closed; any other number is a bad descriptor. A call
 * that fails returns a negative value (-1) and leaves an error number for the calling thread, read with
 * MESH_GetErrorNo; a call that succeeds leaves the error number as it was.
 *
 * This is the interface the agent sees. On a device the platform vendor's library provides it; on a
 * build machine the stand-in library qvplatform does, over the kernel's UDP/IPv4 sockets.
 */
#ifndef QVPLATFORM_MESH_H
#define QVPLATFORM_MESH_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
#define MESH_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define MESH_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ---- the mesh address record ---- */

#define MESH_ADDR_TYPE_IPV4 0u

/* 120 bytes, packed. Zero the whole record before filling it; the reserved bytes are not read and are
 * written as zeros. */
#pragma pack(push, 1)
typedef struct MESH_ADDR_S {
    uint8_t ucAddrType;         /* 0: MESH_ADDR_TYPE_IPV4 */
    uint8_t aucReserved1[5];    /* 1 */
    uint16_t usPort;            /* 6: UDP port, network order */
    uint32_t uiIpAddr;          /* 8: IPv4 address, network order */
    uint8_t aucReserved2[108];  /* 12 */
} MESH_ADDR_S;
#pragma pack(pop)

MESH_STATIC_ASSERT(sizeof(MESH_ADDR_S) == 120, "mesh address record is 120 bytes");
MESH_STATIC_ASSERT(offsetof(MESH_ADDR_S, ucAddrType) == 0, "ucAddrType at 0");
MESH_STATIC_ASSERT(offsetof(MESH_ADDR_S, usPort) == 6, "usPort at 6");
MESH_STATIC_ASSERT(offsetof(MESH_ADDR_S, uiIpAddr) == 8, "uiIpAddr at 8");
MESH_STATIC_ASSERT(offsetof(MESH_ADDR_S, aucReserved2) == 12, "reserved tail at 12");

/* ---- error numbers (MESH_GetErrorNo) ----
 * MESH_ERR_RECREATE: the socket is unusable and must be closed and made anew. The stand-in gives it for
 *   a bad or closed descriptor (EBADF), a descriptor that is not a socket (ENOTSOCK), the network down
 *   or unreachable (ENETDOWN, ENETUNREACH) and the bound address gone from the interface
 *   (EADDRNOTAVAIL).
 * Every other failure gives MESH_ERR_BASE | errno, e.g. MESH_ERR_BASE | EAGAIN for a non-blocking
 *   socket with nothing to read, MESH_ERR_BASE | EINVAL for a refused argument, MESH_ERR_BASE |
 *   EMSGSIZE for a datagram too big to send. */
#define MESH_ERR_BASE 0x60450000u
#define MESH_ERR_RECREATE 0x60451010u

/* ---- sockets ---- */

/* MESH_Socket's arguments for a datagram socket: the only combination the stand-in accepts. */
#define MESH_DOMAIN_DEFAULT 0
#define MESH_SOCK_DGRAM 0
#define MESH_PROTO_DGRAM 4097

/* MESH_Fcntl commands and flag bits. */
#define MESH_F_GETFL 0
#define MESH_F_SETFL 1
#define MESH_O_NONBLOCK 0x1

/* A new datagram socket (blocking, unbound, closed on exec), or -1. Arguments other than
 * (MESH_DOMAIN_DEFAULT, MESH_SOCK_DGRAM, MESH_PROTO_DGRAM) are refused (MESH_ERR_BASE | EINVAL). */
int32_t MESH_Socket(int32_t domain, int32_t type, int32_t protocol);

/* MESH_F_GETFL: the socket's MESH_O_* flags (flags is ignored). MESH_F_SETFL: sets them to flags and
 * returns 0; bits other than MESH_O_NONBLOCK are refused (MESH_ERR_BASE | EINVAL). -1 on failure. */
int32_t MESH_Fcntl(int32_t fd, int32_t cmd, int32_t flags);

/* Binds to addr (port 0: any free port); 0, or -1 (null addr or an address type other than
 * MESH_ADDR_TYPE_IPV4: MESH_ERR_BASE | EINVAL; address in use: MESH_ERR_BASE | EADDRINUSE). */
int32_t MESH_Bind(int32_t fd, const MESH_ADDR_S *addr);

/* Sends len bytes (0 allowed) as one datagram to dest; the number of bytes sent, or -1 (null dest, an
 * address type other than MESH_ADDR_TYPE_IPV4, null buf with len > 0, len over INT32_MAX:
 * MESH_ERR_BASE | EINVAL). A socket not bound yet is bound to any address and a free port first, as
 * the kernel does. */
int32_t MESH_SendTo(int32_t fd, const void *buf, uint32_t len, const MESH_ADDR_S *dest);

/* Takes one datagram: its byte count (a longer datagram is cut to len, the rest dropped; an empty one
 * gives 0), or -1 (nothing waiting on a non-blocking socket: MESH_ERR_BASE | EAGAIN). When from is not
 * null and a datagram was taken, the record is zeroed and filled with the sender's type, port and
 * address. A blocking socket waits for a datagram. */
int32_t MESH_RecvFrom(int32_t fd, void *buf, uint32_t len, MESH_ADDR_S *from);

/* The error number of the calling thread's last failed call; 0 before any failure. */
uint32_t MESH_GetErrorNo(void);

/* Closes the socket; 0, or -1 for a descriptor that is not an open mesh socket (MESH_ERR_RECREATE). */
int32_t MESH_Close(int32_t fd);

#ifdef __cplusplus
}
#endif

#endif
