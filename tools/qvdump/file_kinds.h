// The kinds of file qvdump reads: each has a name for --kind, a probe that recognises it from its
// first bytes, and a dump that turns the whole file into output text and a list of damage found.
#ifndef QV_TOOLS_QVDUMP_FILE_KINDS_H
#define QV_TOOLS_QVDUMP_FILE_KINDS_H

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "byte_view.h"

namespace qvdump {

enum class Format { Text, Json };

struct DumpOptions {
    Format format = Format::Text;
};

// What a dump produced: the output, and what was wrong with the file (empty when nothing was).
struct DumpResult {
    std::string out;
    std::vector<std::string> damage;
};

struct FileKind {
    const char *name;
    const char *description;  // one line for --help
    bool (*probe)(qvdecode::Bytes head);
    DumpResult (*dump)(qvdecode::Bytes file, const DumpOptions &options);
};

// Bytes of the file's start that a probe sees (fewer when the file is shorter).
inline constexpr size_t kProbeBytes = 64;

// Every kind, in the order auto-detection tries them.
std::span<const FileKind> FileKinds();

// The kind of that name, or null.
const FileKind *FindKind(const std::string &name);

// The first kind whose probe accepts the file's start, or null.
const FileKind *DetectKind(qvdecode::Bytes file);

}  // namespace qvdump

#endif
