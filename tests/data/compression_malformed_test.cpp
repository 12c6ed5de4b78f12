// Malformed LZNT1 streams: truncated chunks, sizes past the input, plain
// chunks without their bytes, back-references cut off or reaching before the
// chunk; and a fixed-seed mutation loop over valid streams. Every case must
// give its documented code and stay inside its buffers: outputs carry a
// guard zone behind the room handed to the decoder, and the sanitizer build
// sees any read past an input.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "data/compression.h"
#include "foundation/log.h"

namespace ntfs {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kGuard = 32;
constexpr uint8_t kFill = 0xEE;

Bytes Cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes Text(size_t n, uint32_t seed) {
    static const char* const kWords[] = {"run ", "list ", "of ", "the ", "mft ", "record ",
                                         "index ", "entry ", "\n"};
    std::mt19937 engine(seed);
    Bytes data;
    while (data.size() < n) {
        const char* word = kWords[engine() % 9];
        data.insert(data.end(), word, word + std::char_traits<char>::length(word));
    }
    data.resize(n);
    return data;
}

Bytes Random(size_t n, uint32_t seed) {
    std::mt19937 engine(seed);
    Bytes data(n);
    for (auto& b : data) b = static_cast<uint8_t>(engine());
    return data;
}

Bytes Compress(const Bytes& input) {
    auto workspace = std::make_unique<_LZNT1_HASHED_WORKSPACE>();
    Bytes output((input.size() / 4096 + 1) * 4098 + 2);
    uint32_t finalSize = 0;
    (void)CompressBuffer(COMPRESSION_ENGINE_STANDARD, input.data(),
                         static_cast<uint32_t>(input.size()), output.data(),
                         static_cast<int32_t>(output.size()), 4096, &finalSize, workspace.get());
    output.resize(finalSize);
    return output;
}

struct Expanded {
    unsigned int Code;
    int32_t FinalSize;
    Bytes Output;  // the room handed to the decoder, guard zone stripped
};

// Expands `stream`, copied into a buffer of its exact size, into
// `outputLength` bytes of room followed by a guard zone that must stay intact.
Expanded Expand(const Bytes& stream, size_t outputLength) {
    const Bytes input(stream);
    Bytes output(outputLength + kGuard, kFill);
    Expanded result{};
    result.FinalSize = -7;
    result.Code = DecompressBuffer(output.data(), static_cast<uint32_t>(outputLength), input.data(),
                                   static_cast<int32_t>(input.size()), &result.FinalSize);
    for (size_t i = outputLength; i < output.size(); ++i) {
        EXPECT_EQ(output[i], kFill) << "write behind the output at " << i;
    }
    output.resize(outputLength);
    result.Output = std::move(output);
    return result;
}

unsigned int ExpandChunk(const Bytes& body, Bytes* output, size_t room, uint32_t* finalSize) {
    const Bytes input(body);
    output->assign(room + kGuard, kFill);
    unsigned int code = DecompressChunk(output->data(), output->data() + room, input.data(),
                                        input.data() + input.size(), finalSize);
    for (size_t i = room; i < output->size(); ++i) EXPECT_EQ((*output)[i], kFill);
    output->resize(room);
    return code;
}

// A stream of three chunks (compressed text, plain random, short text) and
// where each chunk starts.
struct Sample {
    Bytes Plain;
    Bytes Stream;
    std::vector<size_t> Starts;  // offsets of the chunk headers, then the end
};

Sample MakeSample() {
    Sample s;
    s.Plain = Cat({Text(4096, 1), Random(4096, 2), Text(1000, 3)});
    s.Stream = Compress(s.Plain);
    for (size_t at = 0; at < s.Stream.size();) {
        s.Starts.push_back(at);
        at += ((s.Stream[at] | s.Stream[at + 1] << 8) & 0xFFF) + 3u;
    }
    s.Starts.push_back(s.Stream.size());
    return s;
}

TEST(Lznt1Malformed, TruncatedChunkFailsAndCleanCutsEndTheStream) {
    const Sample s = MakeSample();
    ASSERT_EQ(s.Starts.size(), 4u);
    ASSERT_EQ(s.Starts[2] - s.Starts[1], 4098u);
    for (size_t cut = 0; cut <= s.Stream.size(); ++cut) {
        size_t chunk = 0;
        while (chunk + 1 < s.Starts.size() && s.Starts[chunk + 1] <= cut) ++chunk;
        const Expanded e = Expand(Bytes(s.Stream.begin(), s.Stream.begin() + cut), 65536);
        const size_t start = s.Starts[chunk];
        if (cut == s.Stream.size()) {
            EXPECT_EQ(e.Code, ERROR_SUCCESS);
            EXPECT_EQ(e.FinalSize, static_cast<int32_t>(s.Plain.size()));
        } else if (cut - start >= 2) {
            // A header whose chunk reaches behind the input: 605 at the header.
            ASSERT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER) << cut;
            EXPECT_EQ(e.FinalSize, static_cast<int32_t>(start)) << cut;
        } else {
            // Cut on a chunk border (or one stray byte behind it).
            ASSERT_EQ(e.Code, ERROR_SUCCESS) << cut;
            EXPECT_EQ(e.FinalSize, static_cast<int32_t>(4096 * chunk)) << cut;
            EXPECT_TRUE(std::equal(e.Output.begin(), e.Output.begin() + e.FinalSize, s.Plain.begin()));
        }
    }
}

TEST(Lznt1Malformed, HeaderSizePastTheInput) {
    Expanded e = Expand(Bytes{0x10, 0xB0}, 4096);
    EXPECT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(e.FinalSize, 0);
    // Behind a good chunk: the failing header's offset is reported.
    const Bytes good = Compress(Text(4096, 5));
    e = Expand(Cat({good, {0xFF, 0xBF, 1, 2, 3}}), 65536);
    EXPECT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(e.FinalSize, static_cast<int32_t>(good.size()));
    // A plain header with the plain size but a short body.
    e = Expand(Cat({{0xFF, 0x3F}, Bytes(4000, 7)}), 65536);
    EXPECT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
}

TEST(Lznt1Malformed, PlainChunkNeedsItsBytesOnlyForTheRoomLeft) {
    // Bit 15 clear with a size of 8: the chunk still stands for 4096 bytes.
    const Bytes stream{0x05, 0x30, 1, 2, 3, 4, 5, 6};
    Expanded e = Expand(stream, 4096);
    EXPECT_EQ(e.Code, ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(e.FinalSize, 0);
    // With only four bytes of room, four bytes are enough.
    e = Expand(stream, 4);
    EXPECT_EQ(e.Code, ERROR_SUCCESS);
    EXPECT_EQ(e.FinalSize, 4);
    EXPECT_EQ(e.Output, (Bytes{1, 2, 3, 4}));
}

TEST(Lznt1Malformed, BackReferenceCutOffOrBeforeTheChunkStart) {
    Bytes out;
    uint32_t finalSize = 0;
    // Flag says back-reference, one byte of it left.
    EXPECT_EQ(ExpandChunk({0x01, 0x05}, &out, 4096, &finalSize), ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(finalSize, 1u);
    // Literal 'x', then distance 2 when one byte has been produced.
    EXPECT_EQ(ExpandChunk({0x02, 'x', 0x00, 0x10}, &out, 4096, &finalSize),
              ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(finalSize, 2u);
    EXPECT_EQ(out[0], 'x');
    EXPECT_EQ(out[1], kFill);
    // A first token that is a back-reference has nothing to refer to.
    EXPECT_EQ(ExpandChunk({0x01, 0x00, 0x00}, &out, 4096, &finalSize), ERROR_BAD_COMPRESSION_BUFFER);
    EXPECT_EQ(finalSize, 1u);
}

TEST(Lznt1Malformed, DistanceIntoAnEarlierChunkIsNotFollowed) {
    // Chunk two opens with "distance 1": the output before it holds chunk
    // one's bytes, which must not be copied. The buffer level does not look
    // at the chunk's code and takes its reported length, clipped to the room.
    const Bytes first = Compress(Bytes(4096, 'A'));
    const Expanded e = Expand(Cat({first, {0x02, 0xB0, 0x01, 0x00, 0x00}}), 8192);
    EXPECT_EQ(e.Code, ERROR_SUCCESS);
    EXPECT_EQ(e.Output[4095], 'A');
    EXPECT_EQ(e.Output[4096], kFill);
    EXPECT_EQ(e.FinalSize, 4096 + 1);

    // A chunk that fails after 95 bytes of output at input offset 107:
    // eleven groups of eight literals, then seven literals and a reference
    // to distance 121. The offset stands in as the chunk's length, clipped
    // to the room.
    Bytes body;
    for (int group = 0; group < 11; ++group) {
        body.push_back(0x00);
        body.insert(body.end(), 8, 'b');
    }
    body.push_back(0x80);
    body.insert(body.end(), 7, 'c');
    body.insert(body.end(), {0x00, 0xF0});
    const uint16_t header = static_cast<uint16_t>(0xB000 | (body.size() + 2 - 3));
    const Bytes stream = Cat({{static_cast<uint8_t>(header), static_cast<uint8_t>(header >> 8)}, body});
    Expanded clipped = Expand(stream, 100);
    EXPECT_EQ(clipped.Code, ERROR_SUCCESS);
    EXPECT_EQ(clipped.FinalSize, 100);
    clipped = Expand(stream, 200);
    EXPECT_EQ(clipped.Code, ERROR_SUCCESS);
    EXPECT_EQ(clipped.FinalSize, 107);
    EXPECT_EQ(clipped.Output[94], 'c');
}

TEST(Lznt1Malformed, ChunkRunningPast4096BytesKeepsFormat8) {
    // 'x', then distance 1 length 4098 (format 0), then at output 4099 a
    // word read in format 8: distance 1, length 18.
    Bytes out;
    uint32_t finalSize = 0;
    EXPECT_EQ(ExpandChunk({0x06, 'x', 0xFF, 0x0F, 0x0F, 0x00}, &out, 8192, &finalSize),
              ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 4099u + 18);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + finalSize), Bytes(finalSize, 'x'));
    // The same chunk into less room stops at the room.
    EXPECT_EQ(ExpandChunk({0x06, 'x', 0xFF, 0x0F, 0x0F, 0x00}, &out, 10, &finalSize), ERROR_SUCCESS);
    EXPECT_EQ(finalSize, 10u);
}

TEST(Lznt1Malformed, MutatedStreamsNeverLeaveTheirBuffers) {
    const Sample base = MakeSample();
    const Bytes longer = Compress(Cat({Text(20000, 8), Bytes(5000, 0), Random(3000, 9), Text(9000, 10)}));
    std::mt19937 rng(20240601);
    int failures = 0;
    for (int round = 0; round < 3000; ++round) {
        Bytes stream = round % 2 ? base.Stream : longer;
        const int edits = 1 + rng() % 6;
        for (int i = 0; i < edits; ++i) {
            size_t at = rng() % stream.size();
            if (rng() % 3 == 0) at = base.Starts[rng() % 3] + rng() % 2;  // a header byte
            if (at >= stream.size()) continue;
            stream[at] = rng() % 4 ? static_cast<uint8_t>(stream[at] ^ (1u << rng() % 8))
                                   : static_cast<uint8_t>(rng());
        }
        if (rng() % 4 == 0) stream.resize(rng() % (stream.size() + 1));
        const size_t room = rng() % 3 ? 65536 : rng() % 70000;

        const Expanded e = Expand(stream, room);
        ASSERT_TRUE(e.Code == ERROR_SUCCESS || e.Code == ERROR_BAD_COMPRESSION_BUFFER) << round;
        ASSERT_GE(e.FinalSize, 0) << round;
        if (e.Code == ERROR_SUCCESS) {
            ASSERT_LE(static_cast<size_t>(e.FinalSize), room) << round;
        } else {
            ASSERT_LT(static_cast<size_t>(e.FinalSize), stream.size()) << round;
            ++failures;
        }

        // The chunk level on its own, over an arbitrary slice.
        if (stream.empty()) continue;
        const size_t from = rng() % stream.size();
        const size_t to = from + rng() % (stream.size() - from + 1);
        Bytes out;
        uint32_t chunkSize = 0;
        const size_t chunkRoom = rng() % 9000;
        const unsigned int code = ExpandChunk(Bytes(stream.begin() + from, stream.begin() + to),
                                              &out, chunkRoom, &chunkSize);
        ASSERT_TRUE(code == ERROR_SUCCESS || code == ERROR_BAD_COMPRESSION_BUFFER);
        ASSERT_LE(chunkSize, code == ERROR_SUCCESS ? chunkRoom : to - from);
    }
    // The loop must have exercised both outcomes.
    EXPECT_GT(failures, 100);
    EXPECT_LT(failures, 2900);
}

}  // namespace
}  // namespace ntfs
