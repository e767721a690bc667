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

// Passed after a call's own arguments: reading it back proves that the callee took exactly its
// arguments from the caller's list, and advanced the caller's list, not a copy.
constexpr int kEnd = 0x5EED;

template <typename T>
Bytes HostBytes(const T &value) {
    Bytes out(sizeof value);
    std::memcpy(out.data(), &value, sizeof value);
    return out;
}

Bytes Text(const std::string &text);  // the characters and a terminating zero
Bytes Zeros(size_t count);
Bytes Filled(size_t count, uint8_t byte);

// One parameter entry: u16 type, u16 length, the value.
Bytes Entry(uint16_t type, const Bytes &value);
Bytes Concat(std::initializer_list<Bytes> parts);

std::string Repeat(const std::string &text, size_t times);

// Sets up the platform's accounted allocator, so tests can count and fail allocations, and checks
// after each test that nothing of the agent is left allocated.
class FormatTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// ---- the analyser ----

struct Analysed {
    uint32_t rc = 0;
    QvAgentParaState state{};
    Bytes para;    // the first uiParaLen bytes of the buffer, on success
    int next = 0;  // the argument that follows what the analysis took
};

// Runs one analysis of kind on a fresh 2048-byte buffer from the agent's allocator; the arguments
// must end with kEnd. uiParaLen starts at kUntouched to show whether the analysis set it.
constexpr uint32_t kUntouched = 0xDEADu;
Analysed Analyse(uint32_t kind, const char *format, ...);

// The same with count ints (1, 2, ... count) after the leading arguments.
template <size_t... I, typename... Lead>
Analysed AnalyseWithIntsImpl(std::index_sequence<I...>, uint32_t kind, const std::string &format, Lead... lead) {
    return Analyse(kind, format.c_str(), lead..., static_cast<int>(I + 1)..., kEnd);
}
template <size_t Count, typename... Lead>
Analysed AnalyseWithInts(uint32_t kind, const std::string &format, Lead... lead) {
    return AnalyseWithIntsImpl(std::make_index_sequence<Count>{}, kind, format, lead...);
}

// ---- the renderers ----

struct Rendered {
    uint32_t rc = 0;
    uint16_t type = 0;  // kTypeUnset unless the renderer set it
    uint16_t len = 0;
    Bytes value;        // the first len bytes of the scratch, on success
    int next = 0;
};
constexpr uint16_t kTypeUnset = 0xBEEF;

// Calls a renderer with the given mode and a scratch of 9216 bytes; the arguments must end with kEnd.
Rendered Render(QvAgentFmtProcFn proc, uint8_t modifier, const char *conversion, unsigned mode, ...);

}  // namespace fmttest

#endif
