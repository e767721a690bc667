/* A service outside this source tree, built against an installed libqvagent: it includes the whole
 * interface, links the library and checks two answers that need no running transport. */
#include <stdio.h>

#include "qvagent/qvagent.h"

int main(void) {
    if (QV_Agent_UnInit(NULL) != QV_AGENT_ERR_PARAM) {
        fprintf(stderr, "QV_Agent_UnInit(NULL) did not answer QV_AGENT_ERR_PARAM\n");
        return 1;
    }
    if (QV_AGENT_GetDestPortByType(QV_AGENT_MSG_ALARM) != QV_WIRE_PORT_ALARM) {
        fprintf(stderr, "the alarm kind's collector port is not %u\n", QV_WIRE_PORT_ALARM);
        return 1;
    }
    puts("consumer: ok");
    return 0;
}
