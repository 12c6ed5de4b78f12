// The LZNT1 codec: round trips with both engines over data of many shapes and
// lengths around the 4096-byte chunk borders; workspaces, engines and the
// dispatch tables; the exact bytes of back-references, of all-zero, plain and
// short chunks and of the end header; the decoder's zero fill and stream
// ends; a stream written by an independent encoder (ntfs-3g); and malformed
// streams, which must give their code without any access outside the buffers
// (the sanitizer build sees reads past the exact-size inputs).
#include "data/compression.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "foundation/log.h"

namespace ntfs {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint16_t kHashed = COMPRESSION_ENGINE_STANDARD;
constexpr uint16_t kExhaustive = COMPRESSION_ENGINE_MAXIMUM;
constexpr uint8_t kFill = 0xEE;  // output bytes not written
constexpr size_t kGuard = 32;

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}
Bytes Of(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes Random(size_t n, uint32_t seed) {
    std::mt19937 engine(seed);
    Bytes data(n);
    for (auto& b : data) b = static_cast<uint8_t>(engine());
    return data;
}

// Lines of words from a small vocabulary: short and medium matches at all
// distances.
Bytes Text(size_t n, uint32_t seed) {
    static const char* const kWords[] = {"cluster ", "sector ", "record ", "index ",     "of ",
                                         "the ",     "a ",      "sparse ", "attribute ", ".\n"};
    std::mt19937 engine(seed);
    std::string text;
    while (text.size() < n) text += kWords[engine() % 10];
    return Bytes(text.begin(), text.begin() + n);
}

Bytes Shape(const std::string& shape, size_t n) {
    if (shape == "zeros") return Bytes(n, 0);
    if (shape == "random") return Random(n, 7);
    if (shape == "text") return Text(n, 11);
    if (shape == "pattern") {  // overlapping back-references of every format
        Bytes data(n);
        for (size_t i = 0; i < n; ++i) data[i] = "LZNT1-xyz"[i % 9];
        return data;
    }
    // Mixed: plain, zero and compressed chunks in one unit.
    Bytes data;
    for (uint32_t part = 0; data.size() < n; ++part) {
        const Bytes piece = part % 4 == 0   ? Text(3000, part)
                            : part % 4 == 1 ? Random(5000, part)
                            : part % 4 == 2 ? Bytes(4096 + 17, 0)
                                            : Shape("pattern", 2500);
        data.insert(data.end(), piece.begin(), piece.end());
    }
    data.resize(n);
    return data;
}

struct Result {
    unsigned int Code;
    int64_t FinalSize;
    Bytes Output;  // the whole output room, prefilled with kFill
    Bytes Stream() const { return Bytes(Output.begin(), Output.begin() + FinalSize); }
};

// Compresses into `room` bytes (default: every chunk plain plus the end
// header) with `workspace`, by default one on the heap of exactly the size
// the engine asks for.
Result Compress(uint16_t engine, const Bytes& input, size_t room = SIZE_MAX, void* workspace = nullptr) {
    if (room == SIZE_MAX) room = (input.size() + 4095) / 4096 * kLznt1PlainChunkBytes + 2;
    uint32_t workspaceBytes = 0, fragmentBytes = 0;
    EXPECT_EQ(QueryCompressionWorkspace(engine, &workspaceBytes, &fragmentBytes), ERROR_SUCCESS);
    void* own = workspace == nullptr ? std::malloc(workspaceBytes) : nullptr;
    Result r{0, 0, Bytes(room, kFill)};
    uint32_t finalSize = 0;
    r.Code = CompressBuffer(engine, input.data(), static_cast<uint32_t>(input.size()), r.Output.data(),
                            static_cast<int32_t>(room), 4096, &finalSize, own ? own : workspace);
    std::free(own);
    r.FinalSize = finalSize;
    return r;
}

Bytes Stream(uint16_t engine, const Bytes& input) {
    return Compress(engine, input).Stream();
}

// Expands `stream` (at the buffer level, or as a single chunk body), copied
// to a buffer of its exact size, into `room` bytes prefilled with kFill and
// followed by a guard zone that must stay intact.
Result Expand(const Bytes& stream, size_t room, bool chunk = false) {
    const Bytes input(stream);
    Bytes output(room + kGuard, kFill);
    Result r{};
    if (chunk) {
        uint32_t finalSize = 0;
        r.Code =
            DecompressChunk(output.data(), output.data() + room, input.data(), input.data() + input.size(), &finalSize);
        r.FinalSize = finalSize;
    } else {
        int32_t finalSize = -7;
        r.Code = DecompressBuffer(output.data(), static_cast<uint32_t>(room), input.data(),
                                  static_cast<int32_t>(input.size()), &finalSize);
        r.FinalSize = finalSize;
    }
    EXPECT_EQ(Bytes(output.begin() + room, output.end()), Bytes(kGuard, kFill)) << "write behind";
    output.resize(room);
    r.Output = std::move(output);
    return r;
}

// ---- round trips ------------------------------------------------------------

class Lznt1RoundTrip : public ::testing::TestWithParam<std::tuple<uint16_t, const char*>> {};

TEST_P(Lznt1RoundTrip, ExpandsToTheInput) {
    const auto [engine, shape] = GetParam();
    for (size_t length : {0, 1, 3, 17, 4095, 4096, 4097, 12288, 65536}) {
        SCOPED_TRACE(length);
        const Bytes input = Shape(shape, length);
        const Result compressed = Compress(engine, input);
        const bool allZero = std::all_of(input.begin(), input.end(), [](uint8_t b) { return !b; });
        EXPECT_EQ(compressed.Code, allZero ? ERROR_BUFFER_ALL_ZEROS : ERROR_SUCCESS);
        // The end header stands behind the stream.
        ASSERT_LE(compressed.FinalSize + 2, static_cast<int64_t>(compressed.Output.size()));
        EXPECT_EQ(0, compressed.Output[compressed.FinalSize] | compressed.Output[compressed.FinalSize + 1]);
        const Bytes stream = compressed.Stream();
        Result exact = Expand(stream, input.size());
        EXPECT_EQ(exact.Code, ERROR_SUCCESS);
        EXPECT_EQ(exact.Output, input);
        // The stream as read from disk carries cluster slack behind it.
        EXPECT_EQ(Expand(Cat({stream, Bytes(700, 0)}), input.size()).Output, input);
        // Into a whole unit: the data, then zeros up to the end of its last
        // chunk (a short chunk stored plain still stands for 4096 bytes).
        const Result unit = Expand(stream, 65536);
        EXPECT_EQ(unit.Code, ERROR_SUCCESS);
        ASSERT_GE(unit.FinalSize, static_cast<int64_t>(input.size()));
        EXPECT_LE(unit.FinalSize, static_cast<int64_t>((input.size() + 4095) / 4096 * 4096));
        EXPECT_TRUE(std::equal(input.begin(), input.end(), unit.Output.begin()));
        EXPECT_TRUE(std::all_of(unit.Output.begin() + input.size(), unit.Output.begin() + unit.FinalSize,
                                [](uint8_t b) { return !b; }));
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, Lznt1RoundTrip,
                         ::testing::Combine(::testing::Values(kHashed, kExhaustive),
                                            ::testing::Values("zeros", "random", "text", "pattern", "mixed")),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param) ? "Exhaustive_" : "Hashed_") +
                                    std::get<1>(info.param);
                         });

// ---- engines, workspaces and tables -----------------------------------------

TEST(CompressionEngines, WorkspacesTablesRatiosAndReuse) {
    uint32_t workspaceBytes = 0, fragmentBytes = 0;
    ASSERT_EQ(QueryCompressionWorkspace(kHashed, &workspaceBytes, &fragmentBytes), ERROR_SUCCESS);
    EXPECT_EQ(workspaceBytes, 65568u);
    EXPECT_EQ(fragmentBytes, 4096u);
    ASSERT_EQ(QueryCompressionWorkspace(kExhaustive, &workspaceBytes, &fragmentBytes), ERROR_SUCCESS);
    EXPECT_EQ(workspaceBytes, 32u);
    for (uint16_t engine : {1, 255, 257, 0xFFFF}) {
        workspaceBytes = 77;
        EXPECT_EQ(QueryCompressionWorkspace(engine, &workspaceBytes, &fragmentBytes), ERROR_NOT_SUPPORTED);
        EXPECT_EQ(workspaceBytes, 77u);
        Bytes output(100, kFill);
        uint32_t finalSize = 99;
        EXPECT_EQ(CompressBuffer(engine, output.data(), 50, output.data(), 100, 4096, &finalSize, nullptr),
                  ERROR_NOT_SUPPORTED);
        EXPECT_EQ(finalSize, 99u);
        EXPECT_EQ(output, Bytes(100, kFill));
    }
    // Format 2 is LZNT1; 0 and 1 have no routines, 3 to 7 refuse.
    for (int f : {0, 1}) {
        EXPECT_FALSE(CompressBufferRoutines[f] || DecompressBufferRoutines[f] || QueryCompressionWorkspaceRoutines[f]);
    }
    EXPECT_EQ(CompressBufferRoutines[COMPRESSION_FORMAT_LZNT1], &CompressBuffer);
    EXPECT_EQ(DecompressBufferRoutines[COMPRESSION_FORMAT_LZNT1], &DecompressBuffer);
    EXPECT_EQ(QueryCompressionWorkspaceRoutines[COMPRESSION_FORMAT_LZNT1], &QueryCompressionWorkspace);
    uint8_t buffer[16] = {};
    int32_t size = 0;
    for (int f = 3; f < kCompressionFormatCount; ++f) {
        EXPECT_EQ(QueryCompressionWorkspaceRoutines[f](0, &workspaceBytes, &fragmentBytes),
                  ERROR_UNSUPPORTED_COMPRESSION);
        EXPECT_EQ(CompressBufferRoutines[f](0, buffer, 16, buffer, 16, 4096, &workspaceBytes, buffer),
                  ERROR_UNSUPPORTED_COMPRESSION);
        EXPECT_EQ(DecompressBufferRoutines[f](buffer, 16, buffer, 16, &size), ERROR_UNSUPPORTED_COMPRESSION);
    }

    // Text shrinks, the exhaustive engine no worse; random data is stored
    // plain, two header bytes per chunk.
    const Bytes text = Text(65536, 3);
    const int64_t hashed = Compress(kHashed, text).FinalSize;
    EXPECT_LT(hashed, 65536 / 2);
    EXPECT_LE(Compress(kExhaustive, text).FinalSize, hashed);
    EXPECT_EQ(Compress(kHashed, Random(65536, 5)).FinalSize, 16 * 4098);

    // A workspace holding pointers into an earlier input, or garbage, gives
    // the same stream as a cleared one.
    auto cleared = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    auto reused = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    auto garbage = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    std::memset(static_cast<void*>(garbage.get()), 0xA5, sizeof(*garbage));
    const Bytes second = Text(20000, 22);
    const Bytes fresh = Compress(kHashed, second, SIZE_MAX, cleared.get()).Stream();
    Compress(kHashed, Text(20000, 21), SIZE_MAX, reused.get());
    EXPECT_EQ(Compress(kHashed, second, SIZE_MAX, reused.get()).Stream(), fresh);
    EXPECT_EQ(Compress(kHashed, second, SIZE_MAX, garbage.get()).Stream(), fresh);
}

// ---- exact bytes ----------------------------------------------------------------

TEST(Lznt1Format, BackReferenceFormatsAtTheirBorders) {
    const std::string sixteen = "ABCDEFGHIJKLMNOP";
    // Position 16: distance 16, length 8 in format 0 (4 distance bits).
    // Position 17: distance 17, length 10 in format 1 (5 distance bits); read
    // as format 0 the word would mean distance 9, length 10.
    const Bytes at16 = Cat({{0x14, 0xB0, 0x00}, Of("ABCDEFGH"), {0x00}, Of("IJKLMNOP"), {0x01, 0x05, 0xF0}});
    const Bytes at17 = Cat({{0x15, 0xB0, 0x00}, Of("ABCDEFGH"), {0x00}, Of("IJKLMNOP\x02Q"), {0x07, 0x80}});
    // Of two equally long matches the nearer is taken (distance 5, not 10);
    // a strictly longer older one wins (length 4 at distance 10).
    const Bytes common = Cat({{0x0D, 0xB0, 0x20}, Of("abcdx"), {0x00, 0x40}, Of("ey"), {0x01}});
    const Bytes tie = Cat({common, {0x00, 0x40}, Of("f")});
    const Bytes older = Cat({common, {0x01, 0x90}, Of("z")});
    for (uint16_t engine : {kHashed, kExhaustive}) {
        EXPECT_EQ(Stream(engine, Of(sixteen + "ABCDEFGH")), at16);
        EXPECT_EQ(Stream(engine, Of(sixteen + "QABCDEFGHIJ")), at17);
        EXPECT_EQ(Stream(engine, Of("abcdxabceyabcf")), tie);
        EXPECT_EQ(Stream(engine, Of("abcdxabceyabcdz")), older);
    }
    const Result plain = Expand(at17, 27);
    EXPECT_EQ(plain.Code, ERROR_SUCCESS);
    EXPECT_EQ(plain.FinalSize, 27);
    EXPECT_EQ(plain.Output, Of(sixteen + "QABCDEFGHIJ"));

    // 300 random bytes twice: the repeat starts in format 5 (at most 130
    // bytes per reference) and ends in format 6 (at most 66), all from
    // distance 300. 37 groups of literals, then a flag byte, 4 literals and
    // references of 130, 130 and 40.
    Bytes input = Random(300, 4);
    input.insert(input.end(), input.begin(), input.begin() + 300);
    const Bytes stream = Stream(kExhaustive, input);
    ASSERT_EQ(stream.size(), 2u + 37 * 9 + 1 + 4 + 6);
    EXPECT_EQ(stream[335], 0x70);
    EXPECT_EQ(stream[340] | stream[341] << 8, 127 | 299 << 7);
    EXPECT_EQ(stream[342] | stream[343] << 8, 127 | 299 << 7);
    EXPECT_EQ(stream[344] | stream[345] << 8, 37 | 299 << 6);
    EXPECT_EQ(Expand(stream, input.size()).Output, input);
}

TEST(Lznt1Chunk, AllZeroPlainAndNoRoom) {
    // An all-zero chunk: header 0xB003, flags 0b10, literal 0, then distance
    // 1, length 4095. Each engine, and the end header only when two bytes of
    // room remain.
    const Bytes zeroChunk = {0x03, 0xB0, 0x02, 0x00, 0xFC, 0x0F};
    for (uint16_t engine : {kHashed, kExhaustive}) {
        const Result r = Compress(engine, Bytes(4096, 0), 8);
        EXPECT_EQ(r.Code, ERROR_BUFFER_ALL_ZEROS);
        EXPECT_EQ(r.Output, Cat({zeroChunk, {0, 0}}));
    }
    Result r = Compress(kHashed, Bytes(4096, 0), 7);
    EXPECT_EQ(r.Output, Cat({zeroChunk, {kFill}}));
    EXPECT_EQ(Compress(kHashed, Bytes(4096, 0), 6).FinalSize, 6);
    // One byte set anywhere clears the all-zero note.
    Bytes lastSet(65536, 0);
    lastSet.back() = 1;
    EXPECT_EQ(Compress(kHashed, Bytes(65536, 0)).Code, ERROR_BUFFER_ALL_ZEROS);
    EXPECT_EQ(Compress(kHashed, lastSet).Code, ERROR_SUCCESS);

    // Random data: stored plain, header 0x3FFF and 4096 bytes; one byte less
    // of room gives 122 and leaves the size alone.
    auto workspace = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    const Bytes random = Random(8192, 1);
    Bytes output(4098, kFill);
    uint32_t chunkBytes = 12345;
    ASSERT_EQ(CompressChunk(FindMatchHashed, random.data(), random.data() + random.size(), output.data(),
                            output.data() + 4098, &chunkBytes, workspace.get()),
              ERROR_SUCCESS);
    EXPECT_EQ(chunkBytes, 4098u);
    EXPECT_EQ(output, Cat({{0xFF, 0x3F}, Bytes(random.begin(), random.begin() + 4096)}));
    chunkBytes = 12345;
    EXPECT_EQ(CompressChunk(FindMatchHashed, random.data(), random.data() + random.size(), output.data(),
                            output.data() + 4097, &chunkBytes, workspace.get()),
              ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(chunkBytes, 12345u);

    // At the buffer level a chunk that fits nowhere moves the stream on by
    // the size of the chunk before it, and nothing is written outside the
    // output; with no chunk before, a zero chunk behind lands at the start.
    EXPECT_EQ(Compress(kHashed, random, 4098 + 100).FinalSize, 2 * 4098);
    r = Compress(kHashed, Cat({Random(4096, 3), Bytes(4096, 0)}), 100);
    EXPECT_EQ(r.Code, ERROR_SUCCESS);
    EXPECT_EQ(r.FinalSize, 6);
    EXPECT_EQ(Compress(kHashed, random, 0).FinalSize, 0);
}

// ---- decoder zero fill and stream ends --------------------------------------------

TEST(Lznt1Decompress, ZeroFillStreamEndsAndShortOutputs) {
    const Bytes shortPlain = Of(std::string(60, 'a') + "bcdefghij" + std::string(31, 'k'));
    const Bytes fullPlain = Random(4096, 9);
    const Bytes shortChunk = Stream(kHashed, shortPlain), fullChunk = Stream(kHashed, fullPlain);
    const int64_t shortSize = static_cast<int64_t>(shortPlain.size());
    // A short chunk inside the stream is followed by zeros to 4096 bytes.
    Result r = Expand(Cat({shortChunk, fullChunk}), 8192);
    EXPECT_EQ(r.Code, ERROR_SUCCESS);
    EXPECT_EQ(r.Output, Cat({shortPlain, Bytes(4096 - shortSize, 0), fullPlain}));
    // At the end of the stream, or of the output, it is not.
    r = Expand(Cat({fullChunk, shortChunk}), 65536);
    EXPECT_EQ(r.FinalSize, 4096 + shortSize);
    EXPECT_EQ(r.Output[4096 + shortSize], kFill);
    r = Expand(Cat({shortChunk, fullChunk}), 4096);
    EXPECT_EQ(r.FinalSize, shortSize);
    EXPECT_EQ(r.Output[shortSize], kFill);
    // A zero header ends the stream at once; no header, or a stray byte, is
    // an empty stream.
    EXPECT_EQ(Expand(Cat({fullChunk, {0, 0}, shortChunk}), 8192).FinalSize, 4096);
    for (const Bytes& empty : {Bytes{0, 0}, Cat({{0, 0}, fullChunk}), Bytes{}, Bytes{0x12}}) {
        r = Expand(empty, 16);
        EXPECT_EQ(r.Code, ERROR_SUCCESS);
        EXPECT_EQ(r.FinalSize, 0);
        EXPECT_EQ(r.Output, Bytes(16, kFill));
    }
    // An output smaller than the data gets its prefix.
    const Bytes plain = Cat({fullPlain, shortPlain});
    for (size_t length : {0, 1, 50, 4095, 4096, 4097, 4150}) {
        r = Expand(Cat({fullChunk, shortChunk}), length);
        EXPECT_EQ(r.Code, ERROR_SUCCESS) << length;
        EXPECT_EQ(r.FinalSize, static_cast<int64_t>(length));
        EXPECT_TRUE(std::equal(r.Output.begin(), r.Output.end(), plain.begin())) << length;
    }
}

TEST(Lznt1Decompress, UnitWrittenByNtfs3gExpandsToItsFile) {
    // lznt1_sample.bin: the four stored clusters of the first 64 KiB unit of
    // a 40000-byte file that ntfs-3g wrote compressed (text, a random chunk
    // stored plain, a zero chunk, a repeated pattern, a short last chunk);
    // lznt1_sample.plain that file. Made on a 16 MiB `mkntfs -c 4096` image
    // mounted with ntfs-3g, in a directory marked compressed; the clusters
    // were cut out with dd at the LCN ntfsinfo shows.
    auto read = [](const char* name) {
        std::string path = __FILE__;
        std::ifstream file(path.substr(0, path.find_last_of('/') + 1) + name, std::ios::binary);
        EXPECT_TRUE(file.good()) << name;
        return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    };
    const Bytes raw = read("lznt1_sample.bin"), plain = read("lznt1_sample.plain");
    ASSERT_EQ(raw.size(), 4u * 4096);
    ASSERT_EQ(plain.size(), 40000u);
    Result r = Expand(raw, 65536);
    EXPECT_EQ(r.Code, ERROR_SUCCESS);
    ASSERT_EQ(r.FinalSize, 40000);
    r.Output.resize(40000);
    EXPECT_TRUE(r.Output == plain);
}

// ---- malformed streams -------------------------------------------------------

// Three chunks (compressed text, plain random, short text) and the offsets
// of their headers, then the end.
struct Sample {
    Bytes Plain = Cat({Text(4096, 1), Random(4096, 2), Text(1000, 3)});
    Bytes Stream = ntfs::Stream(kHashed, Plain);
    std::vector<size_t> Starts;
    Sample() {
        for (size_t at = 0; at < Stream.size(); at += ((Stream[at] | Stream[at + 1] << 8) & 0xFFF) + 3u)
            Starts.push_back(at);
        Starts.push_back(Stream.size());
    }
};

TEST(Lznt1Malformed, TruncatedChunkFailsAndCleanCutsEndTheStream) {
    const Sample s;
    ASSERT_EQ(s.Starts.size(), 4u);
    ASSERT_EQ(s.Starts[2] - s.Starts[1], 4098u);
    for (size_t cut = 0; cut <= s.Stream.size(); ++cut) {
        SCOPED_TRACE(cut);
        size_t chunk = 0;
        while (s.Starts[chunk + 1] <= cut && chunk + 2 < s.Starts.size()) ++chunk;
        const Result e = Expand(Bytes(s.Stream.begin(), s.Stream.begin() + cut), 65536);
        if (cut == s.Stream.size()) {
            EXPECT_EQ(e.Code, ERROR_SUCCESS);
            EXPECT_EQ(e.FinalSize, static_cast<int64_t>(s.Plain.size()));
        } else if (cut - s.Starts[chunk] >= 2) {
            // A header whose chunk reaches behind the input: 605 at the header.
            ASSERT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
            EXPECT_EQ(e.FinalSize, static_cast<int64_t>(s.Starts[chunk]));
        } else {
            // Cut on a chunk border, or one stray byte behind it.
            ASSERT_EQ(e.Code, ERROR_SUCCESS);
            EXPECT_EQ(e.FinalSize, static_cast<int64_t>(4096 * chunk));
            EXPECT_TRUE(std::equal(e.Output.begin(), e.Output.begin() + e.FinalSize, s.Plain.begin()));
        }
    }
}

TEST(Lznt1Malformed, HeaderSizeOrPlainBodyPastTheInput) {
    Result e = Expand(Bytes{0x10, 0xB0}, 4096);
    EXPECT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(e.FinalSize, 0);
    // Behind a good chunk the failing header's offset is reported.
    const Bytes good = Stream(kHashed, Text(4096, 5));
    e = Expand(Cat({good, {0xFF, 0xBF, 1, 2, 3}}), 65536);
    EXPECT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(e.FinalSize, static_cast<int64_t>(good.size()));
    EXPECT_EQ(Expand(Cat({{0xFF, 0x3F}, Bytes(4000, 7)}), 65536).Code, ERROR_BAD_COMPRESSION_BUFFER);
    // A plain chunk (bit 15 clear) of size 8 still stands for 4096 bytes;
    // with only four bytes of room four are enough.
    const Bytes plain{0x05, 0x30, 1, 2, 3, 4, 5, 6};
    e = Expand(plain, 4096);
    EXPECT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(e.FinalSize, 0);
    e = Expand(plain, 4);
    EXPECT_EQ(e.Code, ERROR_SUCCESS);
    EXPECT_EQ(e.Output, (Bytes{1, 2, 3, 4}));
}

TEST(Lznt1Malformed, BackReferencesCutOffOrBeforeTheChunkStart) {
    // Flag says back-reference with one byte of it left; a distance of 2
    // after one literal; a back-reference as the first token. The size
    // reported is the input offset of the failure.
    for (const auto& [body, offset] : std::vector<std::pair<Bytes, int64_t>>{
             {{0x01, 0x05}, 1}, {{0x02, 'x', 0x00, 0x10}, 2}, {{0x01, 0x00, 0x00}, 1}}) {
        const Result e = Expand(body, 4096, true);
        EXPECT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
        EXPECT_EQ(e.FinalSize, offset);
        EXPECT_EQ(e.Output[0], offset == 2 ? 'x' : kFill);
        EXPECT_EQ(e.Output[1], kFill);
    }
    // Chunk two opens with distance 1: chunk one's bytes before it must not
    // be copied. The buffer level ignores the chunk's code and takes its
    // reported length, clipped to the room.
    Result e = Expand(Cat({Stream(kHashed, Bytes(4096, 'A')), {0x02, 0xB0, 0x01, 0x00, 0x00}}), 8192);
    EXPECT_EQ(e.Code, ERROR_SUCCESS);
    EXPECT_EQ(e.FinalSize, 4096 + 1);
    EXPECT_EQ(e.Output[4095], 'A');
    EXPECT_EQ(e.Output[4096], kFill);
    // Eleven groups of eight literals, seven more and a distance of 121 after
    // 95 bytes of output: the failing input offset 107 stands in as the
    // chunk's length, clipped to the room.
    Bytes body;
    for (int group = 0; group < 11; ++group) body.insert(body.end(), {0, 'b', 'b', 'b', 'b', 'b', 'b', 'b', 'b'});
    body.insert(body.end(), {0x80, 'c', 'c', 'c', 'c', 'c', 'c', 'c', 0x00, 0xF0});
    const Bytes stream = Cat({{static_cast<uint8_t>(body.size() - 1), 0xB0}, body});
    EXPECT_EQ(Expand(stream, 100).FinalSize, 100);
    e = Expand(stream, 200);
    EXPECT_EQ(e.Code, ERROR_SUCCESS);
    EXPECT_EQ(e.FinalSize, 107);
    EXPECT_EQ(e.Output[94], 'c');
    // A chunk running past 4096 bytes keeps format 8: 'x', distance 1 length
    // 4098 (format 0), then at 4099 distance 1 length 18; stopped by the room.
    const Bytes past = {0x06, 'x', 0xFF, 0x0F, 0x0F, 0x00};
    e = Expand(past, 8192, true);
    EXPECT_EQ(e.Code, ERROR_SUCCESS);
    EXPECT_EQ(e.FinalSize, 4099 + 18);
    EXPECT_EQ(Bytes(e.Output.begin(), e.Output.begin() + e.FinalSize), Bytes(4099 + 18, 'x'));
    EXPECT_EQ(Expand(past, 10, true).FinalSize, 10);
}

TEST(Lznt1Malformed, MutatedStreamsNeverLeaveTheirBuffers) {
    const Sample base;
    const Bytes longer = Stream(kHashed, Shape("mixed", 40000));
    std::mt19937 rng(20240601);
    int failures = 0;
    for (int round = 0; round < 2000; ++round) {
        SCOPED_TRACE(round);
        Bytes stream = round % 2 ? base.Stream : longer;
        for (int i = 0, edits = 1 + rng() % 6; i < edits; ++i) {
            size_t at = rng() % stream.size();
            if (rng() % 3 == 0) at = base.Starts[rng() % 3] + rng() % 2;  // a header byte
            stream[at] = rng() % 4 ? stream[at] ^ (1u << rng() % 8) : rng() & 0xFF;
        }
        if (rng() % 4 == 0) stream.resize(rng() % (stream.size() + 1));
        const size_t room = rng() % 3 ? 65536 : rng() % 70000;
        const Result e = Expand(stream, room);
        ASSERT_TRUE(e.Code == ERROR_SUCCESS || e.Code == ERROR_BAD_COMPRESSION_BUFFER);
        ASSERT_GE(e.FinalSize, 0);
        ASSERT_LE(e.FinalSize, static_cast<int64_t>(e.Code ? stream.size() - 1 : room));
        failures += e.Code != ERROR_SUCCESS;
        // The chunk level on its own, over an arbitrary slice.
        if (stream.empty()) continue;
        const size_t from = rng() % stream.size();
        const size_t to = from + rng() % (stream.size() - from + 1);
        const size_t chunkRoom = rng() % 9000;
        const Result c = Expand(Bytes(stream.begin() + from, stream.begin() + to), chunkRoom, true);
        ASSERT_TRUE(c.Code == ERROR_SUCCESS || c.Code == ERROR_BAD_COMPRESSION_BUFFER);
        ASSERT_LE(c.FinalSize, static_cast<int64_t>(c.Code ? to - from : chunkRoom));
    }
    // Both outcomes must have been exercised.
    EXPECT_GT(failures, 100);
    EXPECT_LT(failures, 1900);
}

}  // namespace
}  // namespace ntfs
