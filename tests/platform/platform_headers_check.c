/* The scheduler framework's and the mesh socket library's headers as a C11 program sees them: they
 * compile without extensions, their records have the sizes the agent relies on, and the calls link. */
#include <stddef.h>
#include <stdio.h>

#include "qvplatform/kev.h"
#include "qvplatform/mesh.h"
#include "qvplatform_testctl.h"

_Static_assert(offsetof(MESH_ADDR_S, usPort) == 6 && offsetof(MESH_ADDR_S, uiIpAddr) == 8, "mesh address offsets");
_Static_assert(sizeof(KEV_CTRL_S) == 8 + sizeof(void *) && offsetof(KEV_CTRL_S, pTaskAttr) == sizeof(void *),
               "control record");
_Static_assert(sizeof(KEV_TASK_FUNC_S) == 2 * sizeof(void *) && sizeof(KEV_TIMER_FUNC_S) == 2 * sizeof(void *),
               "callback records");

int main(void) {
    void *attr = KEV_ThreadCreateAttr();
    const uint32_t priority = 32;
    MESH_ADDR_S addr = {0};
    int ok = attr != NULL && KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_PRIORITY, &priority, sizeof priority) == KEV_OK &&
             KEV_ThreadSetAttr(attr, 7u, &priority, sizeof priority) == KEV_ERR_PARAM;
    KEV_ThreadDestroyAttr(attr);
    ok = ok && MESH_Bind(-1, &addr) == -1 && MESH_GetErrorNo() == MESH_ERR_RECREATE;
    ok = ok && QVPLAT_TestKevLiveThreads() == 0u;
    if (!ok) fprintf(stderr, "FAIL: the platform calls from C\n");
    return ok ? 0 : 1;
}
