// A small, fast LZ77 packing of byte strings held in memory: for images the
// library lets go of and may want back later (parked index records), where
// speed matters more than the last percent of size. The packed form never
// leaves the process and is not an on-disk format.
//
// Packed form: a sequence of runs, each a token byte (literal count in the
// high nibble, match length - 4 in the low nibble; 15 in a nibble means more
// bytes follow, each added, until one below 255), the literals, and, except
// after the last literals, the distance back and the match. The distance is
// one byte: 0 for the distance of the run before, 1 to 254 for itself, 255
// when a 2-byte little-endian distance (up to 65535) follows. Matches may
// overlap their own output.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ntfs {

// Workspace of PackBytes: the table of last positions by hash. Positions
// are counted in one stream over all the calls with this workspace (`Base`
// is where the present input starts), so the table is cleared only when
// that count would overflow, not at every call. Zero-initialise it once.
struct _BYTE_PACK_WORKSPACE {
    static constexpr int kHashBits = 12;
    uint32_t Base;
    uint32_t Last[1u << kHashBits];
};

// Packs `size` bytes (at most 65,536) of `in` into `out` of `capacity`
// bytes. Returns the packed length, or 0 when the result would not fit.
size_t PackBytes(const uint8_t* in, size_t size, uint8_t* out, size_t capacity, _BYTE_PACK_WORKSPACE* workspace);

// Unpacks `packed` bytes into `out` of `capacity` bytes. Returns the
// unpacked length, or -1 when the input is malformed or would overrun `out`
// or reach before its start.
int64_t UnpackBytes(const uint8_t* packed, size_t size, uint8_t* out, size_t capacity);

}  // namespace ntfs
