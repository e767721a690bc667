// Decoding of one record (log, alarm, by-identifier or debug) into JSON fields, and the split of a
// run of records laid end to end. Shared by the collector (records inside datagrams) and the dumper
// (records inside the blackbox). Only the wire header is used: no code of the agent.
#ifndef QV_TOOLS_RECORD_DECODE_H
#define QV_TOOLS_RECORD_DECODE_H

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "byte_view.h"
#include "json_writer.h"

namespace qvdecode {

// How a log-head record was built: from an event object, by identifier, or as a debug log.
enum class LogForm { Object, ById, Debug };

// Tells the forms apart from the head and the first option (see docs/decisions.md).
LogForm ClassifyLogRecord(Bytes record);

// Appends the record's fields to the object open in w. On failure returns the reason; the fields
// written so far are then incomplete, and the caller rewinds to a mark taken before.
std::optional<std::string> DecodeRecord(Bytes record, JsonWriter &w);

// One record of a run, or the place where the run stopped making sense.
struct RecordSlice {
    size_t offset = 0;
    Bytes bytes;        // the record, as long as its length field says
    std::string error;  // set when no further record could be taken; bytes then holds the rest
};

// Splits records laid end to end by their length fields. Stops at the first length field that is
// shorter than a record head or reaches past the end, reporting it as the last slice.
std::vector<RecordSlice> SplitRecords(Bytes run);

}  // namespace qvdecode

#endif
