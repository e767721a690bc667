/* The scheduler framework's and the mesh socket library's headers as a C11 program sees them: they
 * compile without extensions, their records have the sizes the agent relies on, and the calls link. */
#include <stddef.h>
#include <stdio.h>

#include "qvplatform/kev.h"
#include "qvplatform/mesh.h"
#include "qvplatform_testctl.h"

static int failures = 0;

static void check(int ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "FAIL: %s\n", what);
        failures++;
    }
}

int main(void) {
    void *attr = KEV_ThreadCreateAttr();
    const uint32_t priority = 32;
    MESH_ADDR_S addr = {0};

    check(sizeof(MESH_ADDR_S) == 120, "mesh address record is 120 bytes");
    check(offsetof(MESH_ADDR_S, usPort) == 6 && offsetof(MESH_ADDR_S, uiIpAddr) == 8, "mesh address offsets");
    check(sizeof(KEV_CTRL_S) == 8 + sizeof(void *), "control record size");
    check(offsetof(KEV_CTRL_S, pTaskAttr) == sizeof(void *), "control record task offset");
    check(sizeof(KEV_TASK_FUNC_S) == 2 * sizeof(void *), "task record size");
    check(sizeof(KEV_TIMER_FUNC_S) == 2 * sizeof(void *), "timer record size");
    check(attr != NULL, "thread attributes");
    check(KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_PRIORITY, &priority, sizeof priority) == KEV_OK, "priority set");
    check(KEV_ThreadSetAttr(attr, 7u, &priority, sizeof priority) == KEV_ERR_PARAM, "unknown id refused");
    KEV_ThreadDestroyAttr(attr);
    check(MESH_Bind(-1, &addr) == -1 && MESH_GetErrorNo() == MESH_ERR_RECREATE, "bad descriptor");
    check(QVPLAT_TestKevLiveThreads() == 0u, "no scheduler thread");
    return failures == 0 ? 0 : 1;
}
