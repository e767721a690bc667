// box_logger: a service process for the blackbox restart tests. It starts the agent in mesh mode with
// the blackbox on and the collector on loopback, then logs by identifier at a steady rate, each log
// carrying a counter as its one parameter. Its standard output (written unbuffered, so a parent sees
// every line a killed process got out) is
//   ready          once the agent is started (its 1000 ms timer starts with it)
//   <counter>      after each report that returned 0, so the report is in the blackbox
//   read           soon after a log datagram was packed from the blackbox (seen by polling its head
//                  every millisecond), so that a parent can kill it before the acknowledgement came
//   acked          soon after the acknowledgement of what was read was committed to the blackbox
//   drained        after SIGTERM, once every log record was acknowledged by the collector
// On SIGTERM it stops reporting and waits (bounded) until the blackbox holds nothing unread or
// unacknowledged and no log datagram is kept for resending; exit 0 then, 3 when that never happened.
#include <arpa/inet.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "qvagent/qv_agent_blackbox.h"
#include "qvagent/qvagent.h"
#include "test_support.h"

namespace {

constexpr char kUsage[] =
    "usage: box_logger --first N [--period-ms P]\n"
    "  Logs by identifier (object kind 4, log id 0xB0C5, \"count %u\") every P ms (default 20) with\n"
    "  the counters N, N+1, ... and prints each counter whose report returned 0. The blackbox is\n"
    "  named after the service type boxlog. On SIGTERM: stops, waits up to 30 s until every log\n"
    "  record was acknowledged, prints \"drained\" and exits 0.\n"
    "  Runs only where /opt is a private tmpfs (tests/support/qv_isolate).\n";

constexpr uint32_t kLogKind = 4;  // an object kind whose records travel as logs, through the blackbox
constexpr uint32_t kLogId = 0xB0C5;
constexpr long kPollMs = 20;

std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

void OnTerm(int) { g_stop.store(true); }

constexpr long kDrainMs = 30000;
struct Options {
    uint32_t first = 0;
    long periodMs = 20;
};

bool ParseNumber(std::string_view text, uint64_t max, uint64_t &out) {
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out);
    return !text.empty() && ec == std::errc() && end == text.data() + text.size() && out <= max;
}

// False, with the reason on standard error, for a bad command line.
bool ParseArgs(int argc, char **argv, Options &o) {
    bool haveFirst = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view name = argv[i];
        if (name == "--help" || name == "-h") {
            std::fputs(kUsage, stdout);
            std::exit(0);
        }
        if (i + 1 >= argc) {
            std::fprintf(stderr, "box_logger: %s needs a value\n%s", argv[i], kUsage);
            return false;
        }
        const std::string_view value = argv[++i];
        uint64_t n = 0;
        bool ok = true;
        if (name == "--first") {
            ok = ParseNumber(value, UINT32_MAX, n);
            o.first = static_cast<uint32_t>(n);
            haveFirst = ok;
        } else if (name == "--period-ms") {
            ok = ParseNumber(value, 10000, n) && n != 0;
            o.periodMs = static_cast<long>(n);
        } else {
            std::fprintf(stderr, "box_logger: unknown option %s\n%s", argv[i - 1], kUsage);
            return false;
        }
        if (!ok) {
            std::fprintf(stderr, "box_logger: bad value '%s' for %s\n", argv[i], argv[i - 1]);
            return false;
        }
    }
    if (!haveFirst) std::fprintf(stderr, "box_logger: --first is required\n%s", kUsage);
    return haveFirst;
}

// One line on standard output in one write, so it is whole in the pipe even if a kill follows.
void Say(std::string_view text) {
    std::string line(text);
    line += '\n';
    for (size_t done = 0; done < line.size();) {
        const ssize_t n = ::write(STDOUT_FILENO, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += static_cast<size_t>(n);
    }
}

// Sleeps until ms after the last wake-up (t), or until a signal arrives. A process that fell behind
// (stopped, or slowed by an emulator) goes on from now instead of catching up in a burst.
void SleepPeriod(timespec &t, long ms) {
    t.tv_nsec += (ms % 1000) * 1000000L;
    t.tv_sec += ms / 1000 + t.tv_nsec / 1000000000L;
    t.tv_nsec %= 1000000000L;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec > t.tv_sec || (now.tv_sec == t.tv_sec && now.tv_nsec > t.tv_nsec)) t = now;
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr);
}

// Says "read" whenever the blackbox's read position moved since the last look, or something read is
// unacknowledged that was not at the last look; says "acked" when nothing read is unacknowledged any
// more after a read. The head is read without the box's mutex: a look at a head being written only
// moves a line, and with it a kill, by a millisecond.
void WatchReads() {
    QvAgentBoxHead last{};
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (bool first = true; !g_stop.load(); first = false) {
        QvAgentBoxHead head;
        if (QV_AGENT_ReadBlackboxHead(g_pstQvAgentLogBox, &head) == QV_AGENT_OK) {
            const bool moved = !first && head.uiReadPos != last.uiReadPos;
            const bool pending = head.uiReadedLen != 0;
            const bool wasPending = last.uiReadedLen != 0;
            if (moved || (pending && !wasPending)) Say("read");
            if (!pending && (moved || wasPending)) Say("acked");
            last = head;
        }
        SleepPeriod(next, 1);
    }
}

// Every log record acknowledged: nothing queued on the log list, no log datagram kept for resending,
// and the blackbox holds nothing unread and nothing read but unacknowledged.
bool Drained(QvAgentModule *m) {
    pthread_mutex_lock(&m->stListMutex);
    const QvAgentSendList &list = m->astSendList[QV_AGENT_MSG_LOG];
    bool drained = list.uiCount == 0 && list.pucResendMsg == nullptr;
    QvAgentBoxHead head;
    drained = drained && QV_AGENT_ReadBlackboxHead(g_pstQvAgentLogBox, &head) == QV_AGENT_OK &&
              head.uiUsedLen == 0 && head.uiReadedLen == 0;
    pthread_mutex_unlock(&m->stListMutex);
    return drained;
}

}  // namespace

int main(int argc, char **argv) {
    Options o;
    if (!ParseArgs(argc, argv, o)) return 2;
    if (!qvtest::OptIsPrivateTmpfs()) {
        std::fputs("box_logger: refusing to run: /opt is not a private tmpfs; run through tests/support/qv_isolate\n",
                   stderr);
        return 2;
    }
    setenv("PX_SERVICE_TYPE", "boxlog", 1);
    struct sigaction sa {};
    sa.sa_handler = OnTerm;
    sa.sa_flags = SA_RESTART;  // the agent's threads may take it in the middle of a call
    sigaction(SIGTERM, &sa, nullptr);

    QvAgentServiceDesc desc{};
    std::strncpy(desc.szServiceName, "boxlog", sizeof desc.szServiceName - 1);
    desc.uiServiceId = 7;
    desc.uiSelfIp = htonl(INADDR_LOOPBACK);
    QvAgentModule *m = QV_Agent_Init(&desc);
    if (m == nullptr || QV_Agent_SetMainBoardIP(m, htonl(INADDR_LOOPBACK)) != QV_AGENT_OK) {
        std::fputs("box_logger: the agent did not start\n", stderr);
        return 2;
    }
    if (m->bBlackboxEnable == 0) {
        std::fprintf(stderr, "box_logger: the blackbox is not in use (%s)\n", m->szBlackboxFile);
        return 2;
    }
    Say("ready");
    std::thread watcher(WatchReads);

    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (uint32_t counter = o.first; !g_stop.load(); ++counter) {
        if (QV_Agent_ReportLogById(kLogKind, kLogId, "count %u", counter) == QV_AGENT_OK) {
            Say(std::to_string(counter));
        }
        SleepPeriod(next, o.periodMs);
    }
    watcher.join();
    for (long waited = 0; waited <= kDrainMs; waited += kPollMs) {
        if (Drained(m)) {
            Say("drained");
            return 0;
        }
        SleepPeriod(next, kPollMs);
    }
    QvAgentBoxHead head{};
    QV_AGENT_ReadBlackboxHead(g_pstQvAgentLogBox, &head);
    const QvAgentSendList &list = m->astSendList[QV_AGENT_MSG_LOG];
    std::fprintf(stderr,
                 "box_logger: log records still unacknowledged: %u unread and %u read bytes in the blackbox, "
                 "%u records on the log list, %s datagram kept (number %u, sent %u times)\n",
                 head.uiUsedLen, head.uiReadedLen, list.uiCount, list.pucResendMsg != nullptr ? "a" : "no",
                 list.uiSeqNo, list.uiSendTimes);
    return 3;
}
