// The send window: per kind, build a datagram from the send list when none is kept, resend the kept
// one on passes 5, 10 and 20 of its life, release it unacknowledged on pass 25, and release it at once
// when the collector acknowledges it.
#include "transport/send_window.h"

#include <atomic>
#include <cstring>

#include "core/bytes.h"
#include "blackbox/blackbox.h"
#include "core/mutex_guard.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_memory.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/qv_bounded.h"
#include "transport/socket_mode.h"
#include "transport/wire_msg.h"

namespace {

// Passes of a kept datagram's life on which it is sent again, as a bit mask over 0..20.
constexpr uint32_t kResendPoints = (1u << 5) | (1u << 10) | (1u << 20);
constexpr uint32_t kLastResendPoint = 20;
constexpr uint32_t kDropPoint = 25;
// A datagram numbered 1 (the stream start, or the first after a wrap) is offered until acknowledged.
constexpr uint32_t kAlwaysResentSeqNo = 1;

bool IsResendPoint(uint32_t sendTimes) {
    return sendTimes <= kLastResendPoint && ((kResendPoints >> sendTimes) & 1u) != 0;
}

// Per kind, for the diagnosis of a collector's gaps: datagrams released unacknowledged at the end of
// their schedule, and numbers raised for a datagram that found nothing to pack.
std::atomic<uint64_t> g_dropped[QV_AGENT_MSG_KPI];
std::atomic<uint64_t> g_skipped[QV_AGENT_MSG_KPI];

// A pass of a kind whose datagram is kept: resend it (its length), or wait (-1).
int32_t PassWithKeptCopy(uint32_t k, QvAgentSendList &list, uint8_t *buf, uint32_t size, QvAgentModule *module) {
    ++list.uiSendTimes;
    if (QV_AGENT_CheckReSendLimit(&list, module) == 0) {
        if (list.pucResendMsg == nullptr) g_dropped[k].fetch_add(1, std::memory_order_relaxed);
        return -1;
    }
    if (memcpy_s(buf, size, list.pucResendMsg, list.uiResendMsgLen) != QV_EOK) return 0;
    return static_cast<int32_t>(list.uiResendMsgLen);
}

// A pass of an idle kind: build, pack and keep a new datagram; its length, or 0.
int32_t PassBuildingNew(uint32_t k, QvAgentSendList &list, uint8_t *buf, uint32_t size, QvAgentModule *module) {
    if (QV_AGETN_IsNeedSendMsg(static_cast<int32_t>(k), &list, module) == 0) return 0;
    std::memset(buf, 0, size);
    const bool streamStarted = list.bSynced != 0;
    if (QV_AGENT_AssembleMsgHead(k, &list, buf, size, module) != QV_AGENT_OK) return 0;
    // The sequence number just raised stays used even when nothing is packed: the collector sees a gap.
    if (streamStarted && QV_AGENT_AssembleMsgBody(static_cast<int32_t>(k), &list, buf, size, module) != QV_AGENT_OK) {
        g_skipped[k].fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    const uint16_t len = qv::bytes::LoadBe16(buf + QV_WIRE_HEAD_TOTAL_LEN_OFF);
    QV_AGENT_AddRetransMsg(&list, buf, len, module);  // without a copy it is sent all the same
    ++list.uiSendTimes;
    return len;
}

}  // namespace

namespace qv::window {

void ReleaseAcknowledged(QvAgentModule *module, uint32_t k) {
    QvAgentSendList &list = module->astSendList[k];
    QV_AGENT_FreeResendMsg(&list, module);
    if (k == QV_AGENT_MSG_LOG && module->bBlackboxEnable != 0) {
        QV_AGENT_ClearReadedBoxData();
        QV_AGENT_MoveDataList2Box(&list, module);
    }
}

// The per-pass record counters are read without the list mutex by service threads (the debug cap), so
// every access is atomic.
namespace {

uint32_t &PassCounter(QvAgentModule *module, int32_t k) {
    return k == static_cast<int32_t>(QV_AGENT_MSG_DEBUG) ? module->uiDebugSendCnt : module->uiLogSendCnt;
}

bool CountsAgainstPassCap(int32_t k) {
    return k == static_cast<int32_t>(QV_AGENT_MSG_LOG) || k == static_cast<int32_t>(QV_AGENT_MSG_DEBUG);
}

}  // namespace

bool PassCapReached(QvAgentModule *module, int32_t k) {
    return CountsAgainstPassCap(k) &&
           std::atomic_ref<uint32_t>(PassCounter(module, k)).load(std::memory_order_relaxed) >=
               QV_AGENT_SEND_PASS_CAP;
}

void CountPacked(QvAgentModule *module, int32_t k) {
    if (CountsAgainstPassCap(k)) {
        std::atomic_ref<uint32_t>(PassCounter(module, k)).fetch_add(1, std::memory_order_relaxed);
    }
}

void ClearPassCounters(QvAgentModule *module) {
    std::atomic_ref<uint32_t>(module->uiLogSendCnt).store(0, std::memory_order_relaxed);
    std::atomic_ref<uint32_t>(module->uiDebugSendCnt).store(0, std::memory_order_relaxed);
}

uint64_t Dropped(uint32_t k) { return k < QV_AGENT_MSG_KPI ? g_dropped[k].load(std::memory_order_relaxed) : 0; }

uint64_t Skipped(uint32_t k) { return k < QV_AGENT_MSG_KPI ? g_skipped[k].load(std::memory_order_relaxed) : 0; }

}  // namespace qv::window

uint32_t QV_AGENT_CheckReSendLimit(QvAgentSendList *list, QvAgentModule *module) {
    if (list == nullptr) return 0;
    if (list->uiSeqNo == kAlwaysResentSeqNo || IsResendPoint(list->uiSendTimes)) return 1;
    if (list->uiSendTimes >= kDropPoint) QV_AGENT_FreeResendMsg(list, module);
    return 0;
}

uint32_t QV_AGETN_IsNeedSendMsg(int32_t k, QvAgentSendList *list, QvAgentModule * /*module*/) {
    if (list == nullptr) return 0;
    if (k == static_cast<int32_t>(QV_AGENT_MSG_HIGH_PRECISION) && list->bSynced == 0) {
        list->bSynced = 1;  // this kind starts its stream with records, not with a bare head
    } else if (list->bSynced == 0) {
        return 1;
    }
    if (list->uiCount != 0) return 1;
    return k == static_cast<int32_t>(QV_AGENT_MSG_LOG) && QV_AGENT_BlackboxIsEmpty() == 0 ? 1 : 0;
}

uint32_t QV_AGENT_AddRetransMsg(QvAgentSendList *list, const uint8_t *msg, uint32_t len, QvAgentModule *module) {
    if (list == nullptr || msg == nullptr) return QV_AGENT_ERR_PARAM;
    if (len == 0) return QV_AGENT_ERR_FAILED;
    auto *copy = static_cast<uint8_t *>(QV_AGENT_Malloc(len, module));
    if (copy == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    const qv_errno_t rc = memcpy_s(copy, len, msg, len);
    if (rc != QV_EOK) {
        QV_AGENT_Free(copy, module);
        return static_cast<uint32_t>(rc);
    }
    list->pucResendMsg = copy;
    list->uiResendMsgLen = len;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_FreeResendMsg(QvAgentSendList *list, QvAgentModule *module) {
    if (list == nullptr) return QV_AGENT_ERR_PARAM;
    QV_AGENT_Free(list->pucResendMsg, module);
    list->pucResendMsg = nullptr;
    list->uiResendMsgLen = 0;
    list->uiSendTimes = 0;
    return QV_AGENT_OK;
}

int32_t QV_AGENT_GetSendMsg(uint32_t k, uint8_t *buf, uint32_t size, QvAgentModule *module) {
    if (k >= QV_AGENT_MSG_KPI || buf == nullptr || module == nullptr) return 0;
    qv::MutexGuard guard(module->stListMutex);
    QvAgentSendList &list = module->astSendList[k];
    if (list.pucResendMsg != nullptr) return PassWithKeptCopy(k, list, buf, size, module);
    return PassBuildingNew(k, list, buf, size, module);
}

uint32_t QV_AGENT_ProcRecvMsg(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from,
                              QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    const uint32_t rc = QV_AGENT_CheckRecvMsg(buf, len, from);
    if (rc != QV_AGENT_OK) return rc;
    const uint32_t k = QV_AGENT_GetRecvMsgType(buf, len, from);
    if (k >= QV_AGENT_MSG_KPI) return QV_AGENT_ERR_PARAM;
    const uint32_t acked = qv::bytes::LoadBe32(buf + QV_WIRE_HEAD_SEQ_NO_OFF);
    {
        qv::MutexGuard guard(module->stListMutex);
        if (module->astSendList[k].uiSeqNo == acked) qv::window::ReleaseAcknowledged(module, k);
    }
    QV_AGENT_SendMsg(k, module);  // the next datagram of the kind goes out at once
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_ClearSendCountInfo(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    const int rc = pthread_mutex_lock(&module->stListMutex);
    if (rc != 0) return static_cast<uint32_t>(rc);
    qv::window::ClearPassCounters(module);
    pthread_mutex_unlock(&module->stListMutex);
    return QV_AGENT_OK;
}
