// Decodes queued records back into fields, so tests compare every field of what the agent built.
#ifndef QV_TEST_RECORD_DECODER_H
#define QV_TEST_RECORD_DECODER_H

#include <cstdint>
#include <string>
#include <vector>

#include "qvagent/qvagent.h"

namespace qvtest {

using Bytes = std::vector<uint8_t>;

struct Entry {
    uint16_t type = 0;
    Bytes value;
    uint32_t U32() const;  // the value as a host-order u32 (must be 4 bytes)
    uint16_t U16() const;  // the value as a host-order u16 (must be 2 bytes)
    std::string Text() const { return std::string(value.begin(), value.end()); }
};

struct DecodedRecord {
    uint16_t recordType = 0;
    uint16_t length = 0;
    uint32_t msgId = 0;
    uint32_t optionWord = 0;  // option count with its marker
    uint32_t paraCount = 0;
    // Log heads
    uint32_t headWord = 0;
    uint32_t vrid = 0;
    uint8_t level = 0;
    uint8_t kind = 0;
    // Alarm heads
    uint8_t attrMarker = 0;
    uint8_t attrByte = 0;
    uint8_t category = 0;
    uint32_t attrWord = 0;
    // Both: wall time at offset 24
    uint16_t year = 0;
    uint8_t month = 0, day = 0, hour = 0, minute = 0, second = 0, weekday = 0;
    uint32_t millisecond = 0;
    uint64_t monotonicMs = 0;  // log heads only
    std::vector<Entry> options;
    std::vector<Entry> params;  // entries after the options, as many as paraCount says
    Bytes tail;                 // bytes after the parameters
    bool ok = false;            // every length consistent
    std::string error;
};

DecodedRecord DecodeRecord(const Bytes &record);

// Copies of the records queued on send list k, oldest first (no lock taken).
std::vector<Bytes> ListRecords(QvAgentModule *module, uint32_t k);

// Releases every item of every send list of the module.
void DrainLists(QvAgentModule *module);

}  // namespace qvtest

#endif
