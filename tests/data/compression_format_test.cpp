// The exact bytes of the LZNT1 stream: back-reference formats at their
// borders, the all-zero and the plain chunk, the end header, the all-zero
// note of a whole buffer; the decoder's zero fill and stream ends; and a
// stream written by an independent encoder (ntfs-3g) read back to its data.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "data/compression.h"
#include "foundation/log.h"

namespace ntfs {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Of(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes Random(size_t n, uint32_t seed) {
    std::mt19937 engine(seed);
    Bytes data(n);
    for (auto& b : data) b = static_cast<uint8_t>(engine());
    return data;
}

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// Compresses into an output of exactly `outputLength` bytes prefilled with
// 0xEE; returns the whole output buffer.
Bytes CompressInto(uint16_t engine, const Bytes& input, size_t outputLength, unsigned int* code,
                   uint32_t* finalSize) {
    auto workspace = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    Bytes output(outputLength, 0xEE);
    *code = CompressBuffer(engine, input.data(), static_cast<uint32_t>(input.size()), output.data(),
                           static_cast<int32_t>(outputLength), kLznt1ChunkBytes, finalSize,
                           workspace.get());
    return output;
}

Bytes CompressStream(uint16_t engine, const Bytes& input, unsigned int* code = nullptr) {
    unsigned int ignored = 0;
    uint32_t finalSize = 0;
    Bytes output = CompressInto(engine, input, input.size() / 4096 * 4098 + 4100,
                                code != nullptr ? code : &ignored, &finalSize);
    output.resize(finalSize);
    return output;
}

// Expands into exactly `outputLength` bytes prefilled with 0xEE; the whole
// buffer comes back, and the code and final size through the pointers.
Bytes ExpandInto(const Bytes& stream, size_t outputLength, unsigned int* code, int32_t* finalSize) {
    Bytes output(outputLength, 0xEE);
    *code = DecompressBuffer(output.data(), static_cast<uint32_t>(outputLength), stream.data(),
                             static_cast<int32_t>(stream.size()), finalSize);
    return output;
}

// ---- back-reference formats ------------------------------------------------

TEST(Lznt1Format, BackReferenceAtPosition16UsesFormat0AndAt17Format1) {
    const std::string sixteen = "ABCDEFGHIJKLMNOP";
    for (uint16_t engine : {COMPRESSION_ENGINE_STANDARD, COMPRESSION_ENGINE_MAXIMUM}) {
        // Position 16: distance 16, length 8 in format 0 (4 distance bits).
        const Bytes at16 = Cat({{0x14, 0xB0, 0x00}, Of("ABCDEFGH"), {0x00}, Of("IJKLMNOP"),
                                {0x01, 0x05, 0xF0}});
        EXPECT_EQ(CompressStream(engine, Of(sixteen + "ABCDEFGH")), at16);

        // Position 17: distance 17, length 10 in format 1 (5 distance bits).
        // Read as format 0 the word would mean distance 9, length 10.
        const Bytes at17 = Cat({{0x15, 0xB0, 0x00}, Of("ABCDEFGH"), {0x00}, Of("IJKLMNOP"),
                                {0x02}, Of("Q"), {0x07, 0x80}});
        EXPECT_EQ(CompressStream(engine, Of(sixteen + "Q" + "ABCDEFGHIJ")), at17);
    }
    unsigned int code = 0;
    int32_t finalSize = 0;
    const Bytes at17 = Cat({{0x15, 0xB0, 0x00}, Of("ABCDEFGH"), {0x00}, Of("IJKLMNOP"), {0x02},
                            Of("Q"), {0x07, 0x80}});
    Bytes plain = ExpandInto(at17, 27, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 27);
    EXPECT_EQ(plain, Of(sixteen + "QABCDEFGHIJ"));
}

TEST(Lznt1Format, LongestMatchShrinksWithEachFormat) {
    // 300 random bytes (no repeated triple), then the same 300 again: the
    // repeat starts at position 300 (format 5, at most 130 bytes) and ends in
    // format 6 (at most 66 bytes), all from distance 300.
    Bytes input = Random(300, 4);
    input.insert(input.end(), input.begin(), input.begin() + 300);
    const Bytes stream = CompressStream(COMPRESSION_ENGINE_MAXIMUM, input);
    // 37 full groups of literals, then a flag byte, 4 literals and the
    // references 130 + 130 (format 5) and 40 (format 6).
    ASSERT_EQ(stream.size(), 2u + 37 * 9 + 1 + 4 + 6);
    EXPECT_EQ(stream[335], 0x70);
    EXPECT_EQ(stream[340] | stream[341] << 8, 127 | 299 << 7);
    EXPECT_EQ(stream[342] | stream[343] << 8, 127 | 299 << 7);
    EXPECT_EQ(stream[344] | stream[345] << 8, 37 | 299 << 6);
    unsigned int code = 0;
    int32_t finalSize = 0;
    EXPECT_EQ(ExpandInto(stream, input.size(), &code, &finalSize), input);
}

// ---- chunk kinds ----------------------------------------------------------------

TEST(Lznt1Chunk, AllZeroChunkIsOneLiteralAndOneMatch) {
    for (uint16_t engine : {COMPRESSION_ENGINE_STANDARD, COMPRESSION_ENGINE_MAXIMUM}) {
        auto workspace = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
        const Bytes zeros(4096, 0);
        Bytes output(4098, 0xEE);
        uint32_t chunkBytes = 0;
        EXPECT_EQ(CompressChunk(engine == 0 ? FindMatchHashed : FindMatchExhaustive, zeros.data(),
                                zeros.data() + zeros.size(), output.data(),
                                output.data() + output.size(), &chunkBytes, workspace.get()),
                  ERROR_BUFFER_ALL_ZEROS);
        ASSERT_EQ(chunkBytes, 6u);
        // Header 0xB003, flags 0b10, literal 0, distance 1 length 4095.
        EXPECT_EQ(Bytes(output.begin(), output.begin() + 6),
                  (Bytes{0x03, 0xB0, 0x02, 0x00, 0xFC, 0x0F}));
    }
}

TEST(Lznt1Chunk, IncompressibleChunkIsStoredPlainOrReportsNoRoom) {
    auto workspace = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    const Bytes random = Random(8192, 1);
    Bytes output(4098, 0xEE);
    uint32_t chunkBytes = 12345;
    ASSERT_EQ(CompressChunk(FindMatchHashed, random.data(), random.data() + random.size(),
                            output.data(), output.data() + output.size(), &chunkBytes,
                            workspace.get()),
              ERROR_SUCCESS);
    EXPECT_EQ(chunkBytes, 4098u);
    EXPECT_EQ(output[0] | output[1] << 8, 0x3FFF);
    EXPECT_TRUE(std::equal(random.begin(), random.begin() + 4096, output.begin() + 2));

    // One byte short of a plain chunk: 122, and the size is not reported.
    Bytes tight(4097, 0xEE);
    chunkBytes = 12345;
    EXPECT_EQ(CompressChunk(FindMatchHashed, random.data(), random.data() + random.size(),
                            tight.data(), tight.data() + tight.size(), &chunkBytes,
                            workspace.get()),
              ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(chunkBytes, 12345u);
}

// ---- the whole buffer ---------------------------------------------------------

TEST(Lznt1Buffer, AllZeroNoteOnlyWhenEveryChunkIsZero) {
    unsigned int code = 0;
    CompressStream(COMPRESSION_ENGINE_STANDARD, Bytes(65536, 0), &code);
    EXPECT_EQ(code, ERROR_BUFFER_ALL_ZEROS);

    Bytes lastByteSet(65536, 0);
    lastByteSet.back() = 1;
    CompressStream(COMPRESSION_ENGINE_STANDARD, lastByteSet, &code);
    EXPECT_EQ(code, ERROR_SUCCESS);
}

TEST(Lznt1Buffer, EndHeaderOnlyWhenTwoBytesOfRoomRemain) {
    const Bytes zeros(4096, 0);
    unsigned int code = 0;
    uint32_t finalSize = 0;
    Bytes output = CompressInto(COMPRESSION_ENGINE_STANDARD, zeros, 8, &code, &finalSize);
    EXPECT_EQ(finalSize, 6u);
    EXPECT_EQ(output, (Bytes{0x03, 0xB0, 0x02, 0x00, 0xFC, 0x0F, 0x00, 0x00}));

    output = CompressInto(COMPRESSION_ENGINE_STANDARD, zeros, 7, &code, &finalSize);
    EXPECT_EQ(finalSize, 6u);
    EXPECT_EQ(output[6], 0xEE);
    output = CompressInto(COMPRESSION_ENGINE_STANDARD, zeros, 6, &code, &finalSize);
    EXPECT_EQ(finalSize, 6u);
}

TEST(Lznt1Buffer, ChunkThatFitsNowhereMovesOnByThePreviousSizeWithinTheBuffer) {
    // Two random chunks into 4098 + 100 bytes: the second fits neither way,
    // the stream position moves by the first chunk's 4098 again, and nothing
    // is written outside the (exactly sized) output.
    const Bytes random = Random(8192, 2);
    unsigned int code = 0;
    uint32_t finalSize = 0;
    Bytes output = CompressInto(COMPRESSION_ENGINE_STANDARD, random, 4098 + 100, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 2 * 4098u);

    // A first chunk that fits nowhere moves by nothing; a zero chunk after it
    // then lands at the start. The all-zero note is cleared all the same.
    const Bytes mixed = Cat({Random(4096, 3), Bytes(4096, 0)});
    output = CompressInto(COMPRESSION_ENGINE_STANDARD, mixed, 100, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 6u);

    // No room at all, or a negative length: nothing is written.
    output = CompressInto(COMPRESSION_ENGINE_STANDARD, random, 0, &code, &finalSize);
    EXPECT_EQ(finalSize, 0u);
    Bytes untouched(16, 0xEE);
    auto workspace = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    EXPECT_EQ(CompressBuffer(COMPRESSION_ENGINE_STANDARD, random.data(), 8192, untouched.data(), -5,
                             4096, &finalSize, workspace.get()),
              ERROR_SUCCESS);
    EXPECT_EQ(untouched, Bytes(16, 0xEE));
}

// ---- decoder stream ends and zero fill ---------------------------------------------

class Lznt1StreamEnds : public ::testing::Test {
protected:
    Lznt1StreamEnds()
        : shortPlain(Of(std::string(60, 'a') + "bcdefghij" + std::string(31, 'k'))),
          shortChunk(CompressStream(COMPRESSION_ENGINE_STANDARD, shortPlain)),
          fullPlain(Random(4096, 9)),
          fullChunk(CompressStream(COMPRESSION_ENGINE_STANDARD, fullPlain)) {}

    Bytes shortPlain, shortChunk, fullPlain, fullChunk;
    unsigned int code = 0;
    int32_t finalSize = 0;
};

TEST_F(Lznt1StreamEnds, ShortChunkInsideTheStreamIsFollowedByZeros) {
    const Bytes out = ExpandInto(Cat({shortChunk, fullChunk}), 8192, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 8192);
    EXPECT_EQ(out, Cat({shortPlain, Bytes(4096 - shortPlain.size(), 0), fullPlain}));
}

TEST_F(Lznt1StreamEnds, ShortChunkAtTheEndIsNotFilled) {
    const Bytes out = ExpandInto(Cat({fullChunk, shortChunk}), 65536, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, static_cast<int32_t>(4096 + shortPlain.size()));
    EXPECT_EQ(out[4096 + shortPlain.size()], 0xEE);
}

TEST_F(Lznt1StreamEnds, FillThatWouldReachTheOutputEndStops) {
    // The short chunk's span ends exactly at the output's end: no fill, and
    // the next chunk is not read.
    const Bytes out = ExpandInto(Cat({shortChunk, fullChunk}), 4096, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, static_cast<int32_t>(shortPlain.size()));
    EXPECT_EQ(out[shortPlain.size()], 0xEE);
}

TEST_F(Lznt1StreamEnds, ZeroHeaderEndsTheStreamAtOnce) {
    Bytes out = ExpandInto(Cat({fullChunk, {0, 0}, shortChunk}), 8192, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 4096);
    out = ExpandInto(Cat({{0, 0}, fullChunk}), 8192, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 0);
    // No header at all, or one stray byte, is an empty stream too.
    EXPECT_EQ(ExpandInto(Bytes{}, 16, &code, &finalSize), Bytes(16, 0xEE));
    EXPECT_EQ(finalSize, 0);
    ExpandInto(Bytes{0x12}, 16, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 0);
}

TEST_F(Lznt1StreamEnds, OutputSmallerThanTheDataGetsItsPrefix) {
    const Bytes plain = Cat({fullPlain, shortPlain});
    const Bytes stream = Cat({fullChunk, shortChunk});
    for (size_t length : {0, 1, 50, 4095, 4096, 4097, 4150}) {
        const Bytes out = ExpandInto(stream, length, &code, &finalSize);
        EXPECT_EQ(code, ERROR_SUCCESS) << length;
        ASSERT_EQ(finalSize, static_cast<int32_t>(length)) << length;
        EXPECT_TRUE(std::equal(out.begin(), out.end(), plain.begin())) << length;
    }
}

// ---- a stream from an independent encoder -------------------------------------------

Bytes ReadDataFile(const char* name) {
    std::string path = __FILE__;
    path = path.substr(0, path.find_last_of('/') + 1) + name;
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file.good()) << path;
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

TEST(Lznt1Sample, UnitWrittenByNtfs3gExpandsToItsFile) {
    // lznt1_sample.bin: the four stored clusters of the first 64 KiB unit of
    // a 40000-byte file that ntfs-3g wrote compressed (text, a random chunk
    // stored plain, a zero chunk, a repeated pattern, a short last chunk),
    // lznt1_sample.plain that file. Made on a 16 MiB `mkntfs -c 4096` image
    // mounted with ntfs-3g, in a directory marked compressed (file attribute
    // 0x800); the clusters were cut out with dd at the LCN ntfsinfo shows.
    const Bytes raw = ReadDataFile("lznt1_sample.bin");
    const Bytes plain = ReadDataFile("lznt1_sample.plain");
    ASSERT_EQ(raw.size(), 4u * 4096);
    ASSERT_EQ(plain.size(), 40000u);

    unsigned int code = 0;
    int32_t finalSize = 0;
    Bytes out = ExpandInto(raw, 65536, &code, &finalSize);
    EXPECT_EQ(code, ERROR_SUCCESS);
    ASSERT_EQ(finalSize, 40000);
    out.resize(40000);
    EXPECT_TRUE(out == plain);

    // Our stream for the same data: where the chunk kind is forced (chunk 4
    // random, chunk 5 all zero) the chunks are the same as ntfs-3g's, and
    // the exhaustive engine ends up within a few percent of its size.
    for (uint16_t engine : {COMPRESSION_ENGINE_STANDARD, COMPRESSION_ENGINE_MAXIMUM}) {
        const Bytes ours = CompressStream(engine, plain);
        std::vector<size_t> starts;
        for (size_t at = 0; at + 1 < ours.size(); at += ((ours[at] | ours[at + 1] << 8) & 0xFFF) + 3u) {
            starts.push_back(at);
        }
        ASSERT_EQ(starts.size(), 10u);
        EXPECT_TRUE(std::equal(ours.begin() + starts[4], ours.begin() + starts[6],
                               raw.begin() + 6398));
        if (engine == COMPRESSION_ENGINE_MAXIMUM) {
            EXPECT_LT(ours.size(), 15397u * 102 / 100);
        }
        Bytes back = ExpandInto(ours, 65536, &code, &finalSize);
        back.resize(static_cast<size_t>(finalSize));
        EXPECT_TRUE(back == plain);
    }
}

}  // namespace
}  // namespace ntfs
