// The yardsticks of the report paths, measured in the same run as the agent:
//   - the floor: the work a log by identifier cannot avoid, done by hand without the agent. Four blocks
//     (the 2048-byte parameter buffer, the 9216-byte value scratch, the record, the queued copy), each
//     taken and given back through the C library's allocator under one global plain mutex, the way the
//     agent's allocation functions must take them; the wall and monotonic clock reads; the list mutex
//     around linking the copy; and the copies that build the 73-byte record;
//   - syslog(3) of the same text to a datagram listener of the benchmark's own at /dev/log, which the
//     benchmark mounts in its private mount namespace so that it never reaches the host's logger.
// The *_Versus benchmarks time a yardstick and a report path in alternating batches of 256 calls, so
// that both see the same machine however busy it is, and give the per-call medians and their ratio.
// The *_TwoThreads benchmarks alternate in the same way a batch on one thread with a batch on each of
// two threads at once: "aggregate" is two threads' calls a second over one thread's.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "bench_support.h"
#include "qvagent/qvagent.h"

namespace {

// ------------------------------------------------------------------------------------------- floor

constexpr uint32_t kParaBufSize = 2048;
constexpr uint32_t kScratchSize = 9216;
constexpr uint32_t kRecordHead = 48;
constexpr char kServiceName[] = "bench_service";
constexpr uint32_t kNameLen = sizeof kServiceName - 1;
constexpr uint32_t kParaLen = 8;  // one entry: 4-byte head and a 4-byte value
constexpr uint32_t kRecordLen = kRecordHead + 4 + kNameLen + kParaLen;
constexpr uint32_t kItemSize = 32;

pthread_mutex_t g_memoryMutex = PTHREAD_MUTEX_INITIALIZER;

void *TakeBlock(size_t size) {
    pthread_mutex_lock(&g_memoryMutex);
    void *block = std::malloc(size);
    pthread_mutex_unlock(&g_memoryMutex);
    return block;
}

void GiveBack(void *block) {
    pthread_mutex_lock(&g_memoryMutex);
    std::free(block);
    pthread_mutex_unlock(&g_memoryMutex);
}

struct Item {
    Item *next;
    Item *prev;
    uint8_t *data;
    uint32_t len;
};

struct FloorList {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    Item head{&head, &head, nullptr, 0};
};
FloorList g_list;

void DrainFloorList() {
    pthread_mutex_lock(&g_list.mutex);
    for (Item *item = g_list.head.next; item != &g_list.head;) {
        Item *next = item->next;
        GiveBack(item);
        item = next;
    }
    g_list.head.next = g_list.head.prev = &g_list.head;
    pthread_mutex_unlock(&g_list.mutex);
}

void StoreU32(uint8_t *at, uint32_t value) { std::memcpy(at, &value, sizeof value); }

uint32_t FloorReport(uint32_t value) {
    auto *para = static_cast<uint8_t *>(TakeBlock(kParaBufSize));
    auto *scratch = static_cast<uint8_t *>(TakeBlock(kScratchSize));
    if (para == nullptr || scratch == nullptr) std::abort();
    StoreU32(scratch, value);
    StoreU32(para, 4u << 16 | 6u);
    std::memcpy(para + 4, scratch, 4);
    GiveBack(scratch);

    auto *record = static_cast<uint8_t *>(TakeBlock(kRecordLen));
    if (record == nullptr) std::abort();
    timespec wall{}, mono{};
    clock_gettime(CLOCK_REALTIME, &wall);
    clock_gettime(CLOCK_MONOTONIC, &mono);
    std::memset(record, 0, kRecordHead);
    StoreU32(record + 16, static_cast<uint32_t>(wall.tv_sec));
    StoreU32(record + 20, static_cast<uint32_t>(wall.tv_nsec));
    StoreU32(record + 24, static_cast<uint32_t>(mono.tv_nsec));
    StoreU32(record + kRecordHead, kNameLen);
    std::memcpy(record + kRecordHead + 4, kServiceName, kNameLen);
    std::memcpy(record + kRecordHead + 4 + kNameLen, para, kParaLen);

    auto *item = static_cast<Item *>(TakeBlock(kItemSize + kRecordLen));
    if (item == nullptr) std::abort();
    item->data = reinterpret_cast<uint8_t *>(item) + kItemSize;
    item->len = kRecordLen;
    std::memcpy(item->data, record, kRecordLen);
    pthread_mutex_lock(&g_list.mutex);
    item->next = &g_list.head;
    item->prev = g_list.head.prev;
    g_list.head.prev->next = item;
    g_list.head.prev = item;
    pthread_mutex_unlock(&g_list.mutex);
    GiveBack(record);
    GiveBack(para);
    return 0;
}

void BM_Floor(benchmark::State &state) {
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(FloorReport(7));
        if (++n % qvbench::kDrainEvery == 0) {
            state.PauseTiming();
            DrainFloorList();
            state.ResumeTiming();
        }
    }
    DrainFloorList();
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Floor)->Threads(1)->Threads(2)->UseRealTime();

// ------------------------------------------------------------------------------------------ syslog

constexpr char kLogPath[] = "/dev/log";
constexpr char kHostDev[] = "/opt/.bench-host-dev";

// Mounts a tmpfs over /dev in the private mount namespace of the isolation runner, with the host's
// device nodes reachable through links into a bind mount of the real /dev, and binds a datagram
// socket at /dev/log that a thread drains as a logging daemon would. False outside the runner, or
// when a mount is refused.
bool StartSyslogListener() {
    const char *isolated = std::getenv("QV_ISOLATED");
    if (isolated == nullptr || std::strcmp(isolated, "1") != 0) return false;
    mkdir(kHostDev, 0755);
    if (mount("/dev", kHostDev, nullptr, MS_BIND | MS_REC, nullptr) != 0) return false;
    if (mount("bench-dev", "/dev", "tmpfs", 0, "mode=0755") != 0) return false;
    for (const char *node : {"null", "zero", "urandom", "random", "shm", "pts", "fd"}) {
        const std::string target = std::string(kHostDev) + "/" + node;
        if (symlink(target.c_str(), (std::string("/dev/") + node).c_str()) != 0) return false;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kLogPath);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) return false;
    std::thread([fd] {
        char line[1024];
        while (recv(fd, line, sizeof line, 0) >= 0) {
        }
    }).detach();
    return true;
}

// True once the listener runs and the log is open, which the first call arranges.
bool SyslogReady() {
    static const bool listening = [] {
        if (!StartSyslogListener()) return false;
        openlog("bench_service", LOG_NDELAY, LOG_USER);
        return true;
    }();
    return listening;
}

void BM_Syslog(benchmark::State &state) {
    if (!SyslogReady()) {
        state.SkipWithError("no private /dev/log: run the benchmarks through the isolation runner (scripts/bench)");
        return;
    }
    for (auto _ : state) syslog(LOG_INFO, "port %u down", 7u);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Syslog)->Threads(1)->Threads(2)->UseRealTime();

// ----------------------------------------------------------------------------- interleaved ratios

constexpr int kBatch = 256;

// Nanoseconds per call of one batch of calls; the lists are drained outside the timed region.
template <typename Call, typename Drain>
double TimeBatch(Call call, Drain drain) {
    timespec start{}, end{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (int i = 0; i < kBatch; ++i) benchmark::DoNotOptimize(call());
    clock_gettime(CLOCK_MONOTONIC, &end);
    drain();
    return (static_cast<double>(end.tv_sec - start.tv_sec) * 1e9 + static_cast<double>(end.tv_nsec - start.tv_nsec)) /
           kBatch;
}

double Median(std::vector<double> &values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

// Alternates batches of the yardstick and of the call; reports both medians and call / yardstick.
template <typename Yardstick, typename YardstickDrain, typename Call>
void Versus(benchmark::State &state, Yardstick yardstick, YardstickDrain yardstickDrain, Call call) {
    QvAgentModule *module = qvbench::Agent();
    std::vector<double> base, measured;
    for (auto _ : state) {
        base.push_back(TimeBatch(yardstick, yardstickDrain));
        measured.push_back(TimeBatch(call, [module] { qvbench::DrainLists(module); }));
    }
    const double baseNs = Median(base), callNs = Median(measured);
    state.counters["yardstick_ns"] = baseNs;
    state.counters["call_ns"] = callNs;
    state.counters["ratio"] = callNs / baseNs;
}

uint32_t LogById() { return QV_Agent_ReportLogById(4, 0x1234, "port %u down", 7u); }

uint32_t DebugLog() {
    static const QvAgentDebugKey key{1, 2};
    return QV_Agent_Debug(&key, "fan speed", 0x4000, "%u", 3000u);
}

uint32_t LogObject() { return qvbench::ReportLogObject(qvbench::Agent()); }

uint32_t Alarm() { return qvbench::ReportAlarm(qvbench::Agent()); }

uint32_t Floor() { return FloorReport(7); }

// A second thread that runs one batch of a call each time it is started, and says when it is done.
template <typename Call>
class BatchPartner {
public:
    explicit BatchPartner(Call call) : thread_([this, call] { Run(call); }) {}
    ~BatchPartner() {
        stop_.store(true);
        Start();
        thread_.join();
    }
    void Start() {
        started_.fetch_add(1);
        started_.notify_one();
    }
    void AwaitDone(int batches) {
        for (int seen = done_.load(); seen < batches; seen = done_.load()) done_.wait(seen);
    }

private:
    void Run(Call call) {
        for (int seen = 0;; ++seen) {
            started_.wait(seen);
            if (stop_.load()) return;
            for (int i = 0; i < kBatch; ++i) benchmark::DoNotOptimize(call());
            done_.fetch_add(1);
            done_.notify_one();
        }
    }

    std::atomic<int> started_{0}, done_{0};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// Alternates a batch on this thread alone with a batch on this thread and the partner at once.
template <typename Call, typename Drain>
void TwoThreads(benchmark::State &state, Call call, Drain drain) {
    std::vector<double> alone, together;
    BatchPartner<Call> partner(call);
    int batches = 0;
    for (auto _ : state) {
        alone.push_back(TimeBatch(call, drain));
        timespec start{}, end{};
        clock_gettime(CLOCK_MONOTONIC, &start);
        partner.Start();
        for (int i = 0; i < kBatch; ++i) benchmark::DoNotOptimize(call());
        partner.AwaitDone(++batches);
        clock_gettime(CLOCK_MONOTONIC, &end);
        drain();
        together.push_back(
            (static_cast<double>(end.tv_sec - start.tv_sec) * 1e9 + static_cast<double>(end.tv_nsec - start.tv_nsec)) /
            (2 * kBatch));
    }
    const double aloneNs = Median(alone), togetherNs = Median(together);
    state.counters["alone_ns"] = aloneNs;
    state.counters["together_ns_per_call"] = togetherNs;
    state.counters["aggregate"] = aloneNs / togetherNs;
}

void DrainAgent() { qvbench::DrainLists(qvbench::Agent()); }

void BM_Floor_TwoThreads(benchmark::State &state) { TwoThreads(state, Floor, DrainFloorList); }
BENCHMARK(BM_Floor_TwoThreads)->Iterations(2000);

void BM_LogById_TwoThreads(benchmark::State &state) { TwoThreads(state, LogById, DrainAgent); }
BENCHMARK(BM_LogById_TwoThreads)->Iterations(2000);

void BM_LogObject_TwoThreads(benchmark::State &state) { TwoThreads(state, LogObject, DrainAgent); }
BENCHMARK(BM_LogObject_TwoThreads)->Iterations(2000);

void BM_Alarm_TwoThreads(benchmark::State &state) { TwoThreads(state, Alarm, DrainAgent); }
BENCHMARK(BM_Alarm_TwoThreads)->Iterations(2000);

void BM_LogById_VersusFloor(benchmark::State &state) { Versus(state, Floor, DrainFloorList, LogById); }
BENCHMARK(BM_LogById_VersusFloor)->Iterations(4000);

void BM_Debug_VersusFloor(benchmark::State &state) { Versus(state, Floor, DrainFloorList, DebugLog); }
BENCHMARK(BM_Debug_VersusFloor)->Iterations(4000);

void BM_LogObject_VersusFloor(benchmark::State &state) { Versus(state, Floor, DrainFloorList, LogObject); }
BENCHMARK(BM_LogObject_VersusFloor)->Iterations(4000);

// Here the yardstick is the log by identifier and the call syslog(3): the ratio is how many times
// cheaper the agent is.
void BM_Syslog_VersusLogById(benchmark::State &state) {
    if (!SyslogReady()) {
        state.SkipWithError("no private /dev/log: run the benchmarks through the isolation runner (scripts/bench)");
        return;
    }
    QvAgentModule *module = qvbench::Agent();
    Versus(state, LogById, [module] { qvbench::DrainLists(module); }, [] {
        syslog(LOG_INFO, "port %u down", 7u);
        return 0;
    });
}
BENCHMARK(BM_Syslog_VersusLogById)->Iterations(400);

}  // namespace
