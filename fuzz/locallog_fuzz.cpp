// Fuzz target of qvdump's local log reader: the input is a whole file. No input may crash; every
// line read lies inside the data and holds no line end; the text dump has one line per line read and
// the JSON dump one valid JSON object per line read; a head that is not there is always reported.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "file_kinds.h"
#include "json_check.h"
#include "locallog_dump.h"
#include "qvagent/qv_agent_wire.h"

namespace {

void Require(bool ok) {
    if (!ok) std::abort();
}

size_t CountLines(const std::string &text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qvdecode::Bytes file(data, size);
    const qvdump::LocalLogRead read = qvdump::ReadLocalLog(file);
    Require(read.hasHead == (size >= QV_PLOG_HEAD_LEN));
    Require(read.hasHead || !read.damage.empty());
    for (const qvdump::LocalLogLine &line : read.lines) {
        Require(line.bytes.data() >= data + QV_PLOG_HEAD_LEN && line.bytes.data() + line.bytes.size() <= data + size);
        Require(std::find(line.bytes.begin(), line.bytes.end(), QV_PLOG_LINE_END) == line.bytes.end());
        qvdump::SplitLocalLogLine(line.bytes);
    }

    const qvdump::DumpResult text = qvdump::DumpLocalLog(file, {qvdump::Format::Text});
    Require(CountLines(text.out) == read.lines.size());
    const qvdump::DumpResult json = qvdump::DumpLocalLog(file, {qvdump::Format::Json});
    Require(CountLines(json.out) == read.lines.size());
    for (size_t at = 0; at < json.out.size();) {
        const size_t end = json.out.find('\n', at);
        Require(qvfuzz::IsOneJsonObject(std::string_view(json.out).substr(at, end - at)));
        at = end + 1;
    }
    qvdump::DetectKind(file);
    return 0;
}
