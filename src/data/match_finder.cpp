// The two LZNT1 match finders behind CompressChunk.
//
// Both read the chunk bounds and the longest storable match from the caller's
// workspace and leave the address of what they found in it. The hashed finder
// (engine 0) remembers two earlier positions per 3-byte hash in buckets that
// are never cleared; every remembered pointer is range-checked against the
// current chunk, as an integer, before a byte behind it is read. The
// exhaustive finder (engine 256) needs only the leading workspace fields.
#include <algorithm>
#include <cstdint>

#include "data/compression.h"

namespace ntfs {

namespace {

// Bytes a match at `position` may cover: the format's longest match, cut at
// the chunk's end.
size_t MatchLimit(const _LZNT1_WORKSPACE& state, const uint8_t* position) {
    return std::min<size_t>(state.LongestMatch, static_cast<size_t>(state.ChunkEnd - position));
}

// Length of the match of `candidate` against `position`, or 0 when the
// candidate does not lie in the chunk before the position or its first three
// bytes differ. The test is made on the integer value, so that a stale pointer
// from an earlier chunk or a never-initialised slot is rejected unread.
size_t CandidateLength(const uint8_t* candidate, const uint8_t* position, const _LZNT1_WORKSPACE& state, size_t limit,
                       const uint8_t** address) {
    const uintptr_t value = reinterpret_cast<uintptr_t>(candidate);
    const uintptr_t here = reinterpret_cast<uintptr_t>(position);
    if (value < reinterpret_cast<uintptr_t>(state.ChunkStart) || value >= here) return 0;
    const uint8_t* from = position - (here - value);
    if (from[0] != position[0] || from[1] != position[1] || from[2] != position[2]) return 0;
    size_t length = kLznt1MinimumMatch;
    while (length < limit && from[length] == position[length]) ++length;
    *address = from;
    return length;
}

}  // namespace

uint32_t FindMatchHashed(const uint8_t* position, void* workspace) {
    auto* hashed = static_cast<_LZNT1_HASHED_WORKSPACE*>(workspace);
    _LZNT1_WORKSPACE& state = hashed->Header;
    const size_t limit = MatchLimit(state, position);
    const uint8_t** slots = hashed->Buckets[Lznt1HashBucket(position[0], position[1], position[2])];

    const uint8_t* newerAddress = nullptr;
    const uint8_t* olderAddress = nullptr;
    const size_t newerLength = CandidateLength(slots[0], position, state, limit, &newerAddress);
    const size_t olderLength = CandidateLength(slots[1], position, state, limit, &olderAddress);
    slots[1] = slots[0];
    slots[0] = position;

    // Ties go to the newer candidate: the nearer match.
    if (newerLength >= olderLength) {
        state.MatchAddress = newerAddress;
        return static_cast<uint32_t>(newerLength);
    }
    state.MatchAddress = olderAddress;
    return static_cast<uint32_t>(olderLength);
}

uint32_t FindMatchExhaustive(const uint8_t* position, void* workspace) {
    _LZNT1_WORKSPACE& state = *static_cast<_LZNT1_WORKSPACE*>(workspace);
    const size_t limit = MatchLimit(state, position);
    size_t best = 0;
    const uint8_t* bestAddress = nullptr;

    // Walking from the nearest address backwards and taking only strictly
    // longer candidates keeps the latest of equally long ones, and allows
    // stopping once nothing longer is possible.
    for (const uint8_t* candidate = position; candidate != state.ChunkStart && best < limit;) {
        --candidate;
        // Only a candidate that agrees at offset `best` can beat the best.
        if (candidate[best] != position[best]) continue;
        size_t length = 0;
        while (length < limit && candidate[length] == position[length]) ++length;
        if (length > best) {
            best = length;
            bestAddress = candidate;
        }
    }
    if (best < kLznt1MinimumMatch) {
        state.MatchAddress = nullptr;
        return 0;
    }
    state.MatchAddress = bestAddress;
    return static_cast<uint32_t>(best);
}

}  // namespace ntfs
