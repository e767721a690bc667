// The renderers, called as the analyser calls them: type code, length and value bytes in each argument
// mode, the argument each takes from the caller's list, their refusals; and how a conversion finds its
// renderer.
#include <gtest/gtest.h>

#include <bit>
#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "format_support.h"

namespace {

using fmttest::Bytes;
using fmttest::Concat;
using fmttest::Filled;
using fmttest::HostBytes;
using fmttest::kEnd;
using fmttest::kTypeUnset;
using fmttest::Render;
using fmttest::Rendered;
using fmttest::Text;
using fmttest::Zeros;

static_assert(std::endian::native == std::endian::little);

constexpr unsigned kValue = QV_AGENT_PARA_MODE_VALUE;
constexpr unsigned kPlaceholder = QV_AGENT_PARA_MODE_PLACEHOLDER;
constexpr unsigned kReference = QV_AGENT_PARA_MODE_REFERENCE;
constexpr unsigned kOtherMode = 3;  // acts as placeholder mode

class Renderers : public fmttest::FormatTest {};

struct RenderCase {
    const char *name;
    std::function<Rendered()> run;
    uint32_t rc;
    uint16_t type;  // on success
    Bytes value;    // on success
};

void CheckCases(const std::vector<RenderCase> &cases) {
    for (const RenderCase &c : cases) {
        SCOPED_TRACE(c.name);
        const Rendered r = c.run();
        EXPECT_EQ(r.rc, c.rc);
        EXPECT_EQ(r.next, kEnd) << "the renderer took exactly its argument from the caller's list";
        if (c.rc != QV_AGENT_OK) continue;
        EXPECT_EQ(r.type, c.type);
        EXPECT_EQ(r.len, c.value.size());
        EXPECT_TRUE(r.value == c.value) << "value bytes differ";
    }
}

TEST_F(Renderers, CharacterHexAndIntegers) {
    static const uint8_t kByte = 0x9A;
    static const uint32_t kU32 = 0x01020304;
    static const int16_t kI16 = -3;
    static const int32_t kI32 = -4;
    static const int64_t kI64 = -5;
    static const uint16_t kU16 = 0xBEEF;
    static const uint64_t kU64 = 0x0102030405060708;
    CheckCases({
        {"'c' keeps an int's low 8 bits", [] { return Render(QV_Agent_ProcChar, 0, "c", kValue, 0x141, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_CHAR, {0x41}},
        {"'c' by reference, a byte above 0x7F",
         [] { return Render(QV_Agent_ProcChar, 0, "c", kReference, &kByte, kEnd); }, QV_AGENT_OK, QV_FMT_PARA_CHAR,
         {0x9A}},
        {"'c' placeholder", [] { return Render(QV_Agent_ProcChar, 0, "c", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_CHAR, {0}},
        {"'x'", [] { return Render(QV_Agent_ProcHex, 0, "x", kValue, 0xDEADBEEFu, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_HEX, {0xEF, 0xBE, 0xAD, 0xDE}},
        {"'lx' keeps the low 32 bits",
         [] { return Render(QV_Agent_ProcHex, 'l', "x", kValue, uint64_t{0x1122334455667788}, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_HEX, {0x88, 0x77, 0x66, 0x55}},
        {"'hx' is 4 bytes", [] { return Render(QV_Agent_ProcHex, 'h', "x", kValue, 0x12345u, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_HEX, {0x45, 0x23, 0x01, 0x00}},
        {"'x' by reference", [] { return Render(QV_Agent_ProcHex, 0, "x", kReference, &kU32, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_HEX, {4, 3, 2, 1}},
        {"'x' placeholder", [] { return Render(QV_Agent_ProcHex, 0, "x", kOtherMode, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_HEX, Zeros(4)},
        {"'d'", [] { return Render(QV_Agent_ProcInt, 0, "d", kValue, INT_MIN, kEnd); }, QV_AGENT_OK, QV_FMT_PARA_I32,
         {0, 0, 0, 0x80}},
        {"'hd' with -2", [] { return Render(QV_Agent_ProcInt, 'h', "d", kValue, -2, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_I16, {0xFE, 0xFF}},
        {"'ld'", [] { return Render(QV_Agent_ProcInt, 'l', "d", kValue, INT64_MIN, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_I64, {0, 0, 0, 0, 0, 0, 0, 0x80}},
        {"an unknown modifier counts as none", [] { return Render(QV_Agent_ProcInt, 'q', "i", kValue, 6, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_I32, {6, 0, 0, 0}},
        {"'d' by reference", [] { return Render(QV_Agent_ProcInt, 0, "d", kReference, &kI32, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_I32, HostBytes(kI32)},
        {"'hd' by reference", [] { return Render(QV_Agent_ProcInt, 'h', "d", kReference, &kI16, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_I16, HostBytes(kI16)},
        {"'ld' by reference", [] { return Render(QV_Agent_ProcInt, 'l', "d", kReference, &kI64, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_I64, HostBytes(kI64)},
        {"'d' placeholder", [] { return Render(QV_Agent_ProcInt, 0, "d", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_I32, Zeros(4)},
        {"'hd' placeholder", [] { return Render(QV_Agent_ProcInt, 'h', "d", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_I16, Zeros(2)},
        {"'ld' placeholder", [] { return Render(QV_Agent_ProcInt, 'l', "d", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_I64, Zeros(8)},
        {"'u'", [] { return Render(QV_Agent_ProcUInt, 0, "u", kValue, 0xFFFFFFFFu, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_U32, Filled(4, 0xFF)},
        {"'hu' with 70000", [] { return Render(QV_Agent_ProcUInt, 'h', "u", kValue, 70000u, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_U16, {0x70, 0x11}},
        {"'lu'", [] { return Render(QV_Agent_ProcUInt, 'l', "u", kValue, kU64, kEnd); }, QV_AGENT_OK, QV_FMT_PARA_U64,
         {8, 7, 6, 5, 4, 3, 2, 1}},
        {"'u' by reference", [] { return Render(QV_Agent_ProcUInt, 0, "u", kReference, &kU32, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_U32, {4, 3, 2, 1}},
        {"'hu' by reference", [] { return Render(QV_Agent_ProcUInt, 'h', "u", kReference, &kU16, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_U16, {0xEF, 0xBE}},
        {"'lu' by reference", [] { return Render(QV_Agent_ProcUInt, 'l', "u", kReference, &kU64, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_U64, {8, 7, 6, 5, 4, 3, 2, 1}},
        {"'u' placeholder", [] { return Render(QV_Agent_ProcUInt, 0, "u", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_U32, Zeros(4)},
        {"'hu' placeholder", [] { return Render(QV_Agent_ProcUInt, 'h', "u", kOtherMode, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_U16, Zeros(2)},
        {"'lu' placeholder", [] { return Render(QV_Agent_ProcUInt, 'l', "u", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_U64, Zeros(8)},
    });
}

TEST_F(Renderers, StringsBlocksAndFloat) {
    static const std::string k9215(9215, 'z'), k9216(9216, 'z'), k20000(20000, 'z');
    static const uint8_t kBlock[] = {6, 0, 0xAA, 0xBB, 0xCC, 0xDD};
    static const uint8_t kEmptyBlock[] = {0, 0, 0xAA};
    static const Bytes maxBlock = Concat({{0x00, 0x24}, Filled(9214, 0xB1)});  // 9216
    static const Bytes overBlock = Concat({{0x01, 0x24}, Filled(9215, 0xB1)});  // 9217
    const Bytes placeholderBlock = Concat({{40, 0}, Zeros(38)});
    CheckCases({
        {"'s'", [] { return Render(QV_Agent_ProcString, 0, "s", kValue, "abc", kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_STRING, Text("abc")},
        {"'s' by reference takes the pointer too",
         [] { return Render(QV_Agent_ProcString, 0, "s", kReference, "abc", kEnd); }, QV_AGENT_OK, QV_FMT_PARA_STRING,
         Text("abc")},
        {"'s' empty", [] { return Render(QV_Agent_ProcString, 0, "s", kValue, "", kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_STRING, {0}},
        {"'s' of 9215 characters", [] { return Render(QV_Agent_ProcString, 0, "s", kValue, k9215.c_str(), kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_STRING, Text(k9215)},
        {"'s' of 9216 characters is cut",
         [] { return Render(QV_Agent_ProcString, 0, "s", kValue, k9216.c_str(), kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_STRING, Text(k9215)},
        {"'s' of 20000 characters is cut",
         [] { return Render(QV_Agent_ProcString, 'l', "s", kValue, k20000.c_str(), kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_STRING, Text(k9215)},
        {"'s' placeholder", [] { return Render(QV_Agent_ProcString, 0, "s", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_STRING, Text("SimulateStringData")},
        {"'s' null", [] { return Render(QV_Agent_ProcString, 0, "s", kValue, static_cast<char *>(nullptr), kEnd); },
         QV_AGENT_ERR_PARAM, 0, {}},
        {"'s' null by reference",
         [] { return Render(QV_Agent_ProcString, 0, "s", kReference, static_cast<char *>(nullptr), kEnd); },
         QV_AGENT_ERR_PARAM, 0, {}},
        {"'b'", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, kBlock, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_BLOCK, Bytes(kBlock, kBlock + 6)},
        {"'b' of length 0", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, kEmptyBlock, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_BLOCK, {}},
        {"'b' of 9216", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, maxBlock.data(), kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_BLOCK, maxBlock},
        {"'b' of 9217", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, overBlock.data(), kEnd); },
         QV_AGENT_ERR_NO_ROOM, 0, {}},
        {"'b' null", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, static_cast<void *>(nullptr), kEnd); },
         QV_AGENT_ERR_PARAM, 0, {}},
        {"'b' has no by-reference form", [] { return Render(QV_Agent_ProcBlock, 0, "b", kReference, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_BLOCK, placeholderBlock},
        {"'b' placeholder", [] { return Render(QV_Agent_ProcBlock, 0, "b", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_BLOCK, placeholderBlock},
        {"'f' takes nothing", [] { return Render(QV_Agent_ProcFloat, 0, "f", kValue, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_NO_VALUE, {}},
        {"'f' by reference", [] { return Render(QV_Agent_ProcFloat, 'l', "f", kReference, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_NO_VALUE, {}},
        {"'f' placeholder carries no byte", [] { return Render(QV_Agent_ProcFloat, 0, "f", kPlaceholder, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_NO_VALUE, {}},
    });
}

TEST_F(Renderers, AddressesTimeAndVrid) {
    static const QvAgentIpv6Value kV6 = {
        {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x55}};
    static const QvAgentMacValue kMac = {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}};
    static const QvAgentDateTimeValue kTime = {{0xEA, 0x07, 12, 31, 23, 59, 59}};
    static const uint8_t kV4[] = {192, 168, 0, 1};
    static const uint32_t kVrid = 77;
    CheckCases({
        {"ipv4 in host order", [] { return Render(QV_Agent_ProcIPV4, 0, "_ipv4", kValue, 0xC0A80001u, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_IPV4, {0x01, 0x00, 0xA8, 0xC0}},
        {"ipv4 by reference", [] { return Render(QV_Agent_ProcIPV4, 0, "_ipv4", kReference, kV4, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_IPV4, {192, 168, 0, 1}},
        {"ipv4 placeholder", [] { return Render(QV_Agent_ProcIPV4, 0, "_ipv4", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_IPV4, Zeros(4)},
        {"ipv6 by value", [] { return Render(QV_Agent_ProcIPV6, 'l', "_ipv6", kValue, kV6, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_IPV6, HostBytes(kV6)},
        {"ipv6 by reference", [] { return Render(QV_Agent_ProcIPV6, 0, "_ipv6", kReference, &kV6, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_IPV6, HostBytes(kV6)},
        {"ipv6 placeholder", [] { return Render(QV_Agent_ProcIPV6, 0, "_ipv6", kOtherMode, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_IPV6, Zeros(16)},
        {"mac by value", [] { return Render(QV_Agent_ProcMAC, 0, "_mac", kValue, kMac, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_MAC, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}},
        {"mac by reference", [] { return Render(QV_Agent_ProcMAC, 0, "_mac", kReference, &kMac, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_MAC, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}},
        {"mac placeholder", [] { return Render(QV_Agent_ProcMAC, 0, "_mac", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_MAC, Zeros(6)},
        {"datetime by value", [] { return Render(QV_Agent_ProcDateTime, 0, "_datetime", kValue, kTime, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_DATETIME, {0xEA, 0x07, 12, 31, 23, 59, 59}},
        {"datetime by reference",
         [] { return Render(QV_Agent_ProcDateTime, 0, "_datetime", kReference, &kTime, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_DATETIME, {0xEA, 0x07, 12, 31, 23, 59, 59}},
        {"datetime placeholder", [] { return Render(QV_Agent_ProcDateTime, 0, "_datetime", kPlaceholder, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_DATETIME, Zeros(7)},
        {"vrid", [] { return Render(QV_Agent_ProcVRID, 0, "_VRID", kValue, 7u, kEnd); }, QV_AGENT_OK, QV_FMT_PARA_U32,
         {7, 0, 0, 0}},
        {"vrid by reference", [] { return Render(QV_Agent_ProcVRID, 0, "_VSID", kReference, &kVrid, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_U32, {77, 0, 0, 0}},
        {"vrid placeholder", [] { return Render(QV_Agent_ProcVRID, 0, "_VRID", kPlaceholder, kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_U32, Zeros(4)},
    });
}

// The size of a 'T' value is written in the format, from its fourth character ('_' first).
TEST_F(Renderers, SizedValues) {
    static const Bytes kBytes = [] {
        Bytes b(999);
        for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<uint8_t>(i + 1);
        return b;
    }();
    CheckCases({
        {"_T.8 by value", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.8", kValue, kBytes.data(), kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_SIZED, Bytes(kBytes.begin(), kBytes.begin() + 8)},
        {"_T[16] by reference, ']' ends the digits",
         [] { return Render(QV_Agent_ProcNomalType, 0, "_T[16]", kReference, kBytes.data(), kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_SIZED, Bytes(kBytes.begin(), kBytes.begin() + 16)},
        {"_T.0", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.0", kValue, kBytes.data(), kEnd); }, QV_AGENT_OK,
         QV_FMT_PARA_SIZED, {}},
        {"_T.999", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.999", kValue, kBytes.data(), kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_SIZED, kBytes},
        {"_T.16 placeholder", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.16", kPlaceholder, kEnd); },
         QV_AGENT_OK, QV_FMT_PARA_SIZED, Zeros(16)},
        {"_T.1234: four digits", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.1234", kValue, kEnd); },
         QV_AGENT_ERR_NO_ROOM, 0, {}},
        {"_Tx: the format ends before the size",
         [] { return Render(QV_Agent_ProcNomalType, 0, "_Tx", kValue, kEnd); }, QV_AGENT_ERR_FMT_NO_SIZE, 0, {}},
        {"_T", [] { return Render(QV_Agent_ProcNomalType, 0, "_T", kValue, kEnd); }, QV_AGENT_ERR_FMT_NO_SIZE, 0, {}},
        {"_T.x: no digit", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.x8", kValue, kEnd); },
         QV_AGENT_ERR_FMT_NO_SIZE, 0, {}},
        {"null value pointer",
         [] { return Render(QV_Agent_ProcNomalType, 0, "_T.4", kReference, static_cast<void *>(nullptr), kEnd); },
         QV_AGENT_ERR_PARAM, 0, {}},
    });
}

// A null pointer where a value is to be read through it is refused, never read.
TEST_F(Renderers, NullValuePointerIsRefusedInEveryRenderer) {
    struct Case {
        const char *name;
        QvAgentFmtProcFn proc;
        uint8_t modifier;
    };
    const Case cases[] = {
        {"char", QV_Agent_ProcChar, 0},    {"hex", QV_Agent_ProcHex, 0},         {"int", QV_Agent_ProcInt, 0},
        {"short", QV_Agent_ProcInt, 'h'},  {"long", QV_Agent_ProcInt, 'l'},      {"uint", QV_Agent_ProcUInt, 0},
        {"ushort", QV_Agent_ProcUInt, 'h'}, {"ulong", QV_Agent_ProcUInt, 'l'},   {"ipv4", QV_Agent_ProcIPV4, 0},
        {"ipv6", QV_Agent_ProcIPV6, 0},    {"mac", QV_Agent_ProcMAC, 0},         {"datetime", QV_Agent_ProcDateTime, 0},
        {"vrid", QV_Agent_ProcVRID, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Rendered r = Render(c.proc, c.modifier, "x", kReference, static_cast<void *>(nullptr), kEnd);
        EXPECT_EQ(r.rc, QV_AGENT_ERR_PARAM);
        EXPECT_EQ(r.type, kTypeUnset);
        EXPECT_EQ(r.next, kEnd);
    }
}

uint32_t CallWithList(QvAgentFmtProcFn proc, uint16_t *type, uint16_t *mode, uint8_t *scratch, ...) {
    va_list args;
    va_start(args, scratch);
    const uint32_t rc = proc(&args, 0, "_T.4", type, mode, scratch);
    va_end(args);
    return rc;
}

TEST_F(Renderers, RefuseNullOutVariablesAndList) {
    const QvAgentFmtProcFn procs[] = {
        QV_Agent_ProcChar, QV_Agent_ProcString, QV_Agent_ProcHex,  QV_Agent_ProcInt,      QV_Agent_ProcUInt,
        QV_Agent_ProcBlock, QV_Agent_ProcFloat, QV_Agent_ProcIPV4, QV_Agent_ProcIPV6,     QV_Agent_ProcMAC,
        QV_Agent_ProcDateTime, QV_Agent_ProcVRID, QV_Agent_ProcNomalType,
    };
    Bytes scratch(QV_AGENT_PARA_SCRATCH_SIZE);
    uint16_t type = kTypeUnset;
    uint16_t mode = kPlaceholder;
    for (size_t i = 0; i < std::size(procs); ++i) {
        SCOPED_TRACE("renderer " + std::to_string(i));
        const QvAgentFmtProcFn proc = procs[i];
        EXPECT_EQ(proc(nullptr, 0, "_T.4", &type, &mode, scratch.data()), QV_AGENT_ERR_PARAM);
        EXPECT_EQ(CallWithList(proc, nullptr, &mode, scratch.data(), kEnd), QV_AGENT_ERR_PARAM);
        EXPECT_EQ(CallWithList(proc, &type, nullptr, scratch.data(), kEnd), QV_AGENT_ERR_PARAM);
        EXPECT_EQ(CallWithList(proc, &type, &mode, nullptr, kEnd), QV_AGENT_ERR_PARAM);
        EXPECT_EQ(type, kTypeUnset);
        EXPECT_EQ(mode, kPlaceholder);
    }
    EXPECT_EQ(CallWithList(QV_Agent_ProcNomalType, &type, &mode, scratch.data(), kEnd), QV_AGENT_OK)
        << "the same call with every pointer present succeeds";
    uint8_t *const noScratch = nullptr;
    EXPECT_EQ(QV_Agent_ProcNomalType(nullptr, 0, nullptr, &type, &mode, noScratch), QV_AGENT_ERR_PARAM);
}

TEST(FormatTable, BasicConversionsInTableOrder) {
    const QvAgentFmtTypeProcFunc expected[] = {
        {'c', QV_Agent_ProcChar}, {'s', QV_Agent_ProcString}, {'x', QV_Agent_ProcHex},   {'d', QV_Agent_ProcInt},
        {'i', QV_Agent_ProcInt},  {'u', QV_Agent_ProcUInt},   {'b', QV_Agent_ProcBlock}, {'f', QV_Agent_ProcFloat},
    };
    for (size_t i = 0; i < QV_AGENT_FMT_TYPE_TBL_SIZE; ++i) {
        SCOPED_TRACE("row " + std::to_string(i));
        EXPECT_EQ(g_astQVAgentFmtTypeProcFuncTbl[i].uiFmtType, expected[i].uiFmtType);
        EXPECT_EQ(g_astQVAgentFmtTypeProcFuncTbl[i].pfnProc, expected[i].pfnProc);
    }
}

TEST(FormatTable, ConversionFindsItsRenderer) {
    struct Case {
        const char *conversion;
        QvAgentFmtProcFn proc;
    };
    const Case cases[] = {
        {"c", QV_Agent_ProcChar}, {"s", QV_Agent_ProcString}, {"x", QV_Agent_ProcHex}, {"d", QV_Agent_ProcInt},
        {"i", QV_Agent_ProcInt}, {"u", QV_Agent_ProcUInt}, {"b", QV_Agent_ProcBlock}, {"f", QV_Agent_ProcFloat},
        {"%", nullptr}, {"*", nullptr}, {"l", nullptr}, {"X", nullptr}, {"", nullptr}, {"\xE4", nullptr},
        {"_ipv4", QV_Agent_ProcIPV4}, {"_ipv4addr", QV_Agent_ProcIPV4}, {"_ipv6", QV_Agent_ProcIPV6},
        {"_mac", QV_Agent_ProcMAC}, {"_macro", QV_Agent_ProcMAC}, {"_VSID", QV_Agent_ProcVRID},
        {"_VRID", QV_Agent_ProcVRID}, {"_VRIDx", QV_Agent_ProcVRID}, {"_datetime", QV_Agent_ProcDateTime},
        {"_T", QV_Agent_ProcNomalType}, {"_Tanything", QV_Agent_ProcNomalType}, {"_ip", nullptr},
        {"_date", nullptr}, {"_vrid", nullptr}, {"_t8", nullptr}, {"_", nullptr}, {"_foo", nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.conversion);
        EXPECT_EQ(QV_Agent_GetHandlerByType(c.conversion), c.proc);
    }
    EXPECT_EQ(QV_Agent_GetHandlerByType(nullptr), nullptr);
    EXPECT_EQ(QV_Agent_GetHandlerByUserDefineType(nullptr), nullptr);
    EXPECT_EQ(QV_Agent_GetHandlerByUserDefineType("mac"), QV_Agent_ProcMAC);
}

TEST(FormatTable, AtoulReadsOneDecimalOfAtMostTenCharacters) {
    struct Case {
        const char *text;
        uint32_t value;
    };
    const Case cases[] = {
        {"4294967295", 4294967295u}, {"12345678901", 0}, {"0000000042", 42}, {"abc", 0}, {"", 0},
        {"12abc", 12},               {" 7", 7},          {"999", 999},       {"0", 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(QV_Agent_atoul(c.text), c.value);
    }
    EXPECT_EQ(QV_Agent_atoul(nullptr), 0u);
}

}  // namespace
