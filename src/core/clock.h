// The system clocks as the agent reads them, with a seam through which tests set the time.
#ifndef QV_CORE_CLOCK_H
#define QV_CORE_CLOCK_H

#include <ctime>

namespace qv::clock {

// Reads one clock as clock_gettime does: 0 on success.
using Reader = int (*)(clockid_t clock, timespec *now);

int Read(clockid_t clock, timespec *now);

// Replaces the clock reader (tests only); nullptr returns to clock_gettime.
void SetReader(Reader reader);

// Calendar date of a day count since 1970-01-01 (proleptic Gregorian, UTC).
struct CivilDate {
    int year;
    unsigned month;  // 1..12
    unsigned day;    // 1..31
};
CivilDate CivilFromDays(long days);

// The same, remembering the last day asked for: reports of one day share its conversion.
CivilDate DateOfDay(long days);

}  // namespace qv::clock

#endif
