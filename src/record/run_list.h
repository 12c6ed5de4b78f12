// Data run encoding: one run is a header byte, a length field and an offset
// field. The low nibble of the header counts the bytes of the length, the
// high nibble those of the offset; both fields are little-endian two's
// complement, and the offset is the difference from the previous run's LCN.
// A header of 0 ends the list; an offset field of no bytes marks a sparse run.
//
// These helpers decode and encode single runs in a caller's buffer. They own
// nothing and take no lock.
#pragma once

#include <cstdint>

namespace ntfs {

// The most bytes EncodeDataRun writes: a header, a length of up to nine bytes
// (eight and a zero byte that keeps it positive), an offset of up to eight
// bytes and the end byte, rounded up.
constexpr int kMaxEncodedRunSize = 24;

// One run as decoded from its bytes.
struct _DATA_RUN {
    int Position;     // offset of the header byte in the image
    int Bytes;        // header, length field and offset field together
    int LengthBytes;  // low nibble of the header
    int OffsetBytes;  // high nibble; 0 for a sparse run
    int64_t Length;   // clusters, sign-extended from the top byte of its field
    int64_t Offset;   // LCN delta, sign-extended; 0 for a sparse run
};

// Decodes the run at `position` of `image`, reading nothing at or past
// `limit`. Returns 1 with `*run` filled, 0 at the end byte, and -1 when the
// bytes cannot be a run: the header or its fields reach `limit`, a field has
// more than eight bytes, or the offset nibble is 8 or more (negative when the
// header is taken as a signed byte).
[[nodiscard]] int DecodeDataRun(const uint8_t* image, int position, int limit, _DATA_RUN* run);

// Writes the run (`length`, `delta`) and the end byte into `buffer`, which
// holds kMaxEncodedRunSize bytes. The length takes the bytes up to its highest
// nonzero one, plus a zero byte when that one has its top bit set; the delta
// takes the fewest bytes that sign-extend to it, so 0 is one byte 0x00 and -1
// one byte 0xFF. Returns the bytes written, the end byte included.
int EncodeDataRun(int64_t length, int64_t delta, uint8_t* buffer);

// Sign-extends the `bytes` low bytes (at most 8) of a little-endian field.
int64_t ReadSignedField(const uint8_t* field, int bytes);

}  // namespace ntfs
