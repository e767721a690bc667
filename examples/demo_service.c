/*
 * demo_service: a small service that reports through the agent the way a service on a device does.
 * It initialises the agent (which starts the default transport towards the collector), reports logs of
 * several kinds, alarms with common attributes, logs by identifier with every conversion, debug logs,
 * KPI samples and a flush notice, then waits until the collector has acknowledged everything (and the
 * KPI samples have left) and says what it sent.
 */
#define _POSIX_C_SOURCE 200809L /* nanosleep, getpid */

#include <arpa/inet.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "qvagent/qvagent.h"

#define DEMO_DEFAULT_WAIT_SECONDS 20

struct demo_counts {
    unsigned logs;
    unsigned alarms;
    unsigned by_id;
    unsigned debug;
    unsigned kpi;
    unsigned failed;
};

/* KPI samples of the demo: component, KPI, object, sub-object, flag, value. The first instance has an
 * on-change option that holds back up to DEMO_KPI_ON_CHANGE unchanged samples in a row. */
#define DEMO_KPI_COMPONENT 100u
#define DEMO_KPI_ON_CHANGE 2u
#define DEMO_KPI_FILTERED 0xD1u /* report mode 00: subject to the on-change option */
#define DEMO_KPI_ALWAYS 0xD5u   /* report mode 01: always sent */
static const struct demo_kpi {
    uint16_t kpi;
    uint32_t object;
    uint16_t sub_object;
    uint8_t flag;
    uint64_t value;
    int leaves; /* what the on-change filter does with it */
} demo_kpis[] = {
    {1, 7, 0, DEMO_KPI_FILTERED, 500, 1},  /* first sample of the instance */
    {1, 7, 0, DEMO_KPI_FILTERED, 500, 0},  /* unchanged: held back */
    {1, 7, 0, DEMO_KPI_FILTERED, 500, 0},  /* unchanged: held back */
    {1, 7, 0, DEMO_KPI_FILTERED, 500, 1},  /* third unchanged in a row: goes */
    {1, 7, 0, DEMO_KPI_ALWAYS, 500, 1},    /* always sent, whatever the option */
    {1, 7, 0, DEMO_KPI_FILTERED, 650, 1},  /* changed: goes at once */
    {2, 7, 3, DEMO_KPI_FILTERED, 12, 1},   /* an instance without an option */
};

static void usage(FILE *out) {
    fprintf(out,
            "usage: demo_service [--name NAME] [--id N] [--trace] [--wait SECONDS]\n"
            "  Initialises the reporting agent as service NAME (default demo_service), instance N\n"
            "  (default 1), with its own and the main board's address 127.0.0.1, reports logs, alarms,\n"
            "  logs by identifier, debug logs, KPI samples and a flush notice, and waits (default %d s)\n"
            "  until the collector on 127.0.0.1 has acknowledged every record and the KPI samples have\n"
            "  left. --trace turns the agent's trace file on (it also needs PX_SERVICE_TYPE). Exit\n"
            "  status 0 when everything was acknowledged.\n",
            DEMO_DEFAULT_WAIT_SECONDS);
}

static void count(struct demo_counts *c, unsigned *which, uint32_t rc, const char *what) {
    if (rc == QV_AGENT_OK) {
        (*which)++;
    } else {
        c->failed++;
        fprintf(stderr, "demo_service: %s failed with 0x%x\n", what, rc);
    }
}

/* A log object of the given kind with two options and three parameters. */
static uint32_t report_log(QvAgentModule *agent, uint32_t kind, uint32_t id, uint32_t port) {
    QvAgentObj *obj = NULL;
    uint32_t rc = QV_Agent_ObjCreate(kind, id, &obj, agent);
    uint16_t vlan = 100;
    uint32_t speed = 10000;
    char text[] = "link down";
    if (rc != QV_AGENT_OK) return rc;
    QV_Agent_AddOption(obj, 100, sizeof port, &port, agent);
    QV_Agent_AddOption(obj, 101, sizeof vlan, &vlan, agent);
    QV_Agent_AddPara(obj, 6, sizeof port, &port, agent);
    QV_Agent_AddPara(obj, 6, sizeof speed, &speed, agent);
    QV_Agent_AddPara(obj, 25, sizeof text, text, agent);
    return QV_Agent_Send(obj, agent);
}

/* An alarm with common attributes: the time now, the category and two parameters. */
static uint32_t report_alarm(QvAgentModule *agent, uint32_t id, uint32_t category) {
    QvAgentObj *obj = NULL;
    QvAgentSysTime now;
    QvAgentAlarmComAttr attr;
    const uint8_t notification[2] = {3, 1};
    uint32_t slot = 4;
    char text[] = "fan failure";
    uint32_t rc = QV_Agent_ObjCreate(5, id, &obj, agent);
    if (rc != QV_AGENT_OK) return rc;
    memset(&now, 0, sizeof now);
    QV_AGENT_GMT_SystimeGet(&now);
    memset(&attr, 0, sizeof attr);
    attr.uiCategory = category;
    attr.uiOption16Val = 16;
    attr.uiHeaderByte = 1;
    attr.pstTime = &now;
    attr.uiOption8Val = 8;
    QV_AGENT_GetAttributeExtByNtfOpValue(&attr.uiHeaderWord, notification);
    rc = QV_Agent_SetAlarmComAttr(obj, &attr, agent);
    if (rc == QV_AGENT_OK) rc = QV_Agent_AddPara(obj, 6, sizeof slot, &slot, agent);
    if (rc == QV_AGENT_OK) rc = QV_Agent_AddPara(obj, 25, sizeof text, text, agent);
    if (rc != QV_AGENT_OK) {
        QV_Agent_ObjFree(obj, agent);
        return rc;
    }
    return QV_Agent_Send(obj, agent);
}

/* A log by identifier with every conversion of the format. */
static uint32_t report_every_conversion(void) {
    QvAgentIpv6Value ipv6;
    QvAgentMacValue mac = {{0x00, 0x1B, 0x21, 0x3C, 0x4D, 0x5E}};
    QvAgentDateTimeValue when = {{0xEA, 0x07, 11, 23, 4, 5, 6}}; /* 2026-11-23 04:05:06, little-endian year */
    uint8_t block[6] = {6, 0, 'b', 'l', 'o', 'k'};               /* u16 total length, then bytes */
    const uint8_t sized[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    memset(&ipv6, 0, sizeof ipv6);
    ipv6.aucAddr[0] = 0xFE;
    ipv6.aucAddr[1] = 0x80;
    ipv6.aucAddr[15] = 1;
    return QV_Agent_ReportLogById(4, 0x0A0B0C01,
                                  "d=%d i=%i u=%u x=%x hd=%hd lu=%lu c=%c s=%s b=%b f=%f ip=%_ipv4 ip6=%_ipv6 "
                                  "mac=%_mac at=%_datetime vrid=%_VRID raw=%_Tx4",
                                  -42, 7, 3000000000u, 0xBEEFu, (short)-2, 1234567890123ul, 'q', "every kind",
                                  block, 0x7F000001u, ipv6, mac, when, 5u, sized);
}

/* Sets the on-change option of the first KPI instance and reports every demo sample; the number of
 * samples expected to leave. */
static unsigned report_kpis(struct demo_counts *c) {
    const QvAgentKpiObject first = {1, 7, 0, DEMO_KPI_COMPONENT};
    const uint32_t on_change = DEMO_KPI_ON_CHANGE;
    unsigned options = 0;
    unsigned leaving = 0;
    size_t i;
    count(c, &options, QV_Agent_SetKpiOption(&first, KPI_OPTION_ONCHANGE, sizeof on_change, &on_change),
          "KPI on-change option");
    for (i = 0; i < sizeof demo_kpis / sizeof demo_kpis[0]; i++) {
        const struct demo_kpi *k = &demo_kpis[i];
        count(c, &c->kpi,
              QV_AGENT_UpdateSubKpi(DEMO_KPI_COMPONENT, k->kpi, k->object, k->sub_object, &k->flag, k->value),
              "KPI sample");
        leaving += (unsigned)k->leaves;
    }
    return leaving;
}

/* Nothing queued and nothing waiting for an acknowledgement on lists 0 to 3, and no KPI sample waiting
 * on list 4. */
static int all_acknowledged(QvAgentModule *agent) {
    int done = 1;
    unsigned k;
    pthread_mutex_lock(&agent->stListMutex);
    for (k = QV_AGENT_MSG_LOG; k <= QV_AGENT_MSG_HIGH_PRECISION; k++) {
        if (agent->astSendList[k].uiCount != 0 || agent->astSendList[k].pucResendMsg != NULL) done = 0;
    }
    pthread_mutex_unlock(&agent->stListMutex);
    pthread_mutex_lock(&agent->stKpiMutex);
    if (agent->astSendList[QV_AGENT_MSG_KPI].uiCount != 0) done = 0;
    pthread_mutex_unlock(&agent->stKpiMutex);
    return done;
}

int main(int argc, char **argv) {
    QvAgentServiceDesc desc;
    QvAgentModule *agent;
    QvAgentProcessInfo process;
    struct demo_counts c = {0, 0, 0, 0, 0, 0};
    unsigned kpi_leaving;
    const QvAgentDebugKey key = {0x11110001u, 0x22220002u};
    const uint32_t loopback = htonl(INADDR_LOOPBACK);
    const char *name = "demo_service";
    int wait_seconds = DEMO_DEFAULT_WAIT_SECONDS;
    int waited = 0;
    int i;
    uint32_t rc;

    memset(&desc, 0, sizeof desc);
    desc.uiServiceId = 1;
    for (i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            usage(stdout);
            return 0;
        } else if (strcmp(argv[i], "--name") == 0 && i + 1 < argc) {
            name = argv[++i];
        } else if (strcmp(argv[i], "--id") == 0 && i + 1 < argc) {
            desc.uiServiceId = (uint32_t)strtoul(argv[++i], NULL, 0);
        } else if (strcmp(argv[i], "--wait") == 0 && i + 1 < argc) {
            wait_seconds = atoi(argv[++i]);
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
    desc.uiSelfIp = loopback; /* no device-management libraries here: the service names its addresses */

    agent = QV_Agent_Init(&desc);
    if (agent == NULL) {
        fprintf(stderr, "demo_service: the agent could not be initialised\n");
        return 1;
    }
    QV_Agent_SetMainBoardIP(agent, loopback);
    memset(&process, 0, sizeof process);
    strcpy(process.szProcessName, "demo_process");
    process.auiProcessInfo[0] = (uint32_t)getpid();
    QV_Agent_SetProcessInfo(agent, &process);
    printf("agent initialised for service '%s' instance %u (transport %s, %s allocator)\n", agent->szServiceName,
           agent->uiServiceId, agent->uiTransportState == QV_AGENT_STATE_READY ? "running" : "not running",
           g_farnoInited ? "platform" : "system");

    count(&c, &c.logs, report_log(agent, 1, 0x0A000001, 1), "log of kind 1");
    count(&c, &c.logs, report_log(agent, 2, 0x0A000002, 2), "log of kind 2");
    count(&c, &c.logs, report_log(agent, 16, 0x0A000016, 3), "log of kind 16");
    count(&c, &c.logs, report_log(agent, 10, 0x0A000010, 4), "log of kind 10");
    count(&c, &c.logs, report_log(agent, 20, 0x0A000020, 5), "high-precision log");
    count(&c, &c.alarms, report_alarm(agent, 0x0B000001, 1), "alarm of category 1");
    count(&c, &c.alarms, report_alarm(agent, 0x0B000002, 4), "alarm of category 4");
    count(&c, &c.by_id, QV_Agent_ReportLogById(4, 0x1234, "port %u down", 7u), "log by identifier");
    count(&c, &c.by_id, report_every_conversion(), "log by identifier with every conversion");
    count(&c, &c.by_id, QV_Agent_ReportLogById(20, 0x1235, "latency %u us", 87u), "high-precision log by identifier");
    count(&c, &c.debug, QV_Agent_Debug(&key, "fan speed", 0x0001C000, "%u rpm", 3000u), "debug log at level 7");
    count(&c, &c.debug, QV_Agent_Debug(&key, "voltage", 0x00004000, "%d mV", 1200), "debug log at level 1");
    kpi_leaving = report_kpis(&c);
    printf("reported %u logs, %u alarms, %u logs by identifier, %u debug logs, %u KPI samples (%u failed)\n",
           c.logs, c.alarms, c.by_id, c.debug, c.kpi, c.failed);
    printf("records: %u\n", c.logs + c.alarms + c.by_id + c.debug + 1); /* and the agent's allocator report */
    printf("kpi records: %u\n", kpi_leaving); /* the samples the on-change option lets through */

    while (!all_acknowledged(agent) && waited < wait_seconds * 10) {
        struct timespec tenth = {0, 100000000L};
        nanosleep(&tenth, NULL);
        waited++;
    }
    rc = QV_Agent_FlushToLogFile(agent);
    printf("flush notice: %s (0x%x)\n", rc == QV_AGENT_OK ? "sent" : "not sent", rc);
    if (!all_acknowledged(agent)) {
        printf("not everything was acknowledged within %d s: log %u, alarm %u, debug %u, high precision %u, "
               "KPI %u queued\n",
               wait_seconds, agent->astSendList[0].uiCount, agent->astSendList[1].uiCount,
               agent->astSendList[2].uiCount, agent->astSendList[3].uiCount, agent->astSendList[4].uiCount);
        return 1;
    }
    printf("everything was acknowledged by the collector after %.1f s\n", waited / 10.0);
    return c.failed == 0 ? 0 : 1;
}
