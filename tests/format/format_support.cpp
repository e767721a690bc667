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

Bytes Entry(uint16_t type, const Bytes &value) {
    return Concat({HostBytes(type), HostBytes(static_cast<uint16_t>(value.size())), value});
}

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

void FormatTest::SetUp() {
    QVPLAT_TestFailAllocation(0);
    ASSERT_EQ(QV_Agent_InitMemHandle(), QV_AGENT_OK);
}

void FormatTest::TearDown() {
    QVPLAT_TestFailAllocation(0);
    EXPECT_EQ(qvtest::AgentBlocks(), 0u);
}

namespace {

Analysed AnalyseList(uint64_t failNth, uint32_t kind, const char *format, va_list *args) {
    Analysed out;
    out.state = {0, kUntouched, kUntouched, QV_AGENT_PARA_BUF_SIZE, kind};
    auto *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(QV_AGENT_PARA_BUF_SIZE, nullptr));
    EXPECT_NE(buffer, nullptr);
    QVPLAT_TestFailAllocation(failNth);
    out.rc = QV_Agent_ParaAnalyse(nullptr, &out.state, &buffer, format, args);
    QVPLAT_TestFailAllocation(0);
    out.next = va_arg(*args, int);
    if (out.rc == QV_AGENT_OK) out.para.assign(buffer, buffer + out.state.uiParaLen);
    QV_AGENT_Free(buffer, nullptr);
    return out;
}

}  // namespace

Analysed Analyse(uint32_t kind, const char *format, ...) {
    va_list args;
    va_start(args, format);
    Analysed out = AnalyseList(0, kind, format, &args);
    va_end(args);
    return out;
}

Analysed AnalyseFailing(uint64_t failNth, uint32_t kind, const char *format, ...) {
    va_list args;
    va_start(args, format);
    Analysed out = AnalyseList(failNth, kind, format, &args);
    va_end(args);
    return out;
}

Rendered Render(QvAgentFmtProcFn proc, uint8_t modifier, const char *conversion, unsigned mode, ...) {
    Rendered out;
    Bytes scratch(QV_AGENT_PARA_SCRATCH_SIZE, 0xCC);
    out.len = static_cast<uint16_t>(mode);
    va_list args;
    va_start(args, mode);
    out.rc = proc(&args, modifier, conversion, &out.type, &out.len, scratch.data());
    out.next = va_arg(args, int);
    va_end(args);
    if (out.rc == QV_AGENT_OK) {
        out.value.assign(scratch.data(), scratch.data() + std::min<size_t>(out.len, scratch.size()));
    }
    return out;
}

}  // namespace fmttest
