// Bounds-checked reads of fixed-width fields from received bytes. A read that would leave the bytes
// yields 0, so a decoder can never read past what arrived; decoders still check lengths first, to
// report a short input by name instead of decoding zeros.
#ifndef QV_TOOLS_BYTE_VIEW_H
#define QV_TOOLS_BYTE_VIEW_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace qvdecode {

using Bytes = std::span<const uint8_t>;

// True when `len` bytes starting at `off` lie inside b.
inline bool Has(Bytes b, size_t off, size_t len) { return off <= b.size() && len <= b.size() - off; }

inline uint8_t U8(Bytes b, size_t off) { return Has(b, off, 1) ? b[off] : 0; }

inline uint16_t Le16(Bytes b, size_t off) {
    if (!Has(b, off, 2)) return 0;
    return static_cast<uint16_t>(b[off] | (b[off + 1] << 8));
}

inline uint32_t Le32(Bytes b, size_t off) {
    if (!Has(b, off, 4)) return 0;
    return static_cast<uint32_t>(b[off]) | (static_cast<uint32_t>(b[off + 1]) << 8) |
           (static_cast<uint32_t>(b[off + 2]) << 16) | (static_cast<uint32_t>(b[off + 3]) << 24);
}

inline uint64_t Le64(Bytes b, size_t off) {
    if (!Has(b, off, 8)) return 0;
    return static_cast<uint64_t>(Le32(b, off)) | (static_cast<uint64_t>(Le32(b, off + 4)) << 32);
}

inline uint16_t Be16(Bytes b, size_t off) {
    if (!Has(b, off, 2)) return 0;
    return static_cast<uint16_t>((b[off] << 8) | b[off + 1]);
}

inline uint32_t Be32(Bytes b, size_t off) {
    if (!Has(b, off, 4)) return 0;
    return (static_cast<uint32_t>(b[off]) << 24) | (static_cast<uint32_t>(b[off + 1]) << 16) |
           (static_cast<uint32_t>(b[off + 2]) << 8) | static_cast<uint32_t>(b[off + 3]);
}

// The bytes [off, off + len), clipped to what exists.
inline Bytes Sub(Bytes b, size_t off, size_t len) {
    if (off > b.size()) return {};
    return b.subspan(off, len <= b.size() - off ? len : b.size() - off);
}

}  // namespace qvdecode

#endif
