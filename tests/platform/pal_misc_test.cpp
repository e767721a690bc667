// Tests of the stand-in's clock and string helpers.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "qvplatform/pal.h"
#include "qvplatform_testctl.h"

namespace {

PAL_SYSTIME_S Time(uint16_t year, uint8_t month, uint8_t date, uint8_t hour, uint8_t minute, uint8_t second) {
    return PAL_SYSTIME_S{year, month, date, hour, minute, second, 3, 999};
}

struct PalClock : testing::Test {
    void TearDown() override { QVPLAT_TestClearTime(); }
};

TEST_F(PalClock, InjectedTimeIsReadBackAndConvertedWithinTheCalendarOnly) {
    constexpr uint64_t kRefused = ~0ull;
    const struct { PAL_SYSTIME_S time; uint64_t seconds; } cases[] = {
        {Time(1970, 1, 1, 0, 0, 0), 0},              {Time(1970, 1, 2, 0, 0, 1), 86401},
        {Time(2000, 2, 29, 0, 0, 0), 951782400},     {Time(2024, 2, 29, 12, 34, 56), 1709210096},
        {Time(2026, 12, 31, 23, 59, 59), 1798761599}, {Time(2106, 2, 7, 6, 28, 15), 4294967295u},
        {Time(1969, 12, 31, 23, 59, 59), kRefused},  {Time(2106, 2, 7, 6, 28, 16), kRefused},
        {Time(2023, 2, 29, 0, 0, 0), kRefused},      {Time(2100, 2, 29, 0, 0, 0), kRefused},
        {Time(2024, 4, 31, 0, 0, 0), kRefused},      {Time(2024, 0, 1, 0, 0, 0), kRefused},
        {Time(2024, 13, 1, 0, 0, 0), kRefused},      {Time(2024, 1, 0, 0, 0, 0), kRefused},
        {Time(2024, 1, 1, 24, 0, 0), kRefused},      {Time(2024, 1, 1, 0, 60, 0), kRefused},
        {Time(2024, 1, 1, 0, 0, 60), kRefused},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        QVPLAT_TestSetTime(&c.time);
        PAL_SYSTIME_S read{};
        ASSERT_EQ(PAL_SystimeGet(&read), 0u);
        EXPECT_EQ(std::memcmp(&read, &c.time, sizeof read), 0);
        uint32_t seconds = 77;
        EXPECT_EQ(PAL_SystimeSecSince1970(&read, &seconds) == 0, c.seconds != kRefused);
        EXPECT_EQ(seconds, c.seconds != kRefused ? c.seconds : 77u);
    }
    uint32_t seconds = 0;
    EXPECT_NE(PAL_SystimeSecSince1970(nullptr, &seconds), 0u);
    EXPECT_NE(PAL_SystimeSecSince1970(&cases[0].time, nullptr), 0u);
}

TEST_F(PalClock, RealClockAgreesWithTheSystemAndFailureIsInjectable) {
    PAL_SYSTIME_S now{};
    uint32_t seconds = 0;
    const auto before = static_cast<int64_t>(std::time(nullptr));
    ASSERT_EQ(PAL_SystimeGet(&now), 0u);
    ASSERT_EQ(PAL_SystimeSecSince1970(&now, &seconds), 0u);
    EXPECT_LE(std::llabs(static_cast<int64_t>(seconds) - before), 2);
    EXPECT_EQ(now.ucWeek, (seconds / 86400 + 4) % 7);  // 1970-01-01 was a Thursday
    EXPECT_LT(now.uiMillSec, 1000u);
    QVPLAT_TestFailTime(1);
    EXPECT_NE(PAL_SystimeGet(&now), 0u);
}

TEST(PalString, SearchAndTotalOrderWithNulls) {
    const char haystack[] = "abc\xE9xyz";
    EXPECT_EQ(PAL_StrStr(haystack, "xy"), haystack + 4);
    EXPECT_EQ(PAL_StrStr(haystack, ""), haystack);
    EXPECT_EQ(PAL_StrStr(haystack, "xz"), nullptr);
    EXPECT_EQ(PAL_StrStr(nullptr, "a"), nullptr);
    EXPECT_EQ(PAL_StrStr(haystack, nullptr), nullptr);
    // Bytes above 0x7F sort after ASCII on every target, whatever the sign of char.
    const struct { const char *a, *b; int32_t order; } strings[] = {
        {"abc", "abc", 0}, {"abc", "abd", -1},    {"abd", "abc", 1},  {"ab", "abc", -1},
        {"\xE9", "z", 1},  {nullptr, nullptr, 0}, {nullptr, "", -1}, {"", nullptr, 1}};
    for (const auto &c : strings) EXPECT_EQ(PAL_StrCmp(c.a, c.b), c.order) << "case " << &c - strings;
    const unsigned char low[4] = {1, 2, 3, 0x10}, high[4] = {1, 2, 3, 0xF0};
    const struct { const void *a, *b; uint32_t len; int32_t order; } blocks[] = {
        {low, high, 4, -1},    {high, low, 4, 1},    {low, high, 3, 0},      {low, high, 0, 0},
        {nullptr, low, 4, -1}, {low, nullptr, 0, 1}, {nullptr, nullptr, 4, 0}};
    for (const auto &c : blocks) EXPECT_EQ(PAL_MemCmp(c.a, c.b, c.len), c.order) << "case " << &c - blocks;
}

}  // namespace
