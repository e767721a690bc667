// Reporting a log by identifier and a debug log in one call: the format analyser renders the
// arguments into parameter entries, and the record is built in one block of exactly its length and
// handed to the send lists, or to the restraint for diagnostic logs.
#include <cstdarg>
#include <cstring>

#include "core/agent_block.h"
#include "core/bytes.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_log.h"
#include "qvagent/qv_agent_memory.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/qv_bounded.h"

namespace {

using qv::bytes::StoreHost;

constexpr uint32_t kDebugLevelShift = 14;       // the debug level is bits 14-16 of the debug id
constexpr uint32_t kDebugLevelMask = 0x7;
constexpr uint32_t kServiceNameOptions = 1;     // a by-identifier record carries one option

uint32_t Analyse(QvAgentModule *module, uint32_t objType, uint8_t **paraBuf, const char *format, va_list *args,
                 QvAgentParaState &state) {
    state = QvAgentParaState{};
    state.uiBufSize = QV_AGENT_PARA_BUF_SIZE;
    state.uiObjType = objType;
    return QV_Agent_ParaAnalyse(module, &state, paraBuf, format, args);
}

// The description of a record built from an analysis into para: identifier, kind and parameters.
QvAgentLogCommonInfo Describe(uint32_t logId, uint32_t objType, const uint8_t *para, const QvAgentParaState &state) {
    QvAgentLogCommonInfo info{};
    info.uiLogId = logId;
    info.uiObjType = objType;
    info.pucParaBuf = para;
    info.usParaLen = static_cast<uint16_t>(state.uiParaLen);
    info.usParaNum = static_cast<uint16_t>(state.uiParaNum);
    info.ucLevel = QV_LOG_LEVEL_NONE;
    return info;
}

uint32_t RecordLength(const QvAgentLogCommonInfo &info, uint32_t nameLen) {
    uint32_t len = QV_LOG_HEAD_LEN + QV_ENTRY_HEAD_LEN + nameLen + info.usParaLen;
    if (info.uiObjType == QV_AGENT_OBJ_DEBUG) {
        len += static_cast<uint32_t>(sizeof info.uiDebugWord + std::strlen(info.pszDebugText) + 1);
    }
    return len;
}

void WriteHead(uint8_t *record, uint32_t len, const QvAgentLogCommonInfo &info) {
    std::memset(record, 0, QV_LOG_HEAD_LEN);
    StoreHost<uint16_t>(record + QV_REC_TYPE_OFF, QV_REC_TYPE_LOG);
    StoreHost<uint16_t>(record + QV_REC_LEN_OFF, static_cast<uint16_t>(len));
    StoreHost<uint32_t>(record + QV_LOG_HEAD_WORD_OFF, info.uiHeadWord);
    StoreHost<uint32_t>(record + QV_LOG_VRID_OFF, info.uiVrid);
    StoreHost<uint32_t>(record + QV_LOG_ID_OFF, info.uiLogId);
    StoreHost<uint16_t>(record + QV_LOG_PARA_NUM_OFF, info.usParaNum);
    record[QV_LOG_LEVEL_OFF] = info.ucLevel;
    record[QV_LOG_KIND_OFF] = static_cast<uint8_t>(info.uiObjType);
    QvAgentSysTime now{};
    QV_AGENT_GMT_SystimeGet(&now);  // fields that cannot be read stay 0
    QV_AGENT_SetLogtime(record, &now);
    StoreHost<uint32_t>(record + QV_LOG_OPT_COUNT_OFF, QV_REC_OPT_MARKER | kServiceNameOptions);
}

// Writes everything behind the head: the service-name option, the parameters and, for debug records,
// the key word and the text. Each copy is bounded by the room left in the record.
uint32_t WriteBody(uint8_t *record, uint32_t len, const QvAgentLogCommonInfo &info, const char *name,
                   uint16_t nameLen) {
    uint32_t at = QV_LOG_HEAD_LEN;
    StoreHost<uint16_t>(record + at + QV_ENTRY_TYPE_OFF, QV_OPT_SERVICE_NAME);
    StoreHost<uint16_t>(record + at + QV_ENTRY_LEN_OFF, nameLen);
    at += QV_ENTRY_HEAD_LEN;
    qv_errno_t rc = nameLen == 0 ? QV_EOK : memcpy_s(record + at, len - at, name, nameLen);
    at += nameLen;
    if (rc == QV_EOK && info.usParaLen != 0) rc = memcpy_s(record + at, len - at, info.pucParaBuf, info.usParaLen);
    at += info.usParaLen;
    if (rc != QV_EOK || info.uiObjType != QV_AGENT_OBJ_DEBUG) return static_cast<uint32_t>(rc);
    rc = memcpy_s(record + at, len - at, &info.uiDebugWord, sizeof info.uiDebugWord);
    at += sizeof info.uiDebugWord;
    if (rc == QV_EOK) rc = strcpy_s(reinterpret_cast<char *>(record + at), len - at, info.pszDebugText);
    return static_cast<uint32_t>(rc);
}

}  // namespace

uint32_t QV_Agent_GetMsgTypeByQvType(uint32_t objType) {
    switch (objType) {
        case QV_AGENT_OBJ_ALARM: return QV_AGENT_MSG_ALARM;
        case QV_AGENT_OBJ_DEBUG:
        case QV_AGENT_OBJ_DEBUG_LOG: return QV_AGENT_MSG_DEBUG;
        case QV_AGENT_OBJ_HIGH_PRECISION: return QV_AGENT_MSG_HIGH_PRECISION;
        default: return QV_AGENT_MSG_LOG;
    }
}

uint32_t QV_Agent_LogCommon(QvAgentModule *module, const QvAgentLogCommonInfo *info) {
    if (module == nullptr || info == nullptr) return QV_AGENT_ERR_PARAM;
    if (info->uiObjType == QV_AGENT_OBJ_DEBUG && info->pszDebugText == nullptr) return QV_AGENT_ERR_PARAM;
    if (info->usParaLen != 0 && info->pucParaBuf == nullptr) return QV_AGENT_ERR_PARAM;
    const auto nameLen = static_cast<uint16_t>(strnlen(module->szServiceName, QV_AGENT_NAME_LEN));
    const uint32_t len = RecordLength(*info, nameLen);
    qv::AgentBlock record(len, module);
    if (record.get() == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    WriteHead(record.get(), len, *info);
    const uint32_t rc = WriteBody(record.get(), len, *info, module->szServiceName, nameLen);
    if (rc != QV_AGENT_OK) return rc;
    if (info->uiObjType == QV_AGENT_OBJ_DIAG && info->uiLogId != QV_AGENT_RESTRAINT_SUMMARY_ID) {
        return QV_AGENT_DiagNodeAddOrSend(record.get(), module);
    }
    return QV_AGENT_AddSendBuf(record.get(), len, QV_Agent_GetMsgTypeByQvType(info->uiObjType), module);
}

uint32_t QV_Agent_VReportLogById(uint32_t objType, uint32_t logId, const char *format, va_list args) {
    QvAgentModule *module = QV_Agent_GetHandle();
    if (logId == 0 || format == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    qv::AgentBlock para(QV_AGENT_PARA_BUF_SIZE, module);
    if (para.get() == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    QvAgentParaState state;
    va_list copy;
    va_copy(copy, args);
    const uint32_t rc = Analyse(module, objType, para.address(), format, &copy, state);
    va_end(copy);
    if (rc != QV_AGENT_OK) return rc;

    const QvAgentLogCommonInfo info = Describe(logId, objType, para.get(), state);
    return QV_Agent_LogCommon(module, &info);
}

uint32_t QV_Agent_ReportLogById(uint32_t objType, uint32_t logId, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const uint32_t rc = QV_Agent_VReportLogById(objType, logId, format, args);
    va_end(args);
    return rc;
}

uint32_t QV_Agent_Debug(const QvAgentDebugKey *key, const char *text, uint32_t debugId, const char *format, ...) {
    QvAgentModule *module = QV_Agent_GetHandle();
    if (key == nullptr || text == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    const size_t textLen = strnlen(text, QV_AGENT_DEBUG_TEXT_MAX + 1);
    if (textLen > QV_AGENT_DEBUG_TEXT_MAX) return QV_AGENT_ERR_DEBUG_TEXT;
    qv::AgentBlock para(QV_AGENT_PARA_BUF_SIZE, module);
    if (para.get() == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    const auto textSize = static_cast<uint32_t>(textLen + 1);
    qv::AgentBlock textCopy(textSize, module);
    if (textCopy.get() == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    if (strcpy_s(reinterpret_cast<char *>(textCopy.get()), textSize, text) != QV_EOK) return QV_AGENT_ERR_PARAM;

    QvAgentParaState state;
    va_list args;
    va_start(args, format);
    const uint32_t rc = Analyse(module, QV_AGENT_OBJ_DEBUG, para.address(), format, &args, state);
    va_end(args);
    if (rc != QV_AGENT_OK) return rc;

    QvAgentLogCommonInfo info = Describe(debugId, QV_AGENT_OBJ_DEBUG, para.get(), state);
    info.uiHeadWord = key->uiKeyWord0;
    info.uiDebugWord = key->uiKeyWord1;
    info.pszDebugText = reinterpret_cast<const char *>(textCopy.get());
    info.ucLevel = static_cast<uint8_t>((debugId >> kDebugLevelShift) & kDebugLevelMask);
    info.uiVrid = state.uiVrid;
    return QV_Agent_LogCommon(module, &info);
}
