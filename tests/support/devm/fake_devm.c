/*
 * Fake device-management libraries for tests. Built twice per variant: as libdevmbasic.so (board
 * position and master) and libdevmdb.so (slot map and own address). Answers come from the environment
 * at each call, so a test chooses them with setenv:
 *   QV_FAKE_DEVM_CPU, _SLOT, _BOARD_TYPE, _MASTER_SLOT, _LOCAL_A, _LOCAL_B   numbers
 *   QV_FAKE_DEVM_MASTER_IP, QV_FAKE_DEVM_SELF_IP                             dotted IPv4
 *   QV_FAKE_DEVM_FAIL   names of functions that fail, separated by commas
 * The master address is returned in network order, the own address in host order.
 * Variants leave a symbol out (QV_FAKE_OMIT_MASTER, QV_FAKE_OMIT_SLOT_MAP, QV_FAKE_OMIT_SELF_IP).
 */
#include <arpa/inet.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#define FAKE_OK 0u
#define FAKE_FAILED 1u

static uint32_t number(const char *name, uint32_t fallback) {
    const char *text = getenv(name);
    return text != NULL ? (uint32_t)strtoul(text, NULL, 0) : fallback;
}

static uint32_t address(const char *name) {
    const char *text = getenv(name);
    struct in_addr a;
    return text != NULL && inet_pton(AF_INET, text, &a) == 1 ? a.s_addr : 0;
}

static int fails(const char *function) {
    const char *list = getenv("QV_FAKE_DEVM_FAIL");
    const size_t len = strlen(function);
    for (const char *at = list; at != NULL && (at = strstr(at, function)) != NULL; at += len) {
        const int starts = at == list || at[-1] == ',';
        const int ends = at[len] == '\0' || at[len] == ',';
        if (starts && ends) return 1;
    }
    return 0;
}

#ifdef QV_FAKE_BASIC
uint32_t DEVM_GetSelfCpuId(uint32_t *cpu) {
    if (fails("DEVM_GetSelfCpuId")) return FAKE_FAILED;
    *cpu = number("QV_FAKE_DEVM_CPU", 0);
    return FAKE_OK;
}

uint32_t DEVM_GetSelfSlotId(uint32_t *slot) {
    if (fails("DEVM_GetSelfSlotId")) return FAKE_FAILED;
    *slot = number("QV_FAKE_DEVM_SLOT", 1);
    return FAKE_OK;
}

uint32_t DEVM_GetSelfBoardType(uint32_t *type) {
    if (fails("DEVM_GetSelfBoardType")) return FAKE_FAILED;
    *type = number("QV_FAKE_DEVM_BOARD_TYPE", 1);
    return FAKE_OK;
}

#ifndef QV_FAKE_OMIT_MASTER
uint32_t DEVM_GetSystemMasterIpAndSlotId(uint32_t *ip, uint32_t *slot) {
    if (fails("DEVM_GetSystemMasterIpAndSlotId")) return FAKE_FAILED;
    *ip = address("QV_FAKE_DEVM_MASTER_IP");
    *slot = number("QV_FAKE_DEVM_MASTER_SLOT", 1);
    return FAKE_OK;
}
#endif
#endif

#ifdef QV_FAKE_DB
#ifndef QV_FAKE_OMIT_SLOT_MAP
uint32_t DEVM_GlobalSlotId2LocalSlotId(uint32_t slot, uint32_t *localA, uint32_t *localB) {
    if (fails("DEVM_GlobalSlotId2LocalSlotId")) return FAKE_FAILED;
    *localA = number("QV_FAKE_DEVM_LOCAL_A", slot);
    *localB = number("QV_FAKE_DEVM_LOCAL_B", 0);
    return FAKE_OK;
}
#endif

#ifndef QV_FAKE_OMIT_SELF_IP
uint32_t DEVM_GetSelfBoardIp(uint32_t *ip) {
    if (fails("DEVM_GetSelfBoardIp")) return FAKE_FAILED;
    *ip = ntohl(address("QV_FAKE_DEVM_SELF_IP"));
    return FAKE_OK;
}
#endif
#endif
