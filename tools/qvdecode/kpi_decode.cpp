// KPI packet decoding.
#include "kpi_decode.h"

#include <ctime>

#include "qvagent/qv_agent_wire.h"

namespace qvdecode {

namespace {

uint64_t Be64(Bytes b, size_t off) {
    return (static_cast<uint64_t>(Be32(b, off)) << 32) | Be32(b, off + 4);
}

// The agent sends every sample of mode 01 and filters every other mode by its on-change options.
const char *ModeName(uint8_t flag) {
    const auto mode = static_cast<uint8_t>((flag & QV_KPI_FLAG_MODE_MASK) >> QV_KPI_FLAG_MODE_SHIFT);
    return mode == QV_KPI_FLAG_MODE_ALWAYS ? "always" : "on_change";
}

}  // namespace

std::optional<std::string> ReadKpiPacket(Bytes packet, KpiPacketHead &head) {
    if (packet.size() < QV_KPI_PKT_HEAD_LEN) {
        return std::to_string(packet.size()) + " bytes, shorter than a KPI packet head";
    }
    head.totalLen = Be16(packet, QV_KPI_PKT_TOTAL_LEN_OFF);
    head.flags = U8(packet, QV_KPI_PKT_FLAGS_OFF);
    head.msgType = U8(packet, QV_KPI_PKT_MSG_TYPE_OFF);
    head.reserved = Be32(packet, QV_KPI_PKT_RESERVED_OFF);
    head.recordNum = Be32(packet, QV_KPI_PKT_RECORD_NUM_OFF);
    const size_t body = packet.size() - QV_KPI_PKT_HEAD_LEN;
    if (body % QV_KPI_REC_LEN != 0 || body / QV_KPI_REC_LEN != head.recordNum) {
        return "record count " + std::to_string(head.recordNum) + " for " + std::to_string(body) +
               " bytes of records";
    }
    return std::nullopt;
}

Bytes KpiRecordAt(Bytes packet, uint32_t i) {
    return Sub(packet, QV_KPI_PKT_HEAD_LEN + static_cast<size_t>(i) * QV_KPI_REC_LEN, QV_KPI_REC_LEN);
}

void DecodeKpiRecord(Bytes r, JsonWriter &w) {
    const uint16_t component = Be16(r, QV_KPI_REC_COMPONENT_OFF);
    const uint8_t flag = U8(r, QV_KPI_REC_FLAG_OFF);
    const uint32_t time = Be32(r, QV_KPI_REC_TIME_OFF);
    w.Field("component", component);
    w.Field("component_id", static_cast<uint16_t>(component - QV_KPI_COMPONENT_OFFSET));
    w.Field("kpi", Be32(r, QV_KPI_REC_KPI_ID_OFF));
    w.Field("object", Be32(r, QV_KPI_REC_OBJECT_OFF));
    w.Field("sub_object", Be16(r, QV_KPI_REC_SUB_OBJECT_OFF));
    w.Field("cpu", U8(r, QV_KPI_REC_CPU_OFF));
    w.Field("local_id_a", U8(r, QV_KPI_REC_LOCAL_ID_A_OFF));
    w.Field("local_id_b", U8(r, QV_KPI_REC_LOCAL_ID_B_OFF));
    w.Field("flag", flag);
    w.FieldString("report", ModeName(flag));
    w.Field("value", Be64(r, QV_KPI_REC_VALUE_OFF));
    w.Field("time", time);
    w.FieldString("time_utc", UtcText(time));
}

std::string UtcText(uint32_t seconds) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

}  // namespace qvdecode
