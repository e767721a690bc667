// The Wireshark dissector against the collector: the demo service reports every kind to the real
// qvcollector while dumpcap captures the loopback of the test's own network namespace; tshark with
// the dissector then reads the capture, and every datagram, record, entry, KPI record,
// acknowledgement and flush notice it shows must agree with what the collector printed.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "collector_process.h"
#include "qvagent/qv_agent_wire.h"

namespace {

using Record = std::map<std::string, std::string>;  // field name to value, entries as "entry.N.key"

const char *const kCapture = "/opt/dissector_test.pcapng";  // the isolation runner's scratch /opt

// Collector keys and the dissector's fields that must agree, per record kind.
struct Pair {
    const char *record;  // "log", "alarm", "debug" (debug-form logs only), "kpi", or "" for every record
    const char *key;
    const char *field;
};
constexpr Pair kPairs[] = {
    {"", "time", "qvagent.time"},                  {"", "opt_word", "qvagent.rec.opt_word"},
    {"", "opt_count", "qvagent.rec.opt_count"},    {"log", "form", "qvagent.log.form"},
    {"log", "log_id", "qvagent.log.log_id"},       {"log", "vrid", "qvagent.log.vrid"},
    {"log", "head_word", "qvagent.log.head_word"}, {"log", "para_num", "qvagent.log.para_num"},
    {"log", "level", "qvagent.log.level"},         {"log", "obj_kind", "qvagent.log.obj_kind"},
    {"log", "mono_ms", "qvagent.log.mono_ms"},     {"alarm", "alarm_id", "qvagent.alarm.alarm_id"},
    {"alarm", "category", "qvagent.alarm.category"}, {"alarm", "attr_word", "qvagent.alarm.attr_word"},
    {"alarm", "attr_marker", "qvagent.alarm.attr_marker"}, {"alarm", "attr_byte", "qvagent.alarm.attr_byte"},
    {"alarm", "para_num", "qvagent.alarm.para_num"}, {"debug", "key_word1", "qvagent.debug.key_word1"},
    {"debug", "text", "qvagent.debug.text"},       {"kpi", "component", "qvagent.kpi.component"},
    {"kpi", "component_id", "qvagent.kpi.component_id"}, {"kpi", "kpi", "qvagent.kpi.kpi"},
    {"kpi", "object", "qvagent.kpi.object"},       {"kpi", "sub_object", "qvagent.kpi.sub_object"},
    {"kpi", "cpu", "qvagent.kpi.cpu"},             {"kpi", "local_id_a", "qvagent.kpi.local_id_a"},
    {"kpi", "local_id_b", "qvagent.kpi.local_id_b"}, {"kpi", "flag", "qvagent.kpi.flag"},
    {"kpi", "report", "qvagent.kpi.report"},       {"kpi", "value", "qvagent.kpi.value"},
    {"kpi", "time", "qvagent.kpi.time"},           {"kpi", "time_utc", "qvagent.kpi.time_utc"},
};
// Frame fields, then the entry fields (one occurrence per entry, in order).
const std::vector<std::string> kFrameFields = {"qvagent.kind", "qvagent.msg_type", "qvagent.flags", "qvagent.seq",
                                               "qvagent.ack", "qvagent.kpi.records", "qvagent.rec.type"};
const std::vector<std::string> kEntryFields = {"type", "len", "as", "value"};

// Numbers compare by value (tshark shows some in hex), anything else as text.
bool Same(const std::string &a, const std::string &b) {
    char *ea = nullptr, *eb = nullptr;
    const unsigned long long na = std::strtoull(a.c_str(), &ea, 0), nb = std::strtoull(b.c_str(), &eb, 0);
    if (!a.empty() && !b.empty() && *ea == 0 && *eb == 0) return na == nb;
    return a == b;
}

// A scalar of a collector line: the first "key":value, strings unescaped; "" when absent or not scalar.
std::string Json(const std::string &line, const std::string &key) {
    const std::regex re("\"" + key + "\":(\"((?:[^\"\\\\]|\\\\.)*)\"|-?[0-9]+)");
    std::smatch m;
    if (!std::regex_search(line, m, re)) return "";
    if (!m[2].matched) return m[1].str();
    return std::regex_replace(m[2].str(), std::regex(R"(\\(["\\]))"), "$1");
}

// A collector record line as the fields to compare: its head time joined like the dissector's, and
// its entries' type, length, reading and (scalar) value.
Record FromCollector(const std::string &line) {
    Record r;
    const std::string record = Json(line, "record"), form = Json(line, "form");
    for (const Pair &p : kPairs) {
        const std::string kind = p.record;
        if (kind.empty() ? record != "kpi" : (kind == record || (kind == "debug" && form == "debug"))) {
            r[p.field] = Json(line, p.key);
        }
    }
    std::smatch t;
    const std::regex timeRe(R"re("time":\{"year":(\d+),"month":(\d+),"day":(\d+),"hour":(\d+),"minute":(\d+),"second":(\d+),"\w+":\d+,"ms":(\d+)\})re");
    if (std::regex_search(line, t, timeRe)) {
        char text[64];
        std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d", std::stoi(t[1]), std::stoi(t[2]),
                      std::stoi(t[3]), std::stoi(t[4]), std::stoi(t[5]), std::stoi(t[6]), std::stoi(t[7]));
        r["qvagent.time"] = text;
    }
    const std::regex entryRe(R"re(\{"type":(\d+),"len":(\d+),"as":"(\w+)"(,"value":("(?:[^"\\]|\\.)*"|-?\d+))?)re");
    size_t n = 0;
    for (auto it = std::sregex_iterator(line.begin(), line.end(), entryRe); it != std::sregex_iterator(); ++it, ++n) {
        const std::string prefix = "entry." + std::to_string(n) + ".";
        r[prefix + "type"] = (*it)[1];
        r[prefix + "len"] = (*it)[2];
        r[prefix + "as"] = (*it)[3];
        if ((*it)[5].matched) r[prefix + "value"] = Json((*it)[4].str().substr(1), "value");
    }
    return r;
}

// The parts of text between separators, empty ones included; none for an empty text.
std::vector<std::string> Split(const std::string &text, char sep) {
    std::vector<std::string> parts;
    for (size_t start = 0; !text.empty() && start <= text.size();) {
        const size_t end = std::min(text.find(sep, start), text.size());
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

// One frame of tshark's output: every field's occurrences in order.
using Frame = std::map<std::string, std::vector<std::string>>;

// The records of a frame, each with the occurrences that belong to it: fields shown once per record of
// its kind are taken in turn, and each record owns opt_count + para_num entries.
std::vector<Record> RecordsOf(const Frame &frame) {
    std::vector<Record> out;
    std::map<std::string, size_t> next;  // per field, the next occurrence to take
    const auto take = [&](const std::string &field) -> std::string {
        const auto it = frame.find(field);
        const size_t i = next[field]++;
        return it != frame.end() && i < it->second.size() ? it->second[i] : "<missing>";
    };
    const bool kpi = frame.count("qvagent.kpi.records") != 0;
    const size_t count = kpi ? std::stoul(frame.at("qvagent.kpi.records")[0])
                             : (frame.count("qvagent.rec.type") ? frame.at("qvagent.rec.type").size() : 0);
    for (size_t i = 0; i < count; ++i) {
        Record r;
        const std::string record = kpi ? "kpi" : frame.at("qvagent.rec.type")[i] == "1" ? "log" : "alarm";
        for (const Pair &p : kPairs) {
            const std::string kind = p.record;
            if (kind == record || (kind.empty() && !kpi)) r[p.field] = take(p.field);
        }
        if (r.count("qvagent.log.form") && r["qvagent.log.form"] == "debug") {
            for (const Pair &p : kPairs) {
                if (std::string(p.record) == "debug") r[p.field] = take(p.field);
            }
        }
        if (!kpi) {
            const std::string paraField = record == "log" ? "qvagent.log.para_num" : "qvagent.alarm.para_num";
            const size_t entries = std::stoul(r["qvagent.rec.opt_count"]) + std::stoul(r[paraField]);
            for (size_t e = 0; e < entries; ++e) {
                for (const std::string &k : kEntryFields) {
                    r["entry." + std::to_string(e) + "." + k] = take("qvagent.entry." + k);
                }
            }
        }
        out.push_back(r);
    }
    return out;
}

class Dissector : public testing::Test {
protected:
    // Runs a program to its end; its standard output lines, or a failure.
    static std::vector<std::string> RunToEnd(const std::string &path, const std::vector<std::string> &args) {
        wiretest::CollectorProcess p;
        std::vector<std::string> lines;
        EXPECT_TRUE(p.SpawnProgram(path, args)) << path;
        while (auto line = p.NextLine(60000)) lines.push_back(*line);
        EXPECT_EQ(p.WaitExit(10000), 0) << path << ": " << p.Stderr();
        return lines;
    }
};

TEST_F(Dissector, ShowsWhatTheCollectorDecodedFromTheSameDatagrams) {
    ASSERT_STRNE(QV_TSHARK_PATH, "") << "tshark and dumpcap are missing: scripts/setup installs them";
    wiretest::CollectorProcess capture;
    ASSERT_TRUE(capture.SpawnProgram(QV_DUMPCAP_PATH, {"-q", "-i", "lo", "-f", "udp", "-w", kCapture}));
    for (int i = 0; i < 100 && capture.Stderr().find("Capturing on") == std::string::npos; ++i) capture.NextLine(100);
    ASSERT_NE(capture.Stderr().find("Capturing on"), std::string::npos) << capture.Stderr();

    wiretest::CollectorProcess collector;
    ASSERT_TRUE(collector.StartAt(QV_WIRE_PORT_LOG, {"--stats"})) << collector.Stderr();
    RunToEnd(QV_DEMO_SERVICE_PATH, {"--wait", "20"});
    usleep(300000);  // the last acknowledgements and the flush notice reach the capture
    ASSERT_EQ(collector.Stop(SIGTERM, 5000), 0) << collector.Stderr();
    EXPECT_EQ(capture.Stop(SIGTERM, 10000), 0) << capture.Stderr();

    std::vector<std::string> args = {"-n", "-r", kCapture, "-X", "lua_script:" QV_DISSECTOR_PATH, "-Y", "qvagent",
                                     "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=|"};
    std::vector<std::string> fields = kFrameFields;
    for (const Pair &p : kPairs) fields.push_back(p.field);
    for (const std::string &k : kEntryFields) fields.push_back("qvagent.entry." + k);
    fields.push_back("_ws.expert.message");
    for (const std::string &f : fields) args.insert(args.end(), {"-e", f});
    std::vector<Frame> frames;
    for (const std::string &line : RunToEnd(QV_TSHARK_PATH, args)) {
        Frame frame;
        const std::vector<std::string> columns = Split(line, '\t');
        for (size_t i = 0; i < columns.size() && i < fields.size(); ++i) {
            if (!columns[i].empty()) frame[fields[i]] = Split(columns[i], '|');
        }
        frames.push_back(frame);
    }

    // The collector's view, by kind, sequence number (KPI: packet number) and index.
    std::map<std::string, Record> decoded;
    std::map<std::string, std::map<std::string, unsigned long>> stats;  // kind: datagrams, acks
    unsigned kpiPackets = 0, flushes = 0;
    while (const auto next = collector.NextLine(0)) {
        const std::string &line = *next;
        const std::string kind = Json(line, "kind"), event = Json(line, "event");
        if (event == "stats") {
            stats[kind] = {{"datagrams", std::stoul(Json(line, "datagrams"))}, {"acks", std::stoul(Json(line, "acks"))}};
        }
        if (event == "kpi") ++kpiPackets;
        if (event == "flush") ++flushes;
        if (Json(line, "record").empty()) continue;
        const std::string number = kind == "kpi" ? std::to_string(kpiPackets) : Json(line, "seq");
        decoded[kind + "/" + number + "/" + Json(line, "index")] = FromCollector(line);
    }

    std::map<std::string, std::map<std::string, unsigned long>> seen;
    std::set<std::string> numbered, acked, matched;
    unsigned kpiFrames = 0, flushFrames = 0;
    for (const Frame &frame : frames) {
        SCOPED_TRACE(testing::PrintToString(frame));
        EXPECT_EQ(frame.count("_ws.expert.message"), 0u) << "the dissector found nothing wrong";
        const std::string kind = frame.at("qvagent.kind")[0];
        if (frame.count("qvagent.ack")) {
            ++seen[kind]["acks"];
            acked.insert(kind + "/" + frame.at("qvagent.ack")[0]);
            continue;
        }
        ++seen[kind]["datagrams"];
        const std::string type = frame.at("qvagent.msg_type")[0];
        if (type == std::to_string(QV_WIRE_MSG_FLUSH)) {
            ++flushFrames;
            EXPECT_EQ(frame.at("qvagent.seq")[0], "0");
            EXPECT_TRUE(Same(frame.at("qvagent.flags")[0], "4"));
            continue;
        }
        const bool kpi = type == std::to_string(QV_WIRE_MSG_KPI);
        const std::string number = kpi ? std::to_string(++kpiFrames) : frame.at("qvagent.seq")[0];
        if (!kpi) numbered.insert(kind + "/" + number);
        const std::vector<Record> records = RecordsOf(frame);
        for (size_t i = 0; i < records.size(); ++i) {
            const std::string key = kind + "/" + number + "/" + std::to_string(i);
            ASSERT_EQ(decoded.count(key), 1u) << key << " was not decoded by the collector";
            matched.insert(key);
            for (const auto &[field, value] : decoded[key]) {
                const std::string shown = records[i].count(field) ? records[i].at(field) : "<missing>";
                EXPECT_TRUE(Same(shown, value)) << key << " " << field << ": tshark '" << shown << "', collector '"
                                                << value << "'";
            }
        }
    }
    EXPECT_EQ(matched.size(), decoded.size()) << "every record the collector decoded is shown";
    EXPECT_EQ(kpiFrames, kpiPackets);
    EXPECT_EQ(flushFrames, flushes);
    EXPECT_GE(flushes, 1u);
    EXPECT_EQ(acked, numbered) << "each numbered datagram, and nothing else, is shown acknowledged";
    for (const char *kind : {"log", "alarm", "debug", "hplog", "kpi"}) {
        EXPECT_GT(seen[kind]["datagrams"], 0u) << kind;
        EXPECT_EQ(seen[kind]["datagrams"], stats[kind]["datagrams"]) << kind;
        EXPECT_EQ(seen[kind]["acks"], stats[kind]["acks"]) << kind;
    }
}

}  // namespace
