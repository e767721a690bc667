// Decoding of KPI packets: the 12-byte head, the split into 28-byte records, and each record's fields
// as JSON. Every field is big-endian. Only the wire header is used: no code of the agent.
#ifndef QV_TOOLS_KPI_DECODE_H
#define QV_TOOLS_KPI_DECODE_H

#include <cstdint>
#include <optional>
#include <string>

#include "byte_view.h"
#include "json_writer.h"

namespace qvdecode {

struct KpiPacketHead {
    uint16_t totalLen = 0;
    uint8_t flags = 0;
    uint8_t msgType = 0;
    uint32_t reserved = 0;
    uint32_t recordNum = 0;
};

// Reads the head; the reason when the packet is too short for it or its record count does not match
// the bytes that follow (the records are then not to be read).
std::optional<std::string> ReadKpiPacket(Bytes packet, KpiPacketHead &head);

// The bytes of record i of a packet that ReadKpiPacket accepted.
Bytes KpiRecordAt(Bytes packet, uint32_t i);

// Appends the fields of one 28-byte record to the object open in w.
void DecodeKpiRecord(Bytes record, JsonWriter &w);

// "YYYY-MM-DDTHH:MM:SSZ" of seconds since 1970.
std::string UtcText(uint32_t seconds);

}  // namespace qvdecode

#endif
