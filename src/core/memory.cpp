// The agent's allocation functions: every block of the agent comes from here. Each call chooses,
// under g_farnoInitMutex, between the platform runtime's accounted allocator (while g_farnoInited is
// set) and the system allocator.
#include <atomic>
#include <cstdlib>

#include "core/memory_internal.h"
#include "core/mutex_guard.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_memory.h"
#include "qvplatform/pal.h"

uint32_t g_farnoInited = 0;
uint32_t g_qvagentMemHandle = 0;
pthread_mutex_t g_farnoInitMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// What the platform allocator records as the origin of each block, fixed per entry point.
constexpr const char kAllocOrigin[] = "qv_agent_common";
constexpr uint32_t kLineMallocWithInit = 48;
constexpr uint32_t kLineFreeWithInit = 66;
constexpr uint32_t kLineMalloc = 79;
constexpr uint32_t kLineFree = 97;

// Changed only under g_farnoInitMutex, so a plain load and store count it; atomic so that it can be
// read without the mutex.
std::atomic<uint64_t> g_blocksOutstanding{0};

void CountBlocks(int64_t change) {
    g_blocksOutstanding.store(g_blocksOutstanding.load(std::memory_order_relaxed) + static_cast<uint64_t>(change),
                              std::memory_order_relaxed);
}

void *Allocate(uint32_t size, uint32_t line) {
    qv::MutexGuard guard(g_farnoInitMutex);
    void *block = g_farnoInited != 0 ? PAL_MemAlloc_F(g_qvagentMemHandle, 0, size, kAllocOrigin, line)
                                     : std::malloc(size);
    if (block != nullptr) CountBlocks(1);
    return block;
}

void Release(void *block, uint32_t line) {
    if (block == nullptr) return;
    qv::MutexGuard guard(g_farnoInitMutex);
    if (g_farnoInited != 0) {
        PAL_MemFree_F(g_qvagentMemHandle, block, kAllocOrigin, line);
    } else {
        std::free(block);
    }
    CountBlocks(-1);
}

}  // namespace

namespace qv {

uint64_t BlocksOutstanding() { return g_blocksOutstanding.load(std::memory_order_relaxed); }

}  // namespace qv

void *QV_AGENT_Malloc(uint32_t size, QvAgentModule * /*module*/) {
    void *block = Allocate(size, kLineMalloc);
    if (block == nullptr) QV_AGENT_WriteToFile("malloc error, size=%u", size);
    return block;
}

void QV_AGENT_Free(void *ptr, QvAgentModule * /*module*/) { Release(ptr, kLineFree); }

void *QV_AGENT_MallocWithInit(uint32_t size, const QvAgentServiceDesc * /*desc*/) {
    void *block = Allocate(size, kLineMallocWithInit);
    if (block == nullptr) QV_AGENT_WriteToFile("malloc with init error, size=%u", size);
    return block;
}

void QV_AGENT_FreeWithInit(void *ptr, const QvAgentServiceDesc * /*desc*/) { Release(ptr, kLineFreeWithInit); }

// A diagnostic log that tells which allocator the agent uses: one 4-byte parameter, 1 for the
// platform's. A failed creation makes the later calls fail with QV_AGENT_ERR_PARAM.
uint32_t QV_AGENT_SendMallocLog(QvAgentModule *module) {
    constexpr uint32_t kAllocatorReportId = 0x09571075;
    constexpr uint32_t kParaTypeU32 = 6;
    uint32_t platformAllocator = 0;
    {
        qv::MutexGuard guard(g_farnoInitMutex);
        platformAllocator = g_farnoInited != 0 ? 1 : 0;
    }
    QvAgentObj *report = nullptr;
    QV_Agent_ObjCreate(QV_AGENT_OBJ_DIAG, kAllocatorReportId, &report, module);
    QV_Agent_AddPara(report, kParaTypeU32, sizeof platformAllocator, &platformAllocator, module);
    return QV_Agent_Send(report, module);
}
