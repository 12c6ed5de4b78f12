// The in-memory packing of parked images: every input comes back exactly,
// whatever its shape; a packing that would not fit says so; and unpacking
// bytes that were never packed stays inside its buffers.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

#include "foundation/byte_pack.h"

namespace ntfs {
namespace {

std::vector<uint8_t> Shaped(std::mt19937& random, size_t size, int shape) {
    std::vector<uint8_t> data(size);
    switch (shape) {
        case 0:  // noise
            for (auto& byte : data) byte = static_cast<uint8_t>(random());
            break;
        case 1:  // zeros
            break;
        case 2:  // a short period: matches that overlap themselves
            for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>("abc"[i % 3]);
            break;
        default: {  // records of names that differ in a few bytes, as in an index
            for (size_t i = 0; i < size; ++i) {
                data[i] = static_cast<uint8_t>(i % 97 < 60 ? "f000000_name.dat"[i % 16] : random() % 4);
            }
            break;
        }
    }
    return data;
}

TEST(BytePack, EveryShapeAndSizeComesBackExactly) {
    std::mt19937 random(7);
    _BYTE_PACK_WORKSPACE workspace{};
    const size_t sizes[] = {0, 1, 3, 4, 5, 15, 16, 19, 270, 4096, 4096 + 7, 65535, 65536};
    for (const size_t size : sizes) {
        for (int shape = 0; shape < 4; ++shape) {
            SCOPED_TRACE(testing::Message() << "size " << size << " shape " << shape);
            const std::vector<uint8_t> data = Shaped(random, size, shape);
            std::vector<uint8_t> packed(size + size / 8 + 64);
            const size_t length = PackBytes(data.data(), size, packed.data(), packed.size(), &workspace);
            ASSERT_GT(length, 0u);
            if (shape != 0 && size >= 4096) {
                EXPECT_LT(length, size / 2);
            }
            std::vector<uint8_t> back(size + 1);
            ASSERT_EQ(UnpackBytes(packed.data(), length, back.data(), size), static_cast<int64_t>(size));
            back.resize(size);
            EXPECT_TRUE(back == data);
        }
    }
}

TEST(BytePack, TooLittleRoomOrTooMuchInputAnswersZero) {
    std::mt19937 random(8);
    _BYTE_PACK_WORKSPACE workspace{};
    const std::vector<uint8_t> noise = Shaped(random, 4096, 0);
    std::vector<uint8_t> packed(4096);
    EXPECT_EQ(PackBytes(noise.data(), noise.size(), packed.data(), noise.size() * 7 / 8, &workspace), 0u);
    const std::vector<uint8_t> big(65537);
    EXPECT_EQ(PackBytes(big.data(), big.size(), packed.data(), packed.size(), &workspace), 0u);
    // A packed image never unpacks into less room than it stands for.
    const std::vector<uint8_t> zeros(4096);
    const size_t length = PackBytes(zeros.data(), zeros.size(), packed.data(), packed.size(), &workspace);
    ASSERT_GT(length, 0u);
    std::vector<uint8_t> small(4095);
    EXPECT_EQ(UnpackBytes(packed.data(), length, small.data(), small.size()), -1);
}

TEST(BytePack, GarbageNeverReachesOutsideItsBuffers) {
    std::mt19937 random(9);
    for (int round = 0; round < 20000; ++round) {
        std::vector<uint8_t> garbage(random() % 64);
        for (auto& byte : garbage) byte = static_cast<uint8_t>(random());
        std::vector<uint8_t> out(random() % 300);
        const int64_t got = UnpackBytes(garbage.data(), garbage.size(), out.data(), out.size());
        EXPECT_LE(got, static_cast<int64_t>(out.size()));
    }
}

}  // namespace
}  // namespace ntfs
