// The stream behind the collector: a NATS connection to a JetStream cluster, the stream made when
// it is missing, and asynchronous publishing with a bounded number of unanswered messages. Answers
// arrive on the client library's threads and wait in a queue for the receive loop.
#ifndef QV_TOOLS_COLLECTOR_NATS_SINK_H
#define QV_TOOLS_COLLECTOR_NATS_SINK_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "record_store.h"

namespace qvcollector {

struct NatsConfig {
    std::string urls;       // comma-separated
    std::string stream;
    uint64_t replicas = 1;
};

class NatsSink final : public RecordStore {
public:
    // Messages handed over and not yet answered, at most; beyond it Publish refuses.
    static constexpr size_t kWindow = 4096;
    // How long a message waits for the stream's answer before it counts as failed.
    static constexpr int64_t kAnswerWaitMs = 3000;
    // How long the stream keeps message ids to drop a duplicate: longer than the agent resends one
    // datagram, with room for a collector restart.
    static constexpr int64_t kDuplicateWindowSec = 120;

    NatsSink();
    ~NatsSink() override;
    NatsSink(const NatsSink &) = delete;
    NatsSink &operator=(const NatsSink &) = delete;

    // Starts connecting (in the background when no server answers yet) and making sure the stream
    // exists; the reason when the configuration cannot work at all.
    std::optional<std::string> Open(const NatsConfig &config);

    int WakeFd() const override { return wakeFd_; }
    bool Publish(const ToStore &item, uint64_t token) override;
    void TakeAnswers(std::vector<Answer> &out) override;
    void Settle(int timeoutMs) override;

    // Called by the client library for every answer.
    void OnAnswer(void *msg, bool stored, bool duplicate);

private:
    void EnsureStream();  // the background thread: until the stream is there or the sink closes

    NatsConfig config_;
    struct Handles;
    std::unique_ptr<Handles> h_;
    int wakeFd_ = -1;
    std::atomic<bool> ready_{false};    // the stream exists
    std::atomic<bool> closing_{false};
    std::thread ensurer_;

    std::mutex mutex_;                                 // guards the two below
    std::unordered_map<void *, uint64_t> unanswered_;  // message -> token
    std::vector<Answer> answers_;
};

}  // namespace qvcollector

#endif
