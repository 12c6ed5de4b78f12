// CAttribute in its own memory: the header the constructor builds in both
// forms with and without a name, the body offsets SetName computes, the flip
// between forms with its two alignments, sizes, values and clones.
#include "record/attribute.h"

#include <gtest/gtest.h>

#include "foundation/log.h"
#include "record/record_test_util.h"

namespace ntfs {
namespace {

using test::Bytes;

uint16_t NameOffset(const CAttribute& a) {
    return ReadU16(a.Header, kAttributeNameOffsetOffset);
}
// The value offset when resident, the run list offset when not.
uint16_t BodyOffset(const CAttribute& a) {
    return ReadU16(a.Header, a.IsResident() ? kResidentValueOffsetOffset : kNonResidentRunListOffsetOffset);
}
Bytes BytesOf(const CAttribute& a) {
    return Bytes(a.Header, a.Header + a.Size);
}
std::u16string NameOf(const CAttribute& a) {
    std::u16string name;
    for (int i = 0; i < a.GetNameLength(); ++i) name += a.GetNameUnit(i);
    return name;
}

TEST(AttributeConstruction, HeaderNameAndBodyOffsetsOfBothForms) {
    // The body offset comes from the name length in characters, so from 8
    // characters on it lies inside the name.
    struct Case {
        int size, resident;
        const char16_t* name;
        int nameAt, bodyAt;
    };
    for (const Case& c : {Case{41, 1, nullptr, 0, 24}, Case{72, 0, nullptr, 0, 64}, Case{56, 1, u"$I30", 24, 32},
                          Case{80, 0, u"$I30", 64, 72}, Case{64, 1, u"ABCDE", 24, 32}, Case{64, 1, u"ABCDEFGH", 24, 32},
                          Case{96, 0, u"ABCDEFGHIJ", 64, 80}}) {
        CAttribute a(c.size, c.resident, c.name);
        ASSERT_TRUE(a.Valid) << c.size;
        EXPECT_EQ(static_cast<uint32_t>((c.size + 7) / 8 * 8), ReadU32(a.Header, kAttributeLengthOffset));
        EXPECT_EQ(c.resident == 0, ReadU8(a.Header, kAttributeNonResidentOffset) == 1);
        EXPECT_EQ(c.name != nullptr ? c.name : u"", NameOf(a));
        EXPECT_EQ(c.nameAt, NameOffset(a));
        EXPECT_EQ(c.bodyAt, BodyOffset(a));
        EXPECT_EQ(a.Header + c.bodyAt, a.GetValue());
        EXPECT_EQ(c.resident ? -1 : 0, a.GetLowestVcn());
    }
    // SetName on a nameless one returns the shift of the body.
    CAttribute four(64, 1, nullptr), six(64, 1, nullptr);
    EXPECT_EQ(0, four.SetName(u"$I30", 4));
    EXPECT_EQ(16, six.SetName(u"Stream", 6));
    EXPECT_EQ(32, BodyOffset(four));
    EXPECT_EQ(32, BodyOffset(six));
    EXPECT_EQ(u"Stream", NameOf(six));
    // Too small for the header and name: invalid, refusing everything.
    CAttribute tooSmall(16, 1, nullptr);
    EXPECT_FALSE(tooSmall.Valid || CAttribute(64, 0, u"$I30").Valid);
    EXPECT_EQ(nullptr, tooSmall.GetValue());
    EXPECT_EQ(nullptr, tooSmall.Clone());
    CAttribute* result = nullptr;
    EXPECT_EQ(ERROR_INVALID_PARAMETER, tooSmall.SetSize(64, &result));
}

TEST(AttributeForm, FlipsMoveNamesBy40AndAlignRunListsTo4AndValuesTo8) {
    // Form fields of the other form are cleared, shared ones kept.
    CAttribute plain(72, 1, nullptr);
    WriteU8(plain.Header, kNonResidentCompressionUnitOffset, 4);
    std::memset(plain.Header + 35, 0xAB, 5);
    EXPECT_EQ(1, plain.SetResident(0));
    EXPECT_EQ(64, BodyOffset(plain));
    EXPECT_EQ(4, ReadU8(plain.Header, kNonResidentCompressionUnitOffset));
    EXPECT_EQ(Bytes(5, 0), Bytes(plain.Header + 35, plain.Header + 40));
    WriteU32(plain.Header, kResidentValueLengthOffset, 0x55555555);
    WriteU16(plain.Header, kResidentIndexedFlagOffset, 0x0101);
    EXPECT_EQ(1, plain.SetResident(1));
    EXPECT_EQ(24, BodyOffset(plain));
    EXPECT_EQ(0, plain.GetDataSize());
    EXPECT_EQ(0, ReadU16(plain.Header, kResidentIndexedFlagOffset));
    // The form it already has: nothing changes, not even the mark.
    plain.Modified = 0;
    const Bytes before = BytesOf(plain);
    EXPECT_EQ(1, plain.SetResident(1));
    EXPECT_EQ(before, BytesOf(plain));
    EXPECT_EQ(0, plain.Modified);

    CAttribute one(80, 1, u"Z"), four(80, 1, u"$I30");
    ASSERT_EQ(1, one.SetResident(0));
    EXPECT_EQ(64, NameOffset(one));
    EXPECT_EQ(68, BodyOffset(one));
    ASSERT_EQ(1, one.SetResident(1));
    EXPECT_EQ(24, NameOffset(one));
    EXPECT_EQ(32, BodyOffset(one));
    EXPECT_EQ(u"Z", NameOf(one));
    ASSERT_EQ(1, four.SetResident(0));
    EXPECT_EQ(72, BodyOffset(four));
    EXPECT_EQ(u"$I30", NameOf(four));
    // No room for the non-resident header: refused, unchanged.
    CAttribute small(48, 1, nullptr);
    const Bytes smallBefore = BytesOf(small);
    EXPECT_EQ(0, small.SetResident(0));
    EXPECT_EQ(smallBefore, BytesOf(small));
}

TEST(AttributeSize, SetSizeSetValueAndClone) {
    auto attribute = test::ResidentAttribute(AttributeData, u"strm", 16, 0x5A);
    Bytes grown = BytesOf(*attribute);
    CAttribute* result = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, attribute->SetSize(199, &result));
    EXPECT_EQ(attribute.get(), result);
    grown.resize(200, 0);
    WriteU32(grown.data(), kAttributeLengthOffset, 200);
    EXPECT_EQ(grown, BytesOf(*attribute));
    std::unique_ptr<CAttribute> clone(attribute->Clone());
    ASSERT_NE(nullptr, clone);
    EXPECT_FALSE(clone->InRecord);
    EXPECT_EQ(grown, BytesOf(*clone));
    ASSERT_EQ(ERROR_SUCCESS, attribute->SetSize(17, &result));
    EXPECT_EQ(24, attribute->Size);
    EXPECT_EQ(ERROR_INVALID_PARAMETER, attribute->SetSize(16, &result));
    EXPECT_EQ(24, attribute->Size);

    CAttribute resident(48, 1, nullptr), nonResident(72, 0, nullptr);
    const Bytes data(25, 0xC3);
    EXPECT_EQ(1, resident.SetValue(data.data(), 24));
    EXPECT_EQ(0, resident.SetValue(data.data(), 25));
    EXPECT_EQ(24, resident.GetDataSize());
    EXPECT_EQ(0, std::memcmp(resident.GetValue(), data.data(), 24));
    EXPECT_EQ(1, nonResident.SetValue(data.data(), 8));
    EXPECT_EQ(0, nonResident.SetValue(data.data(), 9));
}

}  // namespace
}  // namespace ntfs
