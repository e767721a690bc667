// Option parsing and the --help text.
#include "options.h"

#include <arpa/inet.h>

#include <charconv>
#include <limits>

#include "qvagent/qv_agent_wire.h"

namespace qvcollector {

namespace {

constexpr uint64_t kMaxReplicas = 5;      // the most a JetStream stream allows
constexpr size_t kMaxStreamName = 64;

bool ParseNumber(const std::string &text, uint64_t max, uint64_t &out) {
    uint64_t v = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, v);
    if (text.empty() || ec != std::errc() || ptr != end || v > max) return false;
    out = v;
    return true;
}

// A stream name is one subject-safe token.
bool StreamNameOk(const std::string &name) {
    if (name.empty() || name.size() > kMaxStreamName) return false;
    for (const char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
        if (!ok) return false;
    }
    return true;
}

bool HostPortOk(const std::string &text) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos) return false;
    in_addr addr{};
    uint64_t port = 0;
    return inet_pton(AF_INET, text.substr(0, colon).c_str(), &addr) == 1 && ParseNumber(text.substr(colon + 1), 65535, port) &&
           port != 0;
}

}  // namespace

std::optional<std::string> ParseOptions(const std::vector<std::string> &args, Options &out) {
    Options o;
    for (size_t i = 0; i < args.size(); ++i) {
        std::string name = args[i];
        std::optional<std::string> inlineValue;
        if (const size_t eq = name.find('='); name.rfind("--", 0) == 0 && eq != std::string::npos) {
            inlineValue = name.substr(eq + 1);
            name.resize(eq);
        }
        const auto flag = [&](bool &target) -> std::optional<std::string> {
            if (inlineValue) return name + " takes no value";
            target = true;
            return std::nullopt;
        };
        const auto value = [&](std::string &v) -> std::optional<std::string> {
            if (inlineValue) {
                v = *inlineValue;
            } else if (i + 1 < args.size()) {
                v = args[++i];
            } else {
                return name + " needs a value";
            }
            return std::nullopt;
        };
        const auto number = [&](uint64_t min, uint64_t max, uint64_t &target) -> std::optional<std::string> {
            std::string v;
            if (auto err = value(v)) return err;
            uint64_t n = 0;
            if (!ParseNumber(v, max, n) || n < min) {
                return name + " wants a number from " + std::to_string(min) + " to " + std::to_string(max) +
                       ", not '" + v + "'";
            }
            target = n;
            return std::nullopt;
        };

        std::optional<std::string> err;
        if (name == "--help" || name == "-h") {
            err = flag(o.help);
        } else if (name == "--no-ack") {
            err = flag(o.noAck);
        } else if (name == "--stats") {
            err = flag(o.stats);
        } else if (name == "--drop-acks") {
            err = number(0, std::numeric_limits<uint64_t>::max(), o.dropAcks);
        } else if (name == "--count") {
            err = number(1, std::numeric_limits<uint64_t>::max(), o.count);
        } else if (name == "--base-port") {
            uint64_t port = 0;
            err = number(1, 65535 - (QV_WIRE_PORT_COUNT - 1), port);
            o.basePort = static_cast<uint16_t>(port);
        } else if (name == "--nats") {
            err = value(o.nats);
            if (!err && o.nats.empty()) err = "--nats wants at least one server URL";
        } else if (name == "--stream") {
            err = value(o.stream);
            if (!err && !StreamNameOk(o.stream)) err = "--stream wants letters, digits, '-' or '_', not '" + o.stream + "'";
        } else if (name == "--replicas") {
            err = number(1, kMaxReplicas, o.replicas);
        } else if (name == "--metrics") {
            err = value(o.metrics);
            if (!err && !HostPortOk(o.metrics)) err = "--metrics wants IPV4:PORT, not '" + o.metrics + "'";
        } else if (name == "--bind") {
            err = value(o.bind);
            in_addr addr{};
            if (!err && inet_pton(AF_INET, o.bind.c_str(), &addr) != 1) {
                err = "--bind wants an IPv4 address, not '" + o.bind + "'";
            }
        } else {
            err = "unknown option '" + args[i] + "'";
        }
        if (err) return err;
    }
    if (o.nats.empty() && (o.stream != Options{}.stream || o.replicas != Options{}.replicas)) {
        return std::string("--stream and --replicas need --nats");
    }
    out = o;
    return std::nullopt;
}

const char *HelpText() {
    return R"(Usage: qvcollector [OPTIONS]

Receives the agent's datagrams on five UDP ports, acknowledges every numbered
datagram from the port that received it, and prints one JSON object per line
on standard output for every record and every notable datagram.

Ports (from the base port B, 6010 by default):
  B+0 log (and, in socket mode, debug: told apart by the stream type)
  B+1 alarm   B+2 high-precision log   B+3 KPI   B+4 debug

Options:
  --bind ADDR       IPv4 address to listen on (default 127.0.0.1)
  --base-port N     listen on N..N+4 instead of 6010..6014
  --no-ack          never acknowledge
  --drop-acks N     for each kind, leave the first N numbered datagrams that
                    arrive (resends included) unacknowledged; acknowledge
                    every later one
  --count N         exit after N records (KPI records too) have been printed
  --stats           on exit, print one "stats" line per kind: datagrams,
                    records, duplicates (a sequence number already received
                    from the same sender and kind), gaps and missing numbers,
                    errors, acks sent and acks withheld; with --nats also
                    published, pending, publish_failed and
                    stream_duplicates, and gaps then count numbers the
                    stream never stored
  --nats URLS       put every decoded record into a JetStream stream (URLS:
                    comma-separated servers, e.g. nats://127.0.0.1:4222);
                    a numbered datagram is then acknowledged only once the
                    stream has stored all of its records, so while it cannot
                    store, the agent keeps and resends as if no collector
                    were there. One message per datagram: its records' JSON
                    objects, one per line, under the subject
                    qv.KIND.SERVICE, with a message id that makes a resent
                    datagram a duplicate the stream drops
  --stream NAME     the stream (default QV), created with subjects qv.> when
                    it does not exist
  --replicas N      copies the stream keeps when this collector creates it
                    (1 to 5, default 1; 3 for a three-node cluster)
  --metrics ADDR    serve OpenMetrics text at http://ADDR/metrics (ADDR is
                    IPV4:PORT): per kind datagrams, records, acks sent,
                    sequence gaps, duplicates, publishes pending and failed
  -h, --help        this text

Output lines (all carry "kind": log, alarm, debug, hplog or kpi, and "from"):
  records   "record":"log" or "alarm", "seq", "index" in the datagram, the
            head fields by name, "options" and "params" as lists of
            {"type","len","as","value"}; a log record's "form" is "object",
            "by_id" or "debug" (debug adds "key_word1" and "text").
            "as" says how the value was read; "hex" means it was not.
  KPI       "record":"kpi", "index" in the packet, "component" (as sent)
            and "component_id" (the service's, without the 10000 offset),
            "kpi", "object", "sub_object", "cpu", "local_id_a",
            "local_id_b", "flag", "report" ("always" or "on_change"),
            "value", "time" (seconds since 1970) and "time_utc".
  events    "event": "stream_start", "duplicate", "flush", "kpi" (a KPI
            packet: length, flags, records), "error" (length and
            reason), "stats" (for kpi: datagrams are KPI packets).

A datagram that cannot be decoded is reported as an error line and never
stops the collector. SIGINT or SIGTERM end it cleanly; a one-line summary
goes to standard error on exit. Exit status: 0 done, 1 bad options,
2 a port could not be bound or served.
)";
}

}  // namespace qvcollector
