// Reading the blackbox file: its head, and the records it keeps from the last commit on, oldest
// first: those read into datagrams that were not acknowledged yet, then those not read yet. Reading
// is apart from printing, so that tests and the fuzz target drive it directly.
#ifndef QV_TOOLS_QVDUMP_BLACKBOX_DUMP_H
#define QV_TOOLS_QVDUMP_BLACKBOX_DUMP_H

#include <cstdint>
#include <string>
#include <vector>

#include "byte_view.h"
#include "file_kinds.h"

namespace qvdump {

struct BoxHead {
    uint32_t valid = 0, capacity = 0, readPos = 0, writePos = 0, usedLen = 0, commitPos = 0, readedLen = 0;
};

struct BoxRecord {
    uint32_t position;            // of its record head in the data area
    bool read;                    // read into a datagram that is not acknowledged yet
    std::vector<uint8_t> record;  // joined when it wraps around the data area's end
};

struct BoxRead {
    bool hasHead = false;
    BoxHead head;
    std::vector<BoxRecord> records;   // oldest first
    std::vector<std::string> damage;  // empty for a sound file
};

BoxRead ReadBlackboxFile(qvdecode::Bytes file);

// A head that the agent has initialised: valid, with one of the capacities the agent chooses.
bool ProbeBlackbox(qvdecode::Bytes head);

// JSON Lines in both formats: a "head" line, then one line per record decoded as the collector
// decodes records, with "state" "read" (not yet acknowledged) or "unread".
DumpResult DumpBlackbox(qvdecode::Bytes file, const DumpOptions &options);

}  // namespace qvdump

#endif
