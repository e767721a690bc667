// Command line of qvcollector: what it binds, how it acknowledges, when it stops.
#ifndef QV_TOOLS_COLLECTOR_OPTIONS_H
#define QV_TOOLS_COLLECTOR_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvcollector {

struct Options {
    std::string bind = "127.0.0.1";
    uint16_t basePort = 6010;  // the log port; the other four follow it
    bool noAck = false;
    uint64_t dropAcks = 0;     // per kind, the first N numbered datagrams go unacknowledged
    uint64_t count = 0;        // stop after this many records; 0: never
    bool stats = false;
    bool help = false;
    // The stream: with servers given, every datagram's records go into it and the acknowledgement
    // waits until it has stored them.
    std::string nats;              // comma-separated server URLs; empty: no stream
    std::string stream = "QV";
    uint64_t replicas = 1;
    std::string metrics;           // HOST:PORT of the metrics endpoint; empty: none
};

// Parses the arguments after the program name; returns the complaint when they are not usable.
std::optional<std::string> ParseOptions(const std::vector<std::string> &args, Options &out);

const char *HelpText();

}  // namespace qvcollector

#endif
