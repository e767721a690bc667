// Order of the restraint statistics tree: by message id, the first u32 of each statistics record.
#include <cstring>

#include "qvagent/qv_agent_event.h"

int32_t QV_AGENT_DiagStatisTreeCompare(const void *key1, const void *key2) {
    if (key1 == nullptr || key2 == nullptr) return static_cast<int32_t>(QV_AGENT_ERR_PARAM);
    uint32_t id1 = 0;
    uint32_t id2 = 0;
    std::memcpy(&id1, key1, sizeof id1);
    std::memcpy(&id2, key2, sizeof id2);
    if (id1 > id2) return 1;
    if (id1 < id2) return -1;
    return 0;
}
