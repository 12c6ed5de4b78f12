// Decoding and encoding of single data runs (see run_list.h).
#include "record/run_list.h"

namespace ntfs {

namespace {
constexpr int kMaxFieldBytes = 8;

// Bytes needed for `value` so that sign extension gives it back.
int SignedFieldBytes(int64_t value) {
    int bytes = 1;
    while (bytes < kMaxFieldBytes) {
        const int shift = 8 * bytes;
        const int64_t low = static_cast<int64_t>(static_cast<uint64_t>(value) << (64 - shift)) >> (64 - shift);
        if (low == value) break;
        ++bytes;
    }
    return bytes;
}

// Bytes for a length field: up to the highest nonzero byte, plus a zero byte
// when that byte has its top bit set (a field is read as signed).
int LengthFieldBytes(uint64_t value, bool* padded) {
    int highest = 0;
    for (int i = 0; i < kMaxFieldBytes; ++i) {
        if (((value >> (8 * i)) & 0xFF) != 0) highest = i;
    }
    *padded = ((value >> (8 * highest)) & 0x80) != 0;
    return highest + 1;
}
}  // namespace

int64_t ReadSignedField(const uint8_t* field, int bytes) {
    if (bytes <= 0) return 0;
    if (bytes > kMaxFieldBytes) bytes = kMaxFieldBytes;
    uint64_t value = 0;
    for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | field[i];
    if (bytes < kMaxFieldBytes && (field[bytes - 1] & 0x80) != 0) {
        value |= ~uint64_t{0} << (8 * bytes);
    }
    return static_cast<int64_t>(value);
}

int DecodeDataRun(const uint8_t* image, int position, int limit, _DATA_RUN* run) {
    if (position < 0 || position >= limit) return -1;
    const uint8_t header = image[position];
    if (header == 0) return 0;
    // The header is a signed byte: a high nibble of 8 or more would count
    // backwards. No valid list has one, so it ends the walk as damage.
    const int lengthBytes = header & 0x0F;
    const int offsetBytes = static_cast<int8_t>(header) >> 4;
    if (offsetBytes < 0 || lengthBytes > kMaxFieldBytes) return -1;
    const int bytes = 1 + lengthBytes + offsetBytes;
    if (bytes > limit - position) return -1;
    run->Position = position;
    run->Bytes = bytes;
    run->LengthBytes = lengthBytes;
    run->OffsetBytes = offsetBytes;
    run->Length = ReadSignedField(image + position + 1, lengthBytes);
    run->Offset = ReadSignedField(image + position + 1 + lengthBytes, offsetBytes);
    return 1;
}

int EncodeDataRun(int64_t length, int64_t delta, uint8_t* buffer) {
    bool padded = false;
    const uint64_t lengthValue = static_cast<uint64_t>(length);
    const int lengthBytes = LengthFieldBytes(lengthValue, &padded);
    const int lengthFieldBytes = lengthBytes + (padded ? 1 : 0);
    const int offsetBytes = SignedFieldBytes(delta);

    int at = 1;
    for (int i = 0; i < lengthBytes; ++i) buffer[at++] = static_cast<uint8_t>(lengthValue >> (8 * i));
    if (padded) buffer[at++] = 0;
    const uint64_t deltaValue = static_cast<uint64_t>(delta);
    for (int i = 0; i < offsetBytes; ++i) buffer[at++] = static_cast<uint8_t>(deltaValue >> (8 * i));
    buffer[0] = static_cast<uint8_t>((offsetBytes << 4) | (lengthFieldBytes & 0x0F));
    buffer[at++] = 0;
    return at;
}

}  // namespace ntfs
