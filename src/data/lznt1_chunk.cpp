// One LZNT1 chunk: compression with a pluggable match finder, and expansion.
//
// Both sides track the back-reference format k from the output position
// inside the chunk and only ever step it upward, so they agree on the split of
// every back-reference. All positions are offsets from the buffers' starts and
// every store is checked against the room, so malformed bodies and short
// buffers cannot reach outside them.
#include <algorithm>
#include <cstring>

#include "data/compression.h"
#include "foundation/endian.h"
#include "foundation/log.h"

namespace ntfs {

namespace {

// Bytes between two pointers into one buffer, 0 when `end` is not behind
// `begin`.
size_t Span(const uint8_t* begin, const uint8_t* end) {
    return end > begin ? static_cast<size_t>(end - begin) : 0;
}

// Stores a chunk that did not shrink: header 0x3FFF and 4096 plain bytes.
// Whole compression units always supply 4096 bytes; a shorter tail is padded
// with zeros rather than read past the input.
void StorePlainChunk(const uint8_t* position, size_t available, uint8_t* output) {
    WriteU16(output, 0, kLznt1PlainChunkHeader);
    const size_t copied = std::min<size_t>(available, kLznt1ChunkBytes);
    std::memcpy(output + 2, position, copied);
    std::memset(output + 2 + copied, 0, kLznt1ChunkBytes - copied);
}

// Copies `count` bytes from `distance` bytes back, forward, so that an
// overlapping reference repeats its pattern. Short references, the common
// case, are copied by a plain loop: a library call costs more than they do.
inline void CopyMatch(uint8_t* to, size_t distance, size_t count) {
    const uint8_t* from = to - distance;
    if (count <= 16 || distance < count) {
        for (size_t i = 0; i < count; ++i) to[i] = from[i];
    } else {
        std::memcpy(to, from, count);
    }
}

}  // namespace

unsigned int CompressChunk(LZNT1_MATCH_FINDER matchFinder, const uint8_t* position, const uint8_t* inputEnd,
                           uint8_t* output, uint8_t* outputEnd, uint32_t* chunkBytes, void* workspace) {
    const size_t inputLeft = Span(position, inputEnd);
    if (inputLeft == 0) {
        // Nothing to compress: no chunk at all, which is trivially all zero.
        *chunkBytes = 0;
        return ERROR_BUFFER_ALL_ZEROS;
    }
    auto* state = static_cast<_LZNT1_WORKSPACE*>(workspace);
    const uint8_t* chunk = position;
    const size_t chunkLength = std::min<size_t>(inputLeft, kLznt1ChunkBytes);
    state->ChunkStart = chunk;
    state->ChunkEnd = chunk + chunkLength;
    state->LongestMatch = Lznt1LongestMatch(0);

    const size_t outputRoom = Span(output, outputEnd);
    const size_t limit = std::min<size_t>(outputRoom, kLznt1PlainChunkBytes);

    // Offsets into the output: the header takes 0 and 1, the first flag byte 2.
    size_t flagPlace = 2;
    size_t outPos = 3;
    unsigned flagIndex = 0;
    uint8_t flags = 0;
    uint8_t literalOr = 0;
    int k = 0;
    size_t p = 0;  // plain bytes of the chunk consumed

    while (p < chunkLength) {
        while (Lznt1FormatBound(k) < p) {
            ++k;
            state->LongestMatch = Lznt1LongestMatch(k);
        }
        const uint32_t n = chunkLength - p >= kLznt1MinimumMatch ? matchFinder(chunk + p, workspace) : 0;
        if (n != 0) {
            if (outPos + 2 > limit) break;
            const uint32_t distance = static_cast<uint32_t>(chunk + p - state->MatchAddress);
            const uint32_t word =
                ((n - kLznt1MinimumMatch) & Lznt1LengthMask(k)) | ((distance - 1) << Lznt1LengthBits(k));
            flags = static_cast<uint8_t>(flags | (1u << flagIndex));
            WriteU16(output, outPos, static_cast<uint16_t>(word));
            outPos += 2;
            p += n;
        } else {
            if (outPos >= limit) break;
            literalOr = static_cast<uint8_t>(literalOr | chunk[p]);
            output[outPos++] = chunk[p++];
        }
        flagIndex = (flagIndex + 1) & 7;
        if (flagIndex == 0) {
            // A token was stored behind this place, so it lies below the limit.
            output[flagPlace] = flags;
            flags = 0;
            flagPlace = outPos++;
        }
    }

    if (p < chunkLength) {
        if (outputRoom < kLznt1PlainChunkBytes) return ERROR_INSUFFICIENT_BUFFER;
        StorePlainChunk(chunk, inputLeft, output);
        *chunkBytes = kLznt1PlainChunkBytes;
        return ERROR_SUCCESS;
    }

    // The last flag byte is stored even when no token follows it; a place
    // reserved at the limit is dropped instead.
    size_t size = outPos;
    if (flagPlace < limit) {
        output[flagPlace] = flags;
    } else {
        size = flagPlace;
    }
    *chunkBytes = static_cast<uint32_t>(size);
    WriteU16(output, 0, static_cast<uint16_t>(kLznt1CompressedChunkFlags | ((size - 3) & kLznt1ChunkSizeMask)));
    // Matches only repeat literals, so no literal bit set means all zero.
    return literalOr == 0 ? ERROR_BUFFER_ALL_ZEROS : ERROR_SUCCESS;
}

unsigned int DecompressChunk(uint8_t* output, uint8_t* outputEnd, const uint8_t* input, const uint8_t* inputEnd,
                             uint32_t* finalSize) {
    const size_t room = Span(output, outputEnd);
    const size_t inLength = Span(input, inputEnd);
    size_t in = 0;
    size_t out = 0;

    if (inLength != 0) {
        uint8_t flags = input[in++];
        unsigned flagIndex = 0;
        // The current format, and the output position up to which it holds.
        int k = 0;
        size_t formatBound = Lznt1FormatBound(0);
        int lengthBits = Lznt1LengthBits(0);
        while (out < room && in < inLength) {
            // Format 8 covers the whole chunk; a body that runs on past 4096
            // bytes of output stays with it.
            while (out > formatBound && k < kLznt1FormatCount - 1) {
                ++k;
                formatBound = Lznt1FormatBound(k);
                lengthBits = Lznt1LengthBits(k);
            }
            if ((flags & (1u << flagIndex)) == 0) {
                output[out++] = input[in++];
            } else {
                if (inLength - in < 2) {
                    *finalSize = static_cast<uint32_t>(in);
                    return ERROR_BAD_COMPRESSION_BUFFER;
                }
                const uint32_t word = ReadU16(input, in);
                const size_t distance = (word >> lengthBits) + 1;
                const size_t length = (word & ((1u << lengthBits) - 1)) + kLznt1MinimumMatch;
                if (distance > out) {
                    *finalSize = static_cast<uint32_t>(in);
                    return ERROR_BAD_COMPRESSION_BUFFER;
                }
                in += 2;
                const size_t copied = std::min(length, room - out);
                CopyMatch(output + out, distance, copied);
                out += copied;
            }
            flagIndex = (flagIndex + 1) & 7;
            if (flagIndex == 0) {
                if (in >= inLength) break;
                flags = input[in++];
            }
        }
    }
    *finalSize = static_cast<uint32_t>(out);
    return ERROR_SUCCESS;
}

}  // namespace ntfs
