// CAttribute in its own memory: the header the constructor builds in both
// forms, the flip between forms with its two alignments, the name offsets as
// SetName computes them, sizes, values and clones.
#include "record/attribute.h"

#include <gtest/gtest.h>

#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/layout.h"
#include "record/record_test_util.h"

namespace ntfs {
namespace {

uint16_t NameOffset(const CAttribute& a) { return ReadU16(a.Header, kAttributeNameOffsetOffset); }
uint16_t ValueOffset(const CAttribute& a) { return ReadU16(a.Header, kResidentValueOffsetOffset); }
uint16_t RunOffset(const CAttribute& a) {
    return ReadU16(a.Header, kNonResidentRunListOffsetOffset);
}

std::u16string NameOf(const CAttribute& a) {
    std::u16string name;
    for (int i = 0; i < a.GetNameLength(); ++i) name += a.GetNameUnit(i);
    return name;
}

TEST(AttributeConstruction, BuildsEitherFormWithoutName) {
    CAttribute resident(41, 1, nullptr);
    ASSERT_TRUE(resident.Valid);
    EXPECT_EQ(48, resident.Size);
    EXPECT_EQ(48u, ReadU32(resident.Header, kAttributeLengthOffset));
    EXPECT_TRUE(resident.IsResident());
    EXPECT_EQ(0, NameOffset(resident));
    EXPECT_EQ(kResidentHeaderSize, ValueOffset(resident));
    EXPECT_EQ(0, resident.GetDataSize());
    EXPECT_EQ(-1, resident.GetLowestVcn());
    EXPECT_EQ(resident.Header + kResidentHeaderSize, resident.GetValue());
    EXPECT_FALSE(resident.InRecord);

    CAttribute nonResident(72, 0, nullptr);
    ASSERT_TRUE(nonResident.Valid);
    EXPECT_FALSE(nonResident.IsResident());
    EXPECT_EQ(1, ReadU8(nonResident.Header, kAttributeNonResidentOffset));
    EXPECT_EQ(0, NameOffset(nonResident));
    EXPECT_EQ(kNonResidentHeaderSize, RunOffset(nonResident));
    EXPECT_EQ(0, nonResident.GetLowestVcn());
}

TEST(AttributeConstruction, SizesThatCannotHoldTheHeaderGiveAnInvalidObject) {
    CAttribute tooSmall(16, 1, nullptr);
    EXPECT_FALSE(tooSmall.Valid);
    EXPECT_EQ(0u, tooSmall.GetType());
    EXPECT_EQ(-1, tooSmall.GetNameLength());
    EXPECT_EQ(nullptr, tooSmall.GetValue());
    CAttribute noRoomForName(64, 0, u"$I30");
    EXPECT_FALSE(noRoomForName.Valid);
    CAttribute* result = nullptr;
    EXPECT_EQ(ERROR_INVALID_PARAMETER, tooSmall.SetSize(64, &result));
    EXPECT_EQ(&tooSmall, result);
    EXPECT_EQ(nullptr, tooSmall.Clone());
}

TEST(AttributeNames, ConstructorPlacesTheNameAndTheBodyBehindIt) {
    CAttribute root(56, 1, u"$I30");
    ASSERT_TRUE(root.Valid);
    EXPECT_EQ(4, root.GetNameLength());
    EXPECT_EQ(kResidentHeaderSize, NameOffset(root));
    EXPECT_EQ(32, ValueOffset(root));
    EXPECT_EQ(u"$I30", NameOf(root));
    EXPECT_EQ(0u, ReadU32(root.Header, kResidentValueLengthOffset));
    EXPECT_EQ(56u, ReadU32(root.Header, kAttributeLengthOffset));

    CAttribute allocation(80, 0, u"$I30");
    ASSERT_TRUE(allocation.Valid);
    EXPECT_EQ(kNonResidentHeaderSize, NameOffset(allocation));
    EXPECT_EQ(72, RunOffset(allocation));
    EXPECT_EQ(u"$I30", NameOf(allocation));
    EXPECT_EQ(80u, ReadU32(allocation.Header, kAttributeLengthOffset));
}

TEST(AttributeNames, LongNamesGetABodyOffsetCountedInCharacters) {
    // (length + 7 + 24) AND NOT 7: for 8 characters the value starts at 32,
    // inside the 16 bytes of the name. That is the behaviour, kept.
    CAttribute resident(64, 1, u"ABCDEFGH");
    ASSERT_TRUE(resident.Valid);
    EXPECT_EQ(32, ValueOffset(resident));
    EXPECT_EQ(u"ABCDEFGH", NameOf(resident));
    // The same formula puts the body of a 5-character name at 32 too.
    CAttribute five(64, 1, u"ABCDE");
    EXPECT_EQ(32, ValueOffset(five));
    CAttribute nonResident(96, 0, u"ABCDEFGHIJ");
    ASSERT_TRUE(nonResident.Valid);
    EXPECT_EQ(80, RunOffset(nonResident));
    EXPECT_EQ(u"ABCDEFGHIJ", NameOf(nonResident));
}

TEST(AttributeNames, SetNameReturnsTheBitPatternShift) {
    // (2 * length + 7) AND NOT (2 * oldLength + 14) AND NOT 7, applied to a
    // body of zero bytes. From no name: 4 units give 0, 6 units 16.
    CAttribute plain(64, 1, nullptr);
    EXPECT_EQ(0, plain.SetName(u"$I30", 4));
    EXPECT_EQ(32, ValueOffset(plain));
    EXPECT_EQ(u"$I30", NameOf(plain));
    CAttribute other(64, 1, nullptr);
    EXPECT_EQ(16, other.SetName(u"Stream", 6));
    EXPECT_EQ(32, ValueOffset(other));
    EXPECT_EQ(u"Stream", NameOf(other));
    CAttribute invalid(8, 1, nullptr);
    EXPECT_EQ(0, invalid.SetName(u"$I30", 4));
}

TEST(AttributeForm, FlipsWithoutNameUseOffsets64And24) {
    CAttribute attribute(72, 1, nullptr);
    WriteU8(attribute.Header, kNonResidentCompressionUnitOffset, 4);
    std::memset(attribute.Header + 35, 0xAB, 5);
    EXPECT_EQ(1, attribute.SetResident(0));
    EXPECT_EQ(64, RunOffset(attribute));
    EXPECT_EQ(0, NameOffset(attribute));
    EXPECT_EQ(4, ReadU8(attribute.Header, kNonResidentCompressionUnitOffset));
    for (int i = 35; i < 40; ++i) EXPECT_EQ(0, attribute.Header[i]) << i;

    WriteU32(attribute.Header, kResidentValueLengthOffset, 0x55555555);
    WriteU16(attribute.Header, kResidentIndexedFlagOffset, 0x0101);
    EXPECT_EQ(1, attribute.SetResident(1));
    EXPECT_EQ(24, ValueOffset(attribute));
    EXPECT_EQ(0, NameOffset(attribute));
    EXPECT_EQ(0u, ReadU32(attribute.Header, kResidentValueLengthOffset));
    EXPECT_EQ(0, ReadU16(attribute.Header, kResidentIndexedFlagOffset));

    // The form it already has: nothing changes, not even the mark.
    attribute.Modified = 0;
    std::vector<uint8_t> before(attribute.Header, attribute.Header + attribute.Size);
    EXPECT_EQ(1, attribute.SetResident(1));
    EXPECT_EQ(before, std::vector<uint8_t>(attribute.Header, attribute.Header + attribute.Size));
    EXPECT_EQ(0, attribute.Modified);
}

TEST(AttributeForm, NonResidentFormNeedsItsHeader) {
    CAttribute small(48, 1, nullptr);
    const std::vector<uint8_t> before(small.Header, small.Header + small.Size);
    EXPECT_EQ(0, small.SetResident(0));
    EXPECT_EQ(before, std::vector<uint8_t>(small.Header, small.Header + small.Size));
}

TEST(AttributeForm, NamesMoveBy40AndOffsetsAlignDifferently) {
    // One-character name: the run list offset is aligned to 4 (68), the
    // value offset to 8 (32).
    CAttribute one(80, 1, u"Z");
    ASSERT_EQ(1, one.SetResident(0));
    EXPECT_EQ(64, NameOffset(one));
    EXPECT_EQ(68, RunOffset(one));
    EXPECT_EQ(u"Z", NameOf(one));
    ASSERT_EQ(1, one.SetResident(1));
    EXPECT_EQ(24, NameOffset(one));
    EXPECT_EQ(32, ValueOffset(one));
    EXPECT_EQ(u"Z", NameOf(one));

    CAttribute four(80, 1, u"$I30");
    ASSERT_EQ(1, four.SetResident(0));
    EXPECT_EQ(72, RunOffset(four));
    EXPECT_EQ(u"$I30", NameOf(four));
}

TEST(AttributeSize, RoundsUpAndRefusesBelowTheResidentHeader) {
    CAttribute attribute(48, 1, nullptr);
    CAttribute* result = nullptr;
    EXPECT_EQ(ERROR_SUCCESS, attribute.SetSize(17, &result));
    EXPECT_EQ(&attribute, result);
    EXPECT_EQ(24, attribute.Size);
    EXPECT_EQ(24u, ReadU32(attribute.Header, kAttributeLengthOffset));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, attribute.SetSize(16, &result));
    EXPECT_EQ(24, attribute.Size);
}

TEST(AttributeSize, GrowthInOwnMemoryKeepsBytesAndZeroesTheTail) {
    auto attribute = test::ResidentAttribute(AttributeData, nullptr, 16, 0x5A);
    const std::vector<uint8_t> before(attribute->Header, attribute->Header + attribute->Size);
    CAttribute* result = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, attribute->SetSize(200, &result));
    EXPECT_EQ(200, attribute->Size);
    EXPECT_TRUE(std::equal(before.begin() + 8, before.end(), attribute->Header + 8));
    for (int i = static_cast<int>(before.size()); i < 200; ++i) ASSERT_EQ(0, attribute->Header[i]);
    // A shrink keeps the block.
    uint8_t* block = attribute->Header;
    ASSERT_EQ(ERROR_SUCCESS, attribute->SetSize(40, &result));
    EXPECT_EQ(block, attribute->Header);
    EXPECT_EQ(40, attribute->Size);
}

TEST(AttributeValue, WritesWhatFitsAndSetsTheResidentLength) {
    CAttribute resident(48, 1, nullptr);
    const std::vector<uint8_t> data(24, 0xC3);
    EXPECT_EQ(1, resident.SetValue(data.data(), 24));
    EXPECT_EQ(24, resident.GetDataSize());
    EXPECT_EQ(0, std::memcmp(resident.GetValue(), data.data(), 24));
    EXPECT_EQ(0, resident.SetValue(data.data(), 25));
    EXPECT_EQ(24, resident.GetDataSize());

    CAttribute nonResident(72, 0, nullptr);
    EXPECT_EQ(1, nonResident.SetValue(data.data(), 8));
    EXPECT_EQ(0, nonResident.SetValue(data.data(), 9));
    EXPECT_EQ(0, nonResident.GetDataSize());
}

TEST(AttributeClone, CopiesHeaderNameAndBody) {
    auto source = test::ResidentAttribute(AttributeData, u"strm", 40, 0x77);
    WriteU16(source->Header, kAttributeInstanceOffset, 9);
    WriteU16(source->Header, kAttributeFlagsOffset, 0x4000);
    std::unique_ptr<CAttribute> clone(source->Clone());
    ASSERT_NE(nullptr, clone);
    EXPECT_FALSE(clone->InRecord);
    EXPECT_EQ(source->Size, clone->Size);
    EXPECT_EQ(0, std::memcmp(source->Header, clone->Header, static_cast<size_t>(source->Size)));
    EXPECT_NE(source->Header, clone->Header);
    EXPECT_EQ(u"strm", NameOf(*clone));
}

}  // namespace
}  // namespace ntfs
