// What the renderers share: the argument modes, the checks of a renderer call, taking an argument by
// value or through a pointer, and bounded writes of a value into the value scratch.
#ifndef QV_FORMAT_RENDER_COMMON_H
#define QV_FORMAT_RENDER_COMMON_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "qvagent/qv_agent_log.h"
#include "qvagent/qv_agent_types.h"
#include "qvplatform/qv_bounded.h"

namespace qv::fmt {

constexpr uint32_t kScratchSize = QV_AGENT_PARA_SCRATCH_SIZE;

enum class ArgMode { kValue, kPlaceholder, kReference };

// Any mode other than by value and by reference acts as placeholder mode.
constexpr ArgMode ModeOf(uint16_t mode) {
    if (mode == QV_AGENT_PARA_MODE_VALUE) return ArgMode::kValue;
    if (mode == QV_AGENT_PARA_MODE_REFERENCE) return ArgMode::kReference;
    return ArgMode::kPlaceholder;
}

// The pointers that every renderer uses.
inline bool ValidCall(va_list *args, const uint16_t *paraType, const uint16_t *modeLen, const uint8_t *scratch) {
    return args != nullptr && paraType != nullptr && modeLen != nullptr && scratch != nullptr;
}

// A bounded copy that accepts an empty value (the bounded copy refuses a room of 0, which an empty
// value at the very end of a buffer has). 0 or the copy's error.
inline uint32_t CopyBytes(uint8_t *dest, size_t room, const void *src, size_t len) {
    if (len == 0) return QV_AGENT_OK;
    return static_cast<uint32_t>(memcpy_s(dest, room, src, len));
}

// Reports len as the value length and copies the value to the start of the scratch.
inline uint32_t WriteValue(uint8_t *scratch, const void *value, uint16_t len, uint16_t *modeLen) {
    *modeLen = len;
    return CopyBytes(scratch, kScratchSize, value, len);
}

// The next argument as a pointer to the value to read.
inline const void *TakePointer(va_list *args) { return va_arg(*args, const void *); }

// A value of fixed size: Stored's bytes, taken as an Arg by value (mode 0, converted to Stored),
// read through a pointer (mode 2), or zero (placeholder). A null pointer is refused, not read.
template <typename Arg, typename Stored>
uint32_t RenderFixed(va_list *args, uint16_t code, uint16_t *paraType, uint16_t *modeLen, uint8_t *scratch) {
    if (!ValidCall(args, paraType, modeLen, scratch)) return QV_AGENT_ERR_PARAM;
    Stored value{};
    switch (ModeOf(*modeLen)) {
    case ArgMode::kValue:
        value = static_cast<Stored>(va_arg(*args, Arg));
        break;
    case ArgMode::kReference: {
        const void *from = TakePointer(args);
        if (from == nullptr) return QV_AGENT_ERR_PARAM;
        std::memcpy(&value, from, sizeof value);
        break;
    }
    case ArgMode::kPlaceholder:
        break;
    }
    *paraType = code;
    return WriteValue(scratch, &value, sizeof value, modeLen);
}

}  // namespace qv::fmt

#endif
