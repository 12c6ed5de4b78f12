// The LZNT1 codec of compressed attributes.
//
// A compressed unit on disk is a stream of chunks, each the image of at most
// 4096 bytes of plain data: a 16-bit little-endian header followed by a body.
// Header bits 0-11 hold the chunk size (header included) minus 3, bits 12-14
// a signature (always written as 3, never tested on reading), and bit 15 says
// whether the body is compressed; a clear bit 15 means 4096 plain bytes. A
// header of 0 ends the stream.
//
// A compressed body is a sequence of groups: one flag byte, then up to eight
// tokens, bit 0 describing the first. A clear bit is one literal byte, a set
// bit a two-byte back-reference whose split between distance and length
// depends on how much of the chunk has been produced (the "format", see
// Lznt1LengthBits). Distance is stored minus 1, length minus 3.
//
// These are free functions without state of their own; the compressor keeps
// its match-finder state in a workspace that the caller owns and may reuse
// from call to call without clearing. The codec knows nothing of clusters or
// runs: the attribute paths hand it one compression unit at a time. Nothing
// here locks; concurrent calls need separate workspaces.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ntfs {

// Engine numbers of QueryCompressionWorkspace and CompressBuffer.
constexpr uint16_t COMPRESSION_ENGINE_STANDARD = 0;   // hashed match finder
constexpr uint16_t COMPRESSION_ENGINE_MAXIMUM = 256;  // exhaustive match finder

// Compression format numbers, the indexes of the dispatch tables below. The
// attribute paths take any non-zero compression bits for LZNT1.
constexpr uint16_t COMPRESSION_FORMAT_LZNT1 = 2;
constexpr int kCompressionFormatCount = 8;

// Plain bytes per chunk; also the step of CompressBuffer.
constexpr uint32_t kLznt1ChunkBytes = 4096;
// Header of a chunk stored plain, and that chunk's size on disk.
constexpr uint16_t kLznt1PlainChunkHeader = 0x3FFF;
constexpr uint32_t kLznt1PlainChunkBytes = 4098;
// Bits ORed into the size field of a compressed chunk's header.
constexpr uint16_t kLznt1CompressedChunkFlags = 0xB000;
constexpr uint16_t kLznt1CompressedBit = 0x8000;
constexpr uint16_t kLznt1ChunkSizeMask = 0x0FFF;
constexpr uint32_t kLznt1MinimumMatch = 3;
constexpr int kLznt1FormatCount = 9;
constexpr uint32_t kLznt1BucketCount = 4096;

// Back-reference format k (0 to 8) serves output positions p inside the chunk
// up to Lznt1FormatBound(k) = 16 << k; the format in use is the least k whose
// bound is not below p, reached by stepping k upward one at a time on both
// sides. Format k keeps 12 - k bits of length below 4 + k bits of distance.
constexpr uint32_t Lznt1FormatBound(int k) {
    return 16u << k;
}
constexpr int Lznt1LengthBits(int k) {
    return 12 - k;
}
constexpr uint32_t Lznt1LengthMask(int k) {
    return (1u << Lznt1LengthBits(k)) - 1;
}
constexpr uint32_t Lznt1LongestMatch(int k) {
    return Lznt1LengthMask(k) + kLznt1MinimumMatch;
}

// The compressor's workspace, owned by the caller, laid out in this order.
// The exhaustive engine uses this leading part alone (32 bytes).
struct _LZNT1_WORKSPACE {
    const uint8_t* ChunkStart;    // first plain byte of the chunk being compressed
    const uint8_t* ChunkEnd;      // one past its last plain byte
    uint32_t LongestMatch;        // longest match the current format can store
    const uint8_t* MatchAddress;  // where the last match search found its match
};

// The hashed engine's workspace: the leading part and 4096 buckets, each with
// the newer (slot 0) and the older (slot 1) position seen for its hash. The
// buckets need no initialisation and are never cleared: a stale or garbage
// pointer fails the range test against the current chunk before it is read.
struct _LZNT1_HASHED_WORKSPACE {
    _LZNT1_WORKSPACE Header;
    const uint8_t* Buckets[kLznt1BucketCount][2];
};

static_assert(sizeof(void*) != 8 || sizeof(_LZNT1_WORKSPACE) == 32,
              "the exhaustive workspace is 32 bytes on 64-bit hosts");
static_assert(sizeof(void*) != 8 || sizeof(_LZNT1_HASHED_WORKSPACE) == 65568,
              "the hashed workspace is 65568 bytes on 64-bit hosts");

// A match finder: looks for the longest earlier occurrence inside the
// workspace's chunk of the bytes at `position`, bounded by LongestMatch and
// ChunkEnd. Returns its length (at least 3), or 0 for none, and leaves the
// match's address in MatchAddress.
// REQUIRES: ChunkStart <= position, and at least 3 bytes before ChunkEnd.
using LZNT1_MATCH_FINDER = uint32_t (*)(const uint8_t* position, void* workspace);

// Sizes the caller must provide for `engine`: *workspaceBytes for the
// workspace of CompressBuffer (sizeof _LZNT1_HASHED_WORKSPACE for engine 0,
// sizeof _LZNT1_WORKSPACE for engine 256) and *fragmentBytes, always 4096.
// Returns 0, or ERROR_NOT_SUPPORTED for any other engine, leaving both alone.
[[nodiscard]] unsigned int QueryCompressionWorkspace(uint16_t engine, uint32_t* workspaceBytes,
                                                     uint32_t* fragmentBytes);

// Compresses `inputLength` bytes into a chunk stream of at most `outputLength`
// bytes, one chunk per 4096 input bytes; `chunkSize` is accepted and ignored.
// `workspace` must hold what QueryCompressionWorkspace gives for `engine` and
// be aligned for a pointer; it needs no initialisation.
//
// On return *finalSize holds the bytes of stream produced. When at least two
// bytes of room remain behind them, a zero end header is stored there, not
// counted. Returns 0; ERROR_BUFFER_ALL_ZEROS, a note and no failure, when
// every chunk was all zero (so also for an empty input); ERROR_NOT_SUPPORTED
// for an unknown engine, touching nothing.
//
// A chunk that fits neither compressed nor plain does not end the call: the
// stream position then moves on by the size of the chunk before it, so
// *finalSize may come close to or exceed `outputLength` and the stream is not
// decodable. Only a *finalSize well below `outputLength` is worth storing;
// callers compare as signed numbers. Nothing is ever written outside the
// output buffer.
[[nodiscard]] unsigned int CompressBuffer(uint16_t engine, const void* input, uint32_t inputLength, void* output,
                                          int32_t outputLength, uint32_t chunkSize, uint32_t* finalSize,
                                          void* workspace);

// Compresses the chunk that starts at `position`: the next 4096 bytes, or
// fewer at `inputEnd`, into [output, outputEnd), using `matchFinder` over
// `workspace`. A chunk that does not shrink below 4098 bytes is stored plain
// with header 0x3FFF and 4096 bytes (zeros stand in for input behind
// `inputEnd`). On success *chunkBytes holds the chunk's size on disk.
// Returns 0; ERROR_BUFFER_ALL_ZEROS when the chunk was all zero; or
// ERROR_INSUFFICIENT_BUFFER, *chunkBytes untouched, when it fits neither way.
// Bytes may have been written into the output also then. An empty input
// (position not before inputEnd) makes no chunk: *chunkBytes = 0 and
// ERROR_BUFFER_ALL_ZEROS.
[[nodiscard]] unsigned int CompressChunk(LZNT1_MATCH_FINDER matchFinder, const uint8_t* position,
                                         const uint8_t* inputEnd, uint8_t* output, uint8_t* outputEnd,
                                         uint32_t* chunkBytes, void* workspace);

// Expands the chunk stream of `inputLength` bytes into at most `outputLength`
// bytes. A chunk that gives fewer than 4096 bytes is followed by zeros up to
// its 4096-byte span when another chunk follows and the span ends inside the
// output; a stream that ends on a short chunk stops at that chunk's bytes, so
// the caller must treat the rest of its unit as undefined. A zero header, or
// fewer than two bytes left, ends the stream; so an input that opens with a
// zero header, or is shorter than a header, expands to nothing.
//
// Returns 0 with *finalSize = bytes of output. Returns
// ERROR_BAD_COMPRESSION_BUFFER when a chunk's size reaches behind the input
// or a plain chunk lacks its bytes; *finalSize then holds the input offset of
// that chunk's header. The code of a compressed chunk's own expansion is not
// looked at: a malformed compressed body gives whatever the chunk left, its
// reported length clipped to the output (the callers ignore this function's
// code as well, hence no [[nodiscard]]).
unsigned int DecompressBuffer(void* output, uint32_t outputLength, const void* input, int32_t inputLength,
                              int32_t* finalSize);

// Expands one compressed chunk body [input, inputEnd) into [output,
// outputEnd). Back-references may reach only into what this call produced.
// Returns 0 with *finalSize = bytes produced when the room or the input is
// used up; ERROR_BAD_COMPRESSION_BUFFER when a back-reference is cut off by
// the input's end or reaches before the output start, with *finalSize = the
// input offset of that back-reference. The output holds what was produced
// until then.
unsigned int DecompressChunk(uint8_t* output, uint8_t* outputEnd, const uint8_t* input, const uint8_t* inputEnd,
                             uint32_t* finalSize);

// The engine-0 match finder. The three bytes at `position` pick one of 4096
// buckets; each of its two slots is a candidate if it lies in the chunk before
// `position` and starts with the same three bytes. The position then becomes
// the bucket's newer slot, the newer one moving to the older slot. Of two
// candidates the newer wins unless the older is strictly longer.
uint32_t FindMatchHashed(const uint8_t* position, void* workspace);

// The engine-256 match finder: tries every address of the chunk before
// `position`; of equally long candidates the latest wins.
uint32_t FindMatchExhaustive(const uint8_t* position, void* workspace);

// The bucket of the three bytes b0, b1, b2 in the hashed finder.
constexpr uint32_t Lznt1HashBucket(uint8_t b0, uint8_t b1, uint8_t b2) {
    uint32_t product = ((((static_cast<uint32_t>(b0) << 4) ^ b1) << 4) ^ b2) * static_cast<uint32_t>(-24993);
    return (product >> 4) & (kLznt1BucketCount - 1);
}

// Dispatch by compression format number: entries 0 and 1 are empty, entry 2
// is LZNT1, entries 3 to 7 return ERROR_UNSUPPORTED_COMPRESSION. The attribute
// paths call the LZNT1 routines by name and do not go through these.
using COMPRESSION_QUERY_ROUTINE = unsigned int (*)(uint16_t, uint32_t*, uint32_t*);
using COMPRESSION_COMPRESS_ROUTINE = unsigned int (*)(uint16_t, const void*, uint32_t, void*, int32_t, uint32_t,
                                                      uint32_t*, void*);
using COMPRESSION_DECOMPRESS_ROUTINE = unsigned int (*)(void*, uint32_t, const void*, int32_t, int32_t*);

extern const COMPRESSION_QUERY_ROUTINE QueryCompressionWorkspaceRoutines[kCompressionFormatCount];
extern const COMPRESSION_COMPRESS_ROUTINE CompressBufferRoutines[kCompressionFormatCount];
extern const COMPRESSION_DECOMPRESS_ROUTINE DecompressBufferRoutines[kCompressionFormatCount];

}  // namespace ntfs
