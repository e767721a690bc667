// The blackbox as a ring of records: storing a log record, reading records into a log datagram,
// committing what an acknowledged datagram carried, and moving the in-memory log list into the file.
// The head is read and written by every operation, so the file is always the whole state.
#include <cstring>

#include "blackbox/blackbox.h"
#include "core/bytes.h"
#include "core/mutex_guard.h"
#include "event/send_list.h"
#include "transport/send_window.h"

namespace {

using qv::box::Advance;

// What one read pass took from the ring.
struct ReadPass {
    uint32_t pos;       // where the next unread record starts
    uint32_t unread;    // bytes still unread, record heads included
    uint32_t copied;    // record bytes copied into the destination
    uint32_t consumed;  // bytes taken from the ring, record heads included
};

enum class Step { Took, Stop, Corrupt, Failed, ShortRecord };

// Takes the record at pass.pos into dst behind what was copied, unless a limit of the datagram stops
// the pass first.
Step TakeRecord(QvAgentLogBox *box, QvAgentBoxHead &head, uint8_t *dst, uint32_t room, ReadPass &pass,
                QvAgentModule *module) {
    if (qv::window::PassCapReached(module, static_cast<int32_t>(QV_AGENT_MSG_LOG))) return Step::Stop;
    uint8_t recordHead[QV_BOX_REC_HEAD_LEN];
    if (QV_AGENT_BoxReadData(box, &head, pass.pos, sizeof recordHead, recordHead) != sizeof recordHead) {
        return Step::Failed;
    }
    const auto len = qv::bytes::LoadHost<uint32_t>(recordHead + QV_BOX_REC_LEN_OFF);
    const auto magic = qv::bytes::LoadHost<uint32_t>(recordHead + QV_BOX_REC_MAGIC_OFF);
    if (magic != QV_BOX_REC_MAGIC || uint64_t{len} + QV_BOX_REC_HEAD_LEN > pass.unread) return Step::Corrupt;
    if (pass.copied > QV_BOX_READ_BODY_MAX || uint64_t{len} + pass.copied > room) return Step::Stop;
    const uint32_t body = Advance(head, pass.pos, QV_BOX_REC_HEAD_LEN);
    if (QV_AGENT_BoxReadData(box, &head, body, len, dst + pass.copied) != len) return Step::ShortRecord;
    pass.unread -= len + QV_BOX_REC_HEAD_LEN;
    pass.consumed += len + QV_BOX_REC_HEAD_LEN;
    pass.pos = Advance(head, body, len);
    pass.copied += len;
    qv::window::CountPacked(module, static_cast<int32_t>(QV_AGENT_MSG_LOG));
    return Step::Took;
}

// The records taken move from the unread bytes to the read-but-unacknowledged ones.
uint32_t FinishRead(QvAgentLogBox *box, QvAgentBoxHead &head, const ReadPass &pass, uint32_t &space, uint32_t &got) {
    head.uiReadedLen += pass.consumed;
    head.uiReadPos = pass.pos;
    head.uiUsedLen = pass.unread;
    if (QV_AGENT_WriteBlackboxHead(box, &head) != QV_AGENT_OK) return QV_AGENT_ERR_FAILED;
    got = pass.copied != 0 ? 1 : 0;
    space = pass.copied;
    return QV_AGENT_OK;
}

}  // namespace

uint32_t QV_AGENT_WriteBlackbox(const uint8_t *record, uint32_t len) {
    QvAgentLogBox *box = g_pstQvAgentLogBox;
    if (record == nullptr || box == nullptr) return QV_AGENT_ERR_FAILED;
    qv::MutexGuard guard(box->stMutex);
    if (!guard.locked()) return QV_AGENT_ERR_FAILED;
    QvAgentBoxHead head;
    if (!qv::box::LoadHead(box, head)) return QV_AGENT_ERR_FAILED;
    // Bytes read but not yet acknowledged do not count: a new record may overwrite them.
    const uint64_t stored = uint64_t{len} + QV_BOX_REC_HEAD_LEN;
    if (head.uiUsedLen + stored > head.uiCapacity) return QV_AGENT_BOX_FULL;
    uint8_t recordHead[QV_BOX_REC_HEAD_LEN];
    qv::bytes::StoreHost<uint32_t>(recordHead + QV_BOX_REC_LEN_OFF, len);
    qv::bytes::StoreHost<uint32_t>(recordHead + QV_BOX_REC_MAGIC_OFF, QV_BOX_REC_MAGIC);
    if (!qv::box::WriteRecord(box, head, head.uiWritePos, recordHead, record, len)) return QV_AGENT_ERR_FAILED;
    head.uiWritePos = Advance(head, head.uiWritePos, static_cast<uint32_t>(stored));
    head.uiUsedLen += static_cast<uint32_t>(stored);
    return QV_AGENT_WriteBlackboxHead(box, &head);
}

uint32_t QV_AGENT_ReadBlackbox(uint8_t *dst, uint32_t *space, uint32_t *got, QvAgentModule *module) {
    QvAgentLogBox *box = g_pstQvAgentLogBox;
    if (box == nullptr || dst == nullptr || space == nullptr || got == nullptr || module == nullptr || *space == 0) {
        return QV_AGENT_ERR_FAILED;
    }
    qv::MutexGuard guard(box->stMutex);
    if (!guard.locked()) return QV_AGENT_ERR_FAILED;
    return QV_AGENT_ReadBlackBoxData(box, dst, space, got, module);
}

uint32_t QV_AGENT_ReadBlackBoxData(QvAgentLogBox *box, uint8_t *dst, uint32_t *space, uint32_t *got,
                                   QvAgentModule *module) {
    if (box == nullptr || dst == nullptr || space == nullptr || got == nullptr || module == nullptr) {
        return QV_AGENT_ERR_FAILED;
    }
    const uint32_t room = *space;
    *space = 0;
    *got = 0;
    QvAgentBoxHead head;
    if (QV_AGENT_ReadBlackboxHead(box, &head) != QV_AGENT_OK) return QV_AGENT_ERR_FAILED;
    if (head.uiUsedLen == 0) return QV_AGENT_OK;
    if (head.uiUsedLen > head.uiCapacity || QV_AGENT_BoxCheckValid(box, &head) != QV_AGENT_OK) {
        qv::box::Reset(box, head);
        return QV_AGENT_ERR_FAILED;
    }
    ReadPass pass{head.uiReadPos, head.uiUsedLen, 0, 0};
    for (;;) {
        switch (TakeRecord(box, head, dst, room, pass, module)) {
            case Step::Took:
                if (pass.unread != 0) continue;
                [[fallthrough]];
            case Step::Stop:
                return FinishRead(box, head, pass, *space, *got);
            case Step::Corrupt:
                qv::box::Reset(box, head);  // every stored record is discarded
                return QV_AGENT_ERR_FAILED;
            case Step::Failed:
                return QV_AGENT_ERR_FAILED;
            case Step::ShortRecord:
                return QV_AGENT_BOX_SHORT_READ;
        }
    }
}

uint32_t QV_AGENT_BlackboxIsEmpty(void) {
    QvAgentBoxHead head;
    if (QV_AGENT_ReadBlackboxHead(g_pstQvAgentLogBox, &head) != QV_AGENT_OK) return 1;
    return head.uiUsedLen == 0 ? 1 : 0;
}

uint32_t QV_AGENT_ClearReadedBoxData(void) {
    QvAgentLogBox *box = g_pstQvAgentLogBox;
    QvAgentBoxHead head;
    if (QV_AGENT_ReadBlackboxHead(box, &head) != QV_AGENT_OK) return QV_AGENT_ERR_FAILED;
    if (head.uiReadedLen == 0) return QV_AGENT_OK;
    head.uiCommitPos = head.uiReadPos;
    head.uiReadedLen = 0;
    return QV_AGENT_WriteBlackboxHead(box, &head);
}

void QV_AGENT_MoveDataList2Box(QvAgentSendList *list, QvAgentModule *module) {
    if (list == nullptr || module == nullptr) return;
    while (QvAgentListItem *item = qv::sendlist::First(*list)) {
        if (QV_AGENT_WriteBlackbox(item->pucData, item->uiLen) != QV_AGENT_OK) return;
        qv::sendlist::Unlink(*list, item);
        qv::sendlist::Release(item, module);
    }
}
