// Field access in byte buffers at explicit offsets: big-endian (datagram heads), little-endian (stream
// fields, files of the device) and host order (records). Never through casts of the buffer.
#ifndef QV_CORE_BYTES_H
#define QV_CORE_BYTES_H

#include <cstdint>
#include <cstring>

namespace qv::bytes {

inline void StoreBe16(uint8_t *at, uint16_t v) {
    at[0] = static_cast<uint8_t>(v >> 8);
    at[1] = static_cast<uint8_t>(v);
}

inline void StoreBe32(uint8_t *at, uint32_t v) {
    StoreBe16(at, static_cast<uint16_t>(v >> 16));
    StoreBe16(at + 2, static_cast<uint16_t>(v));
}

inline void StoreBe64(uint8_t *at, uint64_t v) {
    StoreBe32(at, static_cast<uint32_t>(v >> 32));
    StoreBe32(at + 4, static_cast<uint32_t>(v));
}

inline void StoreLe16(uint8_t *at, uint16_t v) {
    at[0] = static_cast<uint8_t>(v);
    at[1] = static_cast<uint8_t>(v >> 8);
}

inline uint16_t LoadBe16(const uint8_t *at) { return static_cast<uint16_t>((at[0] << 8) | at[1]); }

inline uint32_t LoadBe32(const uint8_t *at) {
    return (uint32_t{LoadBe16(at)} << 16) | LoadBe16(at + 2);
}

inline uint16_t LoadLe16(const uint8_t *at) { return static_cast<uint16_t>(at[0] | (at[1] << 8)); }

// Host-order fields of records.
template <typename T>
inline void StoreHost(uint8_t *at, T v) {
    std::memcpy(at, &v, sizeof v);
}

template <typename T>
inline T LoadHost(const uint8_t *at) {
    T v;
    std::memcpy(&v, at, sizeof v);
    return v;
}

}  // namespace qv::bytes

#endif
