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
};

// Parses the arguments after the program name; returns the complaint when they are not usable.
std::optional<std::string> ParseOptions(const std::vector<std::string> &args, Options &out);

const char *HelpText();

}  // namespace qvcollector

#endif
