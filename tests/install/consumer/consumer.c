/* A service outside this source tree, built against an installed libqvagent: it includes the whole
 * interface, links the library and calls one function of each group of the interface, each with an
 * answer that needs no running transport. */
#include <stdio.h>
#include <string.h>

#include "qvagent/qvagent.h"

/* Says which call answered what it should not; 0 when every answer was right. */
static int Check(int ok, const char *what) {
    if (!ok) fprintf(stderr, "consumer: %s\n", what);
    return ok ? 0 : 1;
}

int main(void) {
    char text[16];
    int failed = 0;
    failed += Check(QV_Agent_UnInit(NULL) == QV_AGENT_ERR_PARAM, "initialisation: QV_Agent_UnInit(NULL)");
    failed += Check(QV_Agent_SetMainBoardIP(NULL, 1) == QV_AGENT_ERR_PARAM, "identity: QV_Agent_SetMainBoardIP");
    failed += Check(QV_Agent_ObjCreate(1, 1, NULL, NULL) == QV_AGENT_ERR_PARAM, "event objects: QV_Agent_ObjCreate");
    failed += Check(QV_Agent_Debug(NULL, "x", 1, "y") == QV_AGENT_ERR_PARAM, "debug log: QV_Agent_Debug");
    failed += Check(QV_AGENT_GetDestPortByType(QV_AGENT_MSG_ALARM) == QV_WIRE_PORT_ALARM, "transport: collector port");
    failed += Check(QV_AGENT_IsNeedUseLogBlackBox("tzk") == 1, "blackbox: QV_AGENT_IsNeedUseLogBlackBox");
    failed += Check(QV_AGENT_IsFileExist(NULL) == 0, "files: QV_AGENT_IsFileExist");
    failed += Check(QV_AGENT_IPv4ToStr(0x0100007Fu, text, sizeof text) == QV_AGENT_OK && strcmp(text, "127.0.0.1") == 0,
                    "KPI: QV_AGENT_IPv4ToStr");
    QV_AGENT_Free(NULL, NULL);  /* memory: releasing nothing is allowed */
    if (failed != 0) return 1;
    puts("consumer: ok");
    return 0;
}
