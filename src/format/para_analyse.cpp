// The format analyser: one parameter entry per conversion of a format, placed in the caller's
// parameter buffer under its soft and hard limits, with the buffer's one growth from 2048 to 9216
// bytes; and the writing of an entry that ends beyond the soft limit.
#include <algorithm>

#include "core/agent_block.h"
#include "core/bytes.h"
#include "format/format_scan.h"
#include "format/render_common.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_log.h"
#include "qvagent/qv_agent_memory.h"
#include "qvagent/qv_agent_wire.h"

namespace {

using qv::bytes::StoreHost;

constexpr uint32_t kInitialSize = QV_AGENT_PARA_BUF_SIZE;
constexpr uint32_t kGrownSize = QV_AGENT_PARA_BUF_GROWN_SIZE;
// Once grown, entries are placed whole up to the soft limit; beyond it a string is cut to end there
// and any other entry is placed whole up to the hard limit.
constexpr uint32_t kGrownSoftLimit = 8192;
constexpr uint32_t kGrownHardLimit = kGrownSize;

struct Limits {
    uint32_t soft;
    uint32_t hard;
};

bool MayGrow(const QvAgentParaState &state) { return state.uiObjType != QV_AGENT_OBJ_ALARM; }

// 2048 and 2048 until the buffer has grown (alarm kinds: always), 8192 and 9216 after; never past
// the buffer's stated capacity.
Limits LimitsOf(const QvAgentParaState &state) {
    const bool large = MayGrow(state) && state.uiBufSize > kInitialSize;
    const Limits nominal = large ? Limits{kGrownSoftLimit, kGrownHardLimit} : Limits{kInitialSize, kInitialSize};
    return {std::min(nominal.soft, state.uiBufSize), std::min(nominal.hard, state.uiBufSize)};
}

// One analysis: the caller's state, buffer and argument list, and the write offset.
class Analysis {
public:
    Analysis(QvAgentModule *module, QvAgentParaState *state, uint8_t **paraBuf, va_list *args, uint8_t *scratch)
        : module_(module), state_(state), paraBuf_(paraBuf), args_(args), scratch_(scratch) {}

    // Renders one conversion and places its entry (a VRID only sets uiVrid).
    uint32_t Place(const qv::fmt::Conversion &conversion);
    uint32_t Offset() const { return offset_; }

private:
    uint32_t Grow(uint16_t length);

    QvAgentModule *module_;
    QvAgentParaState *state_;
    uint8_t **paraBuf_;
    va_list *args_;
    uint8_t *scratch_;
    uint32_t offset_ = 0;  // at most the hard limit, so it always fits the u16 offsets and lengths
};

// Grows only a buffer of the initial capacity: a caller's buffer of any other stated size is used as it
// is, within that size.
uint32_t Analysis::Grow(uint16_t length) {
    if (!MayGrow(*state_) || state_->uiBufSize != kInitialSize) return QV_AGENT_OK;
    return QV_Agent_IsRellocLogBuff(paraBuf_, static_cast<uint16_t>(offset_), length, &state_->uiBufSize,
                                    kGrownSize, kInitialSize, module_);
}

uint32_t Analysis::Place(const qv::fmt::Conversion &conversion) {
    const QvAgentFmtProcFn proc = QV_Agent_GetHandlerByType(conversion.at);
    if (proc == nullptr) return QV_AGENT_ERR_PARAM;
    uint16_t type = QV_FMT_PARA_NO_VALUE;
    // In: the argument mode; out: the value's length.
    uint16_t length = state_->uiObjType == QV_AGENT_OBJ_PLACEHOLDER ? QV_AGENT_PARA_MODE_PLACEHOLDER
                                                                    : QV_AGENT_PARA_MODE_VALUE;
    if (proc(args_, conversion.modifier, conversion.at, &type, &length, scratch_) != QV_AGENT_OK) {
        return QV_AGENT_ERR_PARAM;
    }
    if (proc == QV_Agent_ProcVRID) {
        state_->uiVrid = qv::bytes::LoadHost<uint32_t>(scratch_);
        return QV_AGENT_OK;
    }
    if (Grow(length) != QV_AGENT_OK) return QV_AGENT_ERR_PARAM;

    const Limits limits = LimitsOf(*state_);
    const uint32_t end = offset_ + QV_ENTRY_HEAD_LEN + length;
    uint8_t *entry = *paraBuf_ + offset_;
    if (end <= limits.soft) {
        const uint32_t room = state_->uiBufSize - offset_ - QV_ENTRY_HEAD_LEN;
        const uint32_t rc = qv::fmt::CopyBytes(entry + QV_ENTRY_HEAD_LEN, room, scratch_, length);
        if (rc != QV_AGENT_OK) return rc;
    } else if (end > limits.hard) {
        return QV_AGENT_ERR_PARAM;
    } else if (QV_Agent_ProcTypeParaString(type, length, limits.soft, offset_, &length, entry, state_, scratch_) !=
               QV_AGENT_OK) {
        return QV_AGENT_ERR_PARAM;
    }
    StoreHost<uint16_t>(entry + QV_ENTRY_TYPE_OFF, type);
    StoreHost<uint16_t>(entry + QV_ENTRY_LEN_OFF, length);
    offset_ += QV_ENTRY_HEAD_LEN + length;
    ++state_->uiParaNum;
    return QV_AGENT_OK;
}

}  // namespace

uint32_t QV_Agent_ParaAnalyse(QvAgentModule *module, QvAgentParaState *state, uint8_t **paraBuf,
                              const char *format, va_list *args) {
    if (state == nullptr || paraBuf == nullptr || *paraBuf == nullptr || format == nullptr || args == nullptr) {
        return QV_AGENT_ERR_PARAM;
    }
    const qv::AgentBlock scratch(qv::fmt::kScratchSize, module);  // the value scratch of this analysis
    if (scratch.get() == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    state->uiParaNum = 0;
    Analysis analysis(module, state, paraBuf, args, scratch.get());
    qv::fmt::FormatScanner scanner(format);
    qv::fmt::Conversion conversion;
    while (scanner.Next(&conversion)) {
        const uint32_t rc = analysis.Place(conversion);
        if (rc != QV_AGENT_OK) return rc;
    }
    state->uiParaLen = analysis.Offset();
    return QV_AGENT_OK;
}

// The object family's growth test, with one more case in which nothing is done: a new size of 0.
uint32_t QV_Agent_IsRellocLogBuff(uint8_t **buffer, uint16_t offset, uint16_t length, uint32_t *sizeOut,
                                  uint32_t newSize, uint32_t oldSize, QvAgentModule *module) {
    if (buffer == nullptr || *buffer == nullptr) return QV_AGENT_ERR_PARAM;
    if (newSize == 0) return QV_AGENT_OK;
    return QV_AGENT_IsRellocLogBuff(buffer, offset, length, sizeOut, newSize, oldSize, module);
}

uint32_t QV_Agent_ProcTypeParaString(uint16_t paraType, uint16_t length, uint32_t softLimit, uint32_t offset,
                                     uint16_t *lengthOut, uint8_t *entry, const QvAgentParaState *state,
                                     const uint8_t *scratch) {
    if (lengthOut == nullptr || entry == nullptr || state == nullptr || scratch == nullptr) return QV_AGENT_ERR_PARAM;
    if (uint64_t{offset} + QV_ENTRY_HEAD_LEN > state->uiBufSize) return QV_AGENT_ERR_NO_ROOM;
    uint16_t kept = length;
    if (paraType == QV_FMT_PARA_STRING) {
        const uint32_t cut = offset + QV_ENTRY_HEAD_LEN >= softLimit ? 1 : softLimit - offset - QV_ENTRY_HEAD_LEN;
        kept = static_cast<uint16_t>(std::min<uint32_t>(cut, length));
    }
    uint8_t *value = entry + QV_ENTRY_HEAD_LEN;
    const uint32_t rc = qv::fmt::CopyBytes(value, state->uiBufSize - offset - QV_ENTRY_HEAD_LEN, scratch, kept);
    if (rc != QV_AGENT_OK) return rc;
    if (paraType == QV_FMT_PARA_STRING && kept != 0) value[kept - 1] = 0;
    *lengthOut = kept;
    return QV_AGENT_OK;
}
