// InitializeFileRecord: the header and update sequence of a free record made
// ready for use, and the refusal of a record in use.
#include "record/file_record.h"

#include <gtest/gtest.h>

#include "foundation/log.h"
#include "record/record_test_util.h"

namespace ntfs {
namespace {

using test::Bytes;
using test::ImageOf;
using test::RecordFromBytes;

int Initialize(Bytes& bytes, int64_t number) {
    return CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(bytes.data()), kFileRecordSize,
                                             kSectorSize, &number);
}

TEST(InitializeFileRecord, MakesAnEmptyProtectedRecordAndRefusesOneInUse) {
    Bytes bytes(kFileRecordSize, 0);
    WriteU16(bytes.data(), kFileSequenceNumberOffset, 0xFFFF);
    WriteU64(bytes.data(), kFileBaseReferenceOffset, 0xABCD000000001234ull);
    WriteU16(bytes.data(), 510, 0x1111);
    WriteU16(bytes.data(), 1022, 0x2222);
    ASSERT_EQ(1, Initialize(bytes, 0x123456789A));
    // Sequence number 0xFFFF wraps to 1; attributes at 56, 64 bytes in use;
    // protected with number 1 at both sector ends, the true words saved.
    for (const auto& [offset, value] : std::vector<std::pair<int, int>>{{4, 48},
                                                                        {6, 3},
                                                                        {16, 1},
                                                                        {20, 56},
                                                                        {24, 64},
                                                                        {28, 1024},
                                                                        {32, 0},
                                                                        {38, 0},
                                                                        {40, 0},
                                                                        {42, 0x12},
                                                                        {48, 1},
                                                                        {50, 0x1111},
                                                                        {52, 0x2222},
                                                                        {56, 0xFFFF},
                                                                        {58, 0xFFFF},
                                                                        {510, 1},
                                                                        {1022, 1}}) {
        EXPECT_EQ(value, ReadU16(bytes.data(), offset)) << offset;
    }
    EXPECT_EQ(kFileRecordMagic, ReadU32(bytes.data(), kFileMagicOffset));
    EXPECT_EQ(0x3456789Au, ReadU32(bytes.data(), kFileRecordNumberLowOffset));
    auto record = RecordFromBytes(bytes);
    ASSERT_TRUE(record->IsValid());
    EXPECT_EQ(0, record->Attributes.GetCount());
    EXPECT_EQ(1024 - 64, record->GetFreeSpace());
    EXPECT_TRUE(record->IsBase);
    EXPECT_EQ(0x2222, ReadU16(record->Image, 1022));

    // The update sequence number skips 0 when it wraps.
    Bytes wrap(kFileRecordSize, 0);
    WriteU16(wrap.data(), kFileUpdateSequenceArrayOffset, 0xFFFF);
    ASSERT_EQ(1, Initialize(wrap, 7));
    EXPECT_EQ(1, ReadU16(wrap.data(), kFileUpdateSequenceArrayOffset));
    Bytes inUse(kFileRecordSize, 0x5C);
    WriteU16(inUse.data(), kFileFlagsOffset, kFileRecordInUse);
    const Bytes before = inUse;
    EXPECT_EQ(0, Initialize(inUse, 7));
    EXPECT_EQ(before, inUse);
}

}  // namespace
}  // namespace ntfs
