// Fuzz target of the format analyser and its renderers. Bit 0 of the first byte chooses: clear, the
// rest of the input is a format analysed in placeholder mode; set, the rest is a renderer's index,
// a modifier and bytes that the renderer reads through the by-reference mode (a block through its
// pointer form, a 'T' conversion its size from the bytes). No input may crash, leave a block of the
// agent allocated, or leave entries that do not add up to what the parse state says.
#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include "core/memory_internal.h"
#include "qvagent/qvagent.h"

namespace {

constexpr uint8_t kRendererBit = 0x01;
constexpr uint8_t kPlaceholderBit = 0x02;  // renderers: placeholder mode instead of by reference
constexpr size_t kRendererHead = 2;        // renderer index, modifier
constexpr size_t kBlockRoom = 65536;       // any u16 block length stays inside the bytes handed over
constexpr size_t kSizedRoom = 999;         // the largest size three digits can ask for

constexpr QvAgentFmtProcFn kRenderers[] = {
    QV_Agent_ProcChar, QV_Agent_ProcString, QV_Agent_ProcHex,      QV_Agent_ProcInt,  QV_Agent_ProcUInt,
    QV_Agent_ProcBlock, QV_Agent_ProcFloat, QV_Agent_ProcIPV4,     QV_Agent_ProcIPV6, QV_Agent_ProcMAC,
    QV_Agent_ProcDateTime, QV_Agent_ProcVRID, QV_Agent_ProcNomalType,
};

void Require(bool ok) {
    if (!ok) std::abort();
}

uint32_t AnalyseWithoutArguments(QvAgentParaState *state, uint8_t **buffer, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t rc = QV_Agent_ParaAnalyse(nullptr, state, buffer, format, &args);
    va_end(args);
    return rc;
}

uint32_t RenderWithPointer(QvAgentFmtProcFn proc, uint8_t modifier, const char *conversion, uint16_t *type,
                           uint16_t *modeLen, uint8_t *scratch, ...) {
    va_list args;
    va_start(args, scratch);
    const uint32_t rc = proc(&args, modifier, conversion, type, modeLen, scratch);
    va_end(args);
    return rc;
}

// The entries of a successful analysis walk exactly to uiParaLen, one per counted entry.
void RequireConsistentEntries(const uint8_t *para, const QvAgentParaState &state) {
    Require(state.uiParaLen <= state.uiBufSize);
    uint32_t offset = 0;
    uint32_t count = 0;
    while (offset < state.uiParaLen) {
        Require(offset + QV_ENTRY_HEAD_LEN <= state.uiParaLen);
        uint16_t length = 0;
        std::memcpy(&length, para + offset + QV_ENTRY_LEN_OFF, sizeof length);
        offset += QV_ENTRY_HEAD_LEN + length;
        ++count;
    }
    Require(offset == state.uiParaLen && count == state.uiParaNum);
}

void FuzzAnalyser(const uint8_t *data, size_t size) {
    const std::string format(reinterpret_cast<const char *>(data), size);  // read up to its first zero
    QvAgentParaState state{0, 0, 0, QV_AGENT_PARA_BUF_SIZE, QV_AGENT_OBJ_PLACEHOLDER};
    auto *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(QV_AGENT_PARA_BUF_SIZE, nullptr));
    Require(buffer != nullptr);
    const uint32_t rc = AnalyseWithoutArguments(&state, &buffer, format.c_str());
    Require(rc == QV_AGENT_OK || rc == QV_AGENT_ERR_PARAM);
    if (rc == QV_AGENT_OK) RequireConsistentEntries(buffer, state);
    QV_AGENT_Free(buffer, nullptr);
}

void FuzzRenderer(uint8_t selector, const uint8_t *data, size_t size) {
    if (size < kRendererHead) return;
    const QvAgentFmtProcFn proc = kRenderers[data[0] % std::size(kRenderers)];
    const uint8_t modifier = data[1];
    const std::string payload(reinterpret_cast<const char *>(data + kRendererHead), size - kRendererHead);

    std::string conversion = "x";
    std::vector<uint8_t> value;
    uint16_t modeLen = QV_AGENT_PARA_MODE_REFERENCE;
    if (proc == QV_Agent_ProcString) {
        value.assign(payload.begin(), payload.end());
        value.push_back(0);
    } else if (proc == QV_Agent_ProcNomalType) {
        conversion = "_" + payload;
        value.assign(kSizedRoom, 0x5A);
    } else {
        value.assign(std::max(kBlockRoom, payload.size()), 0);
        std::memcpy(value.data(), payload.data(), payload.size());
        if (proc == QV_Agent_ProcBlock) modeLen = QV_AGENT_PARA_MODE_VALUE;
    }
    if ((selector & kPlaceholderBit) != 0) modeLen = QV_AGENT_PARA_MODE_PLACEHOLDER;

    std::vector<uint8_t> scratch(QV_AGENT_PARA_SCRATCH_SIZE);
    uint16_t type = 0;
    const uint32_t rc =
        RenderWithPointer(proc, modifier, conversion.c_str(), &type, &modeLen, scratch.data(), value.data());
    if (rc == QV_AGENT_OK) Require(modeLen <= QV_AGENT_PARA_SCRATCH_SIZE);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    if ((data[0] & kRendererBit) != 0) {
        FuzzRenderer(data[0], data + 1, size - 1);
    } else {
        FuzzAnalyser(data + 1, size - 1);
    }
    Require(qv::BlocksOutstanding() == 0);
    return 0;
}
