// Log records built from event objects: the 48-byte head, options, parameters, the growth of the
// object's buffers from the nominal to the large capacity, and sending with the sender's six options.
#include <cstring>

#include "core/bytes.h"
#include "core/process_id.h"
#include "event/record_entry.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_memory.h"
#include "qvplatform/qv_bounded.h"

namespace {

using qv::bytes::LoadHost;
using qv::bytes::StoreHost;

uint16_t ParaCount(const uint8_t *record) { return LoadHost<uint16_t>(record + QV_LOG_PARA_NUM_OFF); }

// The room the record buffer has for this call: the large capacity only if the growth test replaced
// the buffer just now. A buffer that grew earlier is measured against the nominal capacity again.
uint32_t CallCapacity(bool grewNow) { return grewNow ? QV_REC_LARGE_CAPACITY : QV_REC_NOMINAL_CAPACITY; }

// Runs the growth test on one of the object's buffers; sets grew when it was replaced.
uint32_t Grow(uint8_t **buffer, uint32_t used, uint16_t add, bool &grew, QvAgentModule *module) {
    uint32_t capacity = QV_REC_NOMINAL_CAPACITY;
    const uint32_t rc = QV_AGENT_IsRellocLogBuff(buffer, static_cast<uint16_t>(used), add, &capacity,
                                                 QV_REC_LARGE_CAPACITY, QV_REC_NOMINAL_CAPACITY, module);
    grew = capacity == QV_REC_LARGE_CAPACITY;
    return rc;
}

// The position word of option 10: local id B, local id A and CPU in the top three bytes.
uint32_t PositionWord(const QvAgentModule *module) {
    return (uint32_t{module->ucLocalIdB} << 24) | (uint32_t{module->ucLocalIdA} << 16) |
           (uint32_t{module->ucCpuId} << 8);
}

uint32_t AddSenderOptions(QvAgentObj *obj, QvAgentModule *module) {
    const uint32_t pid = qv::ProcessId();
    const uint32_t position = PositionWord(module);
    const uint16_t localA = module->ucLocalIdA;
    const uint16_t localB = module->ucLocalIdB;
    const struct {
        uint32_t type;
        uint16_t len;
        const void *value;
    } options[] = {
        {QV_OPT_SERVICE_NAME, static_cast<uint16_t>(strnlen(module->szServiceName, QV_AGENT_NAME_LEN)),
         module->szServiceName},
        {QV_OPT_SERVICE_ID, sizeof module->uiServiceId, &module->uiServiceId},
        {QV_OPT_PROCESS_ID, sizeof pid, &pid},
        {QV_OPT_POSITION, sizeof position, &position},
        {QV_OPT_LOCAL_ID_A, sizeof localA, &localA},
        {QV_OPT_LOCAL_ID_B, sizeof localB, &localB},
    };
    for (const auto &option : options) {
        const uint32_t rc = QV_AGENT_AddLogOption(obj, option.type, option.len, option.value, module);
        if (rc != QV_AGENT_OK) return rc;
    }
    return QV_AGENT_OK;
}

// The send list of a log kind: high-precision logs have their own.
uint32_t ListOfKind(uint32_t kind) {
    return kind == QV_AGENT_OBJ_HIGH_PRECISION ? QV_AGENT_MSG_HIGH_PRECISION : QV_AGENT_MSG_LOG;
}

}  // namespace

uint32_t QV_AGENT_ParseLogMsg(uint8_t kind, uint32_t msgId, QvAgentObj *obj) {
    if (obj == nullptr || obj->pucRecord == nullptr || obj->pucParaBuf == nullptr) return QV_AGENT_ERR_PARAM;
    uint8_t *record = obj->pucRecord;
    std::memset(record, 0, QV_LOG_HEAD_LEN);
    StoreHost<uint16_t>(record + QV_REC_TYPE_OFF, QV_REC_TYPE_LOG);
    qv::record::SetLength(record, QV_LOG_HEAD_LEN);
    StoreHost<uint32_t>(record + QV_LOG_ID_OFF, msgId);
    record[QV_LOG_LEVEL_OFF] = QV_LOG_LEVEL_NONE;
    record[QV_LOG_KIND_OFF] = kind;
    QvAgentSysTime now{};
    QV_AGENT_GMT_SystimeGet(&now);  // a clock that cannot be read leaves its fields 0
    QV_AGENT_SetLogtime(record, &now);
    qv::record::ResetParaBuf(obj->pucParaBuf);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_IsRellocLogBuff(uint8_t **buffer, uint16_t used, uint16_t add, uint32_t *outCap,
                                  uint32_t largeCap, uint32_t nominalCap, QvAgentModule *module) {
    if (buffer == nullptr || *buffer == nullptr) return QV_AGENT_ERR_PARAM;
    if (used >= nominalCap || uint32_t{used} + add + QV_ENTRY_HEAD_LEN <= nominalCap) return QV_AGENT_OK;
    auto *larger = static_cast<uint8_t *>(QV_AGENT_Malloc(largeCap, module));
    if (larger == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    const qv_errno_t rc = memcpy_s(larger, largeCap, *buffer, nominalCap);
    if (rc != QV_EOK) {
        QV_AGENT_Free(larger, module);
        return static_cast<uint32_t>(rc);
    }
    QV_AGENT_Free(*buffer, module);
    *buffer = larger;
    if (outCap != nullptr) *outCap = largeCap;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_AddLogOption(QvAgentObj *obj, uint32_t type, uint16_t len, const void *value,
                               QvAgentModule *module) {
    if (obj == nullptr || obj->pucRecord == nullptr || value == nullptr) return QV_AGENT_ERR_PARAM;
    if (type == QV_OPT_LOG_TIME) {
        if (len != QV_WALL_TIME_LEN) return QV_AGENT_ERR_PARAM;
        std::memcpy(obj->pucRecord + QV_LOG_TIME_OFF, value, QV_WALL_TIME_LEN);
    }
    bool grew = false;
    const uint32_t rc = Grow(&obj->pucRecord, qv::record::Length(obj->pucRecord), len, grew, module);
    if (rc != QV_AGENT_OK) return rc;
    const uint32_t capacity = CallCapacity(grew);
    uint8_t *record = obj->pucRecord;
    const uint32_t recordLen = qv::record::Length(record);
    if (recordLen + len + QV_ENTRY_HEAD_LEN > capacity) return QV_AGENT_ERR_NO_ROOM;
    const uint32_t copyRc =
        qv::record::WriteOption(record + recordLen, capacity - recordLen - QV_ENTRY_HEAD_LEN, type, len, value);
    if (copyRc != QV_AGENT_OK) return copyRc;
    qv::record::SetLength(record, recordLen + len + QV_ENTRY_HEAD_LEN);
    qv::record::CountUp32(record, QV_LOG_OPT_COUNT_OFF);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_AddLogPara(QvAgentObj *obj, uint32_t type, uint16_t len, void *value, QvAgentModule *module) {
    if (obj == nullptr || obj->pucRecord == nullptr || obj->pucParaBuf == nullptr || value == nullptr) {
        return QV_AGENT_ERR_PARAM;
    }
    if (ParaCount(obj->pucRecord) == QV_LOG_PARA_MAX) return QV_AGENT_ERR_PARAM;
    qv::record::CutText(type, len, value, QV_LOG_TEXT_PARA_MAX);

    // The record as it would be now; both buffers grow together so the record can take the parameters.
    const uint32_t wouldBe = qv::record::Length(obj->pucRecord) + qv::record::ParaUsed(obj->pucParaBuf) -
                             qv::record::kParaHeadLen;
    bool grew = false;
    uint32_t rc = Grow(&obj->pucParaBuf, wouldBe, len, grew, module);
    if (rc == QV_AGENT_OK && grew) {
        bool recordGrew = false;
        rc = Grow(&obj->pucRecord, wouldBe, len, recordGrew, module);
    }
    if (rc != QV_AGENT_OK) return rc;

    const uint32_t capacity = CallCapacity(grew);
    uint8_t *para = obj->pucParaBuf;
    const uint32_t used = qv::record::ParaUsed(para);
    const uint16_t stored = qv::record::StoredLen(len);
    if (used + QV_ENTRY_HEAD_LEN + stored > capacity) return static_cast<uint32_t>(QV_ERANGE);
    rc = qv::record::WriteParameter(para + used, capacity - used - QV_ENTRY_HEAD_LEN, type, len, value);
    if (rc != QV_AGENT_OK) return rc;
    qv::record::SetParaUsed(para, used + stored + QV_ENTRY_HEAD_LEN);
    StoreHost<uint16_t>(obj->pucRecord + QV_LOG_PARA_NUM_OFF, static_cast<uint16_t>(ParaCount(obj->pucRecord) + 1));
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_AddAllLogPara(uint8_t *record, const uint8_t *paraBuf) {
    if (record == nullptr || paraBuf == nullptr) return QV_AGENT_ERR_PARAM;
    return qv::record::AppendParas(record, paraBuf);
}

uint32_t QV_AGENT_SendLogMsg(QvAgentObj *obj, QvAgentModule *module) {
    if (obj == nullptr || obj->pucRecord == nullptr || obj->pucParaBuf == nullptr || module == nullptr) {
        return QV_AGENT_ERR_PARAM;
    }
    uint32_t rc = AddSenderOptions(obj, module);
    if (rc == QV_AGENT_OK) rc = QV_AGENT_AddAllLogPara(obj->pucRecord, obj->pucParaBuf);
    if (rc != QV_AGENT_OK) return rc;
    uint8_t *record = obj->pucRecord;
    qv::record::MarkSent(record, QV_LOG_OPT_COUNT_OFF);
    const uint32_t len = qv::record::Length(record);
    if (obj->uiObjType == QV_AGENT_OBJ_DIAG) return QV_AGENT_DiagNodeAddOrSend(record, module);
    return QV_AGENT_AddSendBuf(record, len, ListOfKind(obj->uiObjType), module);
}
