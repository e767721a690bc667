// Helpers for tests of the agent: service descriptions, and the teardown that a service would do
// (the agent itself never releases its module record).
#ifndef QV_TEST_AGENT_SUPPORT_H
#define QV_TEST_AGENT_SUPPORT_H

#include <cstdint>
#include <string>

#include "qvagent/qvagent.h"

namespace qvtest {

QvAgentServiceDesc MakeDesc(const std::string &name, uint32_t serviceId = 1, uint32_t listLimit = 0);

// Releases the process's module record and clears the handle, so the next QV_Agent_Init creates a
// new one. Safe when there is none.
void ReleaseModule();

// Blocks of the agent outstanding, over both allocators.
uint64_t AgentBlocks();

// Entries of the module's restraint tree.
uint32_t RestraintEntries(QvAgentModule *module);

// Sets or clears the service type in the environment for the scope of the object.
class ServiceTypeEnv {
public:
    explicit ServiceTypeEnv(const char *value);
    ~ServiceTypeEnv();
    ServiceTypeEnv(const ServiceTypeEnv &) = delete;
    ServiceTypeEnv &operator=(const ServiceTypeEnv &) = delete;

private:
    std::string saved_;
    bool hadValue_;
};

}  // namespace qvtest

#endif
