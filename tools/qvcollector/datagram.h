// The datagram head as the collector reads it: which kind a datagram belongs to (by the port that
// received it and, on the log port, by its stream type), whether it is numbered, a flush notice or a
// KPI packet, and the acknowledgement that answers a numbered datagram.
#ifndef QV_TOOLS_COLLECTOR_DATAGRAM_H
#define QV_TOOLS_COLLECTOR_DATAGRAM_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "byte_view.h"

namespace qvcollector {

using qvdecode::Bytes;

// Message kinds, in the agent's order.
enum class Kind : uint8_t { Log = 0, Alarm = 1, Debug = 2, HighPrecision = 3, Kpi = 4 };
constexpr size_t kKindCount = 5;

// Ports in the order of their numbers: log, alarm, high-precision log, KPI, debug.
enum class Port : uint8_t { Log = 0, Alarm = 1, HighPrecision = 2, Kpi = 3, Debug = 4 };
constexpr size_t kPortCount = 5;

std::string_view KindName(Kind k);
Kind KindOfPort(Port p);

enum class Shape : uint8_t {
    Numbered,  // acknowledged; carries records after its head
    Flush,     // flush notice
    Kpi,       // KPI packet
    Bad,       // nothing usable: reported, not acknowledged
};

struct Head {
    Shape shape = Shape::Bad;
    Kind kind = Kind::Log;
    uint16_t totalLen = 0;
    uint8_t flags = 0;
    uint8_t msgType = 0;
    uint32_t seq = 0;
    bool hasSeq = false;       // the head was long enough to hold a sequence number
    uint16_t streamType = 0;   // numbered datagrams of every kind but alarms
    size_t headLen = 0;        // where the body starts
    std::string error;         // why the datagram is Bad
};

Head ReadHead(Port port, Bytes datagram);

// The acknowledgement of a numbered datagram: 8 bytes, or 12 from the log port with the stream type.
std::vector<uint8_t> BuildAck(Port port, const Head &head);

}  // namespace qvcollector

#endif
