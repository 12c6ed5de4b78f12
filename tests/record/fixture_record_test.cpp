// FILE records of the fixture volumes: every record of the first $MFT extent
// parses, protects back to its disk bytes and has well-formed attributes and
// run lists, attribute tables agree with the manifests, and changes to real
// records leave exactly the expected bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "foundation/log.h"
#include "record/record_test_util.h"

namespace ntfs {
namespace {

using test::Bytes;
using test::FixtureMft;
using test::FixtureNames;
using test::ImageOf;
using test::RecordFromBytes;

class FixtureRecords : public ::testing::TestWithParam<std::string> {};

TEST_P(FixtureRecords, FirstExtentParsesAndAgreesWithTheManifest) {
    const FixtureMft mft(GetParam());
    ASSERT_GE(mft.FirstExtentRecords, 16);
    int inUse = 0, lists = 0;
    for (int64_t number = 0; number < mft.FirstExtentRecords; ++number) {
        SCOPED_TRACE("record " + std::to_string(number));
        const Bytes raw = mft.RawRecord(number);
        auto record = RecordFromBytes(raw, number);
        if (ReadU32(raw.data(), kFileMagicOffset) != kFileRecordMagic) {
            EXPECT_FALSE(record->IsValid());
            continue;
        }
        ASSERT_TRUE(record->IsValid());
        Bytes again = ImageOf(*record);
        ProtectUpdateSequence(again.data(), kFileRecordSize);
        ASSERT_EQ(raw, again);
        const uint32_t used = ReadU32(record->Image, kFileBytesInUseOffset);
        EXPECT_EQ(used, static_cast<uint32_t>(record->EndMarker - record->Image + 8));
        EXPECT_EQ(kFileRecordSize - static_cast<int>(used), record->GetFreeSpace());
        if ((ReadU16(record->Image, kFileFlagsOffset) & kFileRecordInUse) == 0) continue;
        ++inUse;
        uint32_t previous = 0;
        for (int i = 0; i < record->Attributes.GetCount(); ++i) {
            const CAttribute* attribute = record->Attributes.At<CAttribute>(i);
            EXPECT_GE(attribute->GetType(), previous);
            previous = attribute->GetType();
            EXPECT_TRUE(attribute->BodyFits());
            EXPECT_TRUE(!record->IsBase || i > 0 || previous == AttributeStandardInformation);
            if (attribute->IsResident()) continue;
            // Runs cover the VCNs; real (not sparse or compressed) runs lie
            // inside the volume.
            const bool real = (ReadU16(attribute->Header, kAttributeFlagsOffset) & 0x8001) == 0;
            int64_t clusters = 0;
            for (const auto& [lcn, length] : test::Decode(*attribute)) {
                EXPECT_GT(length, 0);
                clusters += length;
                EXPECT_TRUE(!real || (lcn >= 0 && lcn + length <= mft.TotalClusters)) << lcn;
            }
            const int64_t vcns = attribute->GetHighestVcn() - attribute->GetLowestVcn() + 1;
            if (vcns > 0) {
                EXPECT_EQ(vcns, clusters);
                ++lists;
            }
        }
    }
    EXPECT_GE(inUse, 16);
    EXPECT_GT(lists, 4);

    // The attribute tables agree with the manifest.
    int checked = 0;
    for (const test::ManifestEntry& entry : test::LoadManifest(GetParam())) {
        SCOPED_TRACE(entry.path_utf8);
        ASSERT_LT(entry.record, mft.MappedRecords());
        auto record = RecordFromBytes(mft.RawRecord(entry.record), entry.record);
        ASSERT_TRUE(record->IsValid());
        ++checked;
        if (entry.attrlist) {
            EXPECT_NE(nullptr, record->FindAttribute(AttributeAttributeList, nullptr, 0, 0));
            continue;
        }
        const std::u16string leaf = entry.path.substr(entry.path.rfind(u'\\') + 1);
        bool named = false;
        for (unsigned int index = 0; index < 64; ++index) {
            CAttribute* name = record->FindAttribute(AttributeFileName, nullptr, 0, index);
            if (name == nullptr) break;
            ASSERT_TRUE(name->IsResident());
            const uint8_t* value = name->GetValue();
            std::u16string text;
            for (int i = 0; i < ReadU8(value, kFileNameLengthOffset); ++i)
                text += static_cast<char16_t>(ReadU16(value, kFileNameUnitsOffset + 2 * i));
            named = named || text == leaf;
        }
        EXPECT_TRUE(named);
        const uint16_t flags = ReadU16(record->Image, kFileFlagsOffset);
        EXPECT_EQ(entry.is_dir, (flags & kFileRecordIsDirectory) != 0);
        if (entry.is_dir) {
            EXPECT_NE(nullptr, record->FindAttribute(AttributeIndexRoot, u"$I30", 4, 0));
        } else {
            CAttribute* data = record->FindAttribute(AttributeData, nullptr, 0, 0);
            ASSERT_NE(nullptr, data);
            EXPECT_EQ(static_cast<int64_t>(entry.size), data->GetDataSize());
        }
    }
    EXPECT_GT(checked, 30);
}

INSTANTIATE_TEST_SUITE_P(Volumes, FixtureRecords, ::testing::ValuesIn(FixtureNames()),
                         [](const auto& info) { return info.param; });

// Changes to the root directory of one volume, checked on the record bytes.
TEST(RealRecordChanges, InsertRemoveGrowShrinkAndFormFlips) {
    const FixtureMft mft(FixtureNames().front());
    auto root = RecordFromBytes(mft.RawRecord(5), 5);
    ASSERT_TRUE(root->IsValid());
    const Bytes before = ImageOf(*root);
    auto unchangedToMarker = [&](const Bytes& expected) {
        return std::equal(expected.begin(), expected.begin() + (root->EndMarker - root->Image) + 4, root->Image);
    };
    auto at = [&](int i) { return root->Attributes.At<CAttribute>(i); };
    // Insertion in type and name order (a missing unit counting as 0), each
    // with the next identifier, which wraps past 0xFFFF.
    const int count = root->Attributes.GetCount();
    const uint16_t nextId = ReadU16(root->Image, kFileNextAttributeIdOffset);
    WriteU16(root->Image, kFileNextAttributeIdOffset, 0xFFFE);
    for (const char16_t* name : {u"b", u"", u"ab"}) {
        auto data = test::ResidentAttribute(AttributeData, *name ? name : nullptr, 20, 0xA5);
        ASSERT_NE(nullptr, root->InsertAttribute(data.get()));
    }
    ASSERT_EQ(count + 3, root->Attributes.GetCount());
    const int first = root->GetAttributeIndex(root->FindAttribute(AttributeData, nullptr, 0, 0));
    for (int i = 0; i < count + 3; ++i) {
        const uint32_t type = at(i)->GetType();
        EXPECT_EQ(i >= first && i < first + 3, type == AttributeData) << i;
        EXPECT_EQ(i < first, type < AttributeData) << i;
    }
    EXPECT_EQ(0, at(first)->GetNameLength());
    EXPECT_EQ(u'a', at(first + 1)->GetNameUnit(0));
    EXPECT_EQ(u'b', at(first + 2)->GetNameUnit(0));
    EXPECT_EQ(0xFFFF, ReadU16(at(first)->Header, kAttributeInstanceOffset));
    EXPECT_EQ(0, ReadU16(at(first + 1)->Header, kAttributeInstanceOffset));
    EXPECT_EQ(0xFFFE, ReadU16(at(first + 2)->Header, kAttributeInstanceOffset));
    EXPECT_EQ(ReadU32(root->Image, kFileBytesInUseOffset), root->EndMarker - root->Image + 8);
    EXPECT_EQ(kAttributeEndMarker, ReadU32(root->EndMarker, 0));
    // Search compares names exactly.
    EXPECT_EQ(at(first + 1), root->FindAttribute(AttributeData, u"ab", 2, 0));
    EXPECT_EQ(nullptr, root->FindAttribute(AttributeData, u"aB", 2, 0));
    EXPECT_EQ(nullptr, root->FindAttribute(AttributeData, u"a", 1, 0));
    // Removal gives back the old bytes, only the next identifier counted on.
    for (int i : {1, 0, 0}) root->RemoveAttribute(at(first + i));
    EXPECT_EQ(count, root->Attributes.GetCount());
    EXPECT_EQ(1, ReadU16(root->Image, kFileNextAttributeIdOffset));
    WriteU16(root->Image, kFileNextAttributeIdOffset, nextId);
    EXPECT_TRUE(unchangedToMarker(before));
    // Removal of $STANDARD_INFORMATION moves the rest down; revert brings the
    // record and its table back.
    const int siSize = at(0)->Size;
    const auto siAt = at(0)->Header - root->Image;
    root->RemoveAttribute(at(0));
    Bytes removed = before;
    removed.erase(removed.begin() + siAt, removed.begin() + siAt + siSize);
    WriteU32(removed.data(), kFileBytesInUseOffset, ReadU32(before.data(), kFileBytesInUseOffset) - siSize);
    EXPECT_TRUE(unchangedToMarker(removed));
    EXPECT_EQ(1, root->Revert());
    EXPECT_EQ(count, root->Attributes.GetCount());
    EXPECT_EQ(before, ImageOf(*root));

    // Growth of $STANDARD_INFORMATION by 24 opens 24 zero bytes behind it;
    // the attribute objects behind move along.
    CAttribute* standard = at(0);
    CAttribute* last = at(count - 1);
    const uint8_t* lastAt = last->Header;
    const int size = standard->Size;
    const auto end = static_cast<size_t>(standard->Header - root->Image + size);
    CAttribute* result = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, standard->SetSize(size + 24, &result));
    Bytes grown = before;
    grown.insert(grown.begin() + end, 24, 0);
    WriteU32(grown.data(), end - size + kAttributeLengthOffset, size + 24);
    WriteU32(grown.data(), kFileBytesInUseOffset, ReadU32(before.data(), kFileBytesInUseOffset) + 24);
    EXPECT_TRUE(unchangedToMarker(grown));
    EXPECT_EQ(lastAt + 24, last->Header);
    ASSERT_EQ(ERROR_SUCCESS, standard->SetSize(size, &result));
    EXPECT_TRUE(unchangedToMarker(before));
    // No room: growth and insertion refuse and change nothing; insertion
    // returns the attribute standing where the new one would have gone.
    const Bytes same = ImageOf(*root);
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, standard->SetSize(size + root->GetFreeSpace() + 8, &result));
    auto big = test::ResidentAttribute(AttributeData, nullptr, root->GetFreeSpace(), 1);
    EXPECT_EQ(at(first), root->InsertAttribute(big.get()));
    EXPECT_EQ(same, ImageOf(*root));
    // An object on the record's bytes but not in its table is refused.
    CAttribute stray(standard->Header, root.get(), standard->Size);
    EXPECT_EQ(ERROR_FILE_CORRUPT, stray.SetSize(size + 8, &result));
    EXPECT_EQ(1, root->Revert());
    EXPECT_EQ(before, ImageOf(*root));

    // $STANDARD_INFORMATION flips to non-resident and back in place.
    ASSERT_EQ(1, at(0)->SetResident(0));
    EXPECT_TRUE(root->IsModified());
    EXPECT_EQ(1, ReadU8(at(0)->Header, kAttributeNonResidentOffset));
    EXPECT_EQ(64, ReadU16(at(0)->Header, kNonResidentRunListOffsetOffset));
    ASSERT_EQ(1, root->BuildAttributeTable());
    ASSERT_FALSE(at(0)->IsResident());
    ASSERT_EQ(1, at(0)->SetResident(1));
    EXPECT_EQ(24, ReadU16(at(0)->Header, kResidentValueOffsetOffset));
    EXPECT_EQ(0, at(0)->GetDataSize());
    EXPECT_EQ(1, root->Revert());
    EXPECT_EQ(before, ImageOf(*root));
}

}  // namespace
}  // namespace ntfs
