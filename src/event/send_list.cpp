// Queuing records on the five send lists of the module: copies, limits, the debug cap of the current
// send pass and the diversion of log records into the blackbox.
#include "event/send_list.h"

#include <atomic>
#include <cstring>

#include "core/mutex_guard.h"
#include "core/shared_field.h"
#include "qvagent/qv_agent_blackbox.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_memory.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/qv_bounded.h"
#include "transport/wire_msg.h"

namespace {

// The record copy follows the item in the same block.
constexpr uint32_t kItemSize = sizeof(QvAgentListItem);

uint32_t LimitOf(const QvAgentModule *module, int32_t k) {
    return k == static_cast<int32_t>(QV_AGENT_MSG_KPI) ? QV_AGENT_KPI_LIST_LIMIT : qv::LoadShared(module->uiListLimit);
}

void LinkAtTail(QvAgentSendList &list, QvAgentListItem *item) {
    QvAgentListItem *head = qv::sendlist::Head(list);
    item->pstNext = head;
    item->pstPrev = list.pstPrev;
    list.pstPrev->pstNext = item;
    list.pstPrev = item;
    ++list.uiCount;
}

// The debug records packed in the current send pass, read without the list mutex: the transport
// clears the count without it too, so a record queued right at the cap may still be accepted.
bool DebugCapReached(QvAgentModule *module) {
    return std::atomic_ref<uint32_t>(module->uiDebugSendCnt).load(std::memory_order_relaxed) >=
           QV_AGENT_SEND_PASS_CAP;
}

}  // namespace

namespace qv::sendlist {

void Unlink(QvAgentSendList &list, QvAgentListItem *item) {
    item->pstPrev->pstNext = item->pstNext;
    item->pstNext->pstPrev = item->pstPrev;
    --list.uiCount;
}

void Release(QvAgentListItem *item, QvAgentModule *module) { QV_AGENT_Free(item, module); }

uint32_t MaxRecordLen(uint32_t k) { return QV_WIRE_MAX_LIST_DATAGRAM - qv::wire::HeadLen(k); }

}  // namespace qv::sendlist

namespace {

// A new item holding a copy of the record, not yet on any list; the caller links or releases it.
uint32_t NewItem(const uint8_t *data, uint32_t len, QvAgentModule *module, QvAgentListItem **out) {
    if (len > UINT32_MAX - kItemSize) return QV_AGENT_ERR_NO_MEMORY;
    auto *block = static_cast<uint8_t *>(QV_AGENT_Malloc(kItemSize + len, module));
    if (block == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    auto *item = reinterpret_cast<QvAgentListItem *>(block);
    item->pucData = block + kItemSize;
    item->uiLen = len;
    if (len != 0) {
        const qv_errno_t rc = memcpy_s(item->pucData, len, data, len);
        if (rc != QV_EOK) {
            QV_AGENT_Free(block, module);
            return static_cast<uint32_t>(rc);
        }
    }
    *out = item;
    return QV_AGENT_OK;
}

// Links a new item at the tail of list k, or releases it when the list is above its limit. The caller
// holds the list's mutex.
uint32_t Admit(QvAgentModule *module, int32_t k, QvAgentListItem *item) {
    QvAgentSendList &list = module->astSendList[k];
    // The count may reach the limit: a list holds up to limit + 1 items.
    if (list.uiCount > LimitOf(module, k)) {
        qv::sendlist::Release(item, module);
        return QV_AGENT_ERR_LIST_FULL;
    }
    LinkAtTail(list, item);
    return QV_AGENT_OK;
}

// A log record while the blackbox is on: stored in the box, or queued on list 0 when the box is full.
// The box and the list are changed under the list mutex together.
uint32_t AddThroughBlackbox(const uint8_t *record, uint32_t len, QvAgentModule *module) {
    qv::MutexGuard guard(module->stListMutex);
    const uint32_t rc = QV_AGENT_WriteBlackbox(record, len);
    if (rc != QV_AGENT_BOX_FULL) return rc;
    if (len > qv::sendlist::MaxRecordLen(QV_AGENT_MSG_LOG)) return QV_AGENT_ERR_NO_ROOM;
    return QV_AGENT_AddLogToDataList(record, len, static_cast<int32_t>(QV_AGENT_MSG_LOG), module);
}

}  // namespace

uint32_t QV_AGENT_AddLogToDataList(const uint8_t *data, uint32_t len, int32_t k, QvAgentModule *module) {
    if ((data == nullptr && len != 0) || module == nullptr || k < 0 ||
        k >= static_cast<int32_t>(QV_AGENT_MSG_KIND_COUNT)) {
        return QV_AGENT_ERR_PARAM;
    }
    QvAgentListItem *item = nullptr;
    const uint32_t rc = NewItem(data, len, module, &item);
    return rc != QV_AGENT_OK ? rc : Admit(module, k, item);
}

// The copy is made before the list mutex is taken, so that two reporting threads meet only for the
// few instructions that check the limit and link the item. bBlackboxEnable is set once, at creation.
uint32_t QV_AGENT_AddSendBuf(const uint8_t *record, uint32_t len, uint32_t k, QvAgentModule *module) {
    if (record == nullptr || module == nullptr || k >= QV_AGENT_MSG_KPI) return QV_AGENT_ERR_PARAM;
    if (k == QV_AGENT_MSG_DEBUG && DebugCapReached(module)) return QV_AGENT_ERR_LIST_FULL;
    if (k == QV_AGENT_MSG_LOG && module->bBlackboxEnable != 0) return AddThroughBlackbox(record, len, module);
    // A record that no datagram could carry would block its list for good: it never enters it.
    if (len > qv::sendlist::MaxRecordLen(k)) return QV_AGENT_ERR_NO_ROOM;
    QvAgentListItem *item = nullptr;
    const uint32_t rc = NewItem(record, len, module, &item);
    if (rc != QV_AGENT_OK) return rc;
    qv::MutexGuard guard(module->stListMutex);
    return Admit(module, static_cast<int32_t>(k), item);
}
