// A service with the blackbox on, killed with SIGKILL at random points and started again, against the
// real qvcollector: every log whose report returned 0 reaches the collector, and only what a killed
// process had sent without seeing the acknowledgement is sent again. The service is box_logger
// (tests/support/box_logger.cpp); each life continues the counter of the one before.
//
// QV_BOX_RESTART_KILLS sets the number of kills (default 20); scripts/box-restart-soak runs this case
// with many more and reads the figures line it prints at the end.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "collector_process.h"
#include "qvagent/qv_agent_wire.h"

namespace {

using wiretest::Field;
using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

constexpr char kLogId[] = "45253";  // box_logger's log id, 0xB0C5
constexpr int kStartMs = 30000;  // bounded waits, generous for the emulator and the sanitizers
constexpr int kDrainMs = 40000;  // box_logger gives up draining after 30 s

// One datagram of the collector's output: its sender and number.
struct Datagram {
    std::string from;
    std::string seq;
};

// What the collector printed of the log kind: each counter's arrivals in order, every sender's last
// log datagram, and the decode errors.
struct Arrivals {
    std::map<uint32_t, std::vector<Datagram>> byCounter;
    std::map<std::string, std::string> lastSeq;  // by sender
    std::vector<std::string> errors;

    void Take(const std::string &line) {
        if (Field(line, "kind") != "log") return;
        Datagram d{Field(line, "from"), Field(line, "seq")};
        if (d.seq.empty()) return;
        lastSeq[d.from] = d.seq;  // records, stream starts and resends alike: a process's datagrams go in order
        if (Field(line, "event") == "error") errors.push_back(line);
        if (Field(line, "log_id") != kLogId) return;
        const std::string counter = Field(line, "value", line.find("\"params\":["));
        if (counter.empty()) {
            errors.push_back("no counter in " + line);
            return;
        }
        byCounter[static_cast<uint32_t>(std::stoul(counter))].push_back(std::move(d));
    }
};

// One life of box_logger and what it said.
struct Life {
    uint32_t first = 0;
    std::optional<uint32_t> lastSaid;
    bool ready = false;
    int reads = 0;  // "read" lines
    int acks = 0;   // "acked" lines
    bool drained = false;
    // The counter whose report may have been under way at the kill: in the blackbox, maybe, unsaid.
    uint32_t InFlight() const { return lastSaid ? *lastSaid + 1 : first; }
};

constexpr int kDefaultKills = 20;

class BlackboxRestart : public testing::Test {
protected:
    void SetUp() override {
        const char *kills = std::getenv("QV_BOX_RESTART_KILLS");
        kills_ = kills != nullptr ? std::atoi(kills) : kDefaultKills;
        ASSERT_GT(kills_, 0);
        StartCollector();
        ASSERT_TRUE(collector_ != nullptr);
    }

    void StartCollector() {
        auto c = std::make_unique<wiretest::CollectorProcess>();
        if (c->StartAt(QV_WIRE_PORT_LOG, {})) {
            collector_ = std::move(c);
        } else {
            ADD_FAILURE() << "qvcollector did not start: " << c->Stderr();
        }
    }

    // Stops the collector; its last lines are read. Its exit status.
    int StopCollector() {
        const int status = collector_->Stop(SIGTERM, kDrainMs);
        PumpCollector();
        collector_.reset();
        return status;
    }

    // Reads what the collector printed so far, so its pipe never fills while a service runs.
    void PumpCollector() {
        if (collector_ == nullptr) return;
        collector_->ReadLines(0, [this](const std::string &line) {
            arrivals_.Take(line);
            return false;
        });
    }

    // Reads the service's lines until `until` or until stop(life) holds; false when its output closed.
    template <typename Stop>
    bool Follow(wiretest::CollectorProcess &child, Life &life, Clock::time_point until, Stop stop) {
        while (!stop(life) && Clock::now() < until) {
            PumpCollector();
            const auto left = std::chrono::duration_cast<Ms>(until - Clock::now()).count();
            auto line = child.NextLine(static_cast<int>(std::clamp<decltype(left)>(left, 0, 5)));
            if (!line) {
                child.WaitExit(0);
                if (!child.Running()) return false;  // ended by itself
                continue;
            }
            Take(life, *line);
        }
        return true;
    }

    void Take(Life &life, const std::string &line) {
        if (line == "ready") {
            life.ready = true;
        } else if (line == "read") {
            ++life.reads;
        } else if (line == "acked") {
            ++life.acks;
        } else if (line == "drained") {
            life.drained = true;
        } else {
            const uint32_t counter = static_cast<uint32_t>(std::stoul(line));
            EXPECT_EQ(counter, life.lastSaid ? *life.lastSaid + 1 : life.first) << "counters said in order";
            life.lastSaid = counter;
            said_.push_back(counter);
        }
    }

    // One report every 50 ms: the lives below drain at most one send pass (200 records) each third
    // life, so a faster pace fills the box over a long run, and records then wait in memory, which a
    // kill loses by design.
    std::vector<std::string> Args(const Life &life) const {
        return {"--first", std::to_string(life.first), "--period-ms", "50"};
    }

    // Lets the service live until its kill, cycling through three moments: before its first read from
    // the blackbox (no datagram is packed before the agent's second timer tick, about 2 s after the
    // start), as soon as it says it read (between the read and its acknowledgement, often), and a
    // while after a read (acknowledged, before the next tick). Every tenth life sends its last
    // datagram while the collector is away (see CollectorAway). False when it ended by itself.
    bool LiveUntilKill(wiretest::CollectorProcess &child, Life &life, int n) {
        const auto never = [](const Life &) { return false; };
        const auto read = [](const Life &l) { return l.reads != 0; };
        if (n % 10 == 4) return CollectorAway(child, life);
        switch (n % 3) {
            case 0:
                return Follow(child, life, Clock::now() + Ms(Random(0, 1200)), never);
            case 1:
                return Follow(child, life, Clock::now() + Ms(kStartMs), read);
            default:
                return Follow(child, life, Clock::now() + Ms(kStartMs), read) &&
                       Follow(child, life, Clock::now() + Ms(Random(5, 600)), never);
        }
    }

    // Once the service's first read was acknowledged the collector stops; the next read (at the next
    // tick) is sent into the void, and the kill follows it. Only the restart's rollback can bring
    // those records; the collector is started again after the kill.
    bool CollectorAway(wiretest::CollectorProcess &child, Life &life) {
        if (!Follow(child, life, Clock::now() + Ms(kStartMs), [](const Life &l) { return l.acks != 0; })) return false;
        EXPECT_EQ(StopCollector(), 0);
        const int reads = life.reads;
        return Follow(child, life, Clock::now() + Ms(kStartMs), [reads](const Life &l) { return l.reads > reads; });
    }

    int Random(int low, int high) { return std::uniform_int_distribution<int>(low, high)(rng_); }

    // Starts a life continuing after `previous` (skipping the counter that may have been under way)
    // and waits for it to be ready.
    Life Start(wiretest::CollectorProcess &child, const Life *previous) {
        Life life;
        if (previous != nullptr) life.first = previous->InFlight() + 1;
        EXPECT_TRUE(child.SpawnProgram(QV_BOX_LOGGER_PATH, Args(life)));
        Follow(child, life, Clock::now() + Ms(kStartMs), [](const Life &r) { return r.ready; });
        EXPECT_TRUE(life.ready) << child.Stderr();
        return life;
    }

    void CheckChildStderr(const wiretest::CollectorProcess &child) {
        EXPECT_EQ(child.Stderr().find("Sanitizer"), std::string::npos) << child.Stderr();
    }

    int kills_ = 0;
    std::mt19937 rng_{std::random_device{}()};
    std::unique_ptr<wiretest::CollectorProcess> collector_;
    Arrivals arrivals_;
    std::vector<uint32_t> said_;
    std::vector<uint32_t> inFlight_;  // one per kill
};

TEST_F(BlackboxRestart, KilledServiceLosesNoLogAndResendsOnlyTheUnacknowledged) {
    const auto began = Clock::now();
    Life previous;
    for (int n = 0; n < kills_; ++n) {
        wiretest::CollectorProcess child;
        Life life = Start(child, n == 0 ? nullptr : &previous);
        ASSERT_TRUE(life.ready) << "life " << n;
        const bool alive = LiveUntilKill(child, life, n);
        ASSERT_TRUE(alive) << "life " << n << " ended before its kill: " << child.Stderr();
        child.Stop(SIGKILL, kStartMs);
        while (auto line = child.NextLine(0)) Take(life, *line);  // whatever it got out before the kill
        CheckChildStderr(child);
        if (collector_ == nullptr) StartCollector();
        ASSERT_TRUE(collector_ != nullptr);
        inFlight_.push_back(life.InFlight());
        previous = life;
    }

    // The last life reports for a while, then stops and waits until the collector acknowledged all.
    wiretest::CollectorProcess last;
    Life life = Start(last, &previous);
    ASSERT_TRUE(life.ready);
    Follow(last, life, Clock::now() + Ms(1200), [](const Life &) { return false; });
    last.Stop(SIGTERM, 0);
    // The collector is read meanwhile: blocked on a full pipe, it would acknowledge nothing.
    Follow(last, life, Clock::now() + Ms(kDrainMs), [](const Life &l) { return l.drained; });
    ASSERT_EQ(last.WaitExit(kStartMs), 0) << last.Stderr();
    while (auto line = last.NextLine(0)) Take(life, *line);
    EXPECT_TRUE(life.drained);
    CheckChildStderr(last);
    // The collector's stop flushes the rest of its output.
    EXPECT_EQ(StopCollector(), 0);

    EXPECT_TRUE(arrivals_.errors.empty()) << arrivals_.errors.front();
    // Every counter whose report returned 0 arrived.
    std::vector<uint32_t> lost;
    for (const uint32_t c : said_) {
        if (arrivals_.byCounter.count(c) == 0) lost.push_back(c);
    }
    EXPECT_TRUE(lost.empty()) << lost.size() << " lost, the first " << lost.front();
    // Nothing arrived that was not reported: a counter arrives that was never said only when a kill
    // came between its report and its line.
    std::vector<uint32_t> reported = said_;
    reported.insert(reported.end(), inFlight_.begin(), inFlight_.end());
    std::sort(reported.begin(), reported.end());
    // Duplicates. A process sends its next log datagram only once the one before was acknowledged, and
    // an acknowledgement commits what its datagram took from the blackbox. So the only records a
    // process sent without a commit are those of the last log datagram it got out before it was
    // killed, and only these are read again after the restart. Hence every arrival of a counter but
    // its last must be in the last log datagram of its sender. This holds whatever the timing; when
    // the kill fell between a read and its acknowledgement is up to chance, so how many duplicates
    // there are is counted, not asserted.
    size_t duplicates = 0;
    size_t strays = 0;
    std::vector<std::string> misplaced;
    for (const auto &[counter, seen] : arrivals_.byCounter) {
        if (!std::binary_search(reported.begin(), reported.end(), counter)) ++strays;
        duplicates += seen.size() - 1;
        for (size_t i = 0; i + 1 < seen.size(); ++i) {
            if (seen[i].seq != arrivals_.lastSeq[seen[i].from]) {
                misplaced.push_back("counter " + std::to_string(counter) + " in datagram " + seen[i].seq + " from " +
                                    seen[i].from);
            }
        }
    }
    EXPECT_TRUE(misplaced.empty()) << misplaced.size() << " arrivals were followed by another though not in the "
                                   << "last datagram of their process, the first: " << misplaced.front();
    EXPECT_EQ(strays, 0u) << "counters that were never reported";
    const auto seconds = std::chrono::duration_cast<Ms>(Clock::now() - began).count() / 1000.0;
    std::printf("blackbox restart: kills %d, reported %zu, arrived %zu, duplicates %zu, lost %zu, %.1f s\n",
                kills_, said_.size(), arrivals_.byCounter.size(), duplicates, lost.size(), seconds);
}

}  // namespace
