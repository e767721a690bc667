// A block of the agent's allocator owned by one scope: released on every path out of it.
#ifndef QV_CORE_AGENT_BLOCK_H
#define QV_CORE_AGENT_BLOCK_H

#include <cstdint>

#include "qvagent/qv_agent_memory.h"

namespace qv {

class AgentBlock {
public:
    AgentBlock(uint32_t size, QvAgentModule *module)
        : module_(module), data_(static_cast<uint8_t *>(QV_AGENT_Malloc(size, module))) {}
    ~AgentBlock() { QV_AGENT_Free(data_, module_); }
    AgentBlock(const AgentBlock &) = delete;
    AgentBlock &operator=(const AgentBlock &) = delete;

    uint8_t *get() const { return data_; }
    // For callees that may replace the block by a larger one; the scope then releases that one.
    uint8_t **address() { return &data_; }

private:
    QvAgentModule *module_;
    uint8_t *data_;
};

}  // namespace qv

#endif
