// The metrics endpoint: libmicrohttpd serves GET /metrics on its own thread from the last snapshot of
// the collector's counters, which the receive loop hands over after every wake-up.
#ifndef QV_TOOLS_COLLECTOR_METRICS_HTTP_H
#define QV_TOOLS_COLLECTOR_METRICS_HTTP_H

#include <array>
#include <mutex>
#include <optional>
#include <string>

#include "stats.h"

struct MHD_Daemon;

namespace qvcollector {

class MetricsHttp {
public:
    MetricsHttp() = default;
    ~MetricsHttp();
    MetricsHttp(const MetricsHttp &) = delete;
    MetricsHttp &operator=(const MetricsHttp &) = delete;

    // Listens at IPV4:PORT; the reason when it cannot.
    std::optional<std::string> Start(const std::string &hostPort, bool stream);
    void Update(const std::array<KindStats, kKindCount> &stats);
    // The response body and its content type for a request with this Accept header.
    std::string Render(const char *accept, std::string &contentType);

private:
    MHD_Daemon *daemon_ = nullptr;
    bool stream_ = false;
    std::mutex mutex_;  // guards the snapshot
    std::array<KindStats, kKindCount> snapshot_{};
};

}  // namespace qvcollector

#endif
