// flood_agent: a service for the stream benchmark. It starts the agent in mesh mode with the collector
// on loopback and reports high-precision logs as fast as the send list takes them, for the seconds
// given, then prints "reported N". A full list is retried after a short pause, so the rate is what
// the acknowledgements let through. Runs where /opt is scratch (scripts/bench's namespaces).
#include <arpa/inet.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "qvagent/qvagent.h"

namespace {

constexpr uint32_t kLogId = 0xF100D;
constexpr auto kFullPause = std::chrono::microseconds(200);

}  // namespace

int main(int argc, char **argv) {
    const long seconds = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 0;
    if (seconds <= 0) {
        std::fputs("usage: flood_agent SECONDS\n", stderr);
        return 2;
    }
    QvAgentServiceDesc desc{};
    std::strncpy(desc.szServiceName, "flood", sizeof desc.szServiceName - 1);
    desc.uiServiceId = 9;
    desc.uiSelfIp = htonl(INADDR_LOOPBACK);
    QvAgentModule *m = QV_Agent_Init(&desc);
    if (m == nullptr || QV_Agent_SetMainBoardIP(m, htonl(INADDR_LOOPBACK)) != QV_AGENT_OK) {
        std::fputs("flood_agent: the agent did not start\n", stderr);
        return 2;
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    unsigned long long reported = 0;
    for (uint32_t n = 0; std::chrono::steady_clock::now() < end;) {
        if (QV_Agent_ReportLogById(QV_AGENT_OBJ_HIGH_PRECISION, kLogId, "%u %u", n, 0xBEEFu) == QV_AGENT_OK) {
            ++reported;
            ++n;
        } else {
            std::this_thread::sleep_for(kFullPause);
        }
    }
    std::printf("reported %llu\n", reported);
    return 0;
}
