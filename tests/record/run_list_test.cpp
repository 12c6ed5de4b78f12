// Run lists: the encoding of single runs, decoding of fixed, random and
// damaged lists, AppendRun merging into the last run or adding one, and
// SplitAttribute over real and sparse runs and the compressed first extent.
#include "record/run_list.h"

#include <gtest/gtest.h>

#include <random>

#include "foundation/log.h"
#include "record/record_test_util.h"

namespace ntfs {
namespace {

using test::Bytes;
using test::Decode;
using test::RunBytes;
using test::Runs;
using test::WithRuns;

Bytes Encode(int64_t delta, int count) {
    uint8_t buffer[kMaxEncodedRunSize];
    return Bytes(buffer, buffer + CAttribute::EncodeRun(&delta, count, buffer));
}

TEST(RunEncoding, FieldsTakeTheFewestBytesThatSignExtendBack) {
    EXPECT_EQ((Bytes{0x11, 0x05, 0x00, 0x00}), Encode(0, 5));
    EXPECT_EQ((Bytes{0x11, 0x05, 0xFF, 0x00}), Encode(-1, 5));
    EXPECT_EQ((Bytes{0x11, 0x01, 0x80, 0x00}), Encode(-128, 1));
    // A top bit that would flip the sign gets a byte of its own.
    EXPECT_EQ((Bytes{0x21, 0x01, 0x80, 0x00, 0x00}), Encode(0x80, 1));
    EXPECT_EQ((Bytes{0x21, 0x01, 0x7F, 0xFF, 0x00}), Encode(-129, 1));
    EXPECT_EQ((Bytes{0x12, 0x80, 0x00, 0x01, 0x00}), Encode(1, 0x80));
    EXPECT_EQ((Bytes{0x32, 0x34, 0x12, 0x56, 0x34, 0x12, 0x00}), Encode(0x123456, 0x1234));
}

TEST(RunDecoding, FixedRandomAndDamagedLists) {
    EXPECT_EQ((Runs{{0x5634, 0x18}}), Decode(*WithRuns({0x21, 0x18, 0x34, 0x56, 0x00})));
    // A length byte with its top bit set reads back negative.
    EXPECT_EQ((Runs{{0x10, -128}}), Decode(*WithRuns({0x11, 0x80, 0x10, 0x00})));
    // A sparse run takes the LCN of the run before it, 0 when first.
    EXPECT_EQ((Runs{{0x40, 4}, {0x40, 8}, {0x50, 2}}),
              Decode(*WithRuns({0x11, 0x04, 0x40, 0x01, 0x08, 0x11, 0x02, 0x10, 0x00})));
    EXPECT_EQ((Runs{{0, 8}, {0x10, 2}}), Decode(*WithRuns({0x01, 0x08, 0x11, 0x02, 0x10, 0x00})));

    std::mt19937_64 random(20240611);
    for (int trial = 0; trial < 300; ++trial) {
        Bytes bytes;
        Runs expected;
        int64_t lcn = 0;
        for (int i = 0, runs = 1 + static_cast<int>(random() % 12); i < runs; ++i) {
            const int count = 1 + static_cast<int>(random() % ((1u << (1 + random() % 31)) - 1));
            // Up to 7 offset bytes: a header offset nibble of 8 is refused.
            int64_t delta = static_cast<int64_t>(random() % (uint64_t{1} << (1 + random() % 55)));
            if (random() % 2 == 0) delta = -delta;
            const bool sparse = random() % 5 == 0;
            Bytes run = Encode(sparse ? 0 : delta, count);
            run.pop_back();  // the end byte
            if (sparse) {
                run[0] &= 0x0F;
                run.pop_back();  // the one-byte offset 0
            } else {
                lcn += delta;
            }
            bytes.insert(bytes.end(), run.begin(), run.end());
            expected.push_back({lcn, count});
        }
        bytes.push_back(0);
        ASSERT_EQ(expected, Decode(*WithRuns(bytes))) << "trial " << trial;
    }

    // Damaged lists in a 16-byte area otherwise filled with 0x11, so that no
    // zero byte ends them by luck: no list at all.
    for (const Bytes& prefix :
         std::vector<Bytes>{{},                                    // no end byte
                            {0x81, 0x04, 0x00, 0x00},              // offset nibble 8
                            {0x19, 1, 2, 3, 4, 5, 6, 7, 8, 9, 0},  // nine length bytes
                            {0x11, 1, 1, 0x11, 1, 1, 0x11, 1, 1, 0x11, 1, 1, 0x01, 5, 0x22, 0x01}}) {
        Bytes area(16, 0x11);
        std::copy(prefix.begin(), prefix.end(), area.begin());
        int count = -1;
        EXPECT_EQ(nullptr, WithRuns(area)->GetRunList(&count));
        EXPECT_EQ(0, count);
    }
    int count = -1;
    EXPECT_EQ(nullptr, CAttribute(48, 1, nullptr).GetRunList(&count));
    EXPECT_EQ(0, count);
    EXPECT_EQ(nullptr, CAttribute(72, 0, nullptr).GetRunList(&count));
    EXPECT_EQ(0, count);
}

TEST(AppendRun, MergesFollowingRunsAndGrowsForNewOnes) {
    CAttribute attribute(72, 0, nullptr);
    CAttribute* result = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(100, 10, &result));
    EXPECT_EQ(&attribute, result);
    EXPECT_EQ((Bytes{0x11, 0x0A, 0x64, 0x00}), RunBytes(attribute));
    ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(110, 5, &result));
    EXPECT_EQ(72, attribute.Size);
    // The merged length outgrows its byte: the run is rewritten wider.
    ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(115, 300, &result));
    EXPECT_EQ((Bytes{0x12, 0x3B, 0x01, 0x64, 0x00}), RunBytes(attribute));

    // Random runs, some following on, checked against a merging model.
    std::mt19937_64 random(99);
    Runs expected{{100, 315}};
    for (int i = 0; i < 60; ++i) {
        const Runs::value_type& last = expected.back();
        const int64_t lcn =
            random() % 4 == 0 ? last.first + last.second : static_cast<int64_t>(random() % (1ull << 40));
        const int count = 1 + static_cast<int>(random() % (1u << (1 + random() % 20)));
        ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(lcn, count, &result));
        if (lcn == last.first + last.second) {
            expected.back().second += count;
        } else {
            expected.push_back({lcn, count});
        }
        ASSERT_EQ(expected, Decode(attribute)) << i;
        ASSERT_EQ(ReadU32(attribute.Header, kAttributeLengthOffset), static_cast<uint32_t>(attribute.Size));
        ASSERT_EQ(0, attribute.Size % 8);
    }

    // Behind a trailing sparse run the LCN compared is the one before it.
    auto sparse = WithRuns({0x11, 0x0A, 0x64, 0x01, 0x05, 0x00, 0, 0}, 0, 14);
    ASSERT_EQ(ERROR_SUCCESS, sparse->AppendRun(110, 3, &result));
    EXPECT_EQ((Runs{{100, 10}, {100, 5}, {110, 3}}), Decode(*sparse));

    CAttribute resident(48, 1, nullptr);
    EXPECT_EQ(ERROR_INTERNAL_ERROR, resident.AppendRun(10, 1, &result));
    EXPECT_EQ(&resident, result);
    auto endless = WithRuns({0x11, 1, 1, 0x11, 1, 1, 0x11, 1});
    EXPECT_EQ(ERROR_FILE_CORRUPT, endless->AppendRun(10, 1, &result));
}

TEST(SplitAttribute, MovesTheTailOfRealAndSparseRuns) {
    // (1000, 10), (1020, 5), (990, 8); then (1000, 10), sparse 6, sparse 4,
    // (1050, 5), (1060, 3).
    const Bytes real = {0x21, 0x0A, 0xE8, 0x03, 0x11, 0x05, 0x14, 0x11, 0x08, 0xE2, 0x00};
    const Bytes sparse = {0x21, 0x0A, 0xE8, 0x03, 0x01, 0x06, 0x01, 0x04, 0x11, 0x05, 0x32, 0x11, 0x03, 0x0A, 0x00};
    struct Case {
        const Bytes& runs;
        int64_t lowest, highest, at;
        Runs head, tail;
    };
    for (const Case& c : {Case{real, 0, 22, 13, {{1000, 10}, {1020, 3}}, {{1023, 2}, {990, 8}}},
                          Case{real, 40, 62, 10, {{1000, 10}}, {{1020, 5}, {990, 8}}},
                          // The sparse clusters on either side come out as runs
                          // at offset 0, and the next real run is counted from 0.
                          Case{sparse, 0, 27, 12, {{1000, 10}, {1000, 2}}, {{0, 8}, {1050, 5}, {1060, 3}}}}) {
        auto attribute = WithRuns(c.runs, c.lowest, c.highest);
        std::unique_ptr<CAttribute> tail(attribute->SplitAttribute(c.at, 0));
        ASSERT_NE(nullptr, tail) << c.at;
        EXPECT_EQ(c.head, Decode(*attribute)) << c.at;
        EXPECT_EQ(c.tail, Decode(*tail)) << c.at;
        EXPECT_EQ(c.lowest + c.at - 1, attribute->GetHighestVcn());
        EXPECT_EQ(c.lowest + c.at, tail->GetLowestVcn());
        EXPECT_EQ(c.highest, tail->GetHighestVcn());
        EXPECT_EQ(AttributeData, tail->GetType());
        EXPECT_FALSE(tail->InRecord);
        EXPECT_EQ(ReadU32(attribute->Header, kAttributeLengthOffset), static_cast<uint32_t>(attribute->Size));
        if (c.at == 12) {
            EXPECT_EQ((Bytes{0x21, 0x0A, 0xE8, 0x03, 0x11, 0x02, 0x00, 0x00}), RunBytes(*attribute));
            EXPECT_EQ((Bytes{0x11, 0x08, 0x00, 0x21, 0x05, 0x1A, 0x04, 0x11, 0x03, 0x0A, 0x00}), RunBytes(*tail));
        }
    }
    // Past the list, or resident: refused, unchanged.
    auto shortList = WithRuns({0x11, 0x04, 0x10, 0x00}, 0, 3);
    const Bytes before(shortList->Header, shortList->Header + shortList->Size);
    EXPECT_EQ(nullptr, shortList->SplitAttribute(9, 0));
    EXPECT_EQ(before, Bytes(shortList->Header, shortList->Header + shortList->Size));
    EXPECT_EQ(nullptr, CAttribute(48, 1, nullptr).SplitAttribute(0, 0));
}

TEST(SplitAttribute, CompressedFirstExtentAndNamedPieces) {
    // Run list at 72 behind the compressed size: the piece goes without it.
    const Bytes runs = {0x11, 0x10, 0x64, 0x11, 0x10, 0x20, 0x00, 0x00};
    CAttribute compressed(88, 0, nullptr), named(88, 0, u"$I30");
    WriteU16(compressed.Header, kNonResidentRunListOffsetOffset, 72);
    WriteU32(named.Header, kAttributeTypeOffset, AttributeFileName);
    for (CAttribute* attribute : {&compressed, &named}) {
        ASSERT_EQ(1, attribute->SetValue(runs.data(), 8));
        WriteU64(attribute->Header, kNonResidentHighestVcnOffset, 31);
    }
    std::unique_ptr<CAttribute> tail(compressed.SplitAttribute(16, 1));
    ASSERT_NE(nullptr, tail);
    EXPECT_EQ(64, ReadU16(tail->Header, kNonResidentRunListOffsetOffset));
    EXPECT_EQ(72, tail->Size);
    EXPECT_EQ((Runs{{132, 16}}), Decode(*tail));
    EXPECT_EQ((Runs{{100, 16}}), Decode(compressed));
    // A named piece gets the old name length and name offset 24.
    tail.reset(named.SplitAttribute(16, 0));
    ASSERT_NE(nullptr, tail);
    EXPECT_EQ(AttributeFileName, tail->GetType());
    EXPECT_EQ(4, tail->GetNameLength());
    EXPECT_EQ(24, ReadU16(tail->Header, kAttributeNameOffsetOffset));
}

}  // namespace
}  // namespace ntfs
