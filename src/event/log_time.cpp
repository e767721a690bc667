// The time of a log record: UTC wall time broken down with milliseconds, and the monotonic clock in
// milliseconds, as the 20-byte system time that log record heads carry.
#include <cstring>

#include "core/bytes.h"
#include "core/clock.h"
#include "event/record_entry.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_wire.h"

namespace {

using qv::bytes::StoreHost;

constexpr long kSecondsPerDay = 86400;
constexpr long kNanosPerMilli = 1000000;
constexpr uint64_t kMillisPerSecond = 1000;
constexpr long kThursday = 4;  // 1970-01-01

bool ReadWallTime(QvAgentSysTime *time) {
    timespec now{};
    if (qv::clock::Read(CLOCK_REALTIME, &now) != 0) return false;
    long days = now.tv_sec / kSecondsPerDay;
    long secondOfDay = now.tv_sec % kSecondsPerDay;
    if (secondOfDay < 0) {
        secondOfDay += kSecondsPerDay;
        --days;
    }
    const qv::clock::CivilDate date = qv::clock::DateOfDay(days);
    time->usYear = static_cast<uint16_t>(date.year);
    time->ucMonth = static_cast<uint8_t>(date.month);
    time->ucDay = static_cast<uint8_t>(date.day);
    time->ucHour = static_cast<uint8_t>(secondOfDay / 3600);
    time->ucMinute = static_cast<uint8_t>(secondOfDay / 60 % 60);
    time->ucSecond = static_cast<uint8_t>(secondOfDay % 60);
    time->ucWeekDay = static_cast<uint8_t>(((days + kThursday) % 7 + 7) % 7);
    time->uiMilliSec = static_cast<uint32_t>(now.tv_nsec / kNanosPerMilli);
    return true;
}

bool ReadMonotonic(QvAgentSysTime *time) {
    timespec now{};
    if (qv::clock::Read(CLOCK_MONOTONIC, &now) != 0) return false;
    const uint64_t ms = static_cast<uint64_t>(now.tv_sec) * kMillisPerSecond +
                        static_cast<uint64_t>(now.tv_nsec / kNanosPerMilli);
    time->uiMonoMsHigh = static_cast<uint32_t>(ms >> 32);
    time->uiMonoMsLow = static_cast<uint32_t>(ms);
    return true;
}

}  // namespace

uint32_t QV_AGENT_GMT_SystimeGet(QvAgentSysTime *time) {
    if (time == nullptr) return QV_AGENT_ERR_PARAM;
    // An unreadable wall clock leaves the whole time as it was.
    return ReadWallTime(time) && ReadMonotonic(time) ? QV_AGENT_OK : QV_AGENT_ERR_FAILED;
}

void QV_AGENT_SetLogtime(uint8_t *record, const QvAgentSysTime *time) {
    if (record == nullptr || time == nullptr) return;
    uint8_t *at = record + QV_LOG_TIME_OFF;
    qv::record::StoreWallTime(at, *time, time->ucWeekDay);
    StoreHost<uint32_t>(at + QV_TIME_MONO_HIGH_OFF, time->uiMonoMsHigh);
    StoreHost<uint32_t>(at + QV_TIME_MONO_LOW_OFF, time->uiMonoMsLow);
}
