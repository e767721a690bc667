/* stream_read: prints every message of a JetStream stream, oldest first: a line "# <subject>" and
 * then the message's data as it is. The tests read back what qvcollector --nats stored with it,
 * through the same C client the collector uses.
 *   stream_read URLS STREAM     (URLS comma-separated; exit 0 read, 1 usage, 2 no stream) */
#include <nats/nats.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kMaxServers = 8, kWaitMs = 5000 };

static int Usage(void) {
    fputs("usage: stream_read URLS STREAM\n", stderr);
    return 1;
}

/* Splits the comma-separated list in place; returns the number of servers. */
static int SplitServers(char *urls, const char **out) {
    int n = 0;
    for (char *tok = strtok(urls, ","); tok != NULL && n < kMaxServers; tok = strtok(NULL, ",")) out[n++] = tok;
    return n;
}

/* Writes messages first..last; 0 when every one that exists was read. */
static int DumpRange(jsCtx *js, const char *stream, uint64_t first, uint64_t last) {
    for (uint64_t seq = first; seq <= last; ++seq) {
        natsMsg *msg = NULL;
        jsErrCode code = 0;
        const natsStatus s = js_GetMsg(&msg, js, stream, seq, NULL, &code);
        if (s == NATS_NOT_FOUND) continue; /* deleted */
        if (s != NATS_OK) {
            fprintf(stderr, "stream_read: message %llu: %s\n", (unsigned long long)seq, natsStatus_GetText(s));
            return 2;
        }
        printf("# %s\n", natsMsg_GetSubject(msg));
        fwrite(natsMsg_GetData(msg), 1, (size_t)natsMsg_GetDataLength(msg), stdout);
        natsMsg_Destroy(msg);
    }
    return 0;
}

int main(int argc, char **argv) {
    if (argc != 3) return Usage();
    const char *servers[kMaxServers];
    const int count = SplitServers(argv[1], servers);
    natsOptions *opts = NULL;
    natsConnection *conn = NULL;
    jsCtx *js = NULL;
    jsStreamInfo *info = NULL;
    jsErrCode code = 0;
    int rc = 2;
    natsStatus s = natsOptions_Create(&opts);
    if (s == NATS_OK) s = natsOptions_SetServers(opts, servers, count);
    if (s == NATS_OK) s = natsOptions_SetTimeout(opts, kWaitMs);
    if (s == NATS_OK) s = natsConnection_Connect(&conn, opts);
    if (s == NATS_OK) s = natsConnection_JetStream(&js, conn, NULL);
    if (s == NATS_OK) s = js_GetStreamInfo(&info, js, argv[2], NULL, &code);
    if (s == NATS_OK) {
        rc = info->State.LastSeq == 0 ? 0 : DumpRange(js, argv[2], info->State.FirstSeq, info->State.LastSeq);
    } else {
        fprintf(stderr, "stream_read: %s: %s\n", argv[2], natsStatus_GetText(s));
    }
    fflush(stdout);
    jsStreamInfo_Destroy(info);
    jsCtx_Destroy(js);
    natsConnection_Destroy(conn);
    natsOptions_Destroy(opts);
    nats_Close();
    return rc;
}
