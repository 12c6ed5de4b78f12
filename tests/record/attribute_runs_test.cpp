// Run list changes of CAttribute: AppendRun merging into the last run or
// adding a run, with the resize, and SplitAttribute over real and sparse runs
// and the compressed first extent.
#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/attribute.h"
#include "record/layout.h"
#include "record/record_test_util.h"

namespace ntfs {
namespace {

using Runs = std::vector<std::pair<int64_t, int64_t>>;

Runs Decode(const CAttribute& attribute) {
    int count = -1;
    int64_t* pairs = attribute.GetRunList(&count);
    Runs result;
    for (int i = 0; i < count; ++i) result.push_back({pairs[2 * i], pairs[2 * i + 1]});
    std::free(pairs);
    return result;
}

std::unique_ptr<CAttribute> WithRuns(const std::vector<uint8_t>& runs, int64_t lowest,
                                     int64_t highest) {
    auto attribute = std::make_unique<CAttribute>(
        kNonResidentHeaderSize + static_cast<int>(runs.size()), 0, nullptr);
    WriteU32(attribute->Header, kAttributeTypeOffset, AttributeData);
    EXPECT_EQ(1, attribute->SetValue(runs.data(), static_cast<int>(runs.size())));
    WriteU64(attribute->Header, kNonResidentLowestVcnOffset, static_cast<uint64_t>(lowest));
    WriteU64(attribute->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(highest));
    return attribute;
}

TEST(AppendRun, BuildsAndMergesRuns) {
    CAttribute attribute(72, 0, nullptr);
    CAttribute* result = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(100, 10, &result));
    EXPECT_EQ(&attribute, result);
    EXPECT_EQ((Runs{{100, 10}}), Decode(attribute));
    EXPECT_EQ((std::vector<uint8_t>{0x11, 0x0A, 0x64, 0x00}), test::RunBytes(attribute));

    // Right behind the last run, same field widths: no new run, no resize.
    ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(110, 5, &result));
    EXPECT_EQ((Runs{{100, 15}}), Decode(attribute));
    EXPECT_EQ(72, attribute.Size);

    // The length outgrows its byte: the run is rewritten wider.
    ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(115, 300, &result));
    EXPECT_EQ((Runs{{100, 315}}), Decode(attribute));
    EXPECT_EQ((std::vector<uint8_t>{0x12, 0x3B, 0x01, 0x64, 0x00}), test::RunBytes(attribute));

    // Not following on, and lower: a new run with a negative delta.
    ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(50, 7, &result));
    EXPECT_EQ((Runs{{100, 315}, {50, 7}}), Decode(attribute));
    EXPECT_GE(attribute.Size, 72);
    EXPECT_EQ(0, attribute.Size % 8);
}

TEST(AppendRun, GrowsTheAttributeForEveryNewRun) {
    CAttribute attribute(72, 0, nullptr);
    CAttribute* result = nullptr;
    Runs expected;
    int64_t lcn = 1000;
    for (int i = 0; i < 40; ++i) {
        lcn += (i % 2 == 0) ? 70000 : -30000;
        ASSERT_EQ(ERROR_SUCCESS, attribute.AppendRun(lcn, 3 + i, &result));
        expected.push_back({lcn, 3 + i});
        ASSERT_EQ(static_cast<int>(ReadU32(attribute.Header, kAttributeLengthOffset)),
                  attribute.Size);
    }
    EXPECT_EQ(expected, Decode(attribute));
    EXPECT_GE(attribute.Size, 64 + 40 * 4);
}

TEST(AppendRun, ComparesAgainstTheLcnBeforeATrailingSparseRun) {
    // (100, 10), then 5 sparse clusters: the sum of offsets stays 100.
    auto attribute = WithRuns({0x11, 0x0A, 0x64, 0x01, 0x05, 0x00, 0, 0}, 0, 14);
    CAttribute* result = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, attribute->AppendRun(110, 3, &result));
    EXPECT_EQ((Runs{{100, 10}, {100, 5}, {110, 3}}), Decode(*attribute));
}

TEST(AppendRun, RefusesResidentAndListsWithoutEnd) {
    CAttribute resident(48, 1, nullptr);
    CAttribute* result = nullptr;
    EXPECT_EQ(ERROR_INTERNAL_ERROR, resident.AppendRun(10, 1, &result));
    EXPECT_EQ(&resident, result);
    auto endless = WithRuns({0x11, 1, 1, 0x11, 1, 1, 0x11, 1}, 0, 0);
    EXPECT_EQ(ERROR_FILE_CORRUPT, endless->AppendRun(10, 1, &result));
}

TEST(SplitAttribute, MovesTheTailOfRealRuns) {
    // (1000, 10), (1020, 5), (990, 8): VCN 0 to 22.
    auto attribute =
        WithRuns({0x21, 0x0A, 0xE8, 0x03, 0x11, 0x05, 0x14, 0x11, 0x08, 0xE2, 0x00}, 0, 22);
    std::unique_ptr<CAttribute> tail(attribute->SplitAttribute(13, 0));
    ASSERT_NE(nullptr, tail);
    EXPECT_EQ((Runs{{1000, 10}, {1020, 3}}), Decode(*attribute));
    EXPECT_EQ(12, attribute->GetHighestVcn());
    EXPECT_EQ((Runs{{1023, 2}, {990, 8}}), Decode(*tail));
    EXPECT_EQ(13, tail->GetLowestVcn());
    EXPECT_EQ(22, tail->GetHighestVcn());
    EXPECT_EQ(AttributeData, tail->GetType());
    EXPECT_EQ(0, tail->GetDataSize());
    EXPECT_FALSE(tail->InRecord);
    EXPECT_EQ(static_cast<int>(ReadU32(attribute->Header, kAttributeLengthOffset)),
              attribute->Size);
}

TEST(SplitAttribute, AtTheStartOfARunMovesTheRunWhole) {
    auto attribute =
        WithRuns({0x21, 0x0A, 0xE8, 0x03, 0x11, 0x05, 0x14, 0x11, 0x08, 0xE2, 0x00}, 40, 62);
    std::unique_ptr<CAttribute> tail(attribute->SplitAttribute(10, 0));
    ASSERT_NE(nullptr, tail);
    EXPECT_EQ((Runs{{1000, 10}}), Decode(*attribute));
    EXPECT_EQ((std::vector<uint8_t>{0x21, 0x0A, 0xE8, 0x03, 0x00}), test::RunBytes(*attribute));
    EXPECT_EQ(49, attribute->GetHighestVcn());
    EXPECT_EQ((Runs{{1020, 5}, {990, 8}}), Decode(*tail));
    EXPECT_EQ(50, tail->GetLowestVcn());
}

TEST(SplitAttribute, SparseRunsJoinAndTheNextRealRunGetsItsAbsoluteLcn) {
    // (1000, 10), sparse 6, sparse 4, (1050, 5), (1060, 3).
    auto attribute = WithRuns(
        {0x21, 0x0A, 0xE8, 0x03, 0x01, 0x06, 0x01, 0x04, 0x11, 0x05, 0x32, 0x11, 0x03, 0x0A, 0x00},
        0, 27);
    std::unique_ptr<CAttribute> tail(attribute->SplitAttribute(12, 0));
    ASSERT_NE(nullptr, tail);
    // The head: the 8 clusters left of the sparse runs, written with a
    // one-byte offset 0, then (5, 1050) from LCN 0, then the rest as it was.
    EXPECT_EQ(
        (std::vector<uint8_t>{0x11, 0x08, 0x00, 0x21, 0x05, 0x1A, 0x04, 0x11, 0x03, 0x0A, 0x00}),
        test::RunBytes(*tail));
    EXPECT_EQ(12, tail->GetLowestVcn());
    EXPECT_EQ(11, attribute->GetHighestVcn());
    // The old list keeps the first two clusters of the sparse run, encoded anew.
    EXPECT_EQ((std::vector<uint8_t>{0x21, 0x0A, 0xE8, 0x03, 0x11, 0x02, 0x00, 0x00}),
              test::RunBytes(*attribute));
}

TEST(SplitAttribute, CompressedFirstExtentLosesTheCompressedSizeField) {
    // Run list at 72 behind the compressed size at 64.
    std::vector<uint8_t> runs = {0x11, 0x10, 0x64, 0x11, 0x10, 0x20, 0x00, 0x00};
    CAttribute attribute(80 + 8, 0, nullptr);
    WriteU16(attribute.Header, kNonResidentRunListOffsetOffset, 72);
    ASSERT_EQ(1, attribute.SetValue(runs.data(), static_cast<int>(runs.size())));
    WriteU64(attribute.Header, kNonResidentHighestVcnOffset, 31);
    std::unique_ptr<CAttribute> tail(attribute.SplitAttribute(16, 1));
    ASSERT_NE(nullptr, tail);
    EXPECT_EQ(64, ReadU16(tail->Header, kNonResidentRunListOffsetOffset));
    // 72 + head (4: LCN 132 needs a zero byte) + rest (1) - 8, rounded up.
    EXPECT_EQ(72, tail->Size);
    EXPECT_EQ((Runs{{132, 16}}), Decode(*tail));
    EXPECT_EQ((Runs{{100, 16}}), Decode(attribute));
}

TEST(SplitAttribute, FileNamePieceGetsNameOffset24AndTheOldName) {
    std::vector<uint8_t> runs = {0x11, 0x04, 0x10, 0x11, 0x04, 0x10, 0x00, 0x00};
    CAttribute attribute(88, 0, u"$I30");
    WriteU32(attribute.Header, kAttributeTypeOffset, AttributeFileName);
    ASSERT_EQ(1, attribute.SetValue(runs.data(), 8));
    WriteU64(attribute.Header, kNonResidentHighestVcnOffset, 7);
    std::unique_ptr<CAttribute> tail(attribute.SplitAttribute(4, 0));
    ASSERT_NE(nullptr, tail);
    EXPECT_EQ(AttributeFileName, tail->GetType());
    EXPECT_EQ(4, tail->GetNameLength());
    EXPECT_EQ(24, ReadU16(tail->Header, kAttributeNameOffsetOffset));
}

TEST(SplitAttribute, RefusesWhatCannotBeSplit) {
    CAttribute resident(48, 1, nullptr);
    EXPECT_EQ(nullptr, resident.SplitAttribute(0, 0));
    auto attribute = WithRuns({0x11, 0x04, 0x10, 0x00}, 0, 3);
    const std::vector<uint8_t> before(attribute->Header, attribute->Header + attribute->Size);
    EXPECT_EQ(nullptr, attribute->SplitAttribute(9, 0));
    EXPECT_EQ(before, std::vector<uint8_t>(attribute->Header, attribute->Header + attribute->Size));
}

}  // namespace
}  // namespace ntfs
