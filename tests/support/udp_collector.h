// A small in-process collector for tests: binds the collector ports on 127.0.0.1 (inside the test's
// own network namespace), keeps every datagram it receives and, unless told otherwise, acknowledges
// numbered datagrams from the port that received them.
#ifndef QV_TEST_UDP_COLLECTOR_H
#define QV_TEST_UDP_COLLECTOR_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace qvtest {

struct Datagram {
    uint16_t port = 0;  // the collector port that received it
    std::vector<uint8_t> bytes;
};

class UdpCollector {
public:
    explicit UdpCollector(std::vector<uint16_t> ports, bool acknowledge = true);
    ~UdpCollector();
    UdpCollector(const UdpCollector &) = delete;
    UdpCollector &operator=(const UdpCollector &) = delete;

    bool ok() const { return ok_; }
    std::vector<Datagram> Received();
    // Waits until pred(received) holds or the time is up; the last answer of pred.
    bool WaitFor(const std::function<bool(const std::vector<Datagram> &)> &pred,
                 std::chrono::milliseconds limit = std::chrono::milliseconds(8000));
    void SetAcknowledge(bool on) { acknowledge_ = on; }

private:
    void Run();

    std::vector<uint16_t> ports_;
    std::vector<int> fds_;
    std::atomic<bool> acknowledge_;
    std::atomic<bool> stop_{false};
    bool ok_ = false;
    std::mutex mutex_;
    std::vector<Datagram> received_;
    std::thread thread_;
};

// The acknowledgement the collector gives a numbered datagram received on `port`.
std::vector<uint8_t> AcknowledgementOf(const std::vector<uint8_t> &datagram, uint16_t port);

}  // namespace qvtest

#endif
