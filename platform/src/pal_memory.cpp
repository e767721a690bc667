// Stand-in for the platform runtime's start-up state, memory handles and accounted allocation
// (PAL_StarterSystemStartUpIs, PAL_HandleInitialize, PAL_MemAlloc_F, PAL_MemFree_F), and the test
// controls that switch the start-up state, read the per-handle counts and make an allocation fail.
//
// Every block carries an 8-byte head in front of the caller's bytes, as a device's allocator does: a
// live mark, the handle and the size. Like the device's, allocation and release take no lock: their
// callers serialise them (the agent holds its memory mutex around every call). The counts are atomics
// changed by a plain load and store, so that they cost no locked instruction and can still be read
// from any thread. Only handle registration takes a mutex of its own.
#include <string.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "qvplatform/pal.h"
#include "qvplatform_testctl.h"

namespace {

constexpr uint32_t kOk = 0;
constexpr uint32_t kFail = 1;

constexpr std::size_t kMaxHandles = 64;
constexpr std::size_t kMaxNameLen = 63;

constexpr uint16_t kLiveMark = 0xA110;
// While tests ask for it, new blocks are filled with this, so that a caller relying on zeroed memory
// fails visibly. Off otherwise: it would dominate the cost of the agent's report paths in benchmarks.
constexpr unsigned char kFreshFill = 0xA5;

struct BlockHead {
    uint16_t mark;    // kLiveMark while the block is handed out, 0 once released
    uint16_t handle;  // handles are at most kMaxHandles
    uint32_t size;
};
static_assert(sizeof(BlockHead) == 8, "blocks keep the 8-byte alignment of every type the agent stores");

struct HandleEntry {
    char name[kMaxNameLen + 1];
    std::atomic<uint64_t> blocks;
    std::atomic<uint64_t> bytes;
};

struct Allocator {
    std::mutex mutex;                  // guards registration
    HandleEntry handles[kMaxHandles];  // handle h is handles[h - 1]; 0 is never given out
    std::atomic<std::size_t> handleCount;
};

constinit Allocator g_allocator{};
constinit std::atomic<uint32_t> g_started{1};
constinit std::atomic<uint32_t> g_freshFill{0};
constinit std::atomic<uint64_t> g_allocCalls{0};
constinit std::atomic<uint64_t> g_failCountdown{0};  // n: the nth allocation from now fails; 0: none

// The entry of a handle given out, or null.
HandleEntry *EntryOf(uint32_t handle) {
    if (handle == 0 || handle > g_allocator.handleCount.load(std::memory_order_acquire)) {
        return nullptr;
    }
    return &g_allocator.handles[handle - 1];
}

// Adds change to a count that only serialised callers change.
void Add(std::atomic<uint64_t> &count, uint64_t change) {
    count.store(count.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
}

// Counts this call down towards the failure asked for; true for the call that is to fail.
bool TakeInjectedFailure() {
    const uint64_t left = g_failCountdown.load(std::memory_order_relaxed);
    if (left != 0) g_failCountdown.store(left - 1, std::memory_order_relaxed);
    return left == 1;
}

uint64_t ReadCount(uint32_t handle, std::atomic<uint64_t> HandleEntry::*field) {
    const HandleEntry *entry = EntryOf(handle);
    return entry != nullptr ? (entry->*field).load(std::memory_order_relaxed) : 0;
}

}  // namespace

// 1 while the platform runtime counts as started (the default), 0 after QVPLAT_TestSetStarted(0).
extern "C" uint32_t PAL_StarterSystemStartUpIs(void) {
    return g_started.load() != 0 ? 1u : 0u;
}

// Gives the handle of name, registering it on first use: the same name always gives the same
// nonzero handle. Nonzero result for a null argument, an empty name or one over 63 characters, or
// when all 64 handles are taken.
extern "C" uint32_t PAL_HandleInitialize(const char *name, uint32_t *handle) {
    if (name == nullptr || handle == nullptr) {
        return kFail;
    }
    const std::size_t length = ::strnlen(name, kMaxNameLen + 1);
    if (length == 0 || length > kMaxNameLen) {
        return kFail;
    }
    const std::lock_guard lock(g_allocator.mutex);
    const std::size_t count = g_allocator.handleCount.load(std::memory_order_relaxed);
    for (std::size_t i = 0; i < count; ++i) {
        if (std::strcmp(g_allocator.handles[i].name, name) == 0) {
            *handle = static_cast<uint32_t>(i + 1);
            return kOk;
        }
    }
    if (count == kMaxHandles) {
        return kFail;
    }
    std::memcpy(g_allocator.handles[count].name, name, length + 1);
    // Published after its name, so that a lock-free reader of the count sees a complete entry.
    g_allocator.handleCount.store(count + 1, std::memory_order_release);
    *handle = static_cast<uint32_t>(count + 1);
    return kOk;
}

// A block of size bytes (any size, 0 included), 8-byte aligned and not cleared, booked on handle.
// Calls of this and PAL_MemFree_F must not overlap.
// Null for a handle never given out, when memory runs out, or for the call made to fail by
// QVPLAT_TestFailAllocation. Every call counts in QVPLAT_TestAllocCalls. flags, file and line are
// the caller's notes and change nothing.
extern "C" void *PAL_MemAlloc_F(uint32_t handle, uint32_t flags, uint32_t size, const char *file,
                                uint32_t line) {
    static_cast<void>(flags);
    static_cast<void>(file);
    static_cast<void>(line);
    Add(g_allocCalls, 1);
    HandleEntry *entry = EntryOf(handle);
    if (entry == nullptr || TakeInjectedFailure()) {
        return nullptr;
    }
    auto *head = static_cast<BlockHead *>(std::malloc(sizeof(BlockHead) + size));
    if (head == nullptr) {
        return nullptr;
    }
    *head = BlockHead{kLiveMark, static_cast<uint16_t>(handle), size};
    Add(entry->blocks, 1);
    Add(entry->bytes, size);
    auto *payload = reinterpret_cast<unsigned char *>(head + 1);
    if (g_freshFill.load(std::memory_order_relaxed) != 0) std::memset(payload, kFreshFill, size);
    return payload;
}

// Releases a block of PAL_MemAlloc_F and takes it off the books of the handle it was allocated on
// (the handle passed here is not consulted). Nonzero, with nothing changed, for null or a block whose
// head no longer carries the live mark (written over by its caller, or an address inside a block).
// Like free(), a pointer that never came from here, or one released before, is the caller's fault and
// not detected reliably.
extern "C" uint32_t PAL_MemFree_F(uint32_t handle, void *ptr, const char *file, uint32_t line) {
    static_cast<void>(handle);
    static_cast<void>(file);
    static_cast<void>(line);
    if (ptr == nullptr) {
        return kFail;
    }
    auto *head = static_cast<BlockHead *>(ptr) - 1;
    HandleEntry *entry = head->mark == kLiveMark ? EntryOf(head->handle) : nullptr;
    if (entry == nullptr) {
        return kFail;
    }
    head->mark = 0;
    Add(entry->blocks, ~uint64_t{0});
    Add(entry->bytes, uint64_t{0} - head->size);
    std::free(head);
    return kOk;
}

// Sets what PAL_StarterSystemStartUpIs answers: started when nonzero.
extern "C" void QVPLAT_TestSetStarted(uint32_t started) {
    g_started.store(started);
}

extern "C" void QVPLAT_TestSetFreshFill(uint32_t on) { g_freshFill.store(on); }

// Blocks of PAL_MemAlloc_F not yet released on handle; 0 for a handle never given out.
extern "C" uint64_t QVPLAT_TestBlocksOutstanding(uint32_t handle) {
    return ReadCount(handle, &HandleEntry::blocks);
}

// Bytes (as asked for, heads not included) not yet released on handle.
extern "C" uint64_t QVPLAT_TestBytesOutstanding(uint32_t handle) {
    return ReadCount(handle, &HandleEntry::bytes);
}

// Calls of PAL_MemAlloc_F since the process started, failed ones included.
extern "C" uint64_t QVPLAT_TestAllocCalls(void) {
    return g_allocCalls.load();
}

// The nth call of PAL_MemAlloc_F from now (n >= 1) fails, once; 0 cancels.
extern "C" void QVPLAT_TestFailAllocation(uint64_t nth) {
    g_failCountdown.store(nth);
}
