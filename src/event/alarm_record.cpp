// Alarm records: the 40-byte head, options and parameters within the nominal capacity, and sending
// with the sender's four options, a trace line and a stack dump.
#include <cstring>

#include "core/bytes.h"
#include "event/record_entry.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_memory.h"

namespace {

using qv::bytes::LoadHost;
using qv::bytes::StoreHost;

// Values are copied with the room the record has left after the entry's own head.
constexpr uint32_t kValueRoom = QV_REC_NOMINAL_CAPACITY - QV_ENTRY_HEAD_LEN;

uint32_t AddSenderOptions(QvAgentObj *obj, const QvAgentModule *module) {
    uint8_t processInfo[QV_OPT_PROCESS_INFO_LEN];
    std::memcpy(processInfo, module->szProcessName, sizeof module->szProcessName);
    std::memcpy(processInfo + sizeof module->szProcessName, module->auiProcessInfo, sizeof module->auiProcessInfo);
    const uint16_t localA = module->ucLocalIdA;
    const uint16_t localB = module->ucLocalIdB;
    const struct {
        uint16_t type;
        uint32_t len;
        const void *value;
    } options[] = {
        {QV_OPT_SERVICE_NAME, static_cast<uint32_t>(strnlen(module->szServiceName, QV_AGENT_NAME_LEN)),
         module->szServiceName},
        {QV_OPT_PROCESS_INFO, sizeof processInfo, processInfo},
        {QV_OPT_LOCAL_ID_A, sizeof localA, &localA},
        {QV_OPT_LOCAL_ID_B, sizeof localB, &localB},
    };
    for (const auto &option : options) {
        const uint32_t rc = QV_AGENT_AddAlarmOption(obj, option.type, option.len, option.value);
        if (rc != QV_AGENT_OK) return rc;
    }
    return QV_AGENT_OK;
}

}  // namespace

uint32_t QV_AGENT_ParseAlarmMsg(uint32_t /*kind*/, uint32_t alarmId, QvAgentObj *obj) {
    if (obj == nullptr || obj->pucRecord == nullptr || obj->pucParaBuf == nullptr) return QV_AGENT_ERR_PARAM;
    uint8_t *record = obj->pucRecord;
    std::memset(record, 0, QV_ALARM_HEAD_LEN);
    StoreHost<uint16_t>(record + QV_REC_TYPE_OFF, QV_REC_TYPE_ALARM);
    qv::record::SetLength(record, QV_ALARM_HEAD_LEN);
    StoreHost<uint32_t>(record + QV_ALARM_ID_OFF, alarmId);
    qv::record::ResetParaBuf(obj->pucParaBuf);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_AddAlarmOption(QvAgentObj *obj, uint16_t type, uint32_t len, const void *value) {
    if (obj == nullptr || obj->pucRecord == nullptr || value == nullptr) return QV_AGENT_ERR_PARAM;
    const auto valueLen = static_cast<uint16_t>(len);
    uint8_t *record = obj->pucRecord;
    const uint32_t recordLen = qv::record::Length(record);
    if (recordLen + valueLen + QV_ENTRY_HEAD_LEN > QV_REC_NOMINAL_CAPACITY) return QV_AGENT_ERR_NO_ROOM;
    const uint32_t rc = qv::record::WriteOption(record + recordLen, kValueRoom - recordLen, type, valueLen, value);
    if (rc != QV_AGENT_OK) return rc;
    qv::record::SetLength(record, recordLen + valueLen + QV_ENTRY_HEAD_LEN);
    qv::record::CountUp32(record, QV_ALARM_OPT_COUNT_OFF);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_AddAlarmPara(QvAgentObj *obj, uint32_t type, uint16_t len, void *value, QvAgentModule * /*module*/) {
    if (obj == nullptr || obj->pucRecord == nullptr || obj->pucParaBuf == nullptr || value == nullptr) {
        return QV_AGENT_ERR_PARAM;
    }
    uint8_t *record = obj->pucRecord;
    const uint8_t count = record[QV_ALARM_PARA_NUM_OFF];
    if (count == QV_ALARM_PARA_MAX) return QV_AGENT_ERR_PARAM;
    qv::record::CutText(type, len, value, QV_ALARM_TEXT_PARA_MAX);

    uint8_t *para = obj->pucParaBuf;
    const uint32_t used = qv::record::ParaUsed(para);
    // Parameters share the nominal capacity with the head and the options added so far.
    if (len + (used - qv::record::kParaHeadLen) + qv::record::Length(record) + QV_ENTRY_HEAD_LEN >
        QV_REC_NOMINAL_CAPACITY) {
        return QV_AGENT_ERR_NO_ROOM;
    }
    const uint32_t rc = qv::record::WriteParameter(para + used, kValueRoom - used, type, len, value);
    if (rc != QV_AGENT_OK) return rc;
    qv::record::SetParaUsed(para, used + qv::record::StoredLen(len) + QV_ENTRY_HEAD_LEN);
    record[QV_ALARM_PARA_NUM_OFF] = static_cast<uint8_t>(count + 1);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_AddAllAlarmPara(uint8_t *record, const uint8_t *paraBuf) {
    if (record == nullptr || paraBuf == nullptr) return QV_AGENT_ERR_PARAM;
    return qv::record::AppendParas(record, paraBuf);
}

uint32_t QV_AGENT_SendAlarmMsg(QvAgentObj *obj, QvAgentModule *module) {
    if (obj == nullptr || obj->pucRecord == nullptr || obj->pucParaBuf == nullptr || module == nullptr) {
        return QV_AGENT_ERR_PARAM;
    }
    uint32_t rc = AddSenderOptions(obj, module);
    if (rc != QV_AGENT_OK) return rc;
    uint8_t *record = obj->pucRecord;
    QV_AGENT_WriteToFile("almid=0x%x, service=%s", LoadHost<uint32_t>(record + QV_ALARM_ID_OFF),
                         module->szServiceName);
    QV_AGENT_Backtrace();
    rc = QV_AGENT_AddAllAlarmPara(record, obj->pucParaBuf);
    if (rc != QV_AGENT_OK) return rc;
    qv::record::MarkSent(record, QV_ALARM_OPT_COUNT_OFF);
    return QV_AGENT_AddSendBuf(record, qv::record::Length(record), QV_AGENT_MSG_ALARM, module);
}

uint32_t QV_AGENT_GetAttributeExtByNtfOpValue(uint32_t *out, const uint8_t in[2]) {
    if (out == nullptr || in == nullptr) return QV_AGENT_ERR_PARAM;
    constexpr uint32_t kBase = 0x4;
    constexpr uint32_t kSecondByteBit = 0x8;
    uint32_t word = kBase;
    if (in[0] != 0) word |= uint32_t{in[0]} << 8;
    if ((in[1] & 1u) != 0) word |= kSecondByteBit;
    *out = word;
    return QV_AGENT_OK;
}
