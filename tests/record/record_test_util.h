// Helpers of the record tests: fresh records, attribute builders, run list
// decoding, and the $MFT of a fixture image read through the run list of its
// own record 0.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "foundation/endian.h"
#include "record/attribute.h"
#include "record/file_record.h"
#include "record/layout.h"
#include "support/fixture.h"

namespace ntfs::test {

using Bytes = std::vector<uint8_t>;
using Runs = std::vector<std::pair<int64_t, int64_t>>;  // (LCN, clusters)

// A record adopting a std::malloc copy of `bytes`.
inline std::unique_ptr<CFileRecord> RecordFromBytes(const Bytes& bytes, int64_t number = 0) {
    void* buffer = std::malloc(bytes.size());
    std::memcpy(buffer, bytes.data(), bytes.size());
    return std::make_unique<CFileRecord>(number, static_cast<_FILE_RECORD_HEADER*>(buffer), nullptr, nullptr);
}

// The protected disk bytes of a free record made ready by InitializeFileRecord.
inline Bytes FreshRecordBytes(int64_t number) {
    Bytes bytes(kFileRecordSize, 0);
    if (!CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(bytes.data()), kFileRecordSize,
                                           kSectorSize, &number)) {
        throw std::runtime_error("InitializeFileRecord refused a free record");
    }
    return bytes;
}

inline Bytes ImageOf(const CFileRecord& record) {
    return Bytes(record.Image, record.Image + kFileRecordSize);
}

// A resident attribute of `type` with `name` (may be null) and `valueSize`
// bytes of value, each `fill`.
inline std::unique_ptr<CAttribute> ResidentAttribute(uint32_t type, const char16_t* name, int valueSize, uint8_t fill) {
    const int nameBytes = name != nullptr ? 2 * static_cast<int>(std::char_traits<char16_t>::length(name)) : 0;
    auto attribute = std::make_unique<CAttribute>(kResidentHeaderSize + nameBytes + 8 + valueSize, 1, name);
    WriteU32(attribute->Header, kAttributeTypeOffset, type);
    const Bytes value(static_cast<size_t>(valueSize), fill);
    if (!attribute->SetValue(value.data(), valueSize)) throw std::runtime_error("no fit");
    return attribute;
}

// A non-resident $DATA attribute whose run area holds `runs` (end included).
inline std::unique_ptr<CAttribute> WithRuns(const Bytes& runs, int64_t lowest = 0, int64_t highest = 0) {
    auto attribute = std::make_unique<CAttribute>(kNonResidentHeaderSize + static_cast<int>(runs.size()), 0, nullptr);
    WriteU32(attribute->Header, kAttributeTypeOffset, AttributeData);
    attribute->SetValue(runs.data(), static_cast<int>(runs.size()));
    WriteU64(attribute->Header, kNonResidentLowestVcnOffset, static_cast<uint64_t>(lowest));
    WriteU64(attribute->Header, kNonResidentHighestVcnOffset, static_cast<uint64_t>(highest));
    return attribute;
}

inline Runs Decode(const CAttribute& attribute) {
    int count = -1;
    int64_t* pairs = attribute.GetRunList(&count);
    Runs result;
    for (int i = 0; i < count; ++i) result.push_back({pairs[2 * i], pairs[2 * i + 1]});
    std::free(pairs);
    return result;
}

// The run list bytes from the run list offset to the end byte included.
inline Bytes RunBytes(const CAttribute& attribute) {
    const int start = ReadU16(attribute.Header, kNonResidentRunListOffsetOffset);
    int end = start;
    while (end < attribute.Size && attribute.Header[end] != 0)
        end += 1 + (attribute.Header[end] & 0x0F) + (attribute.Header[end] >> 4);
    return Bytes(attribute.Header + start, attribute.Header + end + 1);
}

// The $MFT of a fixture image, gathered from the runs of record 0's $DATA.
struct FixtureMft {
    explicit FixtureMft(const std::string& name) {
        const Bytes image = LoadImage(name);
        const int64_t perCluster = ReadU8(image.data(), kBootSectorsPerClusterOffset);
        const int64_t cluster = ReadU16(image.data(), kBootBytesPerSectorOffset) * perCluster;
        TotalClusters = ReadI64(image.data(), kBootTotalSectorsOffset) / perCluster;
        const auto mft = image.begin() + ReadI64(image.data(), kBootMftLcnOffset) * cluster;
        auto zero = RecordFromBytes(Bytes(mft, mft + kFileRecordSize));
        CAttribute* data = zero->FindAttribute(AttributeData, nullptr, 0, 0);
        if (!zero->IsValid() || data == nullptr) throw std::runtime_error("bad $MFT in " + name);
        for (const auto& [lcn, clusters] : Decode(*data)) {
            if ((lcn + clusters) * cluster > static_cast<int64_t>(image.size()))
                throw std::runtime_error("$MFT run past the image of " + name);
            Mft.insert(Mft.end(), image.begin() + lcn * cluster, image.begin() + (lcn + clusters) * cluster);
            if (FirstExtentRecords == 0) FirstExtentRecords = Mft.size() / kFileRecordSize;
        }
    }
    int64_t MappedRecords() const { return static_cast<int64_t>(Mft.size()) / kFileRecordSize; }
    // The raw (protected) bytes of record `number`.
    Bytes RawRecord(int64_t number) const {
        const auto at = Mft.begin() + number * kFileRecordSize;
        return Bytes(at, at + kFileRecordSize);
    }

    Bytes Mft;
    int64_t TotalClusters = 0;
    int64_t FirstExtentRecords = 0;
};

}  // namespace ntfs::test
