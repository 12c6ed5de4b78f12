// Helpers of the record tests: FILE records read straight out of the fixture
// images (boot sector, then $MFT through the run list of its own record 0),
// fresh empty records, and small builders for attributes.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "foundation/endian.h"
#include "record/attribute.h"
#include "record/file_record.h"
#include "record/layout.h"
#include "support/fixture.h"

namespace ntfs::test {

// A std::malloc copy of `bytes`, for a CFileRecord to adopt.
inline _FILE_RECORD_HEADER* AdoptableCopy(const std::vector<uint8_t>& bytes) {
    void* buffer = std::malloc(bytes.size());
    std::memcpy(buffer, bytes.data(), bytes.size());
    return static_cast<_FILE_RECORD_HEADER*>(buffer);
}

// The bytes of a free record made ready by InitializeFileRecord, protected,
// as they would be written to disk.
inline std::vector<uint8_t> FreshRecordBytes(int64_t number, uint16_t sequence = 1) {
    std::vector<uint8_t> bytes(kFileRecordSize, 0);
    WriteU16(bytes.data(), kFileSequenceNumberOffset, sequence);
    if (!CFileRecord::InitializeFileRecord(reinterpret_cast<_FILE_RECORD_HEADER*>(bytes.data()),
                                           kFileRecordSize, kSectorSize, &number)) {
        throw std::runtime_error("InitializeFileRecord refused a free record");
    }
    return bytes;
}

inline std::unique_ptr<CFileRecord> RecordFromBytes(const std::vector<uint8_t>& bytes,
                                                    int64_t number = 0) {
    return std::make_unique<CFileRecord>(number, AdoptableCopy(bytes), nullptr, nullptr);
}

// A resident attribute of `type` with `name` (may be null) and `valueSize`
// bytes of value, each byte `fill`.
inline std::unique_ptr<CAttribute> ResidentAttribute(uint32_t type, const char16_t* name,
                                                     int valueSize, uint8_t fill) {
    const int nameBytes =
        name != nullptr ? 2 * static_cast<int>(std::char_traits<char16_t>::length(name)) : 0;
    auto attribute =
        std::make_unique<CAttribute>(kResidentHeaderSize + nameBytes + 8 + valueSize, 1, name);
    WriteU32(attribute->Header, kAttributeTypeOffset, type);
    std::vector<uint8_t> value(static_cast<size_t>(valueSize), fill);
    if (!attribute->SetValue(value.data(), valueSize))
        throw std::runtime_error("value does not fit");
    return attribute;
}

// The run list of an attribute as raw bytes, from its run list offset to the
// end byte included.
inline std::vector<uint8_t> RunBytes(const CAttribute& attribute) {
    const int start = ReadU16(attribute.Header, kNonResidentRunListOffsetOffset);
    int end = start;
    while (end < attribute.Size && attribute.Header[end] != 0) {
        end += 1 + (attribute.Header[end] & 0x0F) + (attribute.Header[end] >> 4);
    }
    return std::vector<uint8_t>(attribute.Header + start, attribute.Header + end + 1);
}

// A fixture image opened for reading records of its $MFT.
class FixtureMft {
public:
    explicit FixtureMft(const std::string& name) : File(FixturePath(name), std::ios::binary) {
        if (!File) throw std::runtime_error("cannot open fixture " + name);
        uint8_t boot[kSectorSize];
        Read(0, boot, sizeof(boot));
        ClusterSize =
            ReadU16(boot, kBootBytesPerSectorOffset) * ReadU8(boot, kBootSectorsPerClusterOffset);
        TotalClusters =
            ReadI64(boot, kBootTotalSectorsOffset) / ReadU8(boot, kBootSectorsPerClusterOffset);
        MftOffset = ReadI64(boot, kBootMftLcnOffset) * ClusterSize;
        std::vector<uint8_t> zero(kFileRecordSize);
        Read(MftOffset, zero.data(), zero.size());
        CFileRecord mft(0, AdoptableCopy(zero), nullptr, nullptr);
        if (!mft.IsValid()) throw std::runtime_error("record 0 of " + name + " is not valid");
        CAttribute* data = mft.FindAttribute(AttributeData, nullptr, 0, 0);
        int count = 0;
        int64_t* pairs = data->GetRunList(&count);
        for (int i = 0; i < count; ++i) Runs.push_back({pairs[2 * i], pairs[2 * i + 1]});
        std::free(pairs);
        FirstExtentRecords = Runs.empty() ? 0 : Runs[0].second * ClusterSize / kFileRecordSize;
        MappedRecords = 0;
        for (const auto& run : Runs) MappedRecords += run.second * ClusterSize / kFileRecordSize;
    }

    // The raw (protected) bytes of record `number`; empty when the run list of
    // record 0 does not reach it.
    std::vector<uint8_t> RawRecord(int64_t number) {
        std::vector<uint8_t> bytes(kFileRecordSize);
        int64_t vcnByte = number * kFileRecordSize;
        int done = 0;
        while (done < kFileRecordSize) {
            int64_t runStart = 0;
            bool mapped = false;
            for (const auto& run : Runs) {
                const int64_t runBytes = run.second * ClusterSize;
                if (vcnByte < runStart + runBytes) {
                    const int64_t inRun = vcnByte - runStart;
                    int64_t chunk = runBytes - inRun;
                    if (chunk > kFileRecordSize - done) chunk = kFileRecordSize - done;
                    Read(run.first * ClusterSize + inRun, bytes.data() + done,
                         static_cast<size_t>(chunk));
                    done += static_cast<int>(chunk);
                    vcnByte += chunk;
                    mapped = true;
                    break;
                }
                runStart += runBytes;
            }
            if (!mapped) return {};
        }
        return bytes;
    }

    int64_t ClusterSize = 0;
    int64_t TotalClusters = 0;
    int64_t MftOffset = 0;
    int64_t FirstExtentRecords = 0;
    int64_t MappedRecords = 0;
    std::vector<std::pair<int64_t, int64_t>> Runs;  // (LCN, clusters)

private:
    void Read(int64_t offset, void* target, size_t size) {
        File.seekg(offset);
        File.read(static_cast<char*>(target), static_cast<std::streamsize>(size));
        if (!File) throw std::runtime_error("short read in fixture");
    }

    std::ifstream File;
};

}  // namespace ntfs::test
