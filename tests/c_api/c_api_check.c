/* A service written in C: includes every public header, links the shared library, and checks the
 * answers that need no running transport. */
#include <stdio.h>
#include <string.h>

#include "qvagent/qvagent.h"
#include "qvagent/qv_agent_wire.h"

static int failures = 0;

static void check(int ok, const char *what) {
    if (!ok) {
        fprintf(stderr, "FAIL: %s\n", what);
        failures++;
    }
}

int main(void) {
    QvAgentServiceDesc desc;
    QvAgentModule *module;
    const uint32_t limit = 7;

    memset(&desc, 0, sizeof desc);
    strcpy(desc.szServiceName, "c_service");
    desc.uiServiceId = 3;

    check(QV_Agent_Init(NULL) == NULL, "init without a description gives null");
    check(QV_Agent_UnInit(NULL) == QV_AGENT_ERR_PARAM, "uninit of null is a bad argument");

    module = QV_Agent_Init(&desc);
    check(module != NULL, "init gives a module record");
    check(module == QV_Agent_GetHandle(), "the record is the process handle");
    check(g_QvHandle == (uintptr_t)module, "g_QvHandle holds the record");
    check(strcmp(module->szServiceName, "c_service") == 0, "the record starts with the description");
    check(module->uiListLimit == QV_AGENT_DEFAULT_LIST_LIMIT, "list limit 0 selects the default");
    check(QV_Agent_SetAttribute(module, QV_AGENT_ATTR_LIST_LIMIT, &limit) == QV_AGENT_OK, "set the list limit");
    check(module->uiListLimit == 7, "the list limit was stored");
    check(QV_Agent_Init(&desc) == module, "a second init gives the same record");
    check(QV_WIRE_PORT_LOG == 6010u, "wire header is usable from C");
    check(QV_Agent_SysbootLog("c", QV_AGENT_BOOTLOG_INFO, "%d", 1) == QV_AGENT_PLOG_FAILED,
          "the boot log refuses lines before it is named");

    printf("%s\n", failures == 0 ? "C interface: all checks passed" : "C interface: checks failed");
    return failures == 0 ? 0 : 1;
}
