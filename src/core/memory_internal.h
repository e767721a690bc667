// Inside view of the agent's allocator, for the module's initialisation and for tests.
#ifndef QV_CORE_MEMORY_INTERNAL_H
#define QV_CORE_MEMORY_INTERNAL_H

#include <cstdint>

namespace qv {

// Blocks handed out by the agent's allocation functions and not yet released, whichever allocator
// produced them.
uint64_t BlocksOutstanding();

}  // namespace qv

#endif
