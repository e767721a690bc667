// Processes for the stream tests: a child with its output in a file, and a JetStream cluster of
// nats-server nodes on loopback ports of the test's own network namespace, each node killed and
// restarted at will with its store kept; and a plain HTTP GET for the metrics endpoint. Files go
// under a directory of the test's private /opt.
#ifndef QV_TEST_TOOLS_STREAM_CLUSTER_H
#define QV_TEST_TOOLS_STREAM_CLUSTER_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace streamtest {

// A child process whose standard output and error go to files.
class Child {
public:
    Child() = default;
    ~Child();  // kills it if it still runs
    Child(Child &&other) noexcept;
    Child &operator=(Child &&) = delete;

    bool Start(const std::vector<std::string> &argv, const std::string &outFile, const std::string &errFile);
    void Signal(int sig) const;
    // Sends sig and waits up to timeoutMs; the exit status, or -1 (then it was killed).
    int Stop(int sig, int timeoutMs);
    bool Running() const { return pid_ > 0; }
    pid_t Pid() const { return pid_; }

private:
    pid_t pid_ = -1;
};

// True once something accepts TCP connections at 127.0.0.1:port, within timeoutMs.
bool WaitListening(uint16_t port, int timeoutMs);
// The whole content of a file, or empty.
std::string ReadFile(const std::string &path);
// The whole response (status line, headers, body) of GET path from 127.0.0.1:port, or empty.
std::string HttpGet(uint16_t port, const std::string &path, const std::string &accept = "");

class Cluster {
public:
    // dir: where the nodes keep their stores and logs; nodes use the client ports base, base+1, ...
    Cluster(std::string dir, uint16_t base, int nodes);
    bool StartAll(int timeoutMs);
    bool Start(int node, int timeoutMs);
    void Kill(int node);
    std::string Urls() const;  // all nodes, comma-separated

private:
    std::string dir_;
    uint16_t base_;
    std::vector<Child> nodes_;
};

}  // namespace streamtest

#endif
