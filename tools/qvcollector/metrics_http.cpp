// The HTTP side of the metrics endpoint.
#include "metrics_http.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>

#include <cstring>

#include "metrics_text.h"

namespace qvcollector {

namespace {

constexpr char kPath[] = "/metrics";
constexpr char kNotFound[] = "not found: the metrics are at /metrics\n";

MHD_Result Reply(MHD_Connection *conn, unsigned status, const std::string &body, const std::string &type) {
    MHD_Response *r = MHD_create_response_from_buffer(body.size(), const_cast<char *>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (r == nullptr) return MHD_NO;
    MHD_add_response_header(r, MHD_HTTP_HEADER_CONTENT_TYPE, type.c_str());
    const MHD_Result ok = MHD_queue_response(conn, status, r);
    MHD_destroy_response(r);
    return ok;
}

MHD_Result OnRequest(void *cls, MHD_Connection *conn, const char *url, const char *method, const char *,
                     const char *, size_t *, void **) {
    if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 && std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0) {
        return Reply(conn, MHD_HTTP_METHOD_NOT_ALLOWED, "GET only\n", "text/plain");
    }
    if (std::strcmp(url, kPath) != 0) return Reply(conn, MHD_HTTP_NOT_FOUND, kNotFound, "text/plain");
    std::string type;
    const std::string body = static_cast<MetricsHttp *>(cls)->Render(
        MHD_lookup_connection_value(conn, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT), type);
    return Reply(conn, MHD_HTTP_OK, body, type);
}

}  // namespace

MetricsHttp::~MetricsHttp() {
    if (daemon_ != nullptr) MHD_stop_daemon(daemon_);
}

std::optional<std::string> MetricsHttp::Start(const std::string &hostPort, bool stream) {
    stream_ = stream;
    const size_t colon = hostPort.rfind(':');
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(std::stoul(hostPort.substr(colon + 1))));
    if (inet_pton(AF_INET, hostPort.substr(0, colon).c_str(), &sa.sin_addr) != 1) return "bad address " + hostPort;
    daemon_ = MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD, ntohs(sa.sin_port), nullptr, nullptr, &OnRequest, this,
                               MHD_OPTION_SOCK_ADDR, reinterpret_cast<const sockaddr *>(&sa), MHD_OPTION_END);
    if (daemon_ == nullptr) return "cannot serve metrics at " + hostPort;
    return std::nullopt;
}

void MetricsHttp::Update(const std::array<KindStats, kKindCount> &stats) {
    std::lock_guard<std::mutex> lock(mutex_);
    snapshot_ = stats;
}

std::string MetricsHttp::Render(const char *accept, std::string &contentType) {
    std::array<KindStats, kKindCount> stats;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stats = snapshot_;
    }
    const MetricsFormat format = FormatForAccept(accept != nullptr ? accept : "");
    contentType = format == MetricsFormat::OpenMetrics ? kOpenMetricsType : kClassicType;
    return MetricsText(stats, stream_, format);
}

}  // namespace qvcollector
