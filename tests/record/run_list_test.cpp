// Run list encoding and decoding: fixed examples of the format, random lists
// checked against a model, and damaged lists that must be refused.
#include "record/run_list.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "foundation/endian.h"
#include "record/attribute.h"
#include "record/layout.h"

namespace ntfs {
namespace {

// A non-resident attribute whose run area holds `runs` (end byte included).
std::unique_ptr<CAttribute> WithRunBytes(const std::vector<uint8_t>& runs) {
    auto attribute = std::make_unique<CAttribute>(
        kNonResidentHeaderSize + static_cast<int>(runs.size()), 0, nullptr);
    EXPECT_EQ(1, attribute->SetValue(runs.data(), static_cast<int>(runs.size())));
    return attribute;
}

std::vector<std::pair<int64_t, int64_t>> Decode(const CAttribute& attribute) {
    int count = -1;
    int64_t* pairs = attribute.GetRunList(&count);
    std::vector<std::pair<int64_t, int64_t>> result;
    for (int i = 0; i < count; ++i) result.push_back({pairs[2 * i], pairs[2 * i + 1]});
    std::free(pairs);
    return result;
}

std::vector<uint8_t> Encode(int64_t delta, int count) {
    uint8_t buffer[kMaxEncodedRunSize];
    const int bytes = CAttribute::EncodeRun(&delta, count, buffer);
    return std::vector<uint8_t>(buffer, buffer + bytes);
}

TEST(RunEncoding, FieldsTakeTheFewestBytesThatSignExtendBack) {
    // Delta 0 and -1 take one byte each.
    EXPECT_EQ((std::vector<uint8_t>{0x11, 0x05, 0x00, 0x00}), Encode(0, 5));
    EXPECT_EQ((std::vector<uint8_t>{0x11, 0x05, 0xFF, 0x00}), Encode(-1, 5));
    // A positive delta with the top bit of its top byte set gets a zero byte,
    // a negative one with it clear gets a 0xFF byte.
    EXPECT_EQ((std::vector<uint8_t>{0x21, 0x01, 0x80, 0x00, 0x00}), Encode(0x80, 1));
    EXPECT_EQ((std::vector<uint8_t>{0x21, 0x01, 0x7F, 0xFF, 0x00}), Encode(-129, 1));
    EXPECT_EQ((std::vector<uint8_t>{0x11, 0x01, 0x80, 0x00}), Encode(-128, 1));
    // A length with the top bit of its top byte set gets a zero byte, so it
    // never reads back negative.
    EXPECT_EQ((std::vector<uint8_t>{0x12, 0x80, 0x00, 0x01, 0x00}), Encode(1, 0x80));
    EXPECT_EQ((std::vector<uint8_t>{0x32, 0x34, 0x12, 0x56, 0x34, 0x12, 0x00}),
              Encode(0x123456, 0x1234));
}

TEST(RunDecoding, ReadsFixedExamples) {
    // Header 0x21: one length byte 0x18, two offset bytes 0x34 0x56.
    auto example = WithRunBytes({0x21, 0x18, 0x34, 0x56, 0x00});
    EXPECT_EQ((std::vector<std::pair<int64_t, int64_t>>{{0x5634, 0x18}}), Decode(*example));
    // A length with the top bit of its top byte set reads back negative.
    auto negative = WithRunBytes({0x11, 0x80, 0x10, 0x00});
    EXPECT_EQ((std::vector<std::pair<int64_t, int64_t>>{{0x10, -128}}), Decode(*negative));
    // A sparse run comes out with the LCN of the run before it, 0 when first.
    auto sparse = WithRunBytes({0x11, 0x04, 0x40, 0x01, 0x08, 0x11, 0x02, 0x10, 0x00});
    EXPECT_EQ((std::vector<std::pair<int64_t, int64_t>>{{0x40, 4}, {0x40, 8}, {0x50, 2}}),
              Decode(*sparse));
    auto first = WithRunBytes({0x01, 0x08, 0x11, 0x02, 0x10, 0x00});
    EXPECT_EQ((std::vector<std::pair<int64_t, int64_t>>{{0, 8}, {0x10, 2}}), Decode(*first));
}

TEST(RunDecoding, RandomListsRoundTripThroughEncodeRun) {
    std::mt19937_64 random(20240611);
    for (int trial = 0; trial < 300; ++trial) {
        std::vector<uint8_t> bytes;
        std::vector<std::pair<int64_t, int64_t>> expected;
        int64_t lcn = 0;
        const int runs = 1 + static_cast<int>(random() % 12);
        for (int i = 0; i < runs; ++i) {
            const int lengthBits = 1 + static_cast<int>(random() % 31);
            const int count = 1 + static_cast<int>(random() % ((1u << lengthBits) - 1));
            if (random() % 5 == 0) {
                // Sparse: a length field and no offset field.
                uint8_t buffer[kMaxEncodedRunSize];
                const int64_t zero = 0;
                const int written = CAttribute::EncodeRun(&zero, count, buffer);
                buffer[0] &= 0x0F;
                bytes.insert(bytes.end(), buffer, buffer + written - 2);
                expected.push_back({lcn, count});
                continue;
            }
            const int deltaBits = 1 + static_cast<int>(random() % 50);
            int64_t delta = static_cast<int64_t>(random() % (uint64_t{1} << deltaBits));
            if (random() % 2 == 0) delta = -delta;
            const std::vector<uint8_t> run = Encode(delta, count);
            bytes.insert(bytes.end(), run.begin(), run.end() - 1);
            lcn += delta;
            expected.push_back({lcn, count});
        }
        bytes.push_back(0);
        auto attribute = WithRunBytes(bytes);
        ASSERT_EQ(expected, Decode(*attribute)) << "trial " << trial;
    }
}

TEST(RunDecoding, DamagedListsGiveNoList) {
    // Each case is the start of a 16-byte run area otherwise filled with
    // 0x11, so no zero byte ends the list by luck.
    const std::vector<std::vector<uint8_t>> damaged = {
        {},                                    // runs up to the end, no end byte
        {0x81, 0x04, 0x00, 0x00},              // offset nibble 8: negative as a signed header
        {0x19, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0},  // nine length bytes
        // the last run's fields would end behind the attribute
        {0x11, 1, 1, 0x11, 1, 1, 0x11, 1, 1, 0x11, 1, 1, 0x01, 5, 0x22, 0x01},
    };
    for (const auto& prefix : damaged) {
        std::vector<uint8_t> area(16, 0x11);
        std::copy(prefix.begin(), prefix.end(), area.begin());
        CAttribute attribute(kNonResidentHeaderSize + static_cast<int>(area.size()), 0, nullptr);
        ASSERT_EQ(1, attribute.SetValue(area.data(), static_cast<int>(area.size())));
        int count = -1;
        int64_t* pairs = attribute.GetRunList(&count);
        EXPECT_EQ(nullptr, pairs);
        EXPECT_EQ(0, count);
        std::free(pairs);
    }
}

TEST(RunDecoding, ResidentOrEmptyGivesNothing) {
    CAttribute resident(48, 1, nullptr);
    int count = -1;
    EXPECT_EQ(nullptr, resident.GetRunList(&count));
    EXPECT_EQ(0, count);
    CAttribute empty(72, 0, nullptr);
    count = -1;
    EXPECT_EQ(nullptr, empty.GetRunList(&count));
    EXPECT_EQ(0, count);
}

}  // namespace
}  // namespace ntfs
