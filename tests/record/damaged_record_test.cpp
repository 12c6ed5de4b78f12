// Damaged FILE records: each kind of damage gives an invalid record (with the
// log line only when the attributes overrun the record), and random damage to
// real records never leads to an access outside the buffers.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "foundation/endian.h"
#include "record/file_record.h"
#include "record/layout.h"
#include "record/record_test_util.h"

namespace ntfs {
namespace {

const char kOverrunMessage[] =
    "Bad FILERECORD! The size of attributes is large than FILERECORD size.\n";

// The disk form of a record with $STANDARD_INFORMATION, $FILE_NAME and $DATA.
struct SampleRecord {
    SampleRecord() {
        auto record = test::RecordFromBytes(test::FreshRecordBytes(30));
        // $DATA is kept shorter than a non-resident header (48 bytes).
        for (uint32_t type : {AttributeStandardInformation, AttributeFileName, AttributeData}) {
            const int valueSize = type == AttributeData ? 16 : 40;
            auto attribute =
                test::ResidentAttribute(type, nullptr, valueSize, static_cast<uint8_t>(type));
            record->InsertAttribute(attribute.get());
        }
        Marker = static_cast<int>(record->EndMarker - record->Image);
        LastAttribute =
            static_cast<int>(record->Attributes.At<CAttribute>(2)->Header - record->Image);
        Plain.assign(record->Image, record->Image + kFileRecordSize);
    }
    // The bytes as on disk, after `change` has been applied to the plain form.
    template <typename Change>
    std::vector<uint8_t> Disk(Change change) const {
        std::vector<uint8_t> bytes = Plain;
        change(bytes.data());
        ProtectUpdateSequence(bytes.data(), kFileRecordSize);
        return bytes;
    }
    std::vector<uint8_t> Plain;
    int Marker = 0;
    int LastAttribute = 0;
};

// Whether a record made from `bytes` is valid, and what it printed.
std::pair<bool, std::string> Parse(const std::vector<uint8_t>& bytes) {
    testing::internal::CaptureStdout();
    auto record = test::RecordFromBytes(bytes);
    const bool valid = record->IsValid() != 0;
    return {valid, testing::internal::GetCapturedStdout()};
}

TEST(DamagedRecord, HeaderAndUpdateSequenceFaultsAreSilentlyInvalid) {
    SampleRecord sample;
    EXPECT_EQ(std::make_pair(true, std::string()), Parse(sample.Disk([](uint8_t*) {})));

    auto magic = sample.Disk([](uint8_t* image) { WriteU32(image, kFileMagicOffset, 0x44414142); });
    EXPECT_EQ(std::make_pair(false, std::string()), Parse(magic));
    // Count 2 on a 1,024-byte record.
    auto count = sample.Disk([](uint8_t*) {});
    WriteU16(count.data(), kFileUpdateSequenceCountOffset, 2);
    EXPECT_EQ(std::make_pair(false, std::string()), Parse(count));
    auto offset = sample.Disk([](uint8_t*) {});
    WriteU16(offset.data(), kFileUpdateSequenceOffsetOffset, kFileRecordSize);
    EXPECT_EQ(std::make_pair(false, std::string()), Parse(offset));

    // A torn write: the second sector's last word is not the sequence number.
    auto torn = sample.Disk([](uint8_t*) {});
    WriteU16(torn.data(), 1022, static_cast<uint16_t>(ReadU16(torn.data(), 48) + 1));
    EXPECT_EQ(std::make_pair(false, std::string()), Parse(torn));
    auto tornFirst = sample.Disk([](uint8_t*) {});
    WriteU16(tornFirst.data(), 510, 0x0BAD);
    EXPECT_EQ(std::make_pair(false, std::string()), Parse(tornFirst));
}

TEST(DamagedRecord, AttributeFaultsAreSilentlyInvalid) {
    SampleRecord sample;
    const int last = sample.LastAttribute;
    EXPECT_FALSE(Parse(sample.Disk([&](uint8_t* image) {
                     WriteU32(image, static_cast<size_t>(last) + kAttributeLengthOffset, 0);
                 })).first);
    EXPECT_FALSE(Parse(sample.Disk([&](uint8_t* image) {
                     WriteU32(image, kFileBytesInUseOffset, static_cast<uint32_t>(last + 8));
                 })).first);
    for (uint32_t type : {0x18u, 0x400u, 0x80000080u}) {
        auto result = Parse(sample.Disk([&](uint8_t* image) {
            WriteU32(image, static_cast<size_t>(last) + kAttributeTypeOffset, type);
        }));
        EXPECT_EQ(std::make_pair(false, std::string()), result) << type;
    }
    // Non-resident flag on an attribute too short for that header.
    EXPECT_FALSE(Parse(sample.Disk([&](uint8_t* image) {
                     WriteU8(image, static_cast<size_t>(last) + kAttributeNonResidentOffset, 1);
                 })).first);
}

TEST(DamagedRecord, AttributesRunningPastTheRecordLogTheMessage) {
    SampleRecord sample;
    const int last = sample.LastAttribute;
    // The last attribute stretches to the end of the record: no end marker.
    auto overrun = sample.Disk([&](uint8_t* image) {
        WriteU32(image, static_cast<size_t>(last) + kAttributeLengthOffset,
                 static_cast<uint32_t>(kFileRecordSize - last));
        WriteU32(image, kFileBytesInUseOffset, kFileRecordSize);
    });
    EXPECT_EQ(std::make_pair(false, std::string(kOverrunMessage)), Parse(overrun));
    // The same with an allocated size far beyond the buffer.
    auto huge = sample.Disk([&](uint8_t* image) {
        WriteU32(image, static_cast<size_t>(last) + kAttributeLengthOffset,
                 static_cast<uint32_t>(kFileRecordSize - last));
        WriteU32(image, kFileBytesInUseOffset, 0xFFFFFFF0u);
        WriteU32(image, kFileAllocatedSizeOffset, 0xFFFFFFF0u);
    });
    EXPECT_EQ(std::make_pair(false, std::string(kOverrunMessage)), Parse(huge));
    // A first attribute offset past the allocated size.
    auto first =
        sample.Disk([](uint8_t* image) { WriteU16(image, kFileFirstAttributeOffset, 0x3FF); });
    EXPECT_EQ(std::make_pair(false, std::string(kOverrunMessage)), Parse(first));
}

TEST(DamagedRecord, TheWalkStopsAtTheMarker) {
    SampleRecord sample;
    const int marker = sample.Marker;
    // Bytes in use larger than needed: still valid.
    EXPECT_TRUE(Parse(sample.Disk([](uint8_t* image) {
                    WriteU32(image, kFileBytesInUseOffset, 1000);
                })).first);
    // The last attribute ends exactly at bytes in use: accepted.
    EXPECT_TRUE(Parse(sample.Disk([&](uint8_t* image) {
                    WriteU32(image, kFileBytesInUseOffset, static_cast<uint32_t>(marker));
                })).first);
}

// Uses every read and change an attribute offers; with damaged headers these
// must stay inside the buffers (the sanitizer run checks that).
void Exercise(CFileRecord* record) {
    std::vector<CAttribute*> attributes;
    for (int i = 0; i < record->Attributes.GetCount(); ++i)
        attributes.push_back(record->Attributes.At<CAttribute>(i));
    for (CAttribute* attribute : attributes) {
        static_cast<void>(attribute->GetDataSize());
        static_cast<void>(attribute->GetHighestVcn());
        static_cast<void>(attribute->BodyFits());
        int count = 0;
        std::free(attribute->GetRunList(&count));
        std::unique_ptr<CAttribute> clone(attribute->Clone());
        if (clone != nullptr && !clone->IsResident()) {
            CAttribute* result = nullptr;
            static_cast<void>(clone->AppendRun(12345, 3, &result));
            std::unique_ptr<CAttribute> piece(clone->SplitAttribute(1, 1));
        }
        char16_t name[4] = {u'$', u'I', u'3', u'0'};
        static_cast<void>(record->FindAttribute(attribute->GetType(), name, 4, 0));
    }
    if (!attributes.empty()) {
        CAttribute* result = nullptr;
        static_cast<void>(attributes[0]->SetSize(attributes[0]->Size + 16, &result));
    }
    auto extra = test::ResidentAttribute(AttributeData, u"x", 16, 1);
    static_cast<void>(record->InsertAttribute(extra.get()));
    if (record->Attributes.GetCount() > 0)
        record->RemoveAttribute(record->Attributes.At<CAttribute>(0));
    static_cast<void>(record->Revert());
}

TEST(DamagedRecord, RandomDamageNeverLeavesTheBuffers) {
    SampleRecord sample;
    std::mt19937 random(77);
    int valid = 0;
    testing::internal::CaptureStdout();
    for (int trial = 0; trial < 3000; ++trial) {
        std::vector<uint8_t> bytes = sample.Plain;
        const int flips = 1 + static_cast<int>(random() % 6);
        for (int i = 0; i < flips; ++i) {
            // Mostly the header and the attribute headers, sometimes anywhere.
            const int at = random() % 4 == 0 ? static_cast<int>(random() % kFileRecordSize)
                                             : static_cast<int>(random() % (sample.Marker + 8));
            bytes[static_cast<size_t>(at)] = static_cast<uint8_t>(random());
        }
        ProtectUpdateSequence(bytes.data(), kFileRecordSize);
        auto record = test::RecordFromBytes(bytes);
        if (!record->IsValid()) continue;
        ++valid;
        Exercise(record.get());
    }
    testing::internal::GetCapturedStdout();
    EXPECT_GT(valid, 100);
}

TEST(DamagedRecord, RandomDamageToFixtureRecordsNeverLeavesTheBuffers) {
    // Real records bring names, run lists and non-resident headers along.
    test::FixtureMft mft(test::FixtureNames().front());
    std::vector<std::vector<uint8_t>> originals;
    for (int64_t number = 0; number < 64 && number < mft.FirstExtentRecords; ++number) {
        auto record = test::RecordFromBytes(mft.RawRecord(number), number);
        if (record->IsValid() && record->Attributes.GetCount() > 0) {
            originals.emplace_back(record->Image, record->Image + kFileRecordSize);
        }
    }
    ASSERT_GT(originals.size(), 10u);
    std::mt19937 random(1234);
    int valid = 0;
    testing::internal::CaptureStdout();
    for (int trial = 0; trial < 4000; ++trial) {
        std::vector<uint8_t> bytes = originals[random() % originals.size()];
        const int used = static_cast<int>(
            std::min<uint32_t>(ReadU32(bytes.data(), kFileBytesInUseOffset), kFileRecordSize));
        const int flips = 1 + static_cast<int>(random() % 4);
        for (int i = 0; i < flips; ++i) {
            bytes[random() % static_cast<uint32_t>(used)] = static_cast<uint8_t>(random());
        }
        ProtectUpdateSequence(bytes.data(), kFileRecordSize);
        auto record = test::RecordFromBytes(bytes);
        if (!record->IsValid()) continue;
        ++valid;
        Exercise(record.get());
    }
    testing::internal::GetCapturedStdout();
    EXPECT_GT(valid, 500);
}

}  // namespace
}  // namespace ntfs
