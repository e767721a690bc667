// The send lists inside the agent: circular doubly linked lists whose head is the list block itself.
// Each item and its record copy are one block of the agent's allocator.
#ifndef QV_EVENT_SEND_LIST_H
#define QV_EVENT_SEND_LIST_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"

namespace qv::sendlist {

inline QvAgentListItem *Head(QvAgentSendList &list) { return reinterpret_cast<QvAgentListItem *>(&list); }

inline bool IsEmpty(QvAgentSendList &list) { return list.pstNext == Head(list); }

// The oldest item, or null when the list is empty.
inline QvAgentListItem *First(QvAgentSendList &list) { return IsEmpty(list) ? nullptr : list.pstNext; }

// Unlinks an item of the list and counts it out; the caller releases it.
void Unlink(QvAgentSendList &list, QvAgentListItem *item);

// Releases an unlinked item with its record copy.
void Release(QvAgentListItem *item, QvAgentModule *module);

// The largest record a datagram of kind k can carry when packed from a send list.
uint32_t MaxRecordLen(uint32_t k);

}  // namespace qv::sendlist

#endif
