// The renderers as the analyser calls them: type code, length and value bytes in each argument mode,
// the one argument each takes from the caller's list, their refusals; how a conversion finds its
// renderer; QV_Agent_atoul. Type codes are written as the numbers that go on the wire.
#include <gtest/gtest.h>

#include <bit>
#include <climits>
#include <functional>
#include <string>
#include <utility>

#include "format_support.h"

namespace {

using namespace fmttest;

static_assert(std::endian::native == std::endian::little, "expectations are little-endian bytes");

constexpr unsigned kValue = QV_AGENT_PARA_MODE_VALUE;
constexpr unsigned kPlaceholder = QV_AGENT_PARA_MODE_PLACEHOLDER;
constexpr unsigned kReference = QV_AGENT_PARA_MODE_REFERENCE;
constexpr uint32_t kErr = QV_AGENT_ERR_PARAM;
const void *const kNull = nullptr;

class Renderers : public FormatTest {};

void Expect(const Rendered &r, uint32_t rc, uint16_t type, const Bytes &value) {
    EXPECT_EQ(r.rc, rc);
    EXPECT_EQ(r.next, kEnd) << "the renderer took exactly its argument from the caller's list";
    if (rc != QV_AGENT_OK) return;
    EXPECT_EQ(r.type, type);
    EXPECT_EQ(r.len, value.size());
    EXPECT_TRUE(r.value == value) << "value bytes differ";
}

using ByValue = std::function<Rendered(QvAgentFmtProcFn, uint8_t)>;
template <typename T>
ByValue Given(T arg) {
    return [arg](QvAgentFmtProcFn proc, uint8_t modifier) { return Render(proc, modifier, "", kValue, arg, kEnd); };
}

// A value of fixed size: the argument's bytes by value; the same bytes read through a pointer by
// reference; zeros, taking nothing, in placeholder mode (1, or any mode but 0 and 2). A null pointer
// to read through is refused, not read.
TEST_F(Renderers, FixedSizeValuesInEveryMode) {
    static const QvAgentIpv6Value kV6 = {{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 2, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x55}};
    static const QvAgentMacValue kMac = {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}};
    static const QvAgentDateTimeValue kTime = {{0xEA, 0x07, 12, 31, 23, 59, 58}};
    struct Case {
        const char *name;
        QvAgentFmtProcFn proc;
        uint8_t modifier;
        uint16_t type;
        Bytes value;
        ByValue byValue;
    };
    const Case cases[] = {
        {"c: an int's low 8 bits", QV_Agent_ProcChar, 0, 6, {0x41}, Given(0x141)},
        {"x", QV_Agent_ProcHex, 0, 15, {0xEF, 0xBE, 0xAD, 0xDE}, Given(0xDEADBEEFu)},
        {"lx: low 32 bits", QV_Agent_ProcHex, 'l', 15, {8, 7, 6, 5}, Given(uint64_t{0x0102030405060708})},
        {"d", QV_Agent_ProcInt, 0, 4, {0, 0, 0, 0x80}, Given(INT_MIN)},
        {"hd", QV_Agent_ProcInt, 'h', 11, {0xFE, 0xFF}, Given(-2)},
        {"ld", QV_Agent_ProcInt, 'l', 2, {0, 0, 0, 0, 0, 0, 0, 0x80}, Given(INT64_MIN)},
        {"u", QV_Agent_ProcUInt, 0, 3, {0xFE, 0xFF, 0xFF, 0xFF}, Given(0xFFFFFFFEu)},
        {"hu: low 16 bits", QV_Agent_ProcUInt, 'h', 10, {0x70, 0x11}, Given(70000u)},
        {"lu", QV_Agent_ProcUInt, 'l', 1, {8, 7, 6, 5, 4, 3, 2, 1}, Given(uint64_t{0x0102030405060708})},
        {"ipv4: host order", QV_Agent_ProcIPV4, 0, 17, {0x01, 0x00, 0xA8, 0xC0}, Given(0xC0A80001u)},
        {"ipv6", QV_Agent_ProcIPV6, 0, 19, HostBytes(kV6), Given(kV6)},
        {"mac", QV_Agent_ProcMAC, 0, 27, HostBytes(kMac), Given(kMac)},
        {"datetime", QV_Agent_ProcDateTime, 0, 25, HostBytes(kTime), Given(kTime)},
        {"VRID", QV_Agent_ProcVRID, 0, 3, {7, 0, 0, 0}, Given(7u)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes zeros(c.value.size(), 0);
        Expect(c.byValue(c.proc, c.modifier), 0, c.type, c.value);
        Expect(Render(c.proc, c.modifier, "", kReference, c.value.data(), kEnd), 0, c.type, c.value);
        Expect(Render(c.proc, c.modifier, "", kPlaceholder, kEnd), 0, c.type, zeros);
        Expect(Render(c.proc, c.modifier, "", 3u, kEnd), 0, c.type, zeros);
        Expect(Render(c.proc, c.modifier, "", kReference, kNull, kEnd), kErr, 0, {});
    }
}

TEST_F(Renderers, StringsBlocksFloatAndSizedValues) {
    static const std::string z9215(9215, 'z'), z9216(9216, 'z');
    static const uint8_t kBlock[] = {6, 0, 0xAA, 0xBB, 0xCC, 0xDD};
    static const Bytes block9216 = Concat({{0x00, 0x24}, Bytes(9214, 0xB1)});
    static const Bytes block9217 = Concat({{0x01, 0x24}, Bytes(9215, 0xB1)});
    static const Bytes raw = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    struct Case {
        const char *name;
        std::function<Rendered()> run;
        uint32_t rc;
        uint16_t type;  // on success
        Bytes value;    // on success
    };
    const Case cases[] = {
        {"s", [] { return Render(QV_Agent_ProcString, 0, "s", kValue, "abc", kEnd); }, 0, 16, Text("abc")},
        {"s by reference", [] { return Render(QV_Agent_ProcString, 0, "s", kReference, "abc", kEnd); }, 0, 16,
         Text("abc")},
        {"s of 9215 whole", [] { return Render(QV_Agent_ProcString, 0, "s", kValue, z9215.c_str(), kEnd); }, 0, 16,
         Text(z9215)},
        {"s of 9216 cut", [] { return Render(QV_Agent_ProcString, 0, "s", kValue, z9216.c_str(), kEnd); }, 0, 16,
         Text(z9215)},
        {"s placeholder", [] { return Render(QV_Agent_ProcString, 0, "s", kPlaceholder, kEnd); }, 0, 16,
         Text("SimulateStringData")},
        {"s null", [] { return Render(QV_Agent_ProcString, 0, "s", kValue, kNull, kEnd); }, kErr, 0, {}},
        {"s null by reference", [] { return Render(QV_Agent_ProcString, 0, "s", kReference, kNull, kEnd); }, kErr, 0,
         {}},
        {"b", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, kBlock, kEnd); }, 0, 29, HostBytes(kBlock)},
        {"b of 9216", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, block9216.data(), kEnd); }, 0, 29,
         block9216},
        {"b of 9217", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, block9217.data(), kEnd); },
         QV_AGENT_ERR_NO_ROOM, 0, {}},
        {"b null", [] { return Render(QV_Agent_ProcBlock, 0, "b", kValue, kNull, kEnd); }, kErr, 0, {}},
        {"b by reference: the placeholder block", [] { return Render(QV_Agent_ProcBlock, 0, "b", kReference, kEnd); },
         0, 29, Concat({{40, 0}, Bytes(38, 0)})},
        {"f takes nothing", [] { return Render(QV_Agent_ProcFloat, 0, "f", kValue, kEnd); }, 0, 0, {}},
        {"_T.8", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.8", kValue, raw.data(), kEnd); }, 0, 30,
         Bytes(raw.begin(), raw.begin() + 8)},
        {"_T[16] by reference: ']' ends the digits",
         [] { return Render(QV_Agent_ProcNomalType, 0, "_T[16]", kReference, raw.data(), kEnd); }, 0, 30, raw},
        {"_T.16 placeholder", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.16", kPlaceholder, kEnd); }, 0, 30,
         Bytes(16, 0)},
        {"_T.1234", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.1234", kValue, kEnd); }, QV_AGENT_ERR_NO_ROOM, 0,
         {}},
        {"_T", [] { return Render(QV_Agent_ProcNomalType, 0, "_T", kValue, kEnd); }, QV_AGENT_ERR_FMT_NO_SIZE, 0, {}},
        {"_T.x8", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.x8", kValue, kEnd); }, QV_AGENT_ERR_FMT_NO_SIZE, 0,
         {}},
        {"_T.4 null", [] { return Render(QV_Agent_ProcNomalType, 0, "_T.4", kReference, kNull, kEnd); }, kErr, 0, {}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Expect(c.run(), c.rc, c.type, c.value);
    }
}

TEST(FormatTable, ConversionFindsItsRenderer) {
    const std::pair<const char *, QvAgentFmtProcFn> cases[] = {
        {"c", QV_Agent_ProcChar},       {"s", QV_Agent_ProcString},     {"x", QV_Agent_ProcHex},
        {"d", QV_Agent_ProcInt},        {"i", QV_Agent_ProcInt},        {"u", QV_Agent_ProcUInt},
        {"b", QV_Agent_ProcBlock},      {"f", QV_Agent_ProcFloat},      {"_ipv4", QV_Agent_ProcIPV4},
        {"_ipv6", QV_Agent_ProcIPV6},   {"_macx", QV_Agent_ProcMAC},    {"_VSID", QV_Agent_ProcVRID},
        {"_VRID", QV_Agent_ProcVRID},   {"_datetime", QV_Agent_ProcDateTime}, {"_T.4", QV_Agent_ProcNomalType},
        {"X", nullptr},  {"%", nullptr}, {"_ip", nullptr}, {"_vrid", nullptr}, {"_t8", nullptr}, {"_", nullptr},
    };
    for (const auto &[conversion, proc] : cases) EXPECT_EQ(QV_Agent_GetHandlerByType(conversion), proc) << conversion;
}

TEST(FormatTable, AtoulReadsOneDecimalOfAtMostTenCharacters) {
    const std::pair<const char *, uint32_t> cases[] = {
        {"4294967295", 4294967295u}, {"12345678901", 0}, {"0000000042", 42}, {"12abc", 12}, {"abc", 0}, {"", 0},
    };
    for (const auto &[text, value] : cases) EXPECT_EQ(QV_Agent_atoul(text), value) << text;
    EXPECT_EQ(QV_Agent_atoul(nullptr), 0u);
}

}  // namespace
