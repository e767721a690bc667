// Option parsing and the --help text.
#include "options.h"

#include <arpa/inet.h>

#include <charconv>
#include <limits>

#include "qvagent/qv_agent_wire.h"

namespace qvcollector {

namespace {

bool ParseNumber(const std::string &text, uint64_t max, uint64_t &out) {
    uint64_t v = 0;
    const char *end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, v);
    if (text.empty() || ec != std::errc() || ptr != end || v > max) return false;
    out = v;
    return true;
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
                    errors, acks sent and acks withheld
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
