// Why the collector puts one message per datagram into the stream: records a second that a stream
// replicated three times takes from one asynchronous publisher (the NATS C client, as in qvcollector),
// at one record per message against a datagram's worth per message. The records are the JSON object
// of a typical high-precision log, about 500 bytes.
#include <benchmark/benchmark.h>

#include <nats/nats.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "stream_cluster.h"

namespace {

using namespace streamtest;

constexpr int kStartMs = 10000;
constexpr int64_t kWindowRecords = 4096;  // unanswered records at most, in messages of either size
constexpr int kRecords = 100000;       // a run
constexpr int64_t kAnswerWaitMs = 10000;
constexpr int kSetUpTries = 150;
const std::string kDir = "/opt/publish-bench";
const std::string kRecord =
    R"({"kind":"hplog","seq":1234,"from":"127.0.0.1:40000","index":7,"record":"log","form":"by_id","length":68,)"
    R"("head_word":0,"vrid":0,"log_id":987149,"reserved":0,"para_num":2,"level":255,"obj_kind":20,"time":{"year":2026,)"
    R"("month":11,"day":25,"hour":18,"minute":0,"second":1,"weekday":3,"ms":250},"mono_ms":12486298,)"
    R"("opt_word":2863311361,"opt_count":1,"options":[{"type":67,"len":5,"as":"text","value":"flood"}],)"
    R"("params":[{"type":3,"len":4,"as":"u32","value":123456},{"type":3,"len":4,"as":"u32","value":48879}]})"
    "\n";

std::atomic<int64_t> g_answered{0};
std::atomic<int64_t> g_failed{0};

std::string g_firstError;  // written once, by the client's one answering thread

void OnAck(jsCtx *, natsMsg *msg, jsPubAck *pa, jsPubAckErr *pae, void *) {
    if (pa == nullptr && g_failed++ == 0 && pae != nullptr) {
        g_firstError = std::string(natsStatus_GetText(pae->Err)) + " " + std::to_string(pae->ErrCode) + " " +
                       (pae->ErrText != nullptr ? pae->ErrText : "");
    }
    ++g_answered;
    natsMsg_Destroy(msg);
}

void BM_StreamPublish(benchmark::State &state) {
    const auto perMessage = static_cast<int>(state.range(0));
    // A fresh store each run: the scratch /opt is small, and stores of earlier runs would fill it.
    std::filesystem::remove_all(kDir);
    mkdir(kDir.c_str(), 0755);
    Cluster cluster(kDir + "/cluster", 4340, 3);
    if (!cluster.StartAll(kStartMs)) return state.SkipWithError("the cluster did not start");
    natsConnection *conn = nullptr;
    jsCtx *js = nullptr;
    jsOptions jo;
    jsOptions_Init(&jo);
    jo.PublishAsync.AckHandler = OnAck;
    jo.PublishAsync.MaxPending = kWindowRecords / perMessage;
    jo.PublishAsync.StallWait = kAnswerWaitMs;  // a full window waits rather than failing
    jo.Wait = kAnswerWaitMs;
    jsStreamConfig sc;
    jsStreamConfig_Init(&sc);
    const char *subjects[] = {"qv.>"};
    sc.Name = "PUB";
    sc.Subjects = subjects;
    sc.SubjectsLen = 1;
    sc.Replicas = 3;
    std::string payload;
    for (int i = 0; i < perMessage; ++i) payload += kRecord;
    const std::string url = cluster.Urls().substr(0, cluster.Urls().find(','));
    bool ok = natsConnection_ConnectTo(&conn, url.c_str()) == NATS_OK && natsConnection_JetStream(&js, conn, &jo) == NATS_OK;
    // The leaders take a moment to be elected after the nodes start: the stream is made, and one
    // message stored, before the clock runs.
    for (int tries = 0; ok && tries < kSetUpTries; ++tries) {
        if (js_AddStream(nullptr, js, &sc, nullptr, nullptr) == NATS_OK &&
            js_Publish(nullptr, js, "qv.hplog.flood", kRecord.data(), static_cast<int>(kRecord.size()), nullptr, nullptr) ==
                NATS_OK) {
            break;
        }
        if (tries == kSetUpTries - 1) ok = false;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    if (!ok) state.SkipWithError("no stream");
    for (auto _ : state) {
        if (!ok) break;
        g_answered = 0;
        g_failed = 0;
        const int messages = kRecords / perMessage;
        for (int i = 0; i < messages; ++i) {
            js_PublishAsync(js, "qv.hplog.flood", payload.data(), static_cast<int>(payload.size()), nullptr);
        }
        jsPubOptions po;
        jsPubOptions_Init(&po);
        po.MaxWait = kAnswerWaitMs;
        js_PublishAsyncComplete(js, &po);
        state.counters["failed"] = static_cast<double>(g_failed.load());
        if (g_failed != 0) state.SetLabel("first failure: " + g_firstError);
    }
    state.counters["records_per_s"] = benchmark::Counter(
        static_cast<double>(kRecords) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    jsCtx_Destroy(js);
    natsConnection_Destroy(conn);
}

BENCHMARK(BM_StreamPublish)->ArgName("records_per_message")->Arg(1)->Arg(100)->Iterations(1)->UseRealTime()->Unit(
    benchmark::kMillisecond);

}  // namespace
