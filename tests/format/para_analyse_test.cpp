// The format analyser: the grammar, the entries it writes byte for byte, the caller's argument list
// it leaves behind, the limits and the one growth of the parameter buffer, allocation failure.
#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <string>

#include "format_support.h"

namespace {

using namespace fmttest;

static_assert(std::endian::native == std::endian::little, "expectations are little-endian bytes");

constexpr uint32_t kLog = 4;  // an ordinary log kind: its buffer may grow
constexpr uint32_t kAlarm = QV_AGENT_OBJ_ALARM;
constexpr uint32_t kErr = 0x801701;  // every failure of an analysis but a missing scratch
constexpr uint32_t kInitial = QV_AGENT_PARA_BUF_SIZE;
constexpr uint32_t kGrown = QV_AGENT_PARA_BUF_GROWN_SIZE;

class FormatAnalyser : public FormatTest {};

Bytes Ints(int count) {  // the entries of the ints 1, 2, ... count
    Bytes out;
    for (int i = 1; i <= count; ++i) out = Concat({out, Entry(QV_FMT_PARA_I32, HostBytes(i))});
    return out;
}

struct Case {
    const char *name;
    std::function<Analysed()> run;
    uint32_t rc;
    uint32_t paraNum;  // entries counted, also on failure
    Bytes para;        // on success
    uint32_t bufSize;
};

Analysed Check(const Case &c) {
    SCOPED_TRACE(c.name);
    const Analysed a = c.run();
    EXPECT_EQ(a.rc, c.rc);
    EXPECT_EQ(a.state.uiParaNum, c.paraNum);
    EXPECT_EQ(a.state.uiBufSize, c.bufSize);
    if (c.rc != QV_AGENT_OK) {
        EXPECT_EQ(a.state.uiParaLen, kUntouched) << "uiParaLen is set on success only";
        return a;
    }
    EXPECT_EQ(a.state.uiParaLen, c.para.size());
    EXPECT_TRUE(a.para == c.para) << "entries differ";
    EXPECT_EQ(a.next, kEnd) << "the caller's list stands right after the last argument taken";
    return a;
}

TEST_F(FormatAnalyser, GrammarYieldsOneEntryPerConversion) {
    static const std::string f65534 = "%d" + std::string(65532, 'x'), f65535 = f65534 + 'x';
    const Case cases[] = {
        {"%d with 5", [] { return Analyse(kLog, "%d", 5, kEnd); }, 0, 1, {4, 0, 4, 0, 5, 0, 0, 0}, kInitial},
        {"flags, width and precision are read and ignored", [] { return Analyse(kLog, "%-08.3ld", int64_t{5}, kEnd); },
         0, 1, {2, 0, 8, 0, 5, 0, 0, 0, 0, 0, 0, 0}, kInitial},
        {"literal text is dropped, entries keep their order",
         [] { return Analyse(kLog, "port %u is %s", 7u, "down", kEnd); }, 0, 2,
         Concat({Entry(QV_FMT_PARA_U32, {7, 0, 0, 0}), Entry(QV_FMT_PARA_STRING, Text("down"))}), kInitial},
        {"a type name is followed by literal text", [] { return Analyse(kLog, "%_ipv4x", 0xC0A80001u, kEnd); }, 0, 1,
         {17, 0, 4, 0, 0x01, 0x00, 0xA8, 0xC0}, kInitial},
        {"format ends after '%'", [] { return Analyse(kLog, "value %", kEnd); }, 0, 0, {}, kInitial},
        {"format ends in the precision", [] { return Analyse(kLog, "%5.", kEnd); }, 0, 0, {}, kInitial},
        {"65534 characters are read", [] { return Analyse(kLog, f65534.c_str(), 5, kEnd); }, 0, 1,
         {4, 0, 4, 0, 5, 0, 0, 0}, kInitial},
        {"65535 characters: the count wraps, nothing is read", [] { return Analyse(kLog, f65535.c_str(), kEnd); }, 0, 0,
         {}, kInitial},
        {"placeholder kind takes no argument", [] { return Analyse(QV_AGENT_OBJ_PLACEHOLDER, "%d%s", kEnd); }, 0, 2,
         Concat({{4, 0, 4, 0, 0, 0, 0, 0}, Entry(QV_FMT_PARA_STRING, Text("SimulateStringData"))}), kInitial},
        {"%%", [] { return Analyse(kLog, "%%", kEnd); }, kErr, 0, {}, kInitial},
        {"%*d", [] { return Analyse(kLog, "%*d", 3, 5, kEnd); }, kErr, 0, {}, kInitial},
        {"%lld", [] { return Analyse(kLog, "%lld", 5LL, kEnd); }, kErr, 0, {}, kInitial},
        {"%q", [] { return Analyse(kLog, "%q", kEnd); }, kErr, 0, {}, kInitial},
        {"%_foo", [] { return Analyse(kLog, "%_foo", kEnd); }, kErr, 0, {}, kInitial},
        {"a renderer's failure after an entry", [] { return Analyse(kLog, "%d%_T", 1, kEnd); }, kErr, 1, {}, kInitial},
    };
    for (const Case &c : cases) Check(c);
    const Case vrid = {"%_VRID with 7", [] { return Analyse(kLog, "%_VRID", 7u, kEnd); }, 0, 0, {}, kInitial};
    EXPECT_EQ(Check(vrid).state.uiVrid, 7u) << "a VRID is kept in the state, not as an entry";
}

// Entries end at most at 2048 before the one growth to 9216; after it they are placed whole up to
// 8192, strings are cut to end there, other entries are placed whole up to 9216. Alarms never grow.
TEST_F(FormatAnalyser, LimitsAndGrowthOfTheParameterBuffer) {
    static const std::string a2043(2043, 'a'), a2044(2044, 'a'), a3000(3000, 'a'), a8187(8187, 'a'),
        a8188(8188, 'a'), a9211(9211, 'a'), a9212(9212, 'a');
    const Bytes cut = Entry(QV_FMT_PARA_STRING, Text(a8187));  // 8192 bytes, length 8188
    const Case cases[] = {
        {"growth keeps the entries before it", [] { return Analyse(kLog, "%d%s", 1, a3000.c_str(), kEnd); }, 0, 2,
         Concat({Ints(1), Entry(QV_FMT_PARA_STRING, Text(a3000))}), kGrown},
        {"8187 characters whole", [] { return Analyse(kLog, "%s", a8187.c_str(), kEnd); }, 0, 1, cut, kGrown},
        {"8188 characters cut", [] { return Analyse(kLog, "%s", a8188.c_str(), kEnd); }, 0, 1, cut, kGrown},
        {"9211 characters cut", [] { return Analyse(kLog, "%s", a9211.c_str(), kEnd); }, 0, 1, cut, kGrown},
        {"9212 characters pass 9216", [] { return Analyse(kLog, "%s", a9212.c_str(), kEnd); }, kErr, 0, {}, kGrown},
        {"a string at the cut is one zero byte", [] { return Analyse(kLog, "%s%s", a8188.c_str(), "x", kEnd); }, 0, 2,
         Concat({cut, Entry(QV_FMT_PARA_STRING, {0})}), kGrown},
        {"128 ints after a cut string fill 9216", [] { return AnalyseInts<128>(kLog, "%s", a8188.c_str()); }, 0, 129,
         Concat({cut, Ints(128)}), kGrown},
        {"a 129th passes 9216", [] { return AnalyseInts<129>(kLog, "%s", a8188.c_str()); }, kErr, 129, {}, kGrown},
        {"256 ints fill 2048 without growth", [] { return AnalyseInts<256>(kLog, ""); }, 0, 256, Ints(256), kInitial},
        {"a 257th cannot grow a full buffer", [] { return AnalyseInts<257>(kLog, ""); }, kErr, 256, {}, kInitial},
        {"alarm: a string ending at 2048", [] { return Analyse(kAlarm, "%s", a2043.c_str(), kEnd); }, 0, 1,
         Entry(QV_FMT_PARA_STRING, Text(a2043)), kInitial},
        {"alarm: one byte more", [] { return Analyse(kAlarm, "%s", a2044.c_str(), kEnd); }, kErr, 0, {}, kInitial},
    };
    for (const Case &c : cases) Check(c);
}

// The scratch is the first allocation of an analysis, the grown buffer the second. Without the
// scratch the analysis has no memory; a failed growth fails it. Either way the caller's buffer stays
// in place at its size, and the teardown finds nothing else left allocated.
TEST_F(FormatAnalyser, SurvivesFailureOfEachAllocation) {
    const std::string text(3000, 't');
    const uint32_t expected[] = {QV_AGENT_ERR_NO_MEMORY, kErr};
    for (uint64_t n = 1; n <= std::size(expected); ++n) {
        SCOPED_TRACE(n);
        const Analysed a = AnalyseFailing(n, kLog, "%d%s", 1, text.c_str(), kEnd);
        EXPECT_EQ(a.rc, expected[n - 1]);
        EXPECT_EQ(a.state.uiBufSize, kInitial);
        EXPECT_EQ(a.state.uiParaLen, kUntouched);
    }
}

// An analysis of "%d" over a real list holding 5, with the argument numbered which (state, buffer
// address, buffer, format, list) null.
uint32_t AnalyseWithNull(int which, ...) {
    uint8_t block[QV_AGENT_PARA_BUF_SIZE];
    uint8_t *buffer = block;
    uint8_t *none = nullptr;
    QvAgentParaState state{0, 0, 0, kInitial, kLog};
    va_list args;
    va_start(args, which);
    const uint32_t rc = QV_Agent_ParaAnalyse(nullptr, which == 0 ? nullptr : &state,
                                             which == 1 ? nullptr : which == 2 ? &none : &buffer,
                                             which == 3 ? nullptr : "%d", which == 4 ? nullptr : &args);
    va_end(args);
    return rc;
}

TEST_F(FormatAnalyser, RefusesNullArguments) {
    for (int which = 0; which < 5; ++which) EXPECT_EQ(AnalyseWithNull(which, 5), kErr) << "argument " << which;
}

}  // namespace
