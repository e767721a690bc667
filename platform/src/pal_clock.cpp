// Stand-in for the platform clock (PAL_SystimeGet, PAL_SystimeSecSince1970) and the test controls
// that inject a fixed time or a clock failure (QVPLAT_TestSetTime, QVPLAT_TestFailTime,
// QVPLAT_TestClearTime). Times are UTC; seconds since 1970 fit a u32, so dates run from 1970-01-01
// 00:00:00 to 2106-02-07 06:28:15.
#include <time.h>

#include <cstdint>
#include <ctime>
#include <mutex>

#include "qvplatform/pal.h"
#include "qvplatform_testctl.h"

namespace {

constexpr uint32_t kOk = 0;
constexpr uint32_t kFail = 1;

constexpr int64_t kSecondsPerDay = 86400;
constexpr uint32_t kEpochYear = 1970;

// What tests injected: a fixed time, a failing clock, or neither (the real clock).
struct Injection {
    std::mutex mutex;
    bool hasTime;
    bool fail;
    PAL_SYSTIME_S time;
};

constinit Injection g_injection{};

constexpr bool IsLeapYear(uint32_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

constexpr uint32_t DaysInMonth(uint32_t year, uint32_t month) {
    constexpr uint8_t kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Leap years in 1 .. year - 1.
constexpr int64_t LeapYearsBefore(uint32_t year) {
    const int64_t past = static_cast<int64_t>(year) - 1;
    return past / 4 - past / 100 + past / 400;
}

constexpr int64_t DaysSinceEpoch(uint32_t year, uint32_t month, uint32_t date) {
    int64_t days = 365 * (static_cast<int64_t>(year) - kEpochYear) + LeapYearsBefore(year) -
                   LeapYearsBefore(kEpochYear);
    for (uint32_t m = 1; m < month; ++m) {
        days += DaysInMonth(year, m);
    }
    return days + date - 1;
}
static_assert(DaysSinceEpoch(1970, 1, 1) == 0);
static_assert(DaysSinceEpoch(2000, 3, 1) == 11017);

constexpr bool IsValidTime(const PAL_SYSTIME_S &time) {
    return time.usYear >= kEpochYear && time.ucMonth >= 1 && time.ucMonth <= 12 && time.ucDate >= 1 &&
           time.ucDate <= DaysInMonth(time.usYear, time.ucMonth) && time.ucHour < 24 &&
           time.ucMinute < 60 && time.ucSecond < 60;
}

uint32_t ReadSystemClock(PAL_SYSTIME_S *time) {
    timespec now{};
    std::tm parts{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || gmtime_r(&now.tv_sec, &parts) == nullptr) {
        return kFail;
    }
    time->usYear = static_cast<uint16_t>(parts.tm_year + 1900);
    time->ucMonth = static_cast<uint8_t>(parts.tm_mon + 1);
    time->ucDate = static_cast<uint8_t>(parts.tm_mday);
    time->ucHour = static_cast<uint8_t>(parts.tm_hour);
    time->ucMinute = static_cast<uint8_t>(parts.tm_min);
    // A leap second is reported as the last ordinary second, so every answer converts back.
    time->ucSecond = static_cast<uint8_t>(parts.tm_sec < 60 ? parts.tm_sec : 59);
    time->ucWeek = static_cast<uint8_t>(parts.tm_wday);
    time->uiMillSec = static_cast<uint32_t>(now.tv_nsec / 1000000);
    return kOk;
}

}  // namespace

// Fills *time with the wall-clock time in UTC (weekday 0 = Sunday), or the time a test injected.
// Nonzero, leaving *time as it was, for null or while a test makes the clock fail.
extern "C" uint32_t PAL_SystimeGet(PAL_SYSTIME_S *time) {
    if (time == nullptr) {
        return kFail;
    }
    {
        const std::lock_guard lock(g_injection.mutex);
        if (g_injection.fail) {
            return kFail;
        }
        if (g_injection.hasTime) {
            *time = g_injection.time;
            return kOk;
        }
    }
    return ReadSystemClock(time);
}

// Converts a UTC time to seconds since 1970-01-01 00:00:00 into *seconds. The weekday and the
// milliseconds are not consulted. Nonzero, leaving *seconds as it was, for a null argument, a field
// out of its range (including a day the month does not have) or a time outside the u32 range.
extern "C" uint32_t PAL_SystimeSecSince1970(const PAL_SYSTIME_S *time, uint32_t *seconds) {
    if (time == nullptr || seconds == nullptr || !IsValidTime(*time)) {
        return kFail;
    }
    const int64_t total = DaysSinceEpoch(time->usYear, time->ucMonth, time->ucDate) * kSecondsPerDay +
                          time->ucHour * 3600 + time->ucMinute * 60 + time->ucSecond;
    if (total > static_cast<int64_t>(UINT32_MAX)) {
        return kFail;
    }
    *seconds = static_cast<uint32_t>(total);
    return kOk;
}

// Makes PAL_SystimeGet answer *time, exactly as given, until cleared; null returns to the real clock.
extern "C" void QVPLAT_TestSetTime(const PAL_SYSTIME_S *time) {
    const std::lock_guard lock(g_injection.mutex);
    g_injection.hasTime = time != nullptr;
    if (time != nullptr) {
        g_injection.time = *time;
    }
}

// While fail is nonzero PAL_SystimeGet fails; 0 returns to the injected time or the real clock.
extern "C" void QVPLAT_TestFailTime(uint32_t fail) {
    const std::lock_guard lock(g_injection.mutex);
    g_injection.fail = fail != 0;
}

// Drops any injected time or failure: PAL_SystimeGet reads the real clock again.
extern "C" void QVPLAT_TestClearTime(void) {
    const std::lock_guard lock(g_injection.mutex);
    g_injection.hasTime = false;
    g_injection.fail = false;
}
