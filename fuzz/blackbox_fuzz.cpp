// Fuzz target of qvdump's blackbox reader: the input is a whole file. No input may crash; a file
// shorter than the head is always reported; the records read are no longer than what the head counts,
// and the dump has a head line, then one valid JSON object per record.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "blackbox_dump.h"
#include "file_kinds.h"
#include "json_check.h"
#include "qvagent/qv_agent_wire.h"

namespace {

void Require(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const qvdecode::Bytes file(data, size);
    const qvdump::BoxRead read = qvdump::ReadBlackboxFile(file);
    Require(read.hasHead == (size >= QV_BOX_HEAD_LEN));
    Require(read.hasHead || !read.damage.empty());
    uint64_t stored = 0;
    for (const qvdump::BoxRecord &r : read.records) stored += r.record.size() + QV_BOX_REC_HEAD_LEN;
    Require(stored <= uint64_t{read.head.usedLen} + read.head.readedLen);

    const qvdump::DumpResult dump = qvdump::DumpBlackbox(file, {});
    const auto lines = static_cast<size_t>(std::count(dump.out.begin(), dump.out.end(), '\n'));
    Require(lines == read.records.size() + (read.hasHead ? 1 : 0));
    for (size_t at = 0; at < dump.out.size();) {
        const size_t end = dump.out.find('\n', at);
        Require(qvfuzz::IsOneJsonObject(std::string_view(dump.out).substr(at, end - at)));
        at = end + 1;
    }
    qvdump::DetectKind(file);
    return 0;
}
