// Damaged FILE records: each kind of damage gives an invalid record (with the
// log line only when the attributes overrun the record), and random damage to
// made-up and real records never leads to an access outside the buffers.
#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>

#include "record/record_test_util.h"

namespace ntfs {
namespace {

using test::Bytes;

const char kOverrunMessage[] = "Bad FILERECORD! The size of attributes is large than FILERECORD size.\n";

// Whether a record made from `bytes` is valid, and what it printed.
std::pair<bool, std::string> Parse(const Bytes& bytes) {
    testing::internal::CaptureStdout();
    const bool valid = test::RecordFromBytes(bytes)->IsValid() != 0;
    return {valid, testing::internal::GetCapturedStdout()};
}

// The plain form of a record with $STANDARD_INFORMATION, $FILE_NAME and a
// $DATA shorter than a non-resident header; `last` gets $DATA's offset.
Bytes SampleRecord(int* last) {
    auto record = test::RecordFromBytes(test::FreshRecordBytes(30));
    for (uint32_t type : {AttributeStandardInformation, AttributeFileName, AttributeData}) {
        const int size = type == AttributeData ? 16 : 40;
        record->InsertAttribute(test::ResidentAttribute(type, nullptr, size, type & 0xFF).get());
    }
    *last = static_cast<int>(record->Attributes.At<CAttribute>(2)->Header - record->Image);
    return test::ImageOf(*record);
}

TEST(DamagedRecord, EachKindOfDamageGivesItsResult) {
    int last = 0;
    const Bytes plain = SampleRecord(&last);
    const size_t at = static_cast<size_t>(last);
    const uint32_t marker = ReadU32(plain.data(), kFileBytesInUseOffset) - 8;
    using Change = std::function<void(uint8_t*)>;
    auto u32 = [](size_t offset, uint32_t value) -> Change { return [=](uint8_t* r) { WriteU32(r, offset, value); }; };
    auto u16 = [](size_t offset, uint16_t value) -> Change { return [=](uint8_t* r) { WriteU16(r, offset, value); }; };
    auto both = [](Change a, Change b) -> Change { return [=](uint8_t* r) { a(r), b(r); }; };
    const Change overrun = u32(at + kAttributeLengthOffset, kFileRecordSize - last);
    struct Damage {
        const char* what;
        Change change;
        bool onDisk;  // applied to the protected bytes
        bool valid;
        const char* log;
    };
    const std::vector<Damage> damages = {
        {"none", [](uint8_t*) {}, false, true, ""},
        {"bytes in use beyond need", u32(kFileBytesInUseOffset, 1000), false, true, ""},
        {"last attribute ends at bytes in use", u32(kFileBytesInUseOffset, marker), false, true, ""},
        {"bad magic", u32(kFileMagicOffset, 0x44414142), false, false, ""},
        {"sequence count 2", u16(kFileUpdateSequenceCountOffset, 2), true, false, ""},
        {"sequence array past the record", u16(kFileUpdateSequenceOffsetOffset, 1024), true, false, ""},
        {"torn second sector", u16(1022, ReadU16(plain.data(), 48) + 1), true, false, ""},
        {"torn first sector", u16(510, 0x0BAD), true, false, ""},
        {"zero-length attribute", u32(at + kAttributeLengthOffset, 0), false, false, ""},
        {"attribute past bytes in use", u32(kFileBytesInUseOffset, last + 8), false, false, ""},
        {"type 0x18", u32(at, 0x18), false, false, ""},
        {"type 0x400", u32(at, 0x400), false, false, ""},
        {"type 0x80000080", u32(at, 0x80000080u), false, false, ""},
        {"non-resident flag on a short attribute", [&](uint8_t* r) { WriteU8(r, at + kAttributeNonResidentOffset, 1); },
         false, false, ""},
        {"attributes up to the record end", both(overrun, u32(kFileBytesInUseOffset, 1024)), false, false,
         kOverrunMessage},
        {"the same with huge sizes",
         both(overrun, both(u32(kFileBytesInUseOffset, 0xFFFFFFF0u), u32(kFileAllocatedSizeOffset, 0xFFFFFFF0u))),
         false, false, kOverrunMessage},
        {"first attribute past the record", u16(kFileFirstAttributeOffset, 0x3FF), false, false, kOverrunMessage},
    };
    for (const Damage& damage : damages) {
        Bytes bytes = plain;
        if (!damage.onDisk) damage.change(bytes.data());
        ProtectUpdateSequence(bytes.data(), kFileRecordSize);
        if (damage.onDisk) damage.change(bytes.data());
        EXPECT_EQ(std::make_pair(damage.valid, std::string(damage.log)), Parse(bytes)) << damage.what;
    }
}

TEST(DamagedRecord, RandomDamageNeverLeavesTheBuffers) {
    // The made-up record, and real ones with names, run lists and
    // non-resident headers.
    int last = 0;
    std::vector<Bytes> originals = {SampleRecord(&last)};
    const test::FixtureMft mft(test::FixtureNames().front());
    for (int64_t number = 0; number < 64 && number < mft.FirstExtentRecords; ++number) {
        auto record = test::RecordFromBytes(mft.RawRecord(number), number);
        if (record->IsValid() && record->Attributes.GetCount() > 0) originals.push_back(test::ImageOf(*record));
    }
    ASSERT_GT(originals.size(), 10u);
    std::mt19937 random(1234);
    int valid = 0;
    testing::internal::CaptureStdout();
    for (int trial = 0; trial < 4000; ++trial) {
        // Half the trials on the made-up record; mostly the bytes in use.
        Bytes bytes = originals[trial % 2 == 0 ? 0 : random() % originals.size()];
        const uint32_t used = ReadU32(bytes.data(), kFileBytesInUseOffset);
        for (int i = 0, flips = 1 + static_cast<int>(random() % 5); i < flips; ++i)
            bytes[random() % (random() % 4 == 0 ? kFileRecordSize : used)] = random() & 0xFF;
        ProtectUpdateSequence(bytes.data(), kFileRecordSize);
        auto record = test::RecordFromBytes(bytes);
        if (!record->IsValid()) continue;
        ++valid;
        // Every read and change an attribute offers must stay inside the
        // buffers (the sanitizer build checks that).
        std::vector<CAttribute*> attributes;
        for (int i = 0; i < record->Attributes.GetCount(); ++i)
            attributes.push_back(record->Attributes.At<CAttribute>(i));
        CAttribute* result = nullptr;
        for (CAttribute* attribute : attributes) {
            static_cast<void>(attribute->GetDataSize() + attribute->GetHighestVcn() + attribute->BodyFits() +
                              test::Decode(*attribute).size());
            std::unique_ptr<CAttribute> clone(attribute->Clone());
            if (clone != nullptr && !clone->IsResident()) {
                static_cast<void>(clone->AppendRun(12345, 3, &result));
                std::unique_ptr<CAttribute> piece(clone->SplitAttribute(1, 1));
            }
            static_cast<void>(record->FindAttribute(attribute->GetType(), u"$I30", 4, 0));
        }
        if (!attributes.empty()) static_cast<void>(attributes[0]->SetSize(attributes[0]->Size + 16, &result));
        record->InsertAttribute(test::ResidentAttribute(AttributeData, u"x", 16, 1).get());
        if (record->Attributes.GetCount() > 0) record->RemoveAttribute(record->Attributes.At<CAttribute>(0));
        static_cast<void>(record->Revert());
    }
    testing::internal::GetCapturedStdout();
    EXPECT_GT(valid, 800);
}

}  // namespace
}  // namespace ntfs
