// Reading the persistent local log file: its head, and its lines in the order they were written
// (after a wrap, the older part from the write offset to the wrap end, then the newer part from the
// front). Reading is apart from printing, so that tests and the fuzz target drive it directly.
#ifndef QV_TOOLS_QVDUMP_LOCALLOG_DUMP_H
#define QV_TOOLS_QVDUMP_LOCALLOG_DUMP_H

#include <cstdint>
#include <string>
#include <vector>

#include "byte_view.h"
#include "file_kinds.h"

namespace qvdump {

struct LocalLogLine {
    qvdecode::Bytes bytes;  // without its line end
    uint32_t dataOffset;    // where it starts, counted from the end of the head
    bool complete;          // ended by its line end
};

struct LocalLogRead {
    bool hasHead = false;
    uint32_t writeOffset = 0;
    uint32_t reserved = 0;
    uint32_t wrapEnd = 0;
    std::vector<LocalLogLine> lines;  // in the order written
    size_t overwrittenBytes = 0;      // the start of the oldest line, overwritten by the newer part
    std::vector<std::string> damage;  // head fields out of range, lines without their end
};

// The parts of one line; a part that is not there is empty and its flag false.
struct LocalLogFields {
    bool hasTime = false;
    bool hasTags = false;  // level and process tag
    qvdecode::Bytes time;  // "YYMMDD-hh:mm:ss.uuuuuu"
    qvdecode::Bytes level;
    qvdecode::Bytes process;
    qvdecode::Bytes text;  // the rest of the line
};

LocalLogRead ReadLocalLog(qvdecode::Bytes file);
LocalLogFields SplitLocalLogLine(qvdecode::Bytes line);

// True when the bytes at the start of the data are a line's time prefix, or the file is a bare zero
// head: a local log file has no magic value.
bool ProbeLocalLog(qvdecode::Bytes head);

// The lines as text (each as written) or as JSON Lines {"time","level","process","text"}.
DumpResult DumpLocalLog(qvdecode::Bytes file, const DumpOptions &options);

}  // namespace qvdump

#endif
