// The buffer level of the LZNT1 codec and its dispatch tables.
//
// CompressBuffer and DecompressBuffer walk a whole compression unit chunk by
// chunk and leave each chunk to lznt1_chunk.cpp. Positions are kept as
// offsets, never as pointers that could stray outside a buffer: the stream
// position of the compressor may move past the output's end by design (see
// CompressBuffer in the header), and the decompressor trusts lengths that a
// failed chunk reports, so both clip before they touch memory.
#include "data/compression.h"

#include <algorithm>
#include <cstring>

#include "foundation/endian.h"
#include "foundation/log.h"

namespace ntfs {

namespace {

// Entries 3 to 7 of the dispatch tables: formats this codec does not know.
unsigned int QueryUnsupportedWorkspace(uint16_t, uint32_t*, uint32_t*) {
    return ERROR_UNSUPPORTED_COMPRESSION;
}
unsigned int CompressUnsupported(uint16_t, const void*, uint32_t, void*, int32_t, uint32_t, uint32_t*, void*) {
    return ERROR_UNSUPPORTED_COMPRESSION;
}
unsigned int DecompressUnsupported(void*, uint32_t, const void*, int32_t, int32_t*) {
    return ERROR_UNSUPPORTED_COMPRESSION;
}

LZNT1_MATCH_FINDER MatchFinderOf(uint16_t engine) {
    switch (engine) {
        case COMPRESSION_ENGINE_STANDARD:
            return FindMatchHashed;
        case COMPRESSION_ENGINE_MAXIMUM:
            return FindMatchExhaustive;
        default:
            return nullptr;
    }
}

}  // namespace

unsigned int QueryCompressionWorkspace(uint16_t engine, uint32_t* workspaceBytes, uint32_t* fragmentBytes) {
    switch (engine) {
        case COMPRESSION_ENGINE_STANDARD:
            *workspaceBytes = sizeof(_LZNT1_HASHED_WORKSPACE);
            break;
        case COMPRESSION_ENGINE_MAXIMUM:
            *workspaceBytes = sizeof(_LZNT1_WORKSPACE);
            break;
        default:
            return ERROR_NOT_SUPPORTED;
    }
    *fragmentBytes = kLznt1ChunkBytes;
    return ERROR_SUCCESS;
}

unsigned int CompressBuffer(uint16_t engine, const void* input, uint32_t inputLength, void* output,
                            int32_t outputLength, [[maybe_unused]] uint32_t chunkSize, uint32_t* finalSize,
                            void* workspace) {
    LZNT1_MATCH_FINDER finder = MatchFinderOf(engine);
    if (finder == nullptr) return ERROR_NOT_SUPPORTED;

    const uint8_t* in = static_cast<const uint8_t*>(input);
    const uint8_t* inEnd = in + inputLength;
    uint8_t* out = static_cast<uint8_t*>(output);
    const int64_t capacity = std::max<int32_t>(outputLength, 0);
    uint8_t* outEnd = out + capacity;

    // The stream position is an offset that may run past the capacity (a
    // chunk that did not fit still moves it); chunks are then offered no room.
    int64_t streamBytes = 0;
    // The size the last successful chunk reported; a chunk that fits nowhere
    // reports nothing and the position moves by this value again.
    uint32_t chunkBytes = 0;
    bool allZero = true;

    for (uint32_t step = 0; step < inputLength; step += kLznt1ChunkBytes) {
        uint8_t* chunkOut = out + std::min(streamBytes, capacity);
        unsigned int code = CompressChunk(finder, in + step, inEnd, chunkOut, outEnd, &chunkBytes, workspace);
        if (code < ERROR_BUFFER_ALL_ZEROS) allZero = false;
        streamBytes += chunkBytes;
        if (inputLength - step <= kLznt1ChunkBytes) break;
    }

    *finalSize = static_cast<uint32_t>(streamBytes);
    if (capacity - streamBytes >= 2) WriteU16(out, static_cast<size_t>(streamBytes), 0);
    return allZero ? ERROR_BUFFER_ALL_ZEROS : ERROR_SUCCESS;
}

unsigned int DecompressBuffer(void* output, uint32_t outputLength, const void* input, int32_t inputLength,
                              int32_t* finalSize) {
    uint8_t* out = static_cast<uint8_t*>(output);
    const uint8_t* in = static_cast<const uint8_t*>(input);
    const size_t inLength = inputLength > 0 ? static_cast<size_t>(inputLength) : 0;
    size_t inPos = 0;
    size_t outPos = 0;

    // No header at all, or a zero one, is an empty stream.
    uint16_t header = inLength >= 2 ? ReadU16(in, 0) : 0;
    while (header != 0) {
        const size_t chunkSize = (header & kLznt1ChunkSizeMask) + 3u;
        if (chunkSize > inLength - inPos) {
            *finalSize = static_cast<int32_t>(static_cast<uint32_t>(inPos));
            return ERROR_BAD_COMPRESSION_BUFFER;
        }
        const size_t room = outputLength - outPos;
        const uint8_t* body = in + inPos + 2;
        size_t produced;
        if (header & kLznt1CompressedBit) {
            // The chunk's code is deliberately not looked at. After a failure
            // its length is an input offset, so it is clipped to the room.
            uint32_t length = 0;
            (void)DecompressChunk(out + outPos, out + outputLength, body, in + inPos + chunkSize, &length);
            produced = std::min<size_t>(length, room);
        } else {
            produced = std::min<size_t>(kLznt1ChunkBytes, room);
            if (produced > inLength - inPos - 2) {
                *finalSize = static_cast<int32_t>(static_cast<uint32_t>(inPos));
                return ERROR_BAD_COMPRESSION_BUFFER;
            }
            if (produced != 0) std::memcpy(out + outPos, body, produced);
        }

        const size_t spanEnd = outPos + kLznt1ChunkBytes;
        inPos += chunkSize;
        outPos += produced;
        if (outPos >= outputLength || inLength - inPos < 2) break;
        header = ReadU16(in, inPos);
        if (header == 0) break;
        if (produced < kLznt1ChunkBytes) {
            // A short chunk inside the stream stands for a whole span whose
            // tail is zero; the fill happens only once another chunk follows.
            if (spanEnd >= outputLength) break;
            std::memset(out + outPos, 0, spanEnd - outPos);
            outPos = spanEnd;
        }
    }
    *finalSize = static_cast<int32_t>(static_cast<uint32_t>(outPos));
    return ERROR_SUCCESS;
}

const COMPRESSION_QUERY_ROUTINE QueryCompressionWorkspaceRoutines[kCompressionFormatCount] = {
    nullptr,
    nullptr,
    QueryCompressionWorkspace,
    QueryUnsupportedWorkspace,
    QueryUnsupportedWorkspace,
    QueryUnsupportedWorkspace,
    QueryUnsupportedWorkspace,
    QueryUnsupportedWorkspace,
};

const COMPRESSION_COMPRESS_ROUTINE CompressBufferRoutines[kCompressionFormatCount] = {
    nullptr,
    nullptr,
    CompressBuffer,
    CompressUnsupported,
    CompressUnsupported,
    CompressUnsupported,
    CompressUnsupported,
    CompressUnsupported,
};

const COMPRESSION_DECOMPRESS_ROUTINE DecompressBufferRoutines[kCompressionFormatCount] = {
    nullptr,
    nullptr,
    DecompressBuffer,
    DecompressUnsupported,
    DecompressUnsupported,
    DecompressUnsupported,
    DecompressUnsupported,
    DecompressUnsupported,
};

}  // namespace ntfs
