// Event objects: creation, the dispatch of every call by object kind, the alarm common attributes,
// sending and release.
#include <cstring>
#include <iterator>

#include "core/bytes.h"
#include "event/record_entry.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_memory.h"

namespace {

using qv::bytes::StoreHost;

// The buffers of a new object: the record and the parameters, both used with the nominal capacity;
// the parameter buffer is allocated at the large capacity from the start.
constexpr uint32_t kRecordBuffer = QV_REC_NOMINAL_CAPACITY;
constexpr uint32_t kParaBuffer = QV_REC_LARGE_CAPACITY;

bool IsLogKind(uint32_t kind) { return kind <= QV_AGENT_OBJ_KIND_MAX && ((QV_AGENT_LOG_KIND_MASK >> kind) & 1u) != 0; }

enum class ObjectClass { kLog, kAlarm, kRefused };

ObjectClass ClassOf(uint32_t kind) {
    if (IsLogKind(kind)) return ObjectClass::kLog;
    if (kind == QV_AGENT_OBJ_ALARM) return ObjectClass::kAlarm;
    return ObjectClass::kRefused;
}

// Category of the alarm common attributes, by category - 1: only 1, 2 and 4 are accepted.
constexpr bool kCategoryAccepted[] = {true, true, false, true};

}  // namespace

uint32_t QV_Agent_ObjFree(QvAgentObj *obj, QvAgentModule *module) {
    if (obj == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    QV_AGENT_Free(obj->pucRecord, module);
    QV_AGENT_Free(obj->pucParaBuf, module);
    QV_AGENT_Free(obj, module);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_ParseMsg(uint32_t kind, uint32_t msgId, QvAgentObj *obj, QvAgentModule * /*module*/) {
    if (obj == nullptr) return QV_AGENT_ERR_PARAM;
    obj->uiObjType = kind;
    switch (ClassOf(kind)) {
        case ObjectClass::kLog: return QV_AGENT_ParseLogMsg(static_cast<uint8_t>(kind), msgId, obj);
        case ObjectClass::kAlarm: return QV_AGENT_ParseAlarmMsg(kind, msgId, obj);
        case ObjectClass::kRefused: break;
    }
    return QV_AGENT_ERR_PARAM;
}

uint32_t QV_Agent_ObjCreate(uint32_t kind, uint32_t msgId, QvAgentObj **out, QvAgentModule *module) {
    if (out == nullptr) return QV_AGENT_ERR_PARAM;
    *out = nullptr;
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    auto *obj = static_cast<QvAgentObj *>(QV_AGENT_Malloc(sizeof(QvAgentObj), module));
    if (obj == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    obj->pucRecord = static_cast<uint8_t *>(QV_AGENT_Malloc(kRecordBuffer, module));
    obj->pucParaBuf = obj->pucRecord == nullptr ? nullptr : static_cast<uint8_t *>(QV_AGENT_Malloc(kParaBuffer, module));
    if (obj->pucParaBuf == nullptr) {
        QV_Agent_ObjFree(obj, module);
        return QV_AGENT_ERR_NO_MEMORY;
    }
    const uint32_t rc = QV_AGENT_ParseMsg(kind, msgId, obj, module);
    if (rc != QV_AGENT_OK) {
        QV_Agent_ObjFree(obj, module);
        return rc;
    }
    *out = obj;
    return QV_AGENT_OK;
}

uint32_t QV_Agent_AddPara(QvAgentObj *obj, uint32_t type, uint16_t len, void *value, QvAgentModule *module) {
    if (obj == nullptr || value == nullptr || module == nullptr || obj->pucRecord == nullptr) {
        return QV_AGENT_ERR_PARAM;
    }
    if (len == 0 && type != QV_PARA_TYPE_TEXT) return QV_AGENT_ERR_PARAM;
    switch (ClassOf(obj->uiObjType)) {
        case ObjectClass::kLog: return QV_AGENT_AddLogPara(obj, type, len, value, module);
        case ObjectClass::kAlarm: return QV_AGENT_AddAlarmPara(obj, type, len, value, module);
        case ObjectClass::kRefused: break;
    }
    return QV_AGENT_ERR_PARAM;
}

uint32_t QV_Agent_AddOption(QvAgentObj *obj, uint32_t type, uint32_t len, const void *value, QvAgentModule *module) {
    if (obj == nullptr || module == nullptr || value == nullptr || obj->pucRecord == nullptr) {
        return QV_AGENT_ERR_PARAM;
    }
    switch (ClassOf(obj->uiObjType)) {
        case ObjectClass::kLog: return QV_AGENT_AddLogOption(obj, type, static_cast<uint16_t>(len), value, module);
        case ObjectClass::kAlarm: return QV_AGENT_AddAlarmOption(obj, static_cast<uint16_t>(type), len, value);
        case ObjectClass::kRefused: break;
    }
    return QV_AGENT_ERR_PARAM;
}

uint32_t QV_AGENT_CheckAlarmComAttr(QvAgentObj *obj, const QvAgentAlarmComAttr *attr, QvAgentModule *module) {
    if (obj == nullptr || attr == nullptr || module == nullptr || attr->pstTime == nullptr ||
        obj->pucRecord == nullptr) {
        return QV_AGENT_ERR_PARAM;
    }
    const uint32_t index = attr->uiCategory - 1;  // category 0 wraps far out of the table
    if (index >= std::size(kCategoryAccepted) || !kCategoryAccepted[index]) return QV_AGENT_ERR_PARAM;
    return QV_AGENT_OK;
}

uint32_t QV_Agent_SetAlarmComAttr(QvAgentObj *obj, const QvAgentAlarmComAttr *attr, QvAgentModule *module) {
    const uint32_t rc = QV_AGENT_CheckAlarmComAttr(obj, attr, module);
    if (rc != QV_AGENT_OK) return rc;
    uint8_t *record = obj->pucRecord;
    qv::record::StoreWallTime(record + QV_ALARM_TIME_OFF, *attr->pstTime, 0);
    record[QV_ALARM_ATTR_BYTE_OFF] = static_cast<uint8_t>(attr->uiHeaderByte);
    record[QV_ALARM_CATEGORY_OFF] = static_cast<uint8_t>(attr->uiCategory);
    StoreHost<uint32_t>(record + QV_ALARM_ATTR_WORD_OFF, attr->uiHeaderWord);
    record[QV_ALARM_ATTR_MARKER_OFF] = QV_ALARM_ATTR_MARKER;
    uint32_t optRc = QV_AGENT_AddAlarmOption(obj, QV_OPT_ALARM_8, sizeof attr->uiOption8Val, &attr->uiOption8Val);
    if (optRc == QV_AGENT_OK) {
        optRc = QV_AGENT_AddAlarmOption(obj, QV_OPT_ALARM_16, sizeof attr->uiOption16Val, &attr->uiOption16Val);
    }
    return optRc;
}

uint32_t QV_Agent_Send(QvAgentObj *obj, QvAgentModule *module) {
    if (obj == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    const uint32_t rc = obj->uiObjType == QV_AGENT_OBJ_ALARM ? QV_AGENT_SendAlarmMsg(obj, module)
                                                            : QV_AGENT_SendLogMsg(obj, module);
    QV_Agent_ObjFree(obj, module);
    return rc;
}
