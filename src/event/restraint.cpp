// The restraint of repeated diagnostic logs (kind 9): per message id, the records queued in each
// timer tick are counted; an id that stays hot for nine ticks is silenced for 300 ticks, after which
// one summary log reports how many of its records were dropped. The statistics live in the module's
// ordered tree under stDiagMutex.
#include <cstring>

#include "core/bytes.h"
#include "core/mutex_guard.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_log.h"
#include "qvagent/qv_agent_memory.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/pal.h"

namespace {

// The module's tree head is the platform's tree record, laid out alike.
static_assert(sizeof(QvAgentTree) == sizeof(PAL_AVL_TREE_S));
static_assert(offsetof(QvAgentTree, pfnCompare) == offsetof(PAL_AVL_TREE_S, pfnCompare));
static_assert(offsetof(QvAgentTree, pstRoot) == offsetof(PAL_AVL_TREE_S, pstRoot));
static_assert(offsetof(QvAgentTree, pstFirst) == offsetof(PAL_AVL_TREE_S, pstFirst));
static_assert(offsetof(QvAgentTree, pstLast) == offsetof(PAL_AVL_TREE_S, pstLast));

PAL_AVL_TREE_S *PlatformTree(QvAgentTree *tree) { return reinterpret_cast<PAL_AVL_TREE_S *>(tree); }

constexpr uint32_t kHotThreshold = 50;     // records in one tick that make it hot
constexpr uint32_t kRestrainLevel = 9;     // hot level at which the next tick starts the restraint
constexpr uint32_t kRestrainTicks = 300;   // length of the restraint
constexpr char kSummaryFormat[] = "%u%u%u"; // id, records dropped, ticks restrained

// A tree node and its statistics are one block: the node's key points just behind it.
struct DiagEntry {
    PAL_AVL_NODE_S node;
    QvAgentDiagStatis statis;
};

QvAgentDiagStatis *StatisOf(PAL_AVL_NODE_S *node) {
    return node == nullptr ? nullptr : static_cast<QvAgentDiagStatis *>(node->pKey);
}

void RemoveEntry(QvAgentModule *module, PAL_AVL_NODE_S *node) {
    PAL_AVL_Delete(PlatformTree(&module->stDiagTree), node);
    QV_AGENT_Free(node, module);  // the node is the start of its DiagEntry
}

// One tick of one id's statistics; true when the entry is to be forgotten.
bool AgeEntry(QvAgentDiagStatis &s) {
    if (s.bRestrained != 0) {
        ++s.uiRestrainTicks;
        if (s.uiRestrainTicks < kRestrainTicks) {
            s.uiSendCnt = 0;
            return false;
        }
        s.bRestrained = 0;
        QV_Agent_ReportLogById(QV_AGENT_OBJ_DIAG, QV_AGENT_RESTRAINT_SUMMARY_ID, kSummaryFormat, s.uiMsgId,
                               s.uiSuppressCnt, s.uiRestrainTicks);
        return true;
    }
    if (s.uiHotLevel >= kRestrainLevel) {
        s.bRestrained = 1;
        s.uiSendCnt = 0;
        return false;
    }
    if (s.uiSendCnt >= kHotThreshold) {
        ++s.uiHotLevel;
        s.uiSendCnt = 0;
        return false;
    }
    if (s.uiHotLevel == 0) return true;
    --s.uiHotLevel;
    s.uiSendCnt = 0;
    return false;
}

}  // namespace

QvAgentDiagStatis *QV_AGENT_DiagNodeFind(uint32_t msgId, QvAgentTree *tree) {
    if (tree == nullptr) return nullptr;
    return StatisOf(PAL_AVL_Find(PlatformTree(tree), &msgId));
}

QvAgentDiagStatis *QV_AGENT_DiagNodeAdd(uint32_t msgId, QvAgentTree *tree, QvAgentModule *module) {
    if (tree == nullptr || module == nullptr) return nullptr;
    auto *entry = static_cast<DiagEntry *>(QV_AGENT_Malloc(sizeof(DiagEntry), module));
    if (entry == nullptr) return nullptr;
    std::memset(entry, 0, sizeof *entry);
    entry->statis.uiMsgId = msgId;
    entry->node.iHeight = -1;
    entry->node.pSelf = &entry->node;
    entry->node.pKey = &entry->statis;
    PAL_AVL_NODE_S *present = PAL_AVL_Insert_Or_Find(PlatformTree(tree), &entry->node);
    if (present == nullptr) return &entry->statis;
    QV_AGENT_Free(entry, module);
    return StatisOf(present);
}

uint32_t QV_AGENT_DiagNodeAddOrSend(const uint8_t *record, QvAgentModule *module) {
    if (record == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    const auto msgId = qv::bytes::LoadHost<uint32_t>(record + QV_LOG_ID_OFF);
    {
        qv::MutexGuard guard(module->stDiagMutex);
        QvAgentDiagStatis *statis = QV_AGENT_DiagNodeFind(msgId, &module->stDiagTree);
        if (statis != nullptr && statis->bRestrained == 1) {
            ++statis->uiSuppressCnt;
            return QV_AGENT_OK;  // dropped; it shows up in the summary
        }
        if (statis == nullptr) statis = QV_AGENT_DiagNodeAdd(msgId, &module->stDiagTree, module);
        if (statis == nullptr) return QV_AGENT_ERR_FAILED;
        ++statis->uiSendCnt;
    }
    const auto len = qv::bytes::LoadHost<uint16_t>(record + QV_REC_LEN_OFF);
    return QV_AGENT_AddSendBuf(record, len, QV_AGENT_MSG_LOG, module);
}

uint32_t QV_AGENT_Check_DiagRestrainTree(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    qv::MutexGuard guard(module->stDiagMutex);
    auto *node = static_cast<PAL_AVL_NODE_S *>(module->stDiagTree.pstFirst);
    while (node != nullptr) {
        PAL_AVL_NODE_S *next = PAL_AVL_Next(node);  // before the entry may go
        if (AgeEntry(*StatisOf(node))) RemoveEntry(module, node);
        node = next;
    }
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_DiagNodeDelete(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    while (module->stDiagTree.pstFirst != nullptr) {
        RemoveEntry(module, static_cast<PAL_AVL_NODE_S *>(module->stDiagTree.pstFirst));
    }
    return QV_AGENT_OK;
}
