// Tests of the stand-in's accounted allocation: per-handle counts, the injected failure of the nth
// call, and refused frees.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "qvplatform/pal.h"
#include "qvplatform_testctl.h"

namespace {

uint32_t HandleOf(const char *name) {
    uint32_t handle = 0;
    EXPECT_EQ(PAL_HandleInitialize(name, &handle), 0u) << name;
    return handle;
}

void *Alloc(uint32_t handle, uint32_t size) { return PAL_MemAlloc_F(handle, 0, size, __FILE__, __LINE__); }
uint32_t Free(uint32_t handle, void *ptr) { return PAL_MemFree_F(handle, ptr, __FILE__, __LINE__); }

void ExpectOutstanding(uint32_t handle, uint64_t blocks, uint64_t bytes) {
    EXPECT_EQ(QVPLAT_TestBlocksOutstanding(handle), blocks) << "handle " << handle;
    EXPECT_EQ(QVPLAT_TestBytesOutstanding(handle), bytes) << "handle " << handle;
}

// Blocks of every size are aligned, freshly filled and booked on their own handle; the third call is
// made to fail and counted; freeing through the other handle books each block back where it came from.
TEST(PalMemory, CountsBlocksAndBytesPerHandleAndFailsTheNthCallOnce) {
    const uint32_t handles[2] = {HandleOf("pal-account-a"), HandleOf("pal-account-b")};
    const uint32_t sizes[] = {0, 1, 15, 16, 17, 255, 4096, 100000};
    const uint64_t calls = QVPLAT_TestAllocCalls();
    QVPLAT_TestFailAllocation(3);
    std::vector<void *> blocks;
    for (size_t i = 0; i < std::size(sizes); ++i) {
        void *block = Alloc(handles[i % 2], sizes[i]);
        ASSERT_EQ(block == nullptr, i == 2) << "call " << i + 1;
        if (block == nullptr) continue;
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 8, 0u);
        EXPECT_EQ(sizes[i] != 0 ? static_cast<unsigned char *>(block)[sizes[i] - 1] : 0xA5, 0xA5);
        std::memset(block, 0x5A, sizes[i]);
        blocks.push_back(block);
    }
    EXPECT_EQ(Alloc(0, 8), nullptr);  // a handle never given out
    EXPECT_EQ(QVPLAT_TestAllocCalls(), calls + std::size(sizes) + 1);
    ExpectOutstanding(handles[0], 3, 0 + 17 + 4096);  // the 15-byte block was the failed third call
    ExpectOutstanding(handles[1], 4, 1 + 16 + 255 + 100000);
    QVPLAT_TestFailAllocation(1);
    QVPLAT_TestFailAllocation(0);  // cancelled
    blocks.push_back(Alloc(handles[0], 32));
    for (void *block : blocks) EXPECT_EQ(Free(handles[1], block), 0u);
    ExpectOutstanding(handles[0], 0, 0);
    ExpectOutstanding(handles[1], 0, 0);
}

TEST(PalMemory, RefusesNullInteriorAndCorruptedFreesWithoutChangingCounts) {
    const uint32_t handle = HandleOf("pal-bad-free");
    auto *kept = static_cast<unsigned char *>(Alloc(handle, 40));
    ASSERT_NE(kept, nullptr);
    for (void *bad : {static_cast<void *>(nullptr), static_cast<void *>(kept + 16)}) {
        EXPECT_NE(Free(handle, bad), 0u);
        ExpectOutstanding(handle, 1, 40);
    }
    // A caller that wrote over the bytes in front of its block is refused rather than trusted.
    unsigned char saved[8];
    std::memcpy(saved, kept - 8, 8);
    std::memset(kept - 8, 0, 8);
    EXPECT_NE(Free(handle, kept), 0u);
    ExpectOutstanding(handle, 1, 40);
    std::memcpy(kept - 8, saved, 8);
    EXPECT_EQ(Free(handle, kept), 0u);
    ExpectOutstanding(handle, 0, 0);
}

}  // namespace
