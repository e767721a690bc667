// One table of metrics, written in either text format.
#include "metrics_text.h"

namespace qvcollector {

namespace {

struct Metric {
    const char *name;  // the family name, without "_total"
    const char *help;
    bool counter;      // else a gauge
    bool streamOnly;
    uint64_t KindStats::*field;
};

constexpr Metric kMetrics[] = {
    {"qvcollector_datagrams", "Datagrams received (KPI packets for kind kpi).", true, false, &KindStats::datagrams},
    {"qvcollector_records", "Records decoded.", true, false, &KindStats::records},
    {"qvcollector_acks_sent", "Acknowledgements sent.", true, false, &KindStats::acks},
    {"qvcollector_sequence_gaps", "Times a sequence number jumped ahead of the last one stored.", true, false,
     &KindStats::gaps},
    {"qvcollector_sequence_missing", "Sequence numbers skipped by those jumps.", true, false, &KindStats::missing},
    {"qvcollector_duplicates", "Numbered datagrams received again (resends).", true, false, &KindStats::duplicates},
    {"qvcollector_errors", "Datagrams and records that could not be decoded.", true, false, &KindStats::errors},
    {"qvcollector_publishes", "Messages handed to the stream.", true, true, &KindStats::published},
    {"qvcollector_publishes_failed", "Messages the stream refused or did not answer in time.", true, true,
     &KindStats::publishFailed},
    {"qvcollector_stream_duplicates", "Messages the stream had stored already under their message id.", true, true,
     &KindStats::streamDuplicates},
    {"qvcollector_publishes_pending", "Messages handed to the stream and not yet answered.", false, true,
     &KindStats::pending},
};

}  // namespace

MetricsFormat FormatForAccept(std::string_view accept) {
    return accept.find("application/openmetrics-text") != std::string_view::npos ? MetricsFormat::OpenMetrics
                                                                                 : MetricsFormat::Classic;
}

std::string MetricsText(const std::array<KindStats, kKindCount> &stats, bool stream, MetricsFormat format) {
    std::string out;
    for (const Metric &m : kMetrics) {
        if (m.streamOnly && !stream) continue;
        const std::string sample = std::string(m.name) + (m.counter ? "_total" : "");
        // OpenMetrics names the family without the suffix its counter samples carry.
        const std::string family = format == MetricsFormat::OpenMetrics ? m.name : sample;
        out += "# HELP " + family + " " + m.help + "\n";
        out += "# TYPE " + family + (m.counter ? " counter\n" : " gauge\n");
        for (size_t k = 0; k < kKindCount; ++k) {
            out += sample + "{kind=\"" + std::string(KindName(static_cast<Kind>(k))) + "\"} " +
                   std::to_string(stats[k].*m.field) + "\n";
        }
    }
    if (format == MetricsFormat::OpenMetrics) out += "# EOF\n";
    return out;
}

}  // namespace qvcollector
