#include "foundation/byte_pack.h"

#include <cstdint>
#include <cstring>

namespace ntfs {

namespace {

constexpr size_t kMinMatch = 4;
constexpr size_t kMaxDistance = 65535;
constexpr size_t kMaxInput = 65536;
// The first distance byte: the distance of the run before, the distance
// itself (1 to 254), or a mark that two bytes follow.
constexpr uint8_t kSameDistance = 0;
constexpr uint8_t kLongDistance = 255;

uint32_t Read32(const uint8_t* at) {
    uint32_t value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

uint32_t Hash(uint32_t four) {
    return (four * 2654435761u) >> (32 - _BYTE_PACK_WORKSPACE::kHashBits);
}

uint64_t Read64(const uint8_t* at) {
    uint64_t value;
    std::memcpy(&value, at, sizeof(value));
    return value;
}

// Copies of a few bytes are the rule here, where a call to memcpy costs
// more than the copy. Eight bytes at a time, front to back, so a source
// that ends at least eight bytes before the target may overlap it.
void CopyBytes(uint8_t* to, const uint8_t* from, size_t count) {
    size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        const uint64_t eight = Read64(from + i);
        std::memcpy(to + i, &eight, sizeof(eight));
    }
    for (; i < count; ++i) to[i] = from[i];
}

// As CopyBytes, but when both sides have room for it the copy runs in whole
// eight-byte steps past `count` (up to 7 bytes more are read and written).
void CopyAhead(uint8_t* to, const uint8_t* from, size_t count, size_t toRoom, size_t fromRoom) {
    if (toRoom < count + 8 || fromRoom < count + 8) {
        CopyBytes(to, from, count);
        return;
    }
    for (size_t i = 0; i < count; i += 8) {
        const uint64_t eight = Read64(from + i);
        std::memcpy(to + i, &eight, sizeof(eight));
    }
}

// Writes the extension bytes of a nibble that reached 15; the caller has
// made sure of the room.
uint8_t* PutLength(size_t rest, uint8_t* out) {
    for (; rest >= 255; rest -= 255) *out++ = 255;
    *out++ = static_cast<uint8_t>(rest);
    return out;
}

// One run: literals [from, from + literals), then (when `length` is not 0)
// a match of `length` bytes `distance` back; `*last` is the distance of the
// run before. Returns where the next run goes, or null when it does not fit
// before `end`.
inline uint8_t* PutRun(const uint8_t* from, size_t literals, size_t distance, size_t length, size_t* last, uint8_t* out,
                       const uint8_t* end) {
    const size_t code = length == 0 ? 0 : length - kMinMatch;
    // Token, both lengths' extensions, the literals and the distance.
    const size_t most = 1 + (literals / 255 + 1) + literals + 3 + (code / 255 + 1);
    if (static_cast<size_t>(end - out) < most) return nullptr;
    *out++ = static_cast<uint8_t>((literals < 15 ? literals : 15) << 4 | (code < 15 ? code : 15));
    if (literals >= 15) out = PutLength(literals - 15, out);
    CopyBytes(out, from, literals);
    out += literals;
    if (length == 0) return out;
    if (distance == *last) {
        *out++ = kSameDistance;
    } else if (distance < kLongDistance) {
        *out++ = static_cast<uint8_t>(distance);
    } else {
        *out++ = kLongDistance;
        *out++ = static_cast<uint8_t>(distance);
        *out++ = static_cast<uint8_t>(distance >> 8);
    }
    *last = distance;
    return code < 15 ? out : PutLength(code - 15, out);
}

// Reads the extension bytes of a nibble of 15 into `*value`.
bool GetLength(const uint8_t** in, const uint8_t* end, size_t* value) {
    for (;;) {
        if (*in >= end) return false;
        const uint8_t byte = *(*in)++;
        *value += byte;
        if (*value > kMaxInput) return false;
        if (byte != 255) return true;
    }
}

}  // namespace

size_t PackBytes(const uint8_t* in, size_t size, uint8_t* out, size_t capacity, _BYTE_PACK_WORKSPACE* workspace) {
    if (size > kMaxInput) return 0;
    // Entries below `base` belong to earlier inputs; 0 stays "empty".
    if (workspace->Base == 0 || workspace->Base > UINT32_MAX - 2 * kMaxInput) {
        std::memset(workspace->Last, 0, sizeof(workspace->Last));
        workspace->Base = 1;
    }
    const uint32_t base = workspace->Base;
    workspace->Base += static_cast<uint32_t>(size) + 1;
    uint8_t* put = out;
    const uint8_t* end = out + capacity;
    size_t anchor = 0;
    size_t at = 0;
    size_t last = 0;
    while (size >= kMinMatch && at <= size - kMinMatch) {
        const uint32_t four = Read32(in + at);
        uint32_t& slot = workspace->Last[Hash(four)];
        const uint32_t seen = slot;
        slot = base + static_cast<uint32_t>(at);
        size_t from = 0;
        // The distance of the run before costs one byte less: tried first.
        if (last != 0 && last <= at && Read32(in + at - last) == four) {
            from = at - last;
        } else if (seen >= base && at - (seen - base) <= kMaxDistance && Read32(in + (seen - base)) == four) {
            from = seen - base;
        } else {
            ++at;
            continue;
        }
        size_t length = kMinMatch;
        while (at + length + 8 <= size) {
            const uint64_t differ = Read64(in + from + length) ^ Read64(in + at + length);
            if (differ != 0) {
                length += static_cast<size_t>(__builtin_ctzll(differ)) / 8;  // little-endian: first differing byte
                break;
            }
            length += 8;
        }
        if (at + length + 8 > size) {
            while (at + length < size && in[from + length] == in[at + length]) ++length;
        }
        put = PutRun(in + anchor, at - anchor, at - from, length, &last, put, end);
        if (put == nullptr) return 0;
        at += length;
        anchor = at;
    }
    put = PutRun(in + anchor, size - anchor, 0, 0, &last, put, end);
    if (put == nullptr) return 0;
    return static_cast<size_t>(put - out);
}

int64_t UnpackBytes(const uint8_t* packed, size_t size, uint8_t* out, size_t capacity) {
    const uint8_t* in = packed;
    const uint8_t* end = packed + size;
    size_t done = 0;
    size_t last = 0;
    while (in < end) {
        const uint8_t token = *in++;
        size_t literals = token >> 4;
        if (literals == 15 && !GetLength(&in, end, &literals)) return -1;
        if (static_cast<size_t>(end - in) < literals || capacity - done < literals) return -1;
        CopyAhead(out + done, in, literals, capacity - done, static_cast<size_t>(end - in));
        in += literals;
        done += literals;
        if (in == end) break;  // the last run has literals only
        size_t distance = *in++;
        if (distance == kSameDistance) {
            distance = last;
        } else if (distance == kLongDistance) {
            if (end - in < 2) return -1;
            distance = static_cast<size_t>(in[0]) | static_cast<size_t>(in[1]) << 8;
            in += 2;
        }
        last = distance;
        size_t length = token & 15;
        if (length == 15 && !GetLength(&in, end, &length)) return -1;
        length += kMinMatch;
        if (distance == 0 || distance > done || capacity - done < length) return -1;
        if (distance >= 8) {
            CopyAhead(out + done, out + done - distance, length, capacity - done, capacity - done + distance);
            done += length;
        } else {
            // Byte by byte: the match overlaps what it is writing.
            for (size_t i = 0; i < length; ++i, ++done) out[done] = out[done - distance];
        }
    }
    return static_cast<int64_t>(done);
}

}  // namespace ntfs
