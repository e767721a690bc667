/*
 * demo_service: a small service that links the agent and shows what it does. It initialises the agent
 * with a service description, completes its identity through the setters, writes its device log,
 * asks the collector to flush its log file, and prints what happened at each step.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qvagent/qvagent.h"

static void usage(FILE *out) {
    fprintf(out,
            "usage: demo_service [--name NAME] [--id N] [--trace]\n"
            "  Initialises the reporting agent as service NAME (default demo_service), instance N\n"
            "  (default 1), sets its addresses to 127.0.0.1, writes its device log and sends the flush\n"
            "  notice. --trace turns the agent's trace file on (needs PX_SERVICE_TYPE).\n");
}

static const char *transport_text(uint32_t state) {
    switch (state) {
        case QV_AGENT_STATE_READY: return "running";
        case QV_AGENT_STATE_NO_SOCKET: return "socket missing";
        case QV_AGENT_STATE_NO_THREADS: return "no scheduler thread; waiting for socket mode";
        default: return "unknown";
    }
}

int main(int argc, char **argv) {
    QvAgentServiceDesc desc;
    QvAgentModule *module;
    QvAgentProcessInfo process;
    const char *name = "demo_service";
    const uint32_t loopback = htonl(INADDR_LOOPBACK);
    char line[160];
    uint32_t rc;
    int i;

    memset(&desc, 0, sizeof desc);
    desc.uiServiceId = 1;
    for (i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return 0;
        } else if (strcmp(argv[i], "--name") == 0 && i + 1 < argc) {
            name = argv[++i];
        } else if (strcmp(argv[i], "--id") == 0 && i + 1 < argc) {
            desc.uiServiceId = (uint32_t)strtoul(argv[++i], NULL, 0);
        } else if (strcmp(argv[i], "--trace") == 0) {
            g_bQvagentDbgSwitch = 1;
        } else {
            usage(stderr);
            return 2;
        }
    }
    if (strlen(name) >= sizeof desc.szServiceName) {
        fprintf(stderr, "demo_service: the service name must be shorter than %u characters\n",
                (unsigned)sizeof desc.szServiceName);
        return 2;
    }
    strcpy(desc.szServiceName, name);
    desc.uiSelfIp = loopback;

    module = QV_Agent_Init(&desc);
    if (module == NULL) {
        fprintf(stderr, "demo_service: the agent could not be initialised\n");
        return 1;
    }
    printf("agent initialised for service '%s' instance %u\n", module->szServiceName, module->uiServiceId);
    printf("  allocator: %s\n", g_farnoInited ? "platform runtime (accounted)" : "system");
    printf("  send lists: 5, limit %u records each\n", module->uiListLimit);
    printf("  transport: %s\n", transport_text(module->uiTransportState));
    if (module->szBlackboxFile[0] == '\0') {
        printf("  blackbox: not used (PX_SERVICE_TYPE is not set)\n");
    } else {
        printf("  blackbox: %s, %s\n", module->szBlackboxFile, module->bBlackboxEnable ? "in use" : "not in use");
    }

    rc = QV_Agent_SetMainBoardIP(module, loopback);
    printf("main board address 127.0.0.1: result 0x%x\n", rc);
    rc = QV_Agent_SetLocalIP(module, loopback);
    printf("own address 127.0.0.1: result 0x%x\n", rc);

    memset(&process, 0, sizeof process);
    strcpy(process.szProcessName, "demo_process");
    process.auiProcessInfo[0] = 1;
    rc = QV_Agent_SetProcessInfo(module, &process);
    printf("process identity '%s': result 0x%x\n", module->szProcessName, rc);

    snprintf(line, sizeof line, "%s instance %u started\n", module->szServiceName, module->uiServiceId);
    rc = QV_Agent_DevLog(module->szServiceName, (const uint8_t *)line, (int32_t)strlen(line));
    printf("device log /opt/zanthe/var/log/DevLog_%s.log: %s\n", module->szServiceName,
           rc == QV_AGENT_OK ? "written" : "could not be written");

    rc = QV_Agent_FlushToLogFile(module);
    printf("flush notice to the collector: %s (result 0x%x)\n",
           rc == QV_AGENT_OK ? "sent" : "not sent, mesh sending is not available in this build", rc);

    rc = QV_Agent_UnInit(module);
    printf("agent marked for refresh on the next initialisation: result 0x%x\n", rc);
    return 0;
}
