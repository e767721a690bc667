// The named renderers, for conversions written '%', '_' and a type name: IPv4 and IPv6 addresses, MAC
// address, date and time, VRID/VSID, and raw values of a size written in the format ('T'). Values are
// copied byte for byte; nothing is turned into text here.
#include <cstring>

#include "format/render_common.h"
#include "qvagent/qv_agent_log.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/qv_bounded.h"

namespace {

using qv::fmt::RenderFixed;

// A 'T' conversion: "_T", one character that is not looked at, then the size's digits.
constexpr size_t kSizeDigitsAt = 3;
constexpr size_t kSizeDigitsMax = 3;
// Room of the copy of a sized value; three digits can never ask for more.
constexpr uint32_t kSizedValueRoom = 8192;
static_assert(kSizedValueRoom <= qv::fmt::kScratchSize, "a sized value fits the scratch");
constexpr uint32_t kSizeLargest = 999;  // three digits
static_assert(kSizeLargest <= kSizedValueRoom, "every size the format can write fits the room");

// The scan that QV_Agent_atoul accepts: at most this many characters.
constexpr size_t kAtoulMaxChars = 10;

constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// The number of digits of the size, or QV_AGENT_ERR_FMT_NO_SIZE when the conversion ends before the
// size's position or has no digit there.
uint32_t SizeDigits(const char *conversion, size_t *digits) {
    for (size_t i = 1; i <= kSizeDigitsAt; ++i) {
        if (conversion[i] == '\0') return QV_AGENT_ERR_FMT_NO_SIZE;
    }
    const char *at = conversion + kSizeDigitsAt;
    if (!IsDigit(*at)) return QV_AGENT_ERR_FMT_NO_SIZE;
    size_t count = 0;
    while (count <= kSizeDigitsMax && IsDigit(at[count])) ++count;
    if (count > kSizeDigitsMax) return QV_AGENT_ERR_NO_ROOM;
    *digits = count;
    return QV_AGENT_OK;
}

}  // namespace

uint32_t QV_Agent_ProcIPV4(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch) {
    return RenderFixed<uint32_t, uint32_t>(args, QV_FMT_PARA_IPV4, paraType, modeLen, scratch);
}

uint32_t QV_Agent_ProcIPV6(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch) {
    return RenderFixed<QvAgentIpv6Value, QvAgentIpv6Value>(args, QV_FMT_PARA_IPV6, paraType, modeLen, scratch);
}

uint32_t QV_Agent_ProcMAC(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                          uint16_t *modeLen, uint8_t *scratch) {
    return RenderFixed<QvAgentMacValue, QvAgentMacValue>(args, QV_FMT_PARA_MAC, paraType, modeLen, scratch);
}

uint32_t QV_Agent_ProcDateTime(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                               uint16_t *modeLen, uint8_t *scratch) {
    return RenderFixed<QvAgentDateTimeValue, QvAgentDateTimeValue>(args, QV_FMT_PARA_DATETIME, paraType, modeLen,
                                                                   scratch);
}

uint32_t QV_Agent_ProcVRID(va_list *args, uint8_t /*modifier*/, const char * /*conversion*/, uint16_t *paraType,
                           uint16_t *modeLen, uint8_t *scratch) {
    return RenderFixed<uint32_t, uint32_t>(args, QV_FMT_PARA_U32, paraType, modeLen, scratch);
}

// The size is read from the format; in placeholder mode the value is that many zeros, otherwise the
// argument points at it (a null pointer is refused).
uint32_t QV_Agent_ProcNomalType(va_list *args, uint8_t /*modifier*/, const char *conversion, uint16_t *paraType,
                                uint16_t *modeLen, uint8_t *scratch) {
    if (!qv::fmt::ValidCall(args, paraType, modeLen, scratch) || conversion == nullptr) return QV_AGENT_ERR_PARAM;
    size_t digits = 0;
    const uint32_t rc = SizeDigits(conversion, &digits);
    if (rc != QV_AGENT_OK) return rc;
    char sizeText[kSizeDigitsMax + 1] = {};
    const qv_errno_t copyRc = strncpy_s(sizeText, sizeof sizeText, conversion + kSizeDigitsAt, digits);
    if (copyRc != QV_EOK) return static_cast<uint32_t>(copyRc);
    const auto size = static_cast<uint16_t>(QV_Agent_atoul(sizeText));

    if (qv::fmt::ModeOf(*modeLen) == qv::fmt::ArgMode::kPlaceholder) {
        *paraType = QV_FMT_PARA_SIZED;
        *modeLen = size;
        return static_cast<uint32_t>(memset_s(scratch, kSizedValueRoom, 0, size));
    }
    const void *value = qv::fmt::TakePointer(args);
    if (value == nullptr) return QV_AGENT_ERR_PARAM;
    *paraType = QV_FMT_PARA_SIZED;
    *modeLen = size;
    return qv::fmt::CopyBytes(scratch, kSizedValueRoom, value, size);
}

uint32_t QV_Agent_atoul(const char *text) {
    if (text == nullptr || strnlen(text, kAtoulMaxChars + 1) > kAtoulMaxChars) return 0;
    unsigned int value = 0;
    return sscanf_s(text, "%u", &value) == 1 ? value : 0;
}
