// FILE records of the fixture volumes, read straight from the images: every
// record of the first $MFT extent parses, the update sequence round-trips to
// the disk bytes, attribute tables agree with the manifests, run lists stay in
// the volume, and changes to real records leave exactly the expected bytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/file_record.h"
#include "record/layout.h"
#include "record/record_test_util.h"
#include "support/fixture.h"

namespace ntfs {
namespace {

using test::FixtureMft;
using test::FixtureNames;

constexpr uint16_t kCompressedFlag = 0x0001;
constexpr uint16_t kSparseFlag = 0x8000;
// $FILE_NAME value: name length byte at 64, the name at 66.
constexpr int kFileNameLengthOffset = 64;
constexpr int kFileNameNameOffset = 66;

std::u16string LeafName(const std::u16string& path) { return path.substr(path.rfind(u'\\') + 1); }

std::u16string FileNameOf(CAttribute* attribute) {
    const uint8_t* value = attribute->GetValue();
    std::u16string name;
    const int length = ReadU8(value, kFileNameLengthOffset);
    for (int i = 0; i < length; ++i)
        name += static_cast<char16_t>(ReadU16(value, kFileNameNameOffset + 2 * i));
    return name;
}

class FixtureRecords : public ::testing::TestWithParam<std::string> {};

TEST_P(FixtureRecords, EveryRecordOfTheFirstExtentParsesAndRoundTrips) {
    FixtureMft mft(GetParam());
    ASSERT_GE(mft.FirstExtentRecords, 16);
    int inUse = 0;
    for (int64_t number = 0; number < mft.FirstExtentRecords; ++number) {
        const std::vector<uint8_t> raw = mft.RawRecord(number);
        ASSERT_EQ(static_cast<size_t>(kFileRecordSize), raw.size());
        auto record = test::RecordFromBytes(raw, number);
        if (ReadU32(raw.data(), kFileMagicOffset) != kFileRecordMagic) {
            EXPECT_FALSE(record->IsValid()) << number;
            continue;
        }
        ASSERT_TRUE(record->IsValid()) << GetParam() << " record " << number;
        // Protecting the working copy gives back the disk bytes.
        std::vector<uint8_t> again(record->Image, record->Image + kFileRecordSize);
        ProtectUpdateSequence(again.data(), kFileRecordSize);
        ASSERT_EQ(raw, again) << number;
        // The header's bytes in use end 8 bytes behind the marker.
        EXPECT_EQ(static_cast<uint32_t>(record->EndMarker - record->Image + 8),
                  ReadU32(record->Image, kFileBytesInUseOffset))
            << number;
        EXPECT_EQ(kFileRecordSize - static_cast<int>(ReadU32(record->Image, kFileBytesInUseOffset)),
                  record->GetFreeSpace());
        if ((ReadU16(record->Image, kFileFlagsOffset) & kFileRecordInUse) == 0) continue;
        ++inUse;
        uint32_t previous = 0;
        for (int i = 0; i < record->Attributes.GetCount(); ++i) {
            CAttribute* attribute = record->Attributes.At<CAttribute>(i);
            EXPECT_GE(attribute->GetType(), previous) << number;
            previous = attribute->GetType();
            EXPECT_TRUE(attribute->BodyFits()) << number;
        }
        if (record->IsBase && record->Attributes.GetCount() > 0) {
            EXPECT_EQ(AttributeStandardInformation, record->Attributes.At<CAttribute>(0)->GetType())
                << number;
        }
    }
    EXPECT_GE(inUse, 16);
}

TEST_P(FixtureRecords, RunListsCoverTheirVcnsInsideTheVolume) {
    FixtureMft mft(GetParam());
    int lists = 0;
    for (int64_t number = 0; number < mft.FirstExtentRecords; ++number) {
        auto record = test::RecordFromBytes(mft.RawRecord(number), number);
        if (!record->IsValid()) continue;
        for (int i = 0; i < record->Attributes.GetCount(); ++i) {
            CAttribute* attribute = record->Attributes.At<CAttribute>(i);
            if (attribute->IsResident()) continue;
            int count = 0;
            int64_t* pairs = attribute->GetRunList(&count);
            const int64_t vcns = attribute->GetHighestVcn() - attribute->GetLowestVcn() + 1;
            int64_t clusters = 0;
            const uint16_t flags = ReadU16(attribute->Header, kAttributeFlagsOffset);
            for (int run = 0; run < count; ++run) {
                const int64_t lcn = pairs[2 * run];
                const int64_t length = pairs[2 * run + 1];
                EXPECT_GT(length, 0);
                clusters += length;
                if ((flags & (kCompressedFlag | kSparseFlag)) == 0) {
                    EXPECT_GE(lcn, 0);
                    EXPECT_LE(lcn + length, mft.TotalClusters) << number;
                }
            }
            std::free(pairs);
            if (vcns > 0) {
                EXPECT_EQ(vcns, clusters) << GetParam() << " record " << number;
                ++lists;
            }
        }
    }
    EXPECT_GT(lists, 4);
}

TEST_P(FixtureRecords, AttributeTablesAgreeWithTheManifest) {
    FixtureMft mft(GetParam());
    int checked = 0;
    int skipped = 0;
    for (const test::ManifestEntry& entry : test::LoadManifest(GetParam())) {
        if (entry.record >= mft.MappedRecords) {
            ++skipped;
            continue;
        }
        auto record = test::RecordFromBytes(mft.RawRecord(entry.record), entry.record);
        ASSERT_TRUE(record->IsValid()) << entry.path_utf8;
        ++checked;
        if (entry.attrlist) {
            EXPECT_NE(nullptr, record->FindAttribute(AttributeAttributeList, nullptr, 0, 0))
                << entry.path_utf8;
            continue;
        }
        bool named = false;
        for (unsigned int index = 0;; ++index) {
            CAttribute* name = record->FindAttribute(AttributeFileName, nullptr, 0, index);
            if (name == nullptr) break;
            ASSERT_TRUE(name->IsResident());
            if (FileNameOf(name) == LeafName(entry.path)) named = true;
        }
        EXPECT_TRUE(named) << entry.path_utf8;
        const bool directory =
            (ReadU16(record->Image, kFileFlagsOffset) & kFileRecordIsDirectory) != 0;
        EXPECT_EQ(entry.is_dir, directory) << entry.path_utf8;
        if (entry.is_dir) {
            EXPECT_NE(nullptr, record->FindAttribute(AttributeIndexRoot, u"$I30", 4, 0))
                << entry.path_utf8;
        } else {
            CAttribute* data = record->FindAttribute(AttributeData, nullptr, 0, 0);
            ASSERT_NE(nullptr, data) << entry.path_utf8;
            EXPECT_EQ(static_cast<int64_t>(entry.size), data->GetDataSize()) << entry.path_utf8;
        }
    }
    EXPECT_GT(checked, 30);
    EXPECT_LT(skipped, checked);
}

INSTANTIATE_TEST_SUITE_P(Volumes, FixtureRecords, ::testing::ValuesIn(FixtureNames()),
                         [](const ::testing::TestParamInfo<std::string>& info) {
                             return info.param;
                         });

// Changes to real records, on the root directory of one volume and on a
// small file with resident data.
class RealRecordChanges : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string name = FixtureNames().front();
        FixtureMft mft(name);
        for (const test::ManifestEntry& entry : test::LoadManifest(name)) {
            if (!entry.is_dir && !entry.attrlist && entry.links == 1 && entry.size > 0 &&
                entry.size < 200 && entry.record < mft.MappedRecords) {
                FileBytes = mft.RawRecord(entry.record);
                FileNumber = entry.record;
                break;
            }
        }
        RootBytes = mft.RawRecord(5);
    }

    static std::vector<uint8_t> Image(const CFileRecord& record) {
        return std::vector<uint8_t>(record.Image, record.Image + kFileRecordSize);
    }

    std::vector<uint8_t> RootBytes;
    std::vector<uint8_t> FileBytes;
    int64_t FileNumber = 0;
};

TEST_F(RealRecordChanges, InsertAndRemoveLeaveOnlyTheNextIdentifierChanged) {
    auto root = test::RecordFromBytes(RootBytes, 5);
    ASSERT_TRUE(root->IsValid());
    const std::vector<uint8_t> before = Image(*root);
    const int count = root->Attributes.GetCount();
    const uint16_t nextId = ReadU16(root->Image, kFileNextAttributeIdOffset);

    auto stream = test::ResidentAttribute(AttributeData, u"ads", 20, 0xA5);
    CAttribute* placed = root->InsertAttribute(stream.get());
    ASSERT_NE(nullptr, placed);
    EXPECT_EQ(count + 1, root->Attributes.GetCount());
    EXPECT_EQ(nextId, ReadU16(placed->Header, kAttributeInstanceOffset));
    // Ordered: every type before it is not greater, every one after not less.
    const int at = root->GetAttributeIndex(placed);
    for (int i = 0; i < root->Attributes.GetCount(); ++i) {
        const uint32_t type = root->Attributes.At<CAttribute>(i)->GetType();
        if (i < at) {
            EXPECT_LE(type, AttributeData);
        } else if (i > at) {
            EXPECT_GT(type, AttributeData);
        }
    }
    EXPECT_EQ(placed, root->FindAttribute(AttributeData, u"ads", 3, 0));

    root->RemoveAttribute(placed);
    std::vector<uint8_t> after = Image(*root);
    EXPECT_EQ(static_cast<uint16_t>(nextId + 1), ReadU16(after.data(), kFileNextAttributeIdOffset));
    WriteU16(after.data(), kFileNextAttributeIdOffset, nextId);
    const int marker = static_cast<int>(root->EndMarker - root->Image);
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + marker + 4, after.begin()));
    EXPECT_EQ(count, root->Attributes.GetCount());
}

TEST_F(RealRecordChanges, GrowAndShrinkRestoreTheRecord) {
    auto root = test::RecordFromBytes(RootBytes, 5);
    ASSERT_TRUE(root->IsValid());
    const std::vector<uint8_t> before = Image(*root);
    CAttribute* standard = root->Attributes.At<CAttribute>(0);
    CAttribute* last = root->Attributes.At<CAttribute>(root->Attributes.GetCount() - 1);
    const std::vector<uint8_t> lastBytes(last->Header, last->Header + last->Size);
    const int size = standard->Size;
    CAttribute* result = nullptr;
    ASSERT_EQ(ERROR_SUCCESS, standard->SetSize(size + 24, &result));
    EXPECT_EQ(ReadU32(before.data(), kFileBytesInUseOffset) + 24,
              ReadU32(root->Image, kFileBytesInUseOffset));
    for (int i = 0; i < 24; ++i) ASSERT_EQ(0, standard->Header[size + i]);
    // The last attribute moved up by 24 with its object, bytes unchanged.
    EXPECT_EQ(0, std::memcmp(last->Header, lastBytes.data(), lastBytes.size()));
    EXPECT_EQ(0, std::memcmp(before.data() + (last->Header - root->Image) - 24, lastBytes.data(),
                             lastBytes.size()));
    ASSERT_EQ(ERROR_SUCCESS, standard->SetSize(size, &result));
    const int marker = static_cast<int>(root->EndMarker - root->Image);
    EXPECT_TRUE(std::equal(before.begin(), before.begin() + marker + 4, root->Image));
    // Growing by more than the record holds refuses and changes nothing.
    const std::vector<uint8_t> same = Image(*root);
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER,
              standard->SetSize(size + root->GetFreeSpace() + 8, &result));
    EXPECT_EQ(same, Image(*root));
    EXPECT_EQ(1, root->Revert());
    EXPECT_EQ(before, Image(*root));
}

TEST_F(RealRecordChanges, ResidentDataFlipsToNonResidentAndBack) {
    ASSERT_FALSE(FileBytes.empty());
    auto file = test::RecordFromBytes(FileBytes, FileNumber);
    ASSERT_TRUE(file->IsValid());
    CAttribute* data = file->FindAttribute(AttributeData, nullptr, 0, 0);
    ASSERT_NE(nullptr, data);
    ASSERT_TRUE(data->IsResident());
    ASSERT_EQ(1, file->Commit());
    CAttribute* result = nullptr;
    if (data->Size < kNonResidentHeaderSize) {
        ASSERT_EQ(ERROR_SUCCESS, data->SetSize(kNonResidentHeaderSize + 8, &result));
    }
    ASSERT_EQ(1, data->SetResident(0));
    EXPECT_TRUE(file->IsModified());
    EXPECT_EQ(64, ReadU16(data->Header, kNonResidentRunListOffsetOffset));
    ASSERT_EQ(1, file->BuildAttributeTable());
    data = file->FindAttribute(AttributeData, nullptr, 0, 0);
    ASSERT_NE(nullptr, data);
    EXPECT_FALSE(data->IsResident());
    ASSERT_EQ(1, data->SetResident(1));
    EXPECT_EQ(24, ReadU16(data->Header, kResidentValueOffsetOffset));
    EXPECT_EQ(0, data->GetDataSize());
    EXPECT_EQ(1, file->Revert());
    EXPECT_EQ(FileBytes.size(), static_cast<size_t>(kFileRecordSize));
    data = file->FindAttribute(AttributeData, nullptr, 0, 0);
    ASSERT_NE(nullptr, data);
    EXPECT_TRUE(data->IsResident());
    EXPECT_GT(data->GetDataSize(), 0);
}

}  // namespace
}  // namespace ntfs
