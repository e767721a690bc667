// Helpers for tests of the format analyser and its renderers: expected entries as bytes, and calls
// with real variadic argument lists that report where the caller's list stands afterwards.
#ifndef QV_TEST_FORMAT_SUPPORT_H
#define QV_TEST_FORMAT_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "qvagent/qvagent.h"

namespace fmttest {

using Bytes = std::vector<uint8_t>;

// Passed after a call's own arguments. Reading it back proves that the callee took exactly its
// arguments from the caller's list and advanced that list, not a copy: on AArch64 a va_list passed
// on by value moves only the callee's copy.
constexpr int kEnd = 0x5EED;
// uiParaLen before an analysis, to show whether the analysis set it.
constexpr uint32_t kUntouched = 0xDEADu;

template <typename T>
Bytes HostBytes(const T &value) {
    Bytes out(sizeof value);
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}
Bytes Text(const std::string &text);             // the characters and a terminating zero
Bytes Entry(uint16_t type, const Bytes &value);  // u16 type, u16 length, the value
Bytes Concat(std::initializer_list<Bytes> parts);

// Checks after each test that no block of the agent is left allocated.
class FormatTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

struct Analysed {
    uint32_t rc = 0;
    QvAgentParaState state{};
    Bytes para;    // the first uiParaLen bytes of the buffer, on success
    int next = 0;  // the argument after those the analysis took
};

// One analysis of kind on a fresh 2048-byte buffer of the agent's allocator, the arguments ending
// with kEnd; AnalyseFailing makes the failNth allocation of the analysis fail.
Analysed Analyse(uint32_t kind, const char *format, ...);
Analysed AnalyseFailing(uint64_t failNth, uint32_t kind, const char *format, ...);

template <size_t... I, typename... Lead>
Analysed AnalyseIntsImpl(std::index_sequence<I...>, uint32_t kind, std::string format, Lead... lead) {
    for (size_t i = 0; i < sizeof...(I); ++i) format += "%d";
    return Analyse(kind, format.c_str(), lead..., static_cast<int>(I + 1)..., kEnd);
}
// format followed by Count "%d", with the leading arguments and then the ints 1, 2, ... Count.
template <size_t Count, typename... Lead>
Analysed AnalyseInts(uint32_t kind, const std::string &format, Lead... lead) {
    return AnalyseIntsImpl(std::make_index_sequence<Count>{}, kind, format, lead...);
}

struct Rendered {
    uint32_t rc = 0;
    uint16_t type = 0;
    uint16_t len = 0;
    Bytes value;  // the first len bytes of the scratch, on success
    int next = 0;
};

// Calls a renderer in mode with a 9216-byte scratch, the arguments ending with kEnd.
Rendered Render(QvAgentFmtProcFn proc, uint8_t modifier, const char *conversion, unsigned mode, ...);

}  // namespace fmttest

#endif
