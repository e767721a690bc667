// Fields of the module record that one thread writes while another reads them without a lock that
// both take (addresses, the list limit, mesh states, the collector's location): every such access is
// an atomic load or store on the plain field, so the record keeps its layout. Relaxed order: each
// field is a value on its own, never a signal that other data is ready.
#ifndef QV_CORE_SHARED_FIELD_H
#define QV_CORE_SHARED_FIELD_H

#include <atomic>
#include <cstdint>

namespace qv {

inline uint32_t LoadShared(const uint32_t &field) {
    // atomic_ref needs a mutable object; a load never writes it.
    return std::atomic_ref<uint32_t>(const_cast<uint32_t &>(field)).load(std::memory_order_relaxed);
}

inline void StoreShared(uint32_t &field, uint32_t value) {
    std::atomic_ref<uint32_t>(field).store(value, std::memory_order_relaxed);
}

}  // namespace qv

#endif
