// The real qvcollector as a child process on a private port range, and a plain UDP socket to talk to
// it over loopback. Every wait is bounded in time.
#ifndef QV_TEST_TOOLS_COLLECTOR_PROCESS_H
#define QV_TEST_TOOLS_COLLECTOR_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "wire_builder.h"

namespace wiretest {

// The command that runs qvcollector (with the emulator first in a cross build).
std::vector<std::string> CollectorCommand();

// Runs a command to its end (at most timeoutMs); returns its exit status and output.
struct RunResult {
    int status = -1;  // exit status, or -1 when it did not exit normally in time
    std::string out;
    std::string err;
};
RunResult RunToEnd(const std::vector<std::string> &args, int timeoutMs);

class CollectorProcess {
public:
    ~CollectorProcess();

    // Starts qvcollector with these options on a free base port (it tries a few) and waits for it to
    // announce its ports. False, with the reason in Stderr(), when it could not be started.
    bool Start(const std::vector<std::string> &options);
    // Starts it on the given base port and waits for its announcement (the agent sends to the fixed
    // ports from 6010; test programs have a network namespace of their own, so those are free).
    bool StartAt(uint16_t base, const std::vector<std::string> &options);
    // Starts it with exactly these arguments and does not wait for the announcement.
    bool Spawn(const std::vector<std::string> &args);

    uint16_t Base() const { return base_; }

    // The next line of standard output, or nothing after timeoutMs.
    std::optional<std::string> NextLine(int timeoutMs);
    // Lines until count were read or timeoutMs passed.
    std::vector<std::string> Lines(size_t count, int timeoutMs);

    // Sends sig and waits for the exit; returns the exit status or -1.
    int Stop(int sig, int timeoutMs);
    // Waits for the process to end by itself; returns the exit status or -1.
    int WaitExit(int timeoutMs);

    // Everything read from standard error so far (drained without waiting).
    const std::string &Stderr();

private:
    bool Pump(int timeoutMs);  // reads what is available from both pipes; false once both are closed
    void Reap(int timeoutMs);

    pid_t pid_ = -1;
    int status_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::string out_;
    std::string err_;
    uint16_t base_ = 0;
};

class UdpClient {
public:
    UdpClient();
    ~UdpClient();
    bool Ok() const { return fd_ >= 0; }
    void Send(uint16_t port, const Bytes &datagram);
    struct Reply {
        Bytes bytes;
        uint16_t fromPort;
    };
    // The next datagram that arrives within timeoutMs.
    std::optional<Reply> Receive(int timeoutMs);
    uint16_t Port() const { return port_; }

private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

}  // namespace wiretest

#endif
