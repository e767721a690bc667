// The collector's counters as a metrics exposition, per kind: OpenMetrics text for a scraper that
// asks for it, the classic Prometheus text format otherwise (the two differ in how a counter's
// family is named and in the closing "# EOF").
#ifndef QV_TOOLS_COLLECTOR_METRICS_TEXT_H
#define QV_TOOLS_COLLECTOR_METRICS_TEXT_H

#include <array>
#include <string>
#include <string_view>

#include "stats.h"

namespace qvcollector {

enum class MetricsFormat { OpenMetrics, Classic };

inline constexpr std::string_view kOpenMetricsType = "application/openmetrics-text; version=1.0.0; charset=utf-8";
inline constexpr std::string_view kClassicType = "text/plain; version=0.0.4; charset=utf-8";

// OpenMetrics when the request's Accept header names it, else the classic format.
MetricsFormat FormatForAccept(std::string_view accept);

// The exposition of every kind's counters; with a stream, its counters and gauge too.
std::string MetricsText(const std::array<KindStats, kKindCount> &stats, bool stream, MetricsFormat format);

}  // namespace qvcollector

#endif
