// The table of the kinds of file qvdump reads.
#include "file_kinds.h"

#include <array>

#include "blackbox_dump.h"
#include "locallog_dump.h"

namespace qvdump {

namespace {

constexpr std::array kKinds = {
    FileKind{"blackbox", "blackbox file: a head and a ring of log records", ProbeBlackbox, DumpBlackbox},
    FileKind{"locallog", "persistent local log file (boot log): a head and a ring of text lines", ProbeLocalLog,
             DumpLocalLog},
};

}  // namespace

std::span<const FileKind> FileKinds() { return kKinds; }

const FileKind *FindKind(const std::string &name) {
    for (const FileKind &kind : kKinds) {
        if (name == kind.name) return &kind;
    }
    return nullptr;
}

const FileKind *DetectKind(qvdecode::Bytes file) {
    const qvdecode::Bytes head = qvdecode::Sub(file, 0, kProbeBytes);
    for (const FileKind &kind : kKinds) {
        if (kind.probe(head)) return &kind;
    }
    return nullptr;
}

}  // namespace qvdump
