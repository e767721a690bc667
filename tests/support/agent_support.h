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
// new one: stops its scheduler thread, timer and socket-mode threads, closes its sockets, unloads the
// device-management libraries, releases lists, kept datagrams, restraint entries, the KPI option
// store and the blackbox. Safe when there is none.
void ReleaseModule();

// Closes and releases the process's blackbox (the agent keeps it for the life of the process), so the
// next module creation opens it again. Safe when there is none.
void CloseBlackbox(QvAgentModule *module);

// QV_Agent_Init without the scheduler thread (and so without the timer's send passes): for tests that
// drive send passes and ticks themselves.
QvAgentModule *InitWithoutScheduler(const QvAgentServiceDesc &desc);

// Blocks of the agent outstanding, over both allocators.
uint64_t AgentBlocks();

// Entries of the module's restraint tree.
uint32_t RestraintEntries(QvAgentModule *module);

// Mounts a variant of the fake device-management libraries ("full", "no_master", "no_slot_map",
// "no_self_ip", or "none" for no library at all) over /usr/local/lib for the life of the object, and
// clears the fake libraries' answers from the environment. Tests run in a mount namespace of their own.
class DevmLibraries {
public:
    explicit DevmLibraries(const std::string &variant);
    ~DevmLibraries();
    DevmLibraries(const DevmLibraries &) = delete;
    DevmLibraries &operator=(const DevmLibraries &) = delete;
    bool ok() const { return ok_; }

private:
    bool ok_;
};

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
