// Connection, stream and asynchronous publishing with the NATS C client.
#include "nats_sink.h"

#include <nats/nats.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

namespace qvcollector {

namespace {

constexpr int64_t kReconnectWaitMs = 100;
constexpr int64_t kPingIntervalMs = 1000;
constexpr int kMaxPingsOut = 2;
constexpr int64_t kApiWaitMs = 1000;       // stream look-up and creation, on the background thread
constexpr auto kEnsureRetry = std::chrono::milliseconds(200);
constexpr int64_t kNsPerSec = 1000000000;
constexpr int kCloseWaitMs = 2000;
const char *const kSubjects[] = {"qv.>"};

std::string StatusText(natsStatus s) { return natsStatus_GetText(s); }

// The client library calls this for every answer; the message is ours to destroy.
void OnPubAck(jsCtx *, natsMsg *msg, jsPubAck *pa, jsPubAckErr *, void *closure) {
    static_cast<NatsSink *>(closure)->OnAnswer(msg, pa != nullptr, pa != nullptr && pa->Duplicate);
    natsMsg_Destroy(msg);
}

// With a connect callback, a first connection that fails goes on in the background.
void OnConnected(natsConnection *, void *) {}

std::vector<std::string> SplitUrls(const std::string &urls) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= urls.size()) {
        const size_t comma = urls.find(',', start);
        const size_t end = comma == std::string::npos ? urls.size() : comma;
        if (end > start) out.push_back(urls.substr(start, end - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return out;
}

}  // namespace

struct NatsSink::Handles {
    natsOptions *opts = nullptr;
    natsConnection *conn = nullptr;
    jsCtx *js = nullptr;
};

NatsSink::NatsSink() = default;

NatsSink::~NatsSink() {
    closing_ = true;
    if (ensurer_.joinable()) ensurer_.join();
    if (h_) {
        jsCtx_Destroy(h_->js);
        natsConnection_Destroy(h_->conn);
        natsOptions_Destroy(h_->opts);
        nats_CloseAndWait(kCloseWaitMs);
    }
    if (wakeFd_ >= 0) close(wakeFd_);
}

std::optional<std::string> NatsSink::Open(const NatsConfig &config) {
    config_ = config;
    wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd_ < 0) return std::string("eventfd failed");
    h_ = std::make_unique<Handles>();
    const std::vector<std::string> urls = SplitUrls(config.urls);
    if (urls.empty()) return std::string("--nats names no server");
    std::vector<const char *> servers;
    for (const std::string &u : urls) servers.push_back(u.c_str());

    natsStatus s = natsOptions_Create(&h_->opts);
    if (s == NATS_OK) s = natsOptions_SetServers(h_->opts, servers.data(), static_cast<int>(servers.size()));
    if (s == NATS_OK) s = natsOptions_SetMaxReconnect(h_->opts, -1);
    if (s == NATS_OK) s = natsOptions_SetReconnectWait(h_->opts, kReconnectWaitMs);
    if (s == NATS_OK) s = natsOptions_SetPingInterval(h_->opts, kPingIntervalMs);
    if (s == NATS_OK) s = natsOptions_SetMaxPingsOut(h_->opts, kMaxPingsOut);
    if (s == NATS_OK) s = natsOptions_SetRetryOnFailedConnect(h_->opts, true, OnConnected, nullptr);
    if (s != NATS_OK) return "--nats " + config.urls + ": " + StatusText(s);
    s = natsConnection_Connect(&h_->conn, h_->opts);
    if (s != NATS_OK && s != NATS_NOT_YET_CONNECTED) return "cannot connect to " + config.urls + ": " + StatusText(s);

    jsOptions jo;
    jsOptions_Init(&jo);
    jo.Wait = kApiWaitMs;
    jo.PublishAsync.MaxPending = 2 * static_cast<int64_t>(kWindow);  // never reached: Publish refuses first
    jo.PublishAsync.AckHandler = OnPubAck;
    jo.PublishAsync.AckHandlerClosure = this;
    s = natsConnection_JetStream(&h_->js, h_->conn, &jo);
    if (s != NATS_OK) return "JetStream context: " + StatusText(s);
    ensurer_ = std::thread([this] { EnsureStream(); });
    return std::nullopt;
}

// Looks the stream up, and makes it when it is missing, until it is there. Runs beside the receive
// loop so that a cluster that is away never holds it up.
void NatsSink::EnsureStream() {
    while (!closing_) {
        if (natsConnection_Status(h_->conn) == NATS_CONN_STATUS_CONNECTED) {
            jsStreamInfo *info = nullptr;
            jsErrCode code = static_cast<jsErrCode>(0);
            natsStatus s = js_GetStreamInfo(&info, h_->js, config_.stream.c_str(), nullptr, &code);
            if (s == NATS_NOT_FOUND) {
                jsStreamConfig sc;
                jsStreamConfig_Init(&sc);
                sc.Name = config_.stream.c_str();
                sc.Subjects = const_cast<const char **>(kSubjects);
                sc.SubjectsLen = 1;
                sc.Replicas = static_cast<int64_t>(config_.replicas);
                sc.Storage = js_FileStorage;
                sc.Duplicates = kDuplicateWindowSec * kNsPerSec;
                s = js_AddStream(&info, h_->js, &sc, nullptr, &code);
            }
            jsStreamInfo_Destroy(info);
            if (s == NATS_OK) {
                ready_ = true;
                return;
            }
        }
        std::this_thread::sleep_for(kEnsureRetry);
    }
}

bool NatsSink::Publish(const ToStore &item, uint64_t token) {
    // While disconnected the client would buffer the message and send it after reconnecting, perhaps
    // after its answer timed out and the agent gave up: stored but counted missing. Refused instead.
    if (!ready_ || natsConnection_Status(h_->conn) != NATS_CONN_STATUS_CONNECTED) return false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (unanswered_.size() >= kWindow) return false;
    }
    natsMsg *msg = nullptr;
    if (natsMsg_Create(&msg, item.subject.c_str(), nullptr, item.payload.data(), static_cast<int>(item.payload.size())) !=
        NATS_OK) {
        return false;
    }
    jsPubOptions po;
    jsPubOptions_Init(&po);
    po.MaxWait = kAnswerWaitMs;
    if (!item.id.empty()) po.MsgId = item.id.c_str();
    void *const key = msg;
    {
        // Noted before it goes: the answer may come back before the call returns.
        std::lock_guard<std::mutex> lock(mutex_);
        unanswered_[key] = token;
    }
    if (js_PublishMsgAsync(h_->js, &msg, &po) != NATS_OK) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            unanswered_.erase(key);
        }
        natsMsg_Destroy(msg);
        return false;
    }
    return true;
}

void NatsSink::OnAnswer(void *msg, bool stored, bool duplicate) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = unanswered_.find(msg);
        if (it == unanswered_.end()) return;
        answers_.push_back({it->second, stored, duplicate});
        unanswered_.erase(it);
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(wakeFd_, &one, sizeof one);
}

void NatsSink::TakeAnswers(std::vector<Answer> &out) {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = read(wakeFd_, &count, sizeof count);
    std::lock_guard<std::mutex> lock(mutex_);
    out.insert(out.end(), answers_.begin(), answers_.end());
    answers_.clear();
}

void NatsSink::Settle(int timeoutMs) {
    if (!h_ || h_->js == nullptr) return;
    jsPubOptions po;
    jsPubOptions_Init(&po);
    po.MaxWait = timeoutMs;
    js_PublishAsyncComplete(h_->js, &po);
}

}  // namespace qvcollector
