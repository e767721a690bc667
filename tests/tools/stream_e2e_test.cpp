// qvcollector --nats against real nats-server processes on loopback (the test's own network
// namespace): records reach a replicated stream through a storage node's loss and a collector's
// restart, each once; and while the stream cannot store nothing is acknowledged, so what the
// sender gives up on shows as gaps and everything acknowledged is stored.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cctype>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "stream_cluster.h"
#include "wire_builder.h"

namespace {

using namespace streamtest;
using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

constexpr int kStartMs = 10000;
constexpr int kStopMs = 10000;
constexpr int kDrainMs = 30000;
const std::string kDir = "/opt/stream-test";

// The unsigned number after "key": in a line, from `from` on; -1 when there is none.
long long NumberAfter(const std::string &line, const std::string &key, size_t from = 0) {
    const size_t at = line.find("\"" + key + "\":", from);
    if (at == std::string::npos) return -1;
    return std::stoll(line.substr(at + key.size() + 3));
}

// Every record line of the stream, read back with stream_read.
std::vector<std::string> ReadStream(const std::string &urls) {
    Child reader;
    const std::string out = kDir + "/read.out";
    unlink(out.c_str());
    EXPECT_TRUE(reader.Start({QV_STREAM_READ_PATH, urls, "QV"}, out, kDir + "/read.err"));
    EXPECT_EQ(reader.Stop(0, kStopMs), 0) << ReadFile(kDir + "/read.err");
    std::vector<std::string> lines;
    std::istringstream in(ReadFile(out));
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("{", 0) == 0) lines.push_back(line);
    }
    return lines;
}

// A collector with --nats on ADDR:6010..6014, its output in files named after ADDR.
class StreamCollector {
public:
    StreamCollector(std::string addr, std::string urls, uint64_t replicas)
        : addr_(std::move(addr)), urls_(std::move(urls)), replicas_(replicas) {}
    bool Start() {
        return child_.Start({QV_COLLECTOR_PATH, "--bind", addr_, "--nats", urls_, "--replicas",
                             std::to_string(replicas_), "--stats"},
                            Out(), kDir + "/collector-" + addr_ + ".err");
    }
    int Stop(int sig) { return child_.Stop(sig, kStopMs); }
    // The sum of a counter over the stats lines of the kind that the last run printed.
    long long Stat(const std::string &kind, const std::string &key) const {
        std::istringstream in(ReadFile(Out()));
        long long sum = 0;
        for (std::string line; std::getline(in, line);) {
            if (line.find("\"event\":\"stats\",\"kind\":\"" + kind + "\"") != std::string::npos) {
                sum = NumberAfter(line, key);
            }
        }
        return sum;
    }

private:
    std::string Out() const { return kDir + "/collector-" + addr_ + ".out"; }
    std::string addr_, urls_;
    uint64_t replicas_;
    Child child_;
};

// A box_logger service and the counters it reported.
struct Service {
    Child child;
    std::string out;
    bool Said(const std::string &word) const { return ReadFile(out).find("\n" + word + "\n") != std::string::npos; }
};

bool WaitUntil(const std::function<bool()> &done, int timeoutMs) {
    const auto end = Clock::now() + Ms(timeoutMs);
    while (!done()) {
        if (Clock::now() > end) return false;
        std::this_thread::sleep_for(Ms(50));
    }
    return true;
}

class StreamEndToEnd : public testing::Test {
protected:
    void SetUp() override { mkdir(kDir.c_str(), 0755); }
};

// Four services report through two collectors into a stream kept on three nodes. One node is killed
// and restarted, and one collector killed and restarted, while they report. Every counter the
// services reported (they drain: every log was acknowledged) is in the stream, and none twice.
TEST_F(StreamEndToEnd, EveryAcknowledgedRecordIsStoredOnceThroughNodeAndCollectorRestarts) {
    Cluster cluster(kDir + "/cluster", 4300, 3);
    ASSERT_TRUE(cluster.StartAll(kStartMs));
    std::vector<StreamCollector> collectors;
    collectors.emplace_back("127.0.0.1", cluster.Urls(), 3);
    collectors.emplace_back("127.0.0.2", cluster.Urls(), 3);
    for (StreamCollector &c : collectors) ASSERT_TRUE(c.Start());

    std::vector<Service> services(4);
    for (size_t i = 0; i < services.size(); ++i) {
        Service &s = services[i];
        s.out = kDir + "/service" + std::to_string(i) + ".out";
        ASSERT_TRUE(s.child.Start({QV_BOX_LOGGER_PATH, "--first", std::to_string(1000000 * (i + 1)), "--period-ms", "5",
                                   "--service-type", "svc" + std::to_string(i), "--collector",
                                   i % 2 == 0 ? "127.0.0.1" : "127.0.0.2"},
                                  s.out, s.out + ".err"));
    }
    // Stored and acknowledged for every service before the faults.
    for (Service &s : services) ASSERT_TRUE(WaitUntil([&] { return s.Said("acked"); }, kDrainMs)) << s.out;

    cluster.Kill(2);
    std::this_thread::sleep_for(Ms(1500));
    ASSERT_TRUE(cluster.Start(2, kStartMs));
    collectors[0].Stop(SIGKILL);
    std::this_thread::sleep_for(Ms(300));
    ASSERT_TRUE(collectors[0].Start());
    std::this_thread::sleep_for(Ms(1500));

    const auto drainStart = Clock::now();
    for (Service &s : services) s.child.Signal(SIGTERM);
    for (Service &s : services) s.child.Stop(SIGTERM, kDrainMs);
    std::printf("drained in %lld ms\n", static_cast<long long>(std::chrono::duration_cast<Ms>(Clock::now() - drainStart).count()));
    std::map<long long, int> reported;
    for (const Service &s : services) {
        EXPECT_TRUE(s.Said("drained")) << s.out;
        std::istringstream in(ReadFile(s.out));
        for (std::string line; std::getline(in, line);) {
            if (!line.empty() && isdigit(static_cast<unsigned char>(line[0]))) reported[std::stoll(line)] = 0;
        }
    }
    for (StreamCollector &c : collectors) EXPECT_EQ(c.Stop(SIGTERM), 0);
    std::printf("stream duplicates %lld %lld\n", collectors[0].Stat("log", "stream_duplicates"), collectors[1].Stat("log", "stream_duplicates"));

    size_t strange = 0;
    for (const std::string &line : ReadStream(cluster.Urls())) {
        const size_t params = line.find("\"params\"");
        if (line.find("\"log_id\":45253") == std::string::npos || params == std::string::npos) continue;
        const auto it = reported.find(NumberAfter(line, "value", params));
        if (it == reported.end()) {
            ++strange;
        } else {
            ++it->second;
        }
    }
    ASSERT_GT(reported.size(), 1000u);
    size_t missing = 0;
    size_t twice = 0;
    for (const auto &[counter, times] : reported) {
        missing += times == 0;
        twice += times > 1;
    }
    EXPECT_EQ(missing, 0u);
    EXPECT_EQ(twice, 0u);
    EXPECT_EQ(strange, 0u);
}

}  // namespace

// The test's own sender on the log port: numbered datagrams of one record each, resent a few times
// at a short interval until acknowledged, then given up like the agent does after its schedule.
class FastSender {
public:
    FastSender() {
        to_.sin_family = AF_INET;
        to_.sin_port = htons(QV_WIRE_PORT_LOG);
        to_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    ~FastSender() { close(fd_); }
    static wiretest::Bytes Numbered(uint32_t seq) {
        using namespace wiretest;
        const Bytes record = ByIdRecord(4, 0x5EC, {Entry(3, Le32(seq))});
        return Datagram(seq == 1 ? kStart : kData, seq, QV_WIRE_STREAM_TYPE_LOG, seq == 1 ? Bytes{} : record);
    }
    // True when the acknowledgement of seq came within `tries` sends, waitMs apart.
    bool Deliver(uint32_t seq, int tries, int waitMs) {
        const wiretest::Bytes d = Numbered(seq);
        for (int t = 0; t < tries; ++t) {
            sendto(fd_, d.data(), d.size(), 0, reinterpret_cast<const sockaddr *>(&to_), sizeof to_);
            const auto end = Clock::now() + Ms(waitMs);
            for (auto now = Clock::now(); now < end; now = Clock::now()) {
                pollfd p{fd_, POLLIN, 0};
                if (poll(&p, 1, static_cast<int>(std::chrono::duration_cast<Ms>(end - now).count()) + 1) <= 0) continue;
                uint8_t ack[64];
                const ssize_t n = recv(fd_, ack, sizeof ack, 0);
                const uint32_t acked = n >= 8 ? (uint32_t{ack[4]} << 24 | uint32_t{ack[5]} << 16 | uint32_t{ack[6]} << 8 | ack[7]) : 0;
                if (acked == seq) return true;
            }
        }
        return false;
    }

private:
    const int fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to_{};
};

// The only node is away for longer than the sender keeps a datagram: nothing is acknowledged then,
// the sender gives those datagrams up, and the collector counts them as missing; everything
// acknowledged is stored, once, also a datagram resent to a restarted collector after its
// acknowledgement was lost; and storing resumes by itself when the node is back.
TEST_F(StreamEndToEnd, NothingIsAcknowledgedWhileTheStreamIsDown) {
    Cluster cluster(kDir + "/single", 4310, 1);
    ASSERT_TRUE(cluster.StartAll(kStartMs));
    StreamCollector collector("127.0.0.1", cluster.Urls(), 1);
    ASSERT_TRUE(collector.Start());
    FastSender sender;
    std::map<uint32_t, bool> acked;
    const auto deliver = [&](uint32_t first, uint32_t last, int tries) {
        for (uint32_t seq = first; seq <= last; ++seq) acked[seq] = sender.Deliver(seq, tries, 200);
    };
    deliver(1, 6, 50);  // the stream is made on the way
    EXPECT_EQ(collector.Stop(SIGTERM), 0);
    ASSERT_TRUE(collector.Start());
    EXPECT_TRUE(sender.Deliver(6, 50, 200)) << "a resend after a lost acknowledgement";

    cluster.Kill(0);
    deliver(7, 11, 3);
    ASSERT_TRUE(cluster.Start(0, kStartMs));
    deliver(12, 16, 50);
    EXPECT_EQ(collector.Stop(SIGTERM), 0);

    std::map<long long, int> stored;
    for (const std::string &line : ReadStream(cluster.Urls())) ++stored[NumberAfter(line, "seq")];
    long long lost = 0;
    for (const auto &[seq, ok] : acked) {
        if (seq == 1) continue;  // the stream start carries no record
        EXPECT_EQ(stored[seq], ok ? 1 : stored[seq]) << "datagram " << seq;
        EXPECT_LE(stored[seq], 1) << "datagram " << seq;
        lost += stored[seq] == 0;
        EXPECT_EQ(ok, seq < 7 || seq > 11) << "datagram " << seq;
    }
    EXPECT_GE(lost, 5);
    EXPECT_EQ(collector.Stat("log", "missing"), lost);
    EXPECT_EQ(collector.Stat("log", "stream_duplicates"), 1);
    EXPECT_GE(collector.Stat("log", "publish_failed"), 5);
}

// The metrics endpoint of a collector with a stream: promtool accepts what it serves, the OpenMetrics
// form ends as it must, and a real Prometheus scrapes it and answers a query for the records counter.
TEST_F(StreamEndToEnd, PrometheusScrapesTheMetrics) {
    Cluster cluster(kDir + "/metrics", 4320, 1);
    ASSERT_TRUE(cluster.StartAll(kStartMs));
    Child collector;
    ASSERT_TRUE(collector.Start({QV_COLLECTOR_PATH, "--nats", cluster.Urls(), "--metrics", "127.0.0.1:9464"},
                                "/dev/null", kDir + "/metrics-collector.err"));
    FastSender sender;
    for (uint32_t seq = 1; seq <= 4; ++seq) ASSERT_TRUE(sender.Deliver(seq, 50, 200)) << seq;

    const std::string classic = HttpGet(9464, "/metrics");
    const std::string body = classic.substr(classic.find("\r\n\r\n") + 4);
    std::ofstream(kDir + "/metrics.txt") << body;
    Child promtool;
    ASSERT_TRUE(promtool.Start({"sh", "-c", "promtool check metrics < " + kDir + "/metrics.txt"}, kDir + "/promtool.out",
                               kDir + "/promtool.out"));
    EXPECT_EQ(promtool.Stop(0, kStopMs), 0) << ReadFile(kDir + "/promtool.out") << body;
    const std::string open = HttpGet(9464, "/metrics", "application/openmetrics-text;version=1.0.0");
    EXPECT_NE(open.find("application/openmetrics-text"), std::string::npos) << open;
    EXPECT_NE(open.find("\nqvcollector_records_total{kind=\"log\"} 3\n"), std::string::npos) << open;
    EXPECT_NE(open.find("\nqvcollector_publishes_pending{kind=\"log\"} 0\n"), std::string::npos) << open;
    EXPECT_EQ(open.substr(open.size() - 6), "# EOF\n");
    EXPECT_NE(HttpGet(9464, "/other").find(" 404 "), std::string::npos);

    std::ofstream(kDir + "/prometheus.yml") << "global:\n  scrape_interval: 200ms\n"
                                               "scrape_configs:\n  - job_name: qvcollector\n"
                                               "    static_configs:\n      - targets: ['127.0.0.1:9464']\n";
    Child prometheus;
    ASSERT_TRUE(prometheus.Start({"prometheus", "--config.file=" + kDir + "/prometheus.yml",
                                  "--storage.tsdb.path=" + kDir + "/tsdb", "--web.listen-address=127.0.0.1:9090"},
                                 kDir + "/prometheus.log", kDir + "/prometheus.log"));
    ASSERT_TRUE(WaitListening(9090, kStartMs)) << ReadFile(kDir + "/prometheus.log");
    std::string answer;
    const bool answered = WaitUntil(
        [&] {
            answer = HttpGet(9090, "/api/v1/query?query=qvcollector_records_total%7Bkind%3D%22log%22%7D");
            return answer.find("\"value\":[") != std::string::npos;
        },
        20000);
    EXPECT_TRUE(answered) << answer << ReadFile(kDir + "/prometheus.log");
    EXPECT_NE(answer.find(",\"3\"]"), std::string::npos) << answer;
    EXPECT_NE(answer.find("\"job\":\"qvcollector\""), std::string::npos) << answer;
    prometheus.Stop(SIGTERM, kStopMs);
    EXPECT_EQ(collector.Stop(SIGTERM, kStopMs), 0);
}
