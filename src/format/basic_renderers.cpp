// The basic renderers, chosen by conversion character through the format-type table: character,
// string, hex, signed and unsigned integers of three widths, block and float.
#include <array>
#include <cstring>

#include "core/bytes.h"
#include "format/render_common.h"
#include "qvagent/qv_agent_log.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/qv_bounded.h"

namespace {

using qv::fmt::ArgMode;
using qv::fmt::ModeOf;
using qv::fmt::RenderFixed;
using qv::fmt::ValidCall;

constexpr uint8_t kModShort = 'h';
constexpr uint8_t kModLong = 'l';

// Strings: the longest text kept, and the placeholder written when no argument is read.
constexpr size_t kStringMaxChars = qv::fmt::kScratchSize - 1;
constexpr char kStringPlaceholder[] = "SimulateStringData";

// Blocks: the largest length field accepted, and the placeholder block (its u16 length, then zeros).
constexpr uint32_t kBlockMaxLen = qv::fmt::kScratchSize;
constexpr uint16_t kBlockPlaceholderLen = 40;

}  // namespace

uint32_t QV_Agent_ProcChar(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch) {
    return RenderFixed<int, uint8_t>(args, QV_FMT_PARA_CHAR, paraType, modeLen, scratch);
}

// Modes 0 and 2 both take the text's pointer; a null one is refused. Text longer than the scratch
// allows is cut and terminated.
uint32_t QV_Agent_ProcString(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                             uint16_t *modeLen, uint8_t *scratch) {
    if (!ValidCall(args, paraType, modeLen, scratch)) return QV_AGENT_ERR_PARAM;
    const char *text = kStringPlaceholder;
    if (ModeOf(*modeLen) != ArgMode::kPlaceholder) {
        text = va_arg(*args, const char *);
        if (text == nullptr) return QV_AGENT_ERR_PARAM;
    }
    const size_t chars = strnlen(text, kStringMaxChars);
    *paraType = QV_FMT_PARA_STRING;
    *modeLen = static_cast<uint16_t>(chars + 1);
    return static_cast<uint32_t>(
        strncpy_s(reinterpret_cast<char *>(scratch), qv::fmt::kScratchSize, text, chars));
}

// The modifier is ignored, but an 'l' argument is taken whole so that its low 32 bits are kept.
uint32_t QV_Agent_ProcHex(va_list *args, uint8_t modifier, const char * /*conversion*/, uint16_t *paraType,
                          uint16_t *modeLen, uint8_t *scratch) {
    if (modifier == kModLong) {
        return RenderFixed<uint64_t, uint32_t>(args, QV_FMT_PARA_HEX, paraType, modeLen, scratch);
    }
    return RenderFixed<unsigned int, uint32_t>(args, QV_FMT_PARA_HEX, paraType, modeLen, scratch);
}

// A 16-bit value given by value arrives as an int; its low 16 bits are kept.
uint32_t QV_Agent_ProcInt(va_list *args, uint8_t modifier, const char * /*conversion*/, uint16_t *paraType,
                          uint16_t *modeLen, uint8_t *scratch) {
    switch (modifier) {
    case kModShort:
        return RenderFixed<int, int16_t>(args, QV_FMT_PARA_I16, paraType, modeLen, scratch);
    case kModLong:
        return RenderFixed<int64_t, int64_t>(args, QV_FMT_PARA_I64, paraType, modeLen, scratch);
    default:
        return RenderFixed<int, int32_t>(args, QV_FMT_PARA_I32, paraType, modeLen, scratch);
    }
}

uint32_t QV_Agent_ProcUInt(va_list *args, uint8_t modifier, const char * /*conversion*/, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch) {
    switch (modifier) {
    case kModShort:
        return RenderFixed<unsigned int, uint16_t>(args, QV_FMT_PARA_U16, paraType, modeLen, scratch);
    case kModLong:
        return RenderFixed<uint64_t, uint64_t>(args, QV_FMT_PARA_U64, paraType, modeLen, scratch);
    default:
        return RenderFixed<unsigned int, uint32_t>(args, QV_FMT_PARA_U32, paraType, modeLen, scratch);
    }
}

// Only mode 0 takes a block; every other mode writes the placeholder block and takes nothing.
uint32_t QV_Agent_ProcBlock(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                            uint16_t *modeLen, uint8_t *scratch) {
    if (!ValidCall(args, paraType, modeLen, scratch)) return QV_AGENT_ERR_PARAM;
    if (ModeOf(*modeLen) != ArgMode::kValue) {
        std::array<uint8_t, kBlockPlaceholderLen> placeholder{};
        qv::bytes::StoreHost<uint16_t>(placeholder.data() + QV_FMT_BLOCK_LEN_OFF, kBlockPlaceholderLen);
        *paraType = QV_FMT_PARA_BLOCK;
        return qv::fmt::WriteValue(scratch, placeholder.data(), kBlockPlaceholderLen, modeLen);
    }
    const auto *block = static_cast<const uint8_t *>(qv::fmt::TakePointer(args));
    if (block == nullptr) return QV_AGENT_ERR_PARAM;
    const uint16_t blockLen = qv::bytes::LoadHost<uint16_t>(block + QV_FMT_BLOCK_LEN_OFF);
    if (blockLen > kBlockMaxLen) return QV_AGENT_ERR_NO_ROOM;
    *paraType = QV_FMT_PARA_BLOCK;
    return qv::fmt::WriteValue(scratch, block, blockLen, modeLen);
}

// Takes no argument (a float is not carried): an empty value with its own type code, in every mode.
uint32_t QV_Agent_ProcFloat(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                            uint16_t *modeLen, uint8_t *scratch) {
    if (!ValidCall(args, paraType, modeLen, scratch)) return QV_AGENT_ERR_PARAM;
    *paraType = QV_FMT_PARA_NO_VALUE;
    *modeLen = 0;
    return QV_AGENT_OK;
}
