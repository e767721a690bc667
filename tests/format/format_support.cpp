// Helpers for tests of the format analyser and its renderers.
#include "format_support.h"

#include <algorithm>
#include <cstdarg>

#include "agent_support.h"
#include "qvplatform_testctl.h"

namespace fmttest {

Bytes Text(const std::string &text) {
    Bytes out(text.begin(), text.end());
    out.push_back(0);
    return out;
}

Bytes Zeros(size_t count) { return Bytes(count, 0); }

Bytes Filled(size_t count, uint8_t byte) { return Bytes(count, byte); }

Bytes Entry(uint16_t type, const Bytes &value) {
    return Concat({HostBytes(type), HostBytes(static_cast<uint16_t>(value.size())), value});
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

std::string Repeat(const std::string &text, size_t times) {
    std::string out;
    for (size_t i = 0; i < times; ++i) out += text;
    return out;
}

void FormatTest::SetUp() {
    QVPLAT_TestSetStarted(1);
    QVPLAT_TestFailAllocation(0);
    ASSERT_EQ(QV_Agent_InitMemHandle(), QV_AGENT_OK);
    ASSERT_EQ(g_farnoInited, 1u);
}

void FormatTest::TearDown() {
    QVPLAT_TestFailAllocation(0);
    EXPECT_EQ(qvtest::AgentBlocks(), 0u);
}

Analysed Analyse(uint32_t kind, const char *format, ...) {
    Analysed out;
    out.state = {0, kUntouched, kUntouched, QV_AGENT_PARA_BUF_SIZE, kind};
    auto *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(QV_AGENT_PARA_BUF_SIZE, nullptr));
    EXPECT_NE(buffer, nullptr);
    va_list args;
    va_start(args, format);
    out.rc = QV_Agent_ParaAnalyse(nullptr, &out.state, &buffer, format, &args);
    out.next = va_arg(args, int);
    va_end(args);
    if (out.rc == QV_AGENT_OK) out.para.assign(buffer, buffer + out.state.uiParaLen);
    QV_AGENT_Free(buffer, nullptr);
    return out;
}

Rendered Render(QvAgentFmtProcFn proc, uint8_t modifier, const char *conversion, unsigned mode, ...) {
    Rendered out;
    Bytes scratch(QV_AGENT_PARA_SCRATCH_SIZE, 0xCC);
    out.type = kTypeUnset;
    out.len = static_cast<uint16_t>(mode);
    va_list args;
    va_start(args, mode);
    out.rc = proc(&args, modifier, conversion, &out.type, &out.len, scratch.data());
    out.next = va_arg(args, int);
    va_end(args);
    if (out.rc == QV_AGENT_OK) {
        out.value.assign(scratch.begin(), scratch.begin() + std::min<size_t>(out.len, scratch.size()));
    }
    return out;
}

}  // namespace fmttest
