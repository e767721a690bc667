// Stand-in for the platform runtime's start-up state, memory handles and accounted allocation
// (PAL_StarterSystemStartUpIs, PAL_HandleInitialize, PAL_MemAlloc_F, PAL_MemFree_F), and the test
// controls that switch the start-up state, read the per-handle counts and make an allocation fail.
//
// Every block carries a 16-byte head (magic, handle, size) in front of the caller's bytes. The blocks
// handed out are also kept in an address set, so that a double or foreign free is refused without
// reading memory the allocator does not own; the magic then guards against a head overwritten by the
// caller. One mutex guards handles, counts and the set.
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

constexpr uint32_t kLiveMagic = 0x51A110C5u;
// While tests ask for it, new blocks are filled with this, so that a caller relying on zeroed memory
// fails visibly. Off otherwise: it would dominate the cost of the agent's report paths in benchmarks.
constexpr unsigned char kFreshFill = 0xA5;

struct alignas(16) BlockHead {
    uint32_t magic;  // kLiveMagic while the block is handed out, 0 once released
    uint32_t handle;
    uint64_t size;
};
static_assert(sizeof(BlockHead) == 16, "the head keeps malloc's 16-byte alignment for the caller");
static_assert(alignof(std::max_align_t) >= 16, "malloc must give 16-byte aligned blocks");

// Addresses of the blocks handed out: open addressing with linear probing and backward-shift
// deletion, so there are no tombstones. 0 marks an empty slot. Trivially destructible, so a block
// freed from a static destructor after this file's statics are gone still finds it intact.
struct BlockSet {
    uintptr_t *slots;
    std::size_t capacity;  // a power of two, or 0 before the first block
    std::size_t count;
};

constexpr std::size_t kFirstCapacity = 256;

std::size_t HomeSlot(uintptr_t addr, std::size_t capacity) {
    // Blocks are 16-byte aligned: drop the bits that never vary, then spread with Fibonacci hashing.
    const uint64_t spread = static_cast<uint64_t>(addr >> 4) * 0x9E3779B97F4A7C15ull;
    return static_cast<std::size_t>(spread >> 32) & (capacity - 1);
}

// The slot holding addr, or the empty slot where it would go. The set must have room.
std::size_t Probe(const BlockSet &set, uintptr_t addr) {
    std::size_t slot = HomeSlot(addr, set.capacity);
    while (set.slots[slot] != 0 && set.slots[slot] != addr) {
        slot = (slot + 1) & (set.capacity - 1);
    }
    return slot;
}

bool Contains(const BlockSet &set, uintptr_t addr) {
    return set.count != 0 && set.slots[Probe(set, addr)] == addr;
}

bool Grow(BlockSet &set) {
    const std::size_t capacity = set.capacity != 0 ? set.capacity * 2 : kFirstCapacity;
    auto *slots = static_cast<uintptr_t *>(std::calloc(capacity, sizeof(uintptr_t)));
    if (slots == nullptr) {
        return false;
    }
    BlockSet bigger{slots, capacity, set.count};
    for (std::size_t i = 0; i < set.capacity; ++i) {
        if (set.slots[i] != 0) {
            bigger.slots[Probe(bigger, set.slots[i])] = set.slots[i];
        }
    }
    std::free(set.slots);
    set = bigger;
    return true;
}

// Adds addr; false when the set is full and cannot grow. Kept at most three quarters full.
bool Insert(BlockSet &set, uintptr_t addr) {
    if ((set.count + 1) * 4 > set.capacity * 3 && !Grow(set)) {
        return false;
    }
    set.slots[Probe(set, addr)] = addr;
    ++set.count;
    return true;
}

// Removes addr, which must be present.
void Erase(BlockSet &set, uintptr_t addr) {
    const std::size_t mask = set.capacity - 1;
    std::size_t hole = Probe(set, addr);
    // Pull each later member of the probe run back into the hole when the hole lies between that
    // member's home slot and its present slot, so no lookup ever stops early at the emptied slot.
    for (std::size_t slot = (hole + 1) & mask; set.slots[slot] != 0; slot = (slot + 1) & mask) {
        const std::size_t fromHome = (slot - HomeSlot(set.slots[slot], set.capacity)) & mask;
        if (fromHome >= ((slot - hole) & mask)) {
            set.slots[hole] = set.slots[slot];
            hole = slot;
        }
    }
    set.slots[hole] = 0;
    --set.count;
}

struct HandleEntry {
    char name[kMaxNameLen + 1];
    uint64_t blocks;
    uint64_t bytes;
};

struct Allocator {
    std::mutex mutex;
    HandleEntry handles[kMaxHandles];  // handle h is handles[h - 1]; 0 is never given out
    std::size_t handleCount;
    BlockSet blocks;
};

constinit Allocator g_allocator{};
constinit std::atomic<uint32_t> g_started{1};
constinit std::atomic<uint32_t> g_freshFill{0};
constinit std::atomic<uint64_t> g_allocCalls{0};
constinit std::atomic<uint64_t> g_failCountdown{0};  // n: the nth allocation from now fails; 0: none

// The entry of a handle given out, or null. Caller holds the mutex.
HandleEntry *EntryOf(uint32_t handle) {
    if (handle == 0 || handle > g_allocator.handleCount) {
        return nullptr;
    }
    return &g_allocator.handles[handle - 1];
}

// Counts this call down towards the failure asked for; true for the call that is to fail.
bool TakeInjectedFailure() {
    uint64_t left = g_failCountdown.load();
    while (left != 0 && !g_failCountdown.compare_exchange_weak(left, left - 1)) {
    }
    return left == 1;
}

// Books a fresh block on its handle; false when the handle is unknown or the set cannot grow.
bool Book(uint32_t handle, uintptr_t addr, uint32_t size) {
    const std::lock_guard lock(g_allocator.mutex);
    HandleEntry *entry = EntryOf(handle);
    if (entry == nullptr || !Insert(g_allocator.blocks, addr)) {
        return false;
    }
    ++entry->blocks;
    entry->bytes += size;
    return true;
}

// Takes a block off the books; false when it is not a live block of this allocator or its head
// was overwritten (it is then left outstanding rather than freed on false information).
bool Unbook(uintptr_t addr, BlockHead *head) {
    const std::lock_guard lock(g_allocator.mutex);
    if (!Contains(g_allocator.blocks, addr) || head->magic != kLiveMagic) {
        return false;
    }
    HandleEntry *entry = EntryOf(head->handle);
    if (entry == nullptr || entry->blocks == 0 || entry->bytes < head->size) {
        return false;
    }
    Erase(g_allocator.blocks, addr);
    --entry->blocks;
    entry->bytes -= head->size;
    head->magic = 0;
    return true;
}

uint64_t ReadCount(uint32_t handle, uint64_t HandleEntry::*field) {
    const std::lock_guard lock(g_allocator.mutex);
    const HandleEntry *entry = EntryOf(handle);
    return entry != nullptr ? entry->*field : 0;
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
    for (std::size_t i = 0; i < g_allocator.handleCount; ++i) {
        if (std::strcmp(g_allocator.handles[i].name, name) == 0) {
            *handle = static_cast<uint32_t>(i + 1);
            return kOk;
        }
    }
    if (g_allocator.handleCount == kMaxHandles) {
        return kFail;
    }
    std::memcpy(g_allocator.handles[g_allocator.handleCount].name, name, length + 1);
    ++g_allocator.handleCount;
    *handle = static_cast<uint32_t>(g_allocator.handleCount);
    return kOk;
}

// A block of size bytes (any size, 0 included), 16-byte aligned and not cleared, booked on handle.
// Null for a handle never given out, when memory runs out, or for the call made to fail by
// QVPLAT_TestFailAllocation. Every call counts in QVPLAT_TestAllocCalls. flags, file and line are
// the caller's notes and change nothing.
extern "C" void *PAL_MemAlloc_F(uint32_t handle, uint32_t flags, uint32_t size, const char *file,
                                uint32_t line) {
    static_cast<void>(flags);
    static_cast<void>(file);
    static_cast<void>(line);
    g_allocCalls.fetch_add(1);
    if (TakeInjectedFailure()) {
        return nullptr;
    }
    auto *head = static_cast<BlockHead *>(std::malloc(sizeof(BlockHead) + size));
    if (head == nullptr) {
        return nullptr;
    }
    *head = BlockHead{kLiveMagic, handle, size};
    auto *payload = reinterpret_cast<unsigned char *>(head + 1);
    if (!Book(handle, reinterpret_cast<uintptr_t>(payload), size)) {
        std::free(head);
        return nullptr;
    }
    if (g_freshFill.load(std::memory_order_relaxed) != 0) std::memset(payload, kFreshFill, size);
    return payload;
}

// Releases a block of PAL_MemAlloc_F and takes it off the books of the handle it was allocated on
// (the handle passed here is not consulted). Nonzero, with nothing changed, for null, a pointer this
// allocator never gave out, a block already released, or a block whose head was overwritten.
extern "C" uint32_t PAL_MemFree_F(uint32_t handle, void *ptr, const char *file, uint32_t line) {
    static_cast<void>(handle);
    static_cast<void>(file);
    static_cast<void>(line);
    if (ptr == nullptr) {
        return kFail;
    }
    // The head is only touched once the address is known to be a live block.
    const uintptr_t addr = reinterpret_cast<uintptr_t>(ptr);
    auto *head = reinterpret_cast<BlockHead *>(addr - sizeof(BlockHead));
    if (!Unbook(addr, head)) {
        return kFail;
    }
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

// The nth call of PAL_MemAlloc_F from now (n >= 1, counted over all threads) fails, once; 0 cancels.
extern "C" void QVPLAT_TestFailAllocation(uint64_t nth) {
    g_failCountdown.store(nth);
}
