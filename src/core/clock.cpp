// The system clocks as the agent reads them, and the conversion of a day count to a calendar date
// (done arithmetically: the C library's conversion takes a process-wide lock on every call).
#include "core/clock.h"

#include <atomic>
#include <cstdint>

namespace qv::clock {

namespace {
std::atomic<Reader> g_reader{&::clock_gettime};
}

int Read(clockid_t clock, timespec *now) { return g_reader.load(std::memory_order_relaxed)(clock, now); }

void SetReader(Reader reader) { g_reader.store(reader != nullptr ? reader : &::clock_gettime); }

CivilDate CivilFromDays(long days) {
    // Count in 400-year eras starting on 1 March 0000, so that the leap day ends each year.
    constexpr long kDaysPerEra = 146097;
    days += 719468;  // 1970-01-01 is day 719468 from 0000-03-01
    const long era = (days >= 0 ? days : days - kDaysPerEra + 1) / kDaysPerEra;
    const long dayOfEra = days - era * kDaysPerEra;
    const long yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long monthIndex = (5 * dayOfYear + 2) / 153;  // 0 = March
    const auto day = static_cast<unsigned>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
    const auto month = static_cast<unsigned>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
    const long year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    return CivilDate{static_cast<int>(year), month, day};
}

CivilDate DateOfDay(long days) {
    // One word holds the day count (low 32 bits) and its date, so a reader never sees a mixed pair.
    static std::atomic<uint64_t> lastDay{0};
    constexpr uint64_t kValid = 1ull << 63;
    const uint64_t seen = lastDay.load(std::memory_order_relaxed);
    if ((seen & kValid) != 0 && static_cast<uint32_t>(seen) == static_cast<uint32_t>(days)) {
        return CivilDate{static_cast<int>((seen >> 32) & 0xFFFF), static_cast<unsigned>((seen >> 48) & 0xF),
                         static_cast<unsigned>((seen >> 52) & 0x1F)};
    }
    const CivilDate date = CivilFromDays(days);
    if (date.year >= 0 && date.year <= 0xFFFF) {
        lastDay.store(kValid | (uint64_t{date.day} << 52) | (uint64_t{date.month} << 48) |
                          (static_cast<uint64_t>(date.year) << 32) | static_cast<uint32_t>(days),
                      std::memory_order_relaxed);
    }
    return date;
}

}  // namespace qv::clock
