// Option and parameter entries, shared by log and alarm records.
#include "event/record_entry.h"

#include <cstring>

#include "qvagent/qv_agent_types.h"
#include "qvplatform/qv_bounded.h"

namespace qv::record {

uint32_t WriteOption(uint8_t *at, size_t room, uint32_t type, uint16_t len, const void *value) {
    if (len != 0) {
        const qv_errno_t rc = memcpy_s(at + QV_ENTRY_HEAD_LEN, room, value, len);
        if (rc != QV_EOK) return static_cast<uint32_t>(rc);
    }
    bytes::StoreHost<uint16_t>(at + QV_ENTRY_TYPE_OFF, static_cast<uint16_t>(type));
    bytes::StoreHost<uint16_t>(at + QV_ENTRY_LEN_OFF, len);
    return QV_AGENT_OK;
}

uint32_t WriteParameter(uint8_t *at, size_t room, uint32_t type, uint16_t len, const void *value) {
    static constexpr uint8_t kEmptyValue = 0;
    return len == 0 ? WriteOption(at, room, type, 1, &kEmptyValue) : WriteOption(at, room, type, len, value);
}

void CutText(uint32_t type, uint16_t &len, void *value, uint16_t max) {
    if (type != QV_PARA_TYPE_TEXT || len <= max) return;
    len = max;
    static_cast<uint8_t *>(value)[max - 1] = 0;
}

void StoreWallTime(uint8_t *at, const QvAgentSysTime &time, uint8_t weekdayByte) {
    bytes::StoreHost<uint16_t>(at + QV_TIME_YEAR_OFF, time.usYear);
    at[QV_TIME_MONTH_OFF] = time.ucMonth;
    at[QV_TIME_DAY_OFF] = time.ucDay;
    at[QV_TIME_HOUR_OFF] = time.ucHour;
    at[QV_TIME_MINUTE_OFF] = time.ucMinute;
    at[QV_TIME_SECOND_OFF] = time.ucSecond;
    at[QV_TIME_WEEKDAY_OFF] = weekdayByte;
    bytes::StoreHost<uint32_t>(at + QV_TIME_MS_OFF, time.uiMilliSec);
}

uint32_t AppendParas(uint8_t *record, const uint8_t *para) {
    const uint32_t recordLen = Length(record);
    const uint32_t paraBytes = ParaUsed(para) - kParaHeadLen;
    if (recordLen + paraBytes > QV_REC_NOMINAL_CAPACITY) return QV_AGENT_ERR_NO_ROOM;
    std::memcpy(record + recordLen, para + kParaHeadLen, paraBytes);
    SetLength(record, recordLen + paraBytes);
    return QV_AGENT_OK;
}

}  // namespace qv::record
