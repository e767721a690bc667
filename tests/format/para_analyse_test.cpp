// The format analyser: the grammar, the entries it writes byte for byte, the argument list it leaves
// behind, the limits and the one growth of the parameter buffer, bad arguments and allocation failure.
#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <string>

#include "agent_support.h"
#include "format_support.h"
#include "qvplatform_testctl.h"

namespace {

using fmttest::Analyse;
using fmttest::Analysed;
using fmttest::AnalyseWithInts;
using fmttest::Bytes;
using fmttest::Concat;
using fmttest::Entry;
using fmttest::HostBytes;
using fmttest::kEnd;
using fmttest::kUntouched;
using fmttest::Repeat;
using fmttest::Text;
using fmttest::Zeros;

// Some expectations are written as the literal bytes of a little-endian host (x86-64, AArch64).
static_assert(std::endian::native == std::endian::little);

constexpr uint32_t kLogKind = 4;  // an ordinary log kind: its buffer may grow
constexpr uint32_t kAlarmKind = QV_AGENT_OBJ_ALARM;
constexpr uint32_t kPlaceholderKind = QV_AGENT_OBJ_PLACEHOLDER;
constexpr uint32_t kGrown = QV_AGENT_PARA_BUF_GROWN_SIZE;
constexpr uint32_t kInitial = QV_AGENT_PARA_BUF_SIZE;

class FormatAnalyser : public fmttest::FormatTest {};

Bytes IntEntries(int first, int count) {
    Bytes out;
    for (int i = first; i < first + count; ++i) {
        const Bytes entry = Entry(QV_FMT_PARA_I32, HostBytes(int32_t{i}));
        out.insert(out.end(), entry.begin(), entry.end());
    }
    return out;
}

// Calls fn with a real argument list holding the arguments given after it.
uint32_t WithList(const std::function<uint32_t(va_list *)> *fn, ...) {
    va_list args;
    va_start(args, fn);
    const uint32_t rc = (*fn)(&args);
    va_end(args);
    return rc;
}

struct GrammarCase {
    const char *name;
    std::function<Analysed()> run;
    uint32_t rc;
    Bytes para;  // on success
    uint32_t paraNum;
};

void CheckGrammarCase(const GrammarCase &c) {
    SCOPED_TRACE(c.name);
    const Analysed a = c.run();
    EXPECT_EQ(a.rc, c.rc);
    EXPECT_EQ(a.state.uiParaNum, c.paraNum);
    if (c.rc == QV_AGENT_OK) {
        EXPECT_EQ(a.para, c.para);
        EXPECT_EQ(a.state.uiParaLen, c.para.size());
        EXPECT_EQ(a.next, kEnd) << "the caller's list stands right after the last argument taken";
    } else {
        EXPECT_EQ(a.state.uiParaLen, kUntouched) << "a failed analysis leaves uiParaLen alone";
    }
}

TEST_F(FormatAnalyser, GrammarYieldsOneEntryPerConversion) {
    const GrammarCase cases[] = {
        {"empty format", [] { return Analyse(kLogKind, "", kEnd); }, QV_AGENT_OK, {}, 0},
        {"literal text only", [] { return Analyse(kLogKind, "link up, nothing to say", kEnd); }, QV_AGENT_OK, {}, 0},
        {"%d with 5", [] { return Analyse(kLogKind, "%d", 5, kEnd); }, QV_AGENT_OK, {4, 0, 4, 0, 5, 0, 0, 0}, 1},
        {"flags, width and precision are ignored", [] { return Analyse(kLogKind, "%-08.3ld", int64_t{5}, kEnd); },
         QV_AGENT_OK, {2, 0, 8, 0, 5, 0, 0, 0, 0, 0, 0, 0}, 1},
        {"every flag in a run", [] { return Analyse(kLogKind, "%+ #0-12.d", -1, kEnd); }, QV_AGENT_OK,
         {4, 0, 4, 0, 0xFF, 0xFF, 0xFF, 0xFF}, 1},
        {"literal text is dropped", [] { return Analyse(kLogKind, "port %u is %s now", 7u, "down", kEnd); },
         QV_AGENT_OK, Concat({Entry(QV_FMT_PARA_U32, HostBytes(7u)), Entry(QV_FMT_PARA_STRING, Text("down"))}), 2},
        {"a type name is followed by literal text", [] { return Analyse(kLogKind, "%_ipv4x", 0xC0A80001u, kEnd); },
         QV_AGENT_OK, {17, 0, 4, 0, 0x01, 0x00, 0xA8, 0xC0}, 1},
        {"format ends after '%'", [] { return Analyse(kLogKind, "%u value %", 7u, kEnd); }, QV_AGENT_OK,
         Entry(QV_FMT_PARA_U32, HostBytes(7u)), 1},
        {"format ends in the precision", [] { return Analyse(kLogKind, "%u%5.", 7u, kEnd); }, QV_AGENT_OK,
         Entry(QV_FMT_PARA_U32, HostBytes(7u)), 1},
        {"format ends after a flag", [] { return Analyse(kLogKind, "%u%- ", 7u, kEnd); }, QV_AGENT_OK,
         Entry(QV_FMT_PARA_U32, HostBytes(7u)), 1},
        {"format ends after the modifier", [] { return Analyse(kLogKind, "%u%3l", 7u, kEnd); }, QV_AGENT_OK,
         Entry(QV_FMT_PARA_U32, HostBytes(7u)), 1},
        {"%5. alone", [] { return Analyse(kLogKind, "%5.", kEnd); }, QV_AGENT_OK, {}, 0},
        {"%% has no renderer", [] { return Analyse(kLogKind, "%%", kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"'*' is no width", [] { return Analyse(kLogKind, "%*d", 3, 5, kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"ll is no modifier", [] { return Analyse(kLogKind, "%lld", 5LL, kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"hh is no modifier", [] { return Analyse(kLogKind, "%hhd", 5, kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"unknown letter", [] { return Analyse(kLogKind, "%q", kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"upper-case hex", [] { return Analyse(kLogKind, "%X", 1u, kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"unknown type name", [] { return Analyse(kLogKind, "%_foo", kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"'T' with a letter for its size", [] { return Analyse(kLogKind, "%_Tx", kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"'T' at the end of the format", [] { return Analyse(kLogKind, "%_T", kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"'T' with four digits", [] { return Analyse(kLogKind, "%_T.1234", kEnd); }, QV_AGENT_ERR_PARAM, {}, 0},
        {"a failure keeps the count so far", [] { return Analyse(kLogKind, "%d%d%q", 1, 2, kEnd); },
         QV_AGENT_ERR_PARAM, {}, 2},
        {"a renderer's failure fails the analysis",
         [] { return Analyse(kLogKind, "%d%s", 1, static_cast<const char *>(nullptr), kEnd); }, QV_AGENT_ERR_PARAM,
         {}, 1},
    };
    for (const GrammarCase &c : cases) CheckGrammarCase(c);
}

// One conversion of every kind in one format, by value and in placeholder mode: the entries, their
// order, and the caller's list standing after the last argument (16-byte values by value included).
TEST_F(FormatAnalyser, EveryConversionByValueAndAsPlaceholder) {
    static constexpr char kFormat[] = "%c%s%x%d%hd%ld%u%hu%lu%b%f%_ipv4%_ipv6%_mac%_datetime%_T.3%i";
    static const uint8_t kBlock[] = {5, 0, 0xAA, 0xBB, 0xCC};
    static const uint8_t kSized[] = {1, 2, 3};
    static const QvAgentIpv6Value kV6 = {{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01}};
    static const QvAgentMacValue kMac = {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}};
    static const QvAgentDateTimeValue kTime = {{0xEA, 0x07, 12, 31, 23, 59, 58}};
    const GrammarCase cases[] = {
        {"by value",
         [] {
             return Analyse(kLogKind, kFormat, 'A', "hi", 0xABCDu, -5, -2, int64_t{-7}, 9u, 70000u, uint64_t{1} << 40,
                            kBlock, 0xC0A80001u, kV6, kMac, kTime, kSized, 42, kEnd);
         },
         QV_AGENT_OK,
         Concat({Entry(QV_FMT_PARA_CHAR, {'A'}), Entry(QV_FMT_PARA_STRING, Text("hi")),
                 Entry(QV_FMT_PARA_HEX, HostBytes(0xABCDu)), Entry(QV_FMT_PARA_I32, HostBytes(-5)),
                 Entry(QV_FMT_PARA_I16, {0xFE, 0xFF}), Entry(QV_FMT_PARA_I64, HostBytes(int64_t{-7})),
                 Entry(QV_FMT_PARA_U32, HostBytes(9u)), Entry(QV_FMT_PARA_U16, {0x70, 0x11}),
                 Entry(QV_FMT_PARA_U64, HostBytes(uint64_t{1} << 40)),
                 Entry(QV_FMT_PARA_BLOCK, Bytes(kBlock, kBlock + 5)),
                 Entry(QV_FMT_PARA_NO_VALUE, {}), Entry(QV_FMT_PARA_IPV4, {0x01, 0x00, 0xA8, 0xC0}),
                 Entry(QV_FMT_PARA_IPV6, HostBytes(kV6)), Entry(QV_FMT_PARA_MAC, HostBytes(kMac)),
                 Entry(QV_FMT_PARA_DATETIME, HostBytes(kTime)), Entry(QV_FMT_PARA_SIZED, {1, 2, 3}),
                 Entry(QV_FMT_PARA_I32, HostBytes(42))}),
         17},
        {"placeholder mode reads no argument", [] { return Analyse(kPlaceholderKind, kFormat, kEnd); }, QV_AGENT_OK,
         Concat({Entry(QV_FMT_PARA_CHAR, Zeros(1)), Entry(QV_FMT_PARA_STRING, Text("SimulateStringData")),
                 Entry(QV_FMT_PARA_HEX, Zeros(4)), Entry(QV_FMT_PARA_I32, Zeros(4)), Entry(QV_FMT_PARA_I16, Zeros(2)),
                 Entry(QV_FMT_PARA_I64, Zeros(8)), Entry(QV_FMT_PARA_U32, Zeros(4)), Entry(QV_FMT_PARA_U16, Zeros(2)),
                 Entry(QV_FMT_PARA_U64, Zeros(8)), Entry(QV_FMT_PARA_BLOCK, Concat({{40, 0}, Zeros(38)})),
                 Entry(QV_FMT_PARA_NO_VALUE, {}), Entry(QV_FMT_PARA_IPV4, Zeros(4)), Entry(QV_FMT_PARA_IPV6, Zeros(16)),
                 Entry(QV_FMT_PARA_MAC, Zeros(6)), Entry(QV_FMT_PARA_DATETIME, Zeros(7)),
                 Entry(QV_FMT_PARA_SIZED, Zeros(3)), Entry(QV_FMT_PARA_I32, Zeros(4))}),
         17},
        {"placeholder %d%s", [] { return Analyse(kPlaceholderKind, "%d%s", kEnd); }, QV_AGENT_OK,
         Concat({{4, 0, 4, 0, 0, 0, 0, 0}, Entry(QV_FMT_PARA_STRING, Text("SimulateStringData"))}), 2},
    };
    for (const GrammarCase &c : cases) CheckGrammarCase(c);
}

TEST_F(FormatAnalyser, VridConversionsSetTheStateAndWriteNoEntry) {
    struct Case {
        const char *name;
        std::function<Analysed()> run;
        uint32_t vrid;
        Bytes para;
    };
    const Case cases[] = {
        {"%_VRID with 7", [] { return Analyse(kLogKind, "%_VRID", 7u, kEnd); }, 7, {}},
        {"the last of VRID and VSID wins",
         [] { return Analyse(kLogKind, "%u%_VRID%_VSID%u", 1u, 8u, 9u, 2u, kEnd); }, 9,
         Concat({Entry(QV_FMT_PARA_U32, HostBytes(1u)), Entry(QV_FMT_PARA_U32, HostBytes(2u))})},
        {"the name is a prefix", [] { return Analyse(kLogKind, "%_VRIDx", 3u, kEnd); }, 3, {}},
        {"placeholder mode", [] { return Analyse(kPlaceholderKind, "%_VSID", kEnd); }, 0, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Analysed a = c.run();
        ASSERT_EQ(a.rc, QV_AGENT_OK);
        EXPECT_EQ(a.state.uiVrid, c.vrid);
        EXPECT_EQ(a.para, c.para);
        EXPECT_EQ(a.state.uiParaNum, c.para.size() / 8);
        EXPECT_EQ(a.next, kEnd);
    }
}

// Where entries may end: whole up to 2048 before growth; after the one growth to 9216, whole up to
// 8192, strings cut to end at 8192, other entries whole up to 9216; alarms never grow.
TEST_F(FormatAnalyser, LimitsAndGrowthOfTheParameterBuffer) {
    static const std::string a2000(2000, 'a'), a2043(2043, 'a'), a2044(2044, 'a'), a3000(3000, 'a');
    static const std::string a8187(8187, 'a'), a8188(8188, 'a'), a9211(9211, 'a'), a9212(9212, 'a');
    const Bytes cutString = Entry(QV_FMT_PARA_STRING, Text(a8187));  // ends at 8192
    struct Case {
        const char *name;
        std::function<Analysed()> run;
        uint32_t rc;
        uint32_t bufSize;
        uint32_t paraNum;
        Bytes para;  // on success
    };
    const Case cases[] = {
        {"a first string of 3000 grows the buffer", [] { return Analyse(kLogKind, "%s", a3000.c_str(), kEnd); },
         QV_AGENT_OK, kGrown, 1, Entry(QV_FMT_PARA_STRING, Text(a3000))},
        {"growth keeps the entries before it", [] { return Analyse(kLogKind, "%d%s", 1, a3000.c_str(), kEnd); },
         QV_AGENT_OK, kGrown, 2, Concat({IntEntries(1, 1), Entry(QV_FMT_PARA_STRING, Text(a3000))})},
        {"8187 characters end at 8192", [] { return Analyse(kLogKind, "%s", a8187.c_str(), kEnd); }, QV_AGENT_OK,
         kGrown, 1, cutString},
        {"8188 characters are cut", [] { return Analyse(kLogKind, "%s", a8188.c_str(), kEnd); }, QV_AGENT_OK, kGrown,
         1, cutString},
        {"9211 characters are cut", [] { return Analyse(kLogKind, "%s", a9211.c_str(), kEnd); }, QV_AGENT_OK, kGrown,
         1, cutString},
        {"9212 characters pass the hard limit", [] { return Analyse(kLogKind, "%s", a9212.c_str(), kEnd); },
         QV_AGENT_ERR_PARAM, kGrown, 0, {}},
        {"ints after a cut string fill to 9216",
         [] { return AnalyseWithInts<128>(kLogKind, "%s" + Repeat("%d", 128), a8188.c_str()); }, QV_AGENT_OK, kGrown,
         129, Concat({cutString, IntEntries(1, 128)})},
        {"one int more passes the hard limit",
         [] { return AnalyseWithInts<129>(kLogKind, "%s" + Repeat("%d", 129), a8188.c_str()); }, QV_AGENT_ERR_PARAM,
         kGrown, 129, {}},
        {"a string after the soft limit is one 0 byte",
         [] { return Analyse(kLogKind, "%s%s", a8188.c_str(), "abc", kEnd); }, QV_AGENT_OK, kGrown, 2,
         Concat({cutString, Entry(QV_FMT_PARA_STRING, {0})})},
        {"an empty value may end at the hard limit",
         [] { return AnalyseWithInts<127>(kLogKind, "%s%f" + Repeat("%d", 127) + "%f", a8188.c_str()); },
         QV_AGENT_OK, kGrown, 130,
         Concat({cutString, Entry(QV_FMT_PARA_NO_VALUE, {}), IntEntries(1, 127), Entry(QV_FMT_PARA_NO_VALUE, {})})},
        {"256 ints fill 2048 bytes without growth",
         [] { return AnalyseWithInts<256>(kLogKind, Repeat("%d", 256)); }, QV_AGENT_OK, kInitial, 256,
         IntEntries(1, 256)},
        {"a 257th int cannot grow the full buffer", [] { return AnalyseWithInts<257>(kLogKind, Repeat("%d", 257)); },
         QV_AGENT_ERR_PARAM, kInitial, 256, {}},
        {"an empty value may end at 2048",
         [] { return AnalyseWithInts<255>(kLogKind, Repeat("%d", 255) + "%f%f"); }, QV_AGENT_OK, kInitial, 257,
         Concat({IntEntries(1, 255), Entry(QV_FMT_PARA_NO_VALUE, {}), Entry(QV_FMT_PARA_NO_VALUE, {})})},
        {"alarm: a string ending at 2048", [] { return Analyse(kAlarmKind, "%s", a2043.c_str(), kEnd); },
         QV_AGENT_OK, kInitial, 1, Entry(QV_FMT_PARA_STRING, Text(a2043))},
        {"alarm: a string passing 2048 is not cut", [] { return Analyse(kAlarmKind, "%s", a2044.c_str(), kEnd); },
         QV_AGENT_ERR_PARAM, kInitial, 0, {}},
        {"alarm: entries passing 2048 together",
         [] { return Analyse(kAlarmKind, "%s%s", a2000.c_str(), std::string(100, 'b').c_str(), kEnd); },
         QV_AGENT_ERR_PARAM, kInitial, 1, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Analysed a = c.run();
        EXPECT_EQ(a.rc, c.rc);
        EXPECT_EQ(a.state.uiBufSize, c.bufSize);
        EXPECT_EQ(a.state.uiParaNum, c.paraNum);
        if (c.rc == QV_AGENT_OK) {
            EXPECT_EQ(a.state.uiParaLen, c.para.size());
            EXPECT_TRUE(a.para == c.para) << "entries differ";
            EXPECT_EQ(a.next, kEnd);
        }
    }
}

// A buffer stated at another size than 2048 is never replaced, and no entry passes its stated size.
TEST_F(FormatAnalyser, StatedCapacityBoundsEveryEntry) {
    struct Case {
        const char *name;
        uint32_t capacity;
        size_t chars;
        uint32_t rc;
    };
    const Case cases[] = {
        {"small buffer, entry fits", 1024, 1019, QV_AGENT_OK},
        {"small buffer, entry passes it", 1024, 1020, QV_AGENT_ERR_PARAM},
        {"large buffer, string not cut at its end", 4096, 4091, QV_AGENT_OK},
        {"large buffer, string passes it", 4096, 4092, QV_AGENT_ERR_PARAM},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string text(c.chars, 'c');
        auto *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(c.capacity, nullptr));
        uint8_t *const original = buffer;
        QvAgentParaState state{0, kUntouched, kUntouched, c.capacity, kLogKind};
        const std::function<uint32_t(va_list *)> call = [&](va_list *args) {
            return QV_Agent_ParaAnalyse(nullptr, &state, &buffer, "%s", args);
        };
        EXPECT_EQ(WithList(&call, text.c_str()), c.rc);
        EXPECT_EQ(buffer, original);
        EXPECT_EQ(state.uiBufSize, c.capacity);
        EXPECT_EQ(state.uiParaLen, c.rc == QV_AGENT_OK ? c.capacity : kUntouched);
        QV_AGENT_Free(buffer, nullptr);
    }
}

// The characters still to read are counted in 16 bits from the format's length plus one.
TEST_F(FormatAnalyser, LengthOfTheFormatIsCountedIn16Bits) {
    struct Case {
        const char *name;
        size_t length;
        uint32_t paraNum;
    };
    const Case cases[] = {
        {"65534 characters are read", 65534, 1},
        {"65535 characters: nothing is read", 65535, 0},
        {"65536 characters: the '%' only", 65536, 0},
        {"65537 characters: the first conversion", 65537, 1},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string format = "%d" + std::string(c.length - 2, 'x');
        const Analysed a = Analyse(kLogKind, format.c_str(), 5, kEnd);
        EXPECT_EQ(a.rc, QV_AGENT_OK);
        EXPECT_EQ(a.state.uiParaNum, c.paraNum);
        EXPECT_EQ(a.next, c.paraNum == 0 ? 5 : kEnd);
    }
}

TEST_F(FormatAnalyser, RefusesNullArgumentsBeforeTakingMemory) {
    uint8_t *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(kInitial, nullptr));
    uint8_t *noBuffer = nullptr;
    QvAgentParaState state{0, kUntouched, kUntouched, kInitial, kLogKind};
    struct Case {
        const char *name;
        std::function<uint32_t(va_list *)> call;
    };
    const Case cases[] = {
        {"state", [&](va_list *args) { return QV_Agent_ParaAnalyse(nullptr, nullptr, &buffer, "%d", args); }},
        {"buffer address", [&](va_list *args) { return QV_Agent_ParaAnalyse(nullptr, &state, nullptr, "%d", args); }},
        {"buffer", [&](va_list *args) { return QV_Agent_ParaAnalyse(nullptr, &state, &noBuffer, "%d", args); }},
        {"format", [&](va_list *args) { return QV_Agent_ParaAnalyse(nullptr, &state, &buffer, nullptr, args); }},
        {"argument list", [&](va_list *) { return QV_Agent_ParaAnalyse(nullptr, &state, &buffer, "%d", nullptr); }},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const uint64_t calls = QVPLAT_TestAllocCalls();
        EXPECT_EQ(WithList(&c.call, 5), QV_AGENT_ERR_PARAM);
        EXPECT_EQ(QVPLAT_TestAllocCalls(), calls);
        EXPECT_EQ(state.uiParaNum, kUntouched);
        EXPECT_EQ(qvtest::AgentBlocks(), 1u);
    }
    QV_AGENT_Free(buffer, nullptr);
}

// Counts the allocations of an analysis that grows the buffer (the scratch, then the larger buffer),
// then fails each in turn: the scratch is "no memory", the growth a failed analysis; the caller's
// buffer stays in place and nothing else is left allocated.
TEST_F(FormatAnalyser, SurvivesFailureOfEachAllocation) {
    const std::string text(3000, 't');
    auto run = [&](uint8_t **buffer, QvAgentParaState *state) {
        const std::function<uint32_t(va_list *)> call = [&](va_list *args) {
            return QV_Agent_ParaAnalyse(nullptr, state, buffer, "%d%s", args);
        };
        return WithList(&call, 1, text.c_str());
    };
    const uint32_t expected[] = {QV_AGENT_ERR_NO_MEMORY, QV_AGENT_ERR_PARAM};

    uint8_t *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(kInitial, nullptr));
    QvAgentParaState state{0, 0, 0, kInitial, kLogKind};
    const uint64_t before = QVPLAT_TestAllocCalls();
    ASSERT_EQ(run(&buffer, &state), QV_AGENT_OK);
    ASSERT_EQ(QVPLAT_TestAllocCalls() - before, std::size(expected));
    QV_AGENT_Free(buffer, nullptr);

    for (size_t n = 1; n <= std::size(expected); ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(kInitial, nullptr));
        uint8_t *const original = buffer;
        state = {0, kUntouched, kUntouched, kInitial, kLogKind};
        QVPLAT_TestFailAllocation(n);
        EXPECT_EQ(run(&buffer, &state), expected[n - 1]);
        QVPLAT_TestFailAllocation(0);
        EXPECT_EQ(buffer, original);
        EXPECT_EQ(state.uiBufSize, kInitial);
        EXPECT_EQ(state.uiParaLen, kUntouched);
        EXPECT_EQ(qvtest::AgentBlocks(), 1u) << "only the caller's buffer";
        QV_AGENT_Free(buffer, nullptr);
    }
}

// The growth test on its own: when it replaces the buffer, and what it keeps.
TEST_F(FormatAnalyser, GrowthReplacesTheBufferOnlyWhenAnEntryPassesTheOldSize) {
    struct Case {
        const char *name;
        uint16_t offset, length;
        uint32_t newSize;
        bool grows;
    };
    const Case cases[] = {
        {"ends at the old size", 0, 2044, kGrown, false},  {"passes the old size", 2040, 5, kGrown, true},
        {"offset at the old size", 2048, 10, kGrown, false}, {"new size 0", 100, 3000, 0, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        auto *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(kInitial, nullptr));
        for (uint32_t i = 0; i < kInitial; ++i) buffer[i] = static_cast<uint8_t>(i * 7);
        const Bytes before(buffer, buffer + kInitial);
        uint8_t *const original = buffer;
        uint32_t size = kInitial;
        EXPECT_EQ(QV_Agent_IsRellocLogBuff(&buffer, c.offset, c.length, &size, c.newSize, kInitial, nullptr), 0u);
        EXPECT_EQ(buffer != original, c.grows);
        EXPECT_EQ(size, c.grows ? kGrown : kInitial);
        EXPECT_TRUE(Bytes(buffer, buffer + kInitial) == before);
        QV_AGENT_Free(buffer, nullptr);
    }
    uint8_t *buffer = nullptr;
    EXPECT_EQ(QV_Agent_IsRellocLogBuff(nullptr, 0, 3000, nullptr, kGrown, kInitial, nullptr), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_Agent_IsRellocLogBuff(&buffer, 0, 3000, nullptr, kGrown, kInitial, nullptr), QV_AGENT_ERR_PARAM);
    buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(kInitial, nullptr));
    EXPECT_EQ(QV_Agent_IsRellocLogBuff(&buffer, 0, 3000, nullptr, kGrown, kInitial, nullptr), QV_AGENT_OK)
        << "the size out-variable may be absent";
    QV_AGENT_Free(buffer, nullptr);
}

}  // namespace
