// Little-endian access to on-disk images at raw byte offsets.
//
// Every on-disk structure (boot sector, FILE records, attributes, run lists,
// index entries, INDX records) is read and written through these helpers, so
// no packed struct is ever laid over a disk image and no unaligned pointer is
// dereferenced. The caller guarantees that offset + width lies inside the
// image; bytes read from disk must be bounds-checked before these are used.
#pragma once

#include <cstdint>
#include <cstring>

namespace ntfs {

inline uint8_t ReadU8(const void* image, size_t offset) {
    return static_cast<const uint8_t*>(image)[offset];
}

inline uint64_t ReadLittleEndian(const void* image, size_t offset, int bytes) {
    const uint8_t* p = static_cast<const uint8_t*>(image) + offset;
    uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | p[i];
    return value;
}

inline uint16_t ReadU16(const void* image, size_t offset) {
    return static_cast<uint16_t>(ReadLittleEndian(image, offset, 2));
}
inline uint32_t ReadU32(const void* image, size_t offset) {
    return static_cast<uint32_t>(ReadLittleEndian(image, offset, 4));
}
// A 48-bit value (record numbers in file references).
inline uint64_t ReadU48(const void* image, size_t offset) {
    return ReadLittleEndian(image, offset, 6);
}
inline uint64_t ReadU64(const void* image, size_t offset) {
    return ReadLittleEndian(image, offset, 8);
}
inline int16_t ReadI16(const void* image, size_t offset) {
    return static_cast<int16_t>(ReadU16(image, offset));
}
inline int32_t ReadI32(const void* image, size_t offset) {
    return static_cast<int32_t>(ReadU32(image, offset));
}
inline int64_t ReadI64(const void* image, size_t offset) {
    return static_cast<int64_t>(ReadU64(image, offset));
}

inline void WriteLittleEndian(void* image, size_t offset, uint64_t value, int bytes) {
    uint8_t* p = static_cast<uint8_t*>(image) + offset;
    for (int i = 0; i < bytes; ++i) {
        p[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

inline void WriteU8(void* image, size_t offset, uint8_t value) {
    static_cast<uint8_t*>(image)[offset] = value;
}
inline void WriteU16(void* image, size_t offset, uint16_t value) {
    WriteLittleEndian(image, offset, value, 2);
}
inline void WriteU32(void* image, size_t offset, uint32_t value) {
    WriteLittleEndian(image, offset, value, 4);
}
inline void WriteU48(void* image, size_t offset, uint64_t value) {
    WriteLittleEndian(image, offset, value, 6);
}
inline void WriteU64(void* image, size_t offset, uint64_t value) {
    WriteLittleEndian(image, offset, value, 8);
}
inline void WriteI64(void* image, size_t offset, int64_t value) {
    WriteLittleEndian(image, offset, static_cast<uint64_t>(value), 8);
}

}  // namespace ntfs
