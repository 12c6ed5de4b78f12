// Round trips through the LZNT1 codec with both engines over data of many
// shapes and lengths around the 4096-byte chunk borders, the workspace sizes
// and engine checks, the dispatch tables, and the rules of the two match
// finders (slots, ties, stale bucket pointers).
#include "data/compression.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/log.h"

namespace ntfs {
namespace {

using Bytes = std::vector<uint8_t>;

struct Compressed {
    unsigned int Code = 0;
    uint32_t FinalSize = 0;
    Bytes Stream;  // the produced bytes, FinalSize long
};

// Compresses with room for every chunk stored plain plus the end header.
Compressed Compress(uint16_t engine, const Bytes& input) {
    uint32_t workspaceBytes = 0, fragmentBytes = 0;
    EXPECT_EQ(QueryCompressionWorkspace(engine, &workspaceBytes, &fragmentBytes), ERROR_SUCCESS);
    std::vector<uint64_t> workspace((workspaceBytes + 7) / 8);
    const size_t chunks = (input.size() + kLznt1ChunkBytes - 1) / kLznt1ChunkBytes;
    Bytes output(chunks * kLznt1PlainChunkBytes + 2, 0xEE);
    Compressed result;
    result.Code = CompressBuffer(engine, input.data(), static_cast<uint32_t>(input.size()),
                                 output.data(), static_cast<int32_t>(output.size()),
                                 kLznt1ChunkBytes, &result.FinalSize, workspace.data());
    EXPECT_LE(result.FinalSize + 2, output.size());
    result.Stream.assign(output.begin(), output.begin() + result.FinalSize);
    // The end header stands behind the stream.
    EXPECT_EQ(output[result.FinalSize], 0);
    EXPECT_EQ(output[result.FinalSize + 1], 0);
    return result;
}

// Expands into a buffer of exactly `outputLength` bytes.
Bytes Decompress(const Bytes& stream, size_t outputLength, unsigned int* code = nullptr) {
    Bytes output(outputLength);
    int32_t finalSize = -1;
    unsigned int result = DecompressBuffer(output.data(), static_cast<uint32_t>(output.size()),
                                           stream.data(), static_cast<int32_t>(stream.size()),
                                           &finalSize);
    if (code != nullptr) *code = result;
    EXPECT_GE(finalSize, 0);
    output.resize(static_cast<size_t>(finalSize));
    return output;
}

// ---- data shapes ----------------------------------------------------------

Bytes Zeros(size_t n) { return Bytes(n, 0); }

Bytes Random(size_t n, uint32_t seed) {
    std::mt19937 engine(seed);
    Bytes data(n);
    for (auto& b : data) b = static_cast<uint8_t>(engine());
    return data;
}

// English-like lines from a small vocabulary: many short and medium matches
// at all distances.
Bytes Text(size_t n, uint32_t seed) {
    static const char* const kWords[] = {"cluster", "sector", "record", "index", "volume",
                                         "bitmap",  "runlist", "the",   "of",    "attribute",
                                         "stream",  "sparse", "a",      "compressed", "name"};
    std::mt19937 engine(seed);
    std::string text;
    int line = 0;
    while (text.size() < n) {
        text += std::to_string(line++) + ":";
        for (int w = 0, words = 3 + engine() % 9; w < words; ++w) {
            text += ' ';
            text += kWords[engine() % (sizeof(kWords) / sizeof(kWords[0]))];
        }
        text += ".\n";
    }
    return Bytes(text.begin(), text.begin() + n);
}

// Runs of one byte value with random lengths, long and short.
Bytes Runs(size_t n, uint32_t seed) {
    std::mt19937 engine(seed);
    Bytes data;
    while (data.size() < n) {
        data.insert(data.end(), 1 + engine() % 700, static_cast<uint8_t>(engine() % 4));
    }
    data.resize(n);
    return data;
}

// A short pattern repeated: overlapping back-references of every format.
Bytes Pattern(size_t n) {
    Bytes data(n);
    for (size_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>("LZNT1-xyz"[i % 9]);
    return data;
}

// Chunks of alternating shapes, so a unit mixes plain, zero and compressed
// chunks.
Bytes Mixed(size_t n) {
    Bytes data;
    for (uint32_t part = 0; data.size() < n; ++part) {
        Bytes piece = part % 4 == 0 ? Text(3000, part)
                    : part % 4 == 1 ? Random(5000, part)
                    : part % 4 == 2 ? Zeros(4096 + 17)
                                    : Runs(2500, part);
        data.insert(data.end(), piece.begin(), piece.end());
    }
    data.resize(n);
    return data;
}

Bytes Shape(const std::string& shape, size_t n) {
    if (shape == "zeros") return Zeros(n);
    if (shape == "random") return Random(n, 7);
    if (shape == "text") return Text(n, 11);
    if (shape == "runs") return Runs(n, 13);
    if (shape == "pattern") return Pattern(n);
    return Mixed(n);
}

// ---- round trips ------------------------------------------------------------

struct RoundTripCase {
    uint16_t Engine;
    const char* Shape;
    size_t Length;
};

class RoundTripTest : public ::testing::TestWithParam<RoundTripCase> {};

TEST_P(RoundTripTest, ExpandsToTheInput) {
    const RoundTripCase& c = GetParam();
    const Bytes input = Shape(c.Shape, c.Length);
    const Compressed compressed = Compress(c.Engine, input);

    bool allZero = true;
    for (uint8_t b : input) allZero = allZero && b == 0;
    EXPECT_EQ(compressed.Code, allZero ? ERROR_BUFFER_ALL_ZEROS : ERROR_SUCCESS);

    // Into a buffer of exactly the plain length, and into a whole 64 KiB unit
    // as the attribute read does: the stream ends where the data ends.
    unsigned int code = 0;
    EXPECT_EQ(Decompress(compressed.Stream, input.size(), &code), input);
    EXPECT_EQ(code, ERROR_SUCCESS);
    // A short last chunk stored plain still stands for 4096 bytes, its tail
    // zero.
    if (input.size() <= 65536) {
        const Bytes unit = Decompress(compressed.Stream, 65536, &code);
        EXPECT_EQ(code, ERROR_SUCCESS);
        ASSERT_GE(unit.size(), input.size());
        EXPECT_LE(unit.size(), (input.size() + 4095) / 4096 * 4096);
        EXPECT_TRUE(std::equal(input.begin(), input.end(), unit.begin()));
        EXPECT_TRUE(std::all_of(unit.begin() + input.size(), unit.end(), [](uint8_t b) { return b == 0; }));
    }
    // The stream as read from disk carries the end header and cluster slack.
    Bytes padded = compressed.Stream;
    padded.resize(padded.size() + 700, 0);
    EXPECT_EQ(Decompress(padded, input.size()), input);
}

std::vector<RoundTripCase> RoundTripCases() {
    std::vector<RoundTripCase> cases;
    const char* shapes[] = {"zeros", "random", "text", "runs", "pattern", "mixed"};
    const size_t lengths[] = {0, 1, 2, 3, 4, 17, 4095, 4096, 4097, 8191, 12288, 65536};
    for (uint16_t engine : {COMPRESSION_ENGINE_STANDARD, COMPRESSION_ENGINE_MAXIMUM}) {
        for (const char* shape : shapes) {
            for (size_t length : lengths) cases.push_back({engine, shape, length});
        }
    }
    return cases;
}

std::string RoundTripName(const ::testing::TestParamInfo<RoundTripCase>& info) {
    return std::string(info.param.Engine == COMPRESSION_ENGINE_STANDARD ? "Hashed" : "Exhaustive") +
           "_" + info.param.Shape + "_" + std::to_string(info.param.Length);
}

INSTANTIATE_TEST_SUITE_P(Lznt1, RoundTripTest, ::testing::ValuesIn(RoundTripCases()),
                         RoundTripName);

TEST(CompressionRatio, CompressibleDataShrinksAndExhaustiveIsNoWorseOnText) {
    const Bytes text = Text(65536, 3);
    const Compressed hashed = Compress(COMPRESSION_ENGINE_STANDARD, text);
    const Compressed exhaustive = Compress(COMPRESSION_ENGINE_MAXIMUM, text);
    EXPECT_LT(hashed.FinalSize, text.size() / 2);
    EXPECT_LE(exhaustive.FinalSize, hashed.FinalSize);
    // Random data costs exactly two header bytes per chunk.
    EXPECT_EQ(Compress(COMPRESSION_ENGINE_STANDARD, Random(65536, 5)).FinalSize, 16 * 4098u);
}

// ---- workspace, engines and tables -------------------------------------------

TEST(CompressionWorkspace, SizesPerEngineAndUnknownEngines) {
    uint32_t workspaceBytes = 0, fragmentBytes = 0;
    ASSERT_EQ(QueryCompressionWorkspace(COMPRESSION_ENGINE_STANDARD, &workspaceBytes, &fragmentBytes),
              ERROR_SUCCESS);
    EXPECT_EQ(workspaceBytes, 65568u);
    EXPECT_EQ(fragmentBytes, 4096u);
    ASSERT_EQ(QueryCompressionWorkspace(COMPRESSION_ENGINE_MAXIMUM, &workspaceBytes, &fragmentBytes),
              ERROR_SUCCESS);
    EXPECT_EQ(workspaceBytes, 32u);
    EXPECT_EQ(fragmentBytes, 4096u);

    for (uint16_t engine : {1, 2, 255, 257, 512, 0xFFFF}) {
        workspaceBytes = fragmentBytes = 77;
        EXPECT_EQ(QueryCompressionWorkspace(engine, &workspaceBytes, &fragmentBytes),
                  ERROR_NOT_SUPPORTED);
        EXPECT_EQ(workspaceBytes, 77u);

        const Bytes input = Text(5000, 1);
        Bytes output(100, 0xEE);
        uint32_t finalSize = 99;
        EXPECT_EQ(CompressBuffer(engine, input.data(), 5000, output.data(), 100, 4096, &finalSize,
                                 nullptr),
                  ERROR_NOT_SUPPORTED);
        EXPECT_EQ(finalSize, 99u);
        EXPECT_EQ(output, Bytes(100, 0xEE));
    }
}

TEST(CompressionWorkspace, ExhaustiveEngineNeedsOnlyTheLeadingFields) {
    // An exact-size heap workspace: anything beyond 32 bytes would be caught
    // by the address sanitizer.
    auto* workspace = static_cast<uint8_t*>(std::malloc(32));
    const Bytes input = Text(9000, 2);
    Bytes output(3 * 4098 + 2);
    uint32_t finalSize = 0;
    EXPECT_EQ(CompressBuffer(COMPRESSION_ENGINE_MAXIMUM, input.data(), 9000, output.data(),
                             static_cast<int32_t>(output.size()), 4096, &finalSize, workspace),
              ERROR_SUCCESS);
    std::free(workspace);
    output.resize(finalSize);
    EXPECT_EQ(Decompress(output, input.size()), input);
}

TEST(CompressionTables, FormatTwoIsLznt1AndThreeToSevenAreUnsupported) {
    for (int format : {0, 1}) {
        EXPECT_EQ(QueryCompressionWorkspaceRoutines[format], nullptr);
        EXPECT_EQ(CompressBufferRoutines[format], nullptr);
        EXPECT_EQ(DecompressBufferRoutines[format], nullptr);
    }
    EXPECT_EQ(QueryCompressionWorkspaceRoutines[COMPRESSION_FORMAT_LZNT1], &QueryCompressionWorkspace);
    EXPECT_EQ(CompressBufferRoutines[COMPRESSION_FORMAT_LZNT1], &CompressBuffer);
    EXPECT_EQ(DecompressBufferRoutines[COMPRESSION_FORMAT_LZNT1], &DecompressBuffer);

    uint8_t buffer[16] = {};
    uint32_t u = 0;
    int32_t i = 0;
    for (int format = 3; format < kCompressionFormatCount; ++format) {
        EXPECT_EQ(QueryCompressionWorkspaceRoutines[format](0, &u, &u), ERROR_UNSUPPORTED_COMPRESSION);
        EXPECT_EQ(CompressBufferRoutines[format](0, buffer, 16, buffer, 16, 4096, &u, buffer),
                  ERROR_UNSUPPORTED_COMPRESSION);
        EXPECT_EQ(DecompressBufferRoutines[format](buffer, 16, buffer, 16, &i),
                  ERROR_UNSUPPORTED_COMPRESSION);
    }
}

// ---- match finders ------------------------------------------------------------

class MatchFinderTest : public ::testing::Test {
protected:
    MatchFinderTest() : workspace(new _LZNT1_HASHED_WORKSPACE()) {}

    void Start(const std::string& text) {
        data.assign(text.begin(), text.end());
        workspace->Header.ChunkStart = data.data();
        workspace->Header.ChunkEnd = data.data() + data.size();
        workspace->Header.LongestMatch = Lznt1LongestMatch(0);
    }
    uint32_t Hashed(size_t at) { return FindMatchHashed(data.data() + at, workspace.get()); }
    uint32_t Exhaustive(size_t at) { return FindMatchExhaustive(data.data() + at, workspace.get()); }
    size_t MatchOffset() const { return workspace->Header.MatchAddress - data.data(); }

    std::unique_ptr<_LZNT1_HASHED_WORKSPACE> workspace;
    Bytes data;
};

TEST_F(MatchFinderTest, HashIsTheDefinedBucketFunction) {
    // ((b0 * 16 ^ b1) * 16 ^ b2) * -24993, bits 4 to 15.
    EXPECT_EQ(Lznt1HashBucket(0, 0, 0), 0u);
    EXPECT_EQ(Lznt1HashBucket(0, 0, 1), ((0xFFFF9E5Fu) >> 4) & 0xFFF);
    EXPECT_EQ(Lznt1HashBucket('a', 'b', 'c'),
              ((((('a' * 16u) ^ 'b') * 16u ^ 'c') * 0xFFFF9E5Fu) >> 4) & 0xFFF);
}

TEST_F(MatchFinderTest, HashedPrefersNewerOnTiesAndOlderWhenStrictlyLonger) {
    Start("abcXYZ..abcXQ...abcXYZ..abcXQ...");
    EXPECT_EQ(Hashed(0), 0u);  // empty bucket
    EXPECT_EQ(Hashed(8), 4u);  // "abcX" at 0
    EXPECT_EQ(MatchOffset(), 0u);
    // At 16 the older slot (0) repeats all 16 remaining bytes, the newer (8)
    // only "abcX".
    EXPECT_EQ(Hashed(16), 16u);
    EXPECT_EQ(MatchOffset(), 0u);
    // At 24 the slots are 16 (4 bytes) and 8 (8 bytes): the older again.
    EXPECT_EQ(Hashed(24), 8u);
    EXPECT_EQ(MatchOffset(), 8u);

    Start("abcZabcZabcZ");
    Hashed(0);
    EXPECT_EQ(Hashed(4), 8u);
    // Both slots (4 and 0) give the 4 bytes left: the newer wins the tie.
    EXPECT_EQ(Hashed(8), 4u);
    EXPECT_EQ(MatchOffset(), 4u);
}

TEST_F(MatchFinderTest, HashedKeepsOnlyTwoSlotsAndRespectsBounds) {
    Start("abcd abce abcf abcd");
    Hashed(0);
    Hashed(5);
    Hashed(10);
    // Position 0 has left both slots: its "abcd" is not found any more.
    EXPECT_EQ(Hashed(15), 3u);
    EXPECT_EQ(MatchOffset(), 10u);

    // A longest match of 4 and the chunk end cut the extension.
    Start("xyzxyzxyzxyzxyz");
    Hashed(0);
    workspace->Header.LongestMatch = 4;
    EXPECT_EQ(Hashed(3), 4u);
    workspace->Header.LongestMatch = Lznt1LongestMatch(0);
    workspace->Header.ChunkEnd = data.data() + 11;
    EXPECT_EQ(Hashed(6), 5u);
}

TEST_F(MatchFinderTest, HashedIgnoresPointersOutsideTheChunk) {
    Start("abcabcabc");
    const uint32_t bucket = Lznt1HashBucket('a', 'b', 'c');
    // Pointers to equal bytes behind the position and before the chunk start
    // must not be taken; nor may garbage values be read.
    static const uint8_t kElsewhere[] = "abcabcabc";
    workspace->Buckets[bucket][0] = data.data() + 6;
    workspace->Buckets[bucket][1] = kElsewhere;
    EXPECT_EQ(Hashed(3), 0u);
    workspace->Buckets[bucket][0] = reinterpret_cast<const uint8_t*>(uintptr_t{0xA5A5A5A5A5A5A5A5u});
    workspace->Buckets[bucket][1] = nullptr;
    EXPECT_EQ(Hashed(6), 0u);
}

TEST_F(MatchFinderTest, ExhaustiveTakesTheLongestAndTheLatestOfEqualOnes) {
    Start("abcdQ abcdR abcdQ abcdR!abcd");
    EXPECT_EQ(Exhaustive(18), 5u);  // "abcdR" at 6 and at 18: only 6 is earlier
    EXPECT_EQ(MatchOffset(), 6u);
    EXPECT_EQ(Exhaustive(24), 4u);  // four equal "abcd": the latest, 18
    EXPECT_EQ(MatchOffset(), 18u);
    Start("ab ab abX");
    EXPECT_EQ(Exhaustive(6), 0u);  // two bytes are no match
}

TEST(CompressionWorkspaceReuse, StalePointersDoNotChangeTheStream) {
    // A workspace that held pointers into an earlier input, or garbage, gives
    // the same stream as a cleared one.
    const Bytes first = Text(20000, 21);
    const Bytes second = Text(20000, 22);
    auto compress = [](const Bytes& input, void* workspace) {
        Bytes output(5 * 4098 + 2);
        uint32_t finalSize = 0;
        EXPECT_EQ(CompressBuffer(COMPRESSION_ENGINE_STANDARD, input.data(),
                                 static_cast<uint32_t>(input.size()), output.data(),
                                 static_cast<int32_t>(output.size()), 4096, &finalSize, workspace),
                  ERROR_SUCCESS);
        output.resize(finalSize);
        return output;
    };
    auto cleared = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    const Bytes fresh = compress(second, cleared.get());

    auto reused = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    compress(first, reused.get());
    EXPECT_EQ(compress(second, reused.get()), fresh);

    auto garbage = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    std::memset(static_cast<void*>(garbage.get()), 0xA5, sizeof(*garbage));
    EXPECT_EQ(compress(second, garbage.get()), fresh);
}

}  // namespace
}  // namespace ntfs
