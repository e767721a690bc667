// qvdump: prints the agent's files for operators and tests. The kind of file is named with --kind or
// recognised from the file's first bytes; each kind has its reader (file_kinds.h).
#include <cstdio>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "file_kinds.h"

namespace {

constexpr int kExitBadOptions = 1;
constexpr int kExitUnreadable = 2;
constexpr int kExitDamaged = 3;

struct Options {
    std::string kind = "auto";
    std::string file;
    qvdump::DumpOptions dump;
    bool help = false;
};

std::optional<std::string> ParseOptions(const std::vector<std::string> &args, Options &o) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") {
            o.help = true;
        } else if (a == "--json") {
            o.dump.format = qvdump::Format::Json;
        } else if (a == "--kind" || a.rfind("--kind=", 0) == 0) {
            if (a == "--kind" && i + 1 >= args.size()) return "--kind needs a value";
            o.kind = a == "--kind" ? args[++i] : a.substr(sizeof "--kind=" - 1);
            if (o.kind != "auto" && qvdump::FindKind(o.kind) == nullptr) return "unknown kind '" + o.kind + "'";
        } else if (a.size() > 1 && a[0] == '-') {
            return "unknown option '" + a + "'";
        } else if (!o.file.empty()) {
            return "one file at a time, not '" + o.file + "' and '" + a + "'";
        } else {
            o.file = a;
        }
    }
    if (!o.help && o.file.empty()) return "no file named";
    return std::nullopt;
}

void PrintHelp() {
    std::printf(R"(Usage: qvdump [OPTIONS] FILE

Prints one of the agent's files: the records or lines it holds, in the order
they were written.

Options:
  --kind KIND   the kind of FILE (default: auto, recognised from its start)
  --json        one JSON object per line (JSON Lines) instead of text
  -h, --help    this text

Kinds:
)");
    for (const qvdump::FileKind &kind : qvdump::FileKinds()) std::printf("  %-12s  %s\n", kind.name, kind.description);
    std::printf(R"(
blackbox: JSON Lines in either format: first {"head":{...},"records":N}, then
  one line per stored record, oldest first, with "position" in the data
  area, "state" ("read": taken into a datagram not acknowledged yet, which a
  restart sends again; "unread") and the record decoded as qvcollector
  decodes records.

locallog: text prints each line as written; --json prints
  {"time":"YYMMDD-hh:mm:ss.uuuuuu","level":...,"process":...,"text":...}
  with null for a part the line does not have.

Everything that could be read is printed first; then damage (a head whose
offsets lie outside the file, a line without its end, a broken record head,
a truncated file) is described on
standard error. Exit status: 0 done, 1 bad options, 2 the file cannot be
read or its kind not recognised, 3 the file is damaged.
)");
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    if (const auto err = ParseOptions(std::vector<std::string>(argv + 1, argv + argc), options)) {
        std::fprintf(stderr, "qvdump: %s\nTry 'qvdump --help'.\n", err->c_str());
        return kExitBadOptions;
    }
    if (options.help) {
        PrintHelp();
        return 0;
    }
    std::ifstream in(options.file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "qvdump: cannot read %s\n", options.file.c_str());
        return kExitUnreadable;
    }
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        std::fprintf(stderr, "qvdump: cannot read %s\n", options.file.c_str());
        return kExitUnreadable;
    }
    const qvdump::FileKind *kind =
        options.kind == "auto" ? qvdump::DetectKind(bytes) : qvdump::FindKind(options.kind);
    if (kind == nullptr) {
        std::fprintf(stderr, "qvdump: %s: not a kind of file qvdump knows; name it with --kind\n", options.file.c_str());
        return kExitUnreadable;
    }
    const qvdump::DumpResult result = kind->dump(bytes, options.dump);
    std::fwrite(result.out.data(), 1, result.out.size(), stdout);
    std::fflush(stdout);
    for (const std::string &d : result.damage) std::fprintf(stderr, "qvdump: %s: %s\n", options.file.c_str(), d.c_str());
    return result.damage.empty() ? 0 : kExitDamaged;
}
