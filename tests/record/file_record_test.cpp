// CFileRecord on records made by InitializeFileRecord: initialisation, the
// update sequence, insertion in attribute order, removal, growth and shrink of
// attributes in place, form changes in place, search, backup and revert.
#include "record/file_record.h"

#include <gtest/gtest.h>

#include <vector>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "record/layout.h"
#include "record/record_test_util.h"

namespace ntfs {
namespace {

using test::FreshRecordBytes;
using test::RecordFromBytes;
using test::ResidentAttribute;

std::vector<uint8_t> ImageOf(const CFileRecord& record) {
    return std::vector<uint8_t>(record.Image, record.Image + kFileRecordSize);
}

std::vector<uint32_t> TypesOf(const CFileRecord& record) {
    std::vector<uint32_t> types;
    for (int i = 0; i < record.Attributes.GetCount(); ++i) {
        types.push_back(record.Attributes.At<CAttribute>(i)->GetType());
    }
    return types;
}

TEST(InitializeFileRecord, MakesAnEmptyProtectedRecord) {
    std::vector<uint8_t> bytes(kFileRecordSize, 0);
    WriteU16(bytes.data(), kFileSequenceNumberOffset, 0xFFFF);
    WriteU64(bytes.data(), kFileBaseReferenceOffset, 0xABCD000000001234ull);
    WriteU16(bytes.data(), 510, 0x1111);
    WriteU16(bytes.data(), 1022, 0x2222);
    const int64_t number = 0x123456789Aull;
    ASSERT_EQ(
        1, CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(bytes.data()),
                                             kFileRecordSize, kSectorSize, &number));
    const uint8_t* image = bytes.data();
    EXPECT_EQ(kFileRecordMagic, ReadU32(image, kFileMagicOffset));
    EXPECT_EQ(48, ReadU16(image, kFileUpdateSequenceOffsetOffset));
    EXPECT_EQ(3, ReadU16(image, kFileUpdateSequenceCountOffset));
    EXPECT_EQ(1, ReadU16(image, kFileSequenceNumberOffset));  // 0xFFFF wraps to 1
    EXPECT_EQ(56, ReadU16(image, kFileFirstAttributeOffset));
    EXPECT_EQ(64u, ReadU32(image, kFileBytesInUseOffset));
    EXPECT_EQ(1024u, ReadU32(image, kFileAllocatedSizeOffset));
    EXPECT_EQ(0u, ReadU64(image, kFileBaseReferenceOffset));
    EXPECT_EQ(0, ReadU16(image, kFileNextAttributeIdOffset));
    EXPECT_EQ(0x12, ReadU16(image, kFileRecordNumberHighOffset));
    EXPECT_EQ(0x3456789Au, ReadU32(image, kFileRecordNumberLowOffset));
    EXPECT_EQ(kAttributeEndMarker, ReadU32(image, 56));
    // Protected: the sequence number 1 stands at both sector ends, the true
    // words are in the array.
    EXPECT_EQ(1, ReadU16(image, 48));
    EXPECT_EQ(1, ReadU16(image, 510));
    EXPECT_EQ(1, ReadU16(image, 1022));
    EXPECT_EQ(0x1111, ReadU16(image, 50));
    EXPECT_EQ(0x2222, ReadU16(image, 52));

    auto record = RecordFromBytes(bytes, number);
    ASSERT_TRUE(record->IsValid());
    EXPECT_EQ(0, record->Attributes.GetCount());
    EXPECT_EQ(1024 - 64, record->GetFreeSpace());
    EXPECT_TRUE(record->IsBase);
    EXPECT_EQ(0x1111, ReadU16(record->Image, 510));
}

TEST(InitializeFileRecord, UpdateSequenceNumberSkipsZeroAndInUseIsRefused) {
    std::vector<uint8_t> bytes(kFileRecordSize, 0);
    WriteU16(bytes.data(), kFileUpdateSequenceArrayOffset, 0xFFFF);
    const int64_t number = 7;
    ASSERT_EQ(
        1, CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(bytes.data()),
                                             kFileRecordSize, kSectorSize, &number));
    EXPECT_EQ(1, ReadU16(bytes.data(), kFileUpdateSequenceArrayOffset));

    std::vector<uint8_t> inUse(kFileRecordSize, 0x5C);
    WriteU16(inUse.data(), kFileFlagsOffset, kFileRecordInUse);
    const std::vector<uint8_t> before = inUse;
    EXPECT_EQ(
        0, CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(inUse.data()),
                                             kFileRecordSize, kSectorSize, &number));
    EXPECT_EQ(before, inUse);
}

TEST(UpdateSequence, ProtectThenApplyGivesTheSameBytes) {
    auto record = RecordFromBytes(FreshRecordBytes(40));
    WriteU16(record->Image, 510, 0xBEEF);
    WriteU16(record->Image, 1022, 0xF00D);
    const std::vector<uint8_t> plain = ImageOf(*record);
    ProtectUpdateSequence(record->Image, kFileRecordSize);
    const uint16_t number = ReadU16(record->Image, 48);
    EXPECT_EQ(number, ReadU16(record->Image, 510));
    EXPECT_EQ(number, ReadU16(record->Image, 1022));
    EXPECT_EQ(0xBEEF, ReadU16(record->Image, 50));
    EXPECT_EQ(0xF00D, ReadU16(record->Image, 52));
    // A second protection of the same words writes the same bytes.
    std::vector<uint8_t> protectedOnce = ImageOf(*record);
    // Unprotected again: the sector ends hold their true words, and the
    // array keeps the words it saved.
    ASSERT_EQ(1, ApplyUpdateSequence(record->Image, kFileRecordSize));
    std::vector<uint8_t> expected = plain;
    WriteU16(expected.data(), 50, 0xBEEF);
    WriteU16(expected.data(), 52, 0xF00D);
    EXPECT_EQ(expected, ImageOf(*record));
    ProtectUpdateSequence(record->Image, kFileRecordSize);
    EXPECT_EQ(protectedOnce, ImageOf(*record));
}

TEST(UpdateSequence, WriteRecordWithoutVolumeIsAnInternalError) {
    auto record = RecordFromBytes(FreshRecordBytes(41));
    const std::vector<uint8_t> before = ImageOf(*record);
    EXPECT_EQ(ERROR_INTERNAL_ERROR, record->WriteRecord());
    EXPECT_EQ(before, ImageOf(*record));
}

class FreshRecord : public ::testing::Test {
protected:
    void SetUp() override { Record = RecordFromBytes(FreshRecordBytes(42)); }

    CAttribute* Insert(uint32_t type, const char16_t* name, int valueSize, uint8_t fill = 0) {
        auto attribute = ResidentAttribute(type, name, valueSize, fill);
        return Record->InsertAttribute(attribute.get());
    }

    std::unique_ptr<CFileRecord> Record;
};

TEST_F(FreshRecord, InsertionKeepsTypeAndNameOrderAndNumbersInstances) {
    ASSERT_NE(nullptr, Insert(AttributeData, nullptr, 10));
    ASSERT_NE(nullptr, Insert(AttributeStandardInformation, nullptr, 72));
    ASSERT_NE(nullptr, Insert(AttributeData, u"b", 4));
    ASSERT_NE(nullptr, Insert(AttributeFileName, nullptr, 70));
    CAttribute* named = Insert(AttributeData, u"a", 4);
    ASSERT_NE(nullptr, named);
    EXPECT_EQ(3, Record->GetAttributeIndex(named));
    EXPECT_EQ((std::vector<uint32_t>{16, 48, 128, 128, 128}), TypesOf(*Record));
    // Unnamed first (the shorter name counts as ended by 0), then "a", "b".
    EXPECT_EQ(0, Record->Attributes.At<CAttribute>(2)->GetNameLength());
    EXPECT_EQ(u'a', Record->Attributes.At<CAttribute>(3)->GetNameUnit(0));
    EXPECT_EQ(u'b', Record->Attributes.At<CAttribute>(4)->GetNameUnit(0));
    // Instances in insertion order.
    const std::vector<int> instances = {1, 3, 0, 4, 2};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(instances[i],
                  ReadU16(Record->Attributes.At<CAttribute>(i)->Header, kAttributeInstanceOffset));
    }
    EXPECT_EQ(5, ReadU16(Record->Image, kFileNextAttributeIdOffset));
    EXPECT_TRUE(Record->IsModified());
    // The walk agrees with the header: marker right behind the last one.
    int end = ReadU16(Record->Image, kFileFirstAttributeOffset);
    for (int i = 0; i < 5; ++i) end += Record->Attributes.At<CAttribute>(i)->Size;
    EXPECT_EQ(Record->Image + end, Record->EndMarker);
    EXPECT_EQ(kAttributeEndMarker, ReadU32(Record->Image, static_cast<size_t>(end)));
    EXPECT_EQ(static_cast<uint32_t>(end + 8), ReadU32(Record->Image, kFileBytesInUseOffset));
}

TEST_F(FreshRecord, NextAttributeIdentifierWraps) {
    WriteU16(Record->Image, kFileNextAttributeIdOffset, 0xFFFF);
    CAttribute* attribute = Insert(AttributeData, nullptr, 8);
    ASSERT_NE(nullptr, attribute);
    EXPECT_EQ(0xFFFF, ReadU16(attribute->Header, kAttributeInstanceOffset));
    EXPECT_EQ(0, ReadU16(Record->Image, kFileNextAttributeIdOffset));
}

TEST_F(FreshRecord, InsertingWithoutRoomChangesNothing) {
    ASSERT_NE(nullptr, Insert(AttributeStandardInformation, nullptr, 72));
    ASSERT_NE(nullptr, Insert(AttributeData, nullptr, 700));
    const std::vector<uint8_t> before = ImageOf(*Record);
    auto big = ResidentAttribute(AttributeFileName, nullptr, 400, 1);
    ASSERT_GT(big->Size, Record->GetFreeSpace());
    CAttribute* neighbour = Record->InsertAttribute(big.get());
    // The attribute that stands where it would have gone.
    ASSERT_NE(nullptr, neighbour);
    EXPECT_EQ(AttributeData, neighbour->GetType());
    EXPECT_EQ(before, ImageOf(*Record));
    EXPECT_EQ(2, Record->Attributes.GetCount());
}

TEST_F(FreshRecord, FindAttributeCountsMatchesAndComparesNamesExactly) {
    Insert(AttributeFileName, nullptr, 70, 1);
    Insert(AttributeFileName, nullptr, 70, 2);
    Insert(AttributeData, u"Ads", 4);
    Insert(AttributeData, nullptr, 4);
    CAttribute* second = Record->FindAttribute(AttributeFileName, nullptr, 0, 1);
    ASSERT_NE(nullptr, second);
    EXPECT_EQ(2, second->GetValue()[0]);
    EXPECT_EQ(nullptr, Record->FindAttribute(AttributeFileName, nullptr, 0, 2));
    EXPECT_NE(nullptr, Record->FindAttribute(AttributeData, u"Ads", 3, 0));
    EXPECT_EQ(nullptr, Record->FindAttribute(AttributeData, u"ADS", 3, 0));
    EXPECT_EQ(nullptr, Record->FindAttribute(AttributeData, u"Ad", 2, 0));
    CAttribute* unnamed = Record->FindAttribute(AttributeData, nullptr, 0, 0);
    ASSERT_NE(nullptr, unnamed);
    EXPECT_EQ(0, unnamed->GetNameLength());
    EXPECT_EQ(nullptr, Record->FindAttribute(AttributeIndexRoot, nullptr, 0, 0));
}

TEST_F(FreshRecord, RemovalMovesTheRestDownAndLastRemovalDoesNotMark) {
    Insert(AttributeStandardInformation, nullptr, 72, 0x10);
    Insert(AttributeFileName, nullptr, 70, 0x30);
    Insert(AttributeData, nullptr, 12, 0x80);
    ASSERT_EQ(1, Record->Commit());
    const std::vector<uint8_t> full = ImageOf(*Record);
    CAttribute* name = Record->Attributes.At<CAttribute>(1);
    const int nameSize = name->Size;
    const int nameStart = static_cast<int>(name->Header - Record->Image);
    const int dataSize = Record->Attributes.At<CAttribute>(2)->Size;

    Record->RemoveAttribute(name);
    EXPECT_EQ((std::vector<uint32_t>{16, 128}), TypesOf(*Record));
    EXPECT_EQ(0, std::memcmp(Record->Image + nameStart, full.data() + nameStart + nameSize,
                             static_cast<size_t>(dataSize)));
    EXPECT_EQ(ReadU32(full.data(), kFileBytesInUseOffset) - nameSize,
              ReadU32(Record->Image, kFileBytesInUseOffset));
    EXPECT_TRUE(Record->IsModified());

    ASSERT_EQ(1, Record->Commit());
    Record->RemoveAttribute(Record->Attributes.At<CAttribute>(1));
    EXPECT_EQ((std::vector<uint32_t>{16}), TypesOf(*Record));
    EXPECT_FALSE(Record->IsModified());

    // Not in the table: nothing happens.
    CAttribute stranger(48, 1, nullptr);
    const std::vector<uint8_t> before = ImageOf(*Record);
    Record->RemoveAttribute(&stranger);
    EXPECT_EQ(before, ImageOf(*Record));
}

TEST_F(FreshRecord, SetSizeBeyondFreeSpaceReturns122AndChangesNothing) {
    Insert(AttributeStandardInformation, nullptr, 48);
    Insert(AttributeData, nullptr, 12);
    CAttribute* standard = Record->Attributes.At<CAttribute>(0);
    const std::vector<uint8_t> before = ImageOf(*Record);
    CAttribute* result = nullptr;
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER,
              standard->SetSize(standard->Size + Record->GetFreeSpace() + 8, &result));
    EXPECT_EQ(before, ImageOf(*Record));
    // Exactly the free space is still allowed.
    EXPECT_EQ(ERROR_SUCCESS, standard->SetSize(standard->Size + Record->GetFreeSpace(), &result));
    EXPECT_EQ(0, Record->GetFreeSpace());
}

TEST_F(FreshRecord, SetSizeOfAnAttributeOutsideTheTableIsCorrupt) {
    Insert(AttributeData, nullptr, 12);
    CAttribute* data = Record->Attributes.At<CAttribute>(0);
    CAttribute stray(data->Header, Record.get(), data->Size);
    CAttribute* result = nullptr;
    EXPECT_EQ(ERROR_FILE_CORRUPT, stray.SetSize(64, &result));

    std::vector<uint8_t> bad = FreshRecordBytes(43);
    WriteU32(bad.data(), kFileMagicOffset, 0x44414142);
    auto invalid = RecordFromBytes(bad);
    CAttribute onInvalid(data->Header, invalid.get(), data->Size);
    EXPECT_EQ(ERROR_INTERNAL_ERROR, onInvalid.SetSize(64, &result));
}

TEST_F(FreshRecord, RevertRestoresTheCommittedState) {
    Insert(AttributeStandardInformation, nullptr, 48);
    ASSERT_EQ(1, Record->Commit());
    EXPECT_FALSE(Record->IsModified());
    const std::vector<uint8_t> committed = ImageOf(*Record);
    Insert(AttributeData, nullptr, 100);
    Record->Attributes.At<CAttribute>(0)->SetValue("xyz", 3);
    EXPECT_TRUE(Record->IsModified());
    ASSERT_EQ(1, Record->Revert());
    EXPECT_FALSE(Record->IsModified());
    EXPECT_EQ(committed, ImageOf(*Record));
    EXPECT_EQ((std::vector<uint32_t>{16}), TypesOf(*Record));
}

}  // namespace
}  // namespace ntfs
