// The update sequence of FILE records, and the making of a free record.
//
// On disk the last word of every 512-byte stretch of a record holds the
// update sequence number (word 0 of the array), and the true words wait in
// the array. A torn write leaves a stretch whose last word differs, which the
// read check detects. The number changes only when a record is initialised,
// not at each write, so two writes of the same record by this library cannot
// be told apart after a tear; that is how the library has always behaved.
#include <cstring>

#include "foundation/endian.h"
#include "record/file_record.h"
#include "record/layout.h"

namespace ntfs {

namespace {

// Reads offset and count of the array and checks them against the record
// size: count = size / 512 + 1, and the array inside the record.
bool LocateUpdateSequence(const uint8_t* image, int recordSize, int* offset, int* count) {
    if (image == nullptr || recordSize < kFileUpdateSequenceArrayOffset) return false;
    *offset = ReadU16(image, kFileUpdateSequenceOffsetOffset);
    *count = ReadU16(image, kFileUpdateSequenceCountOffset);
    return *count == recordSize / kUpdateSequenceStride + 1 && *offset < recordSize &&
           *offset + 2 * *count <= recordSize;
}

size_t StretchEnd(int stretch) {
    return static_cast<size_t>(stretch) * kUpdateSequenceStride - 2;
}

}  // namespace

int ApplyUpdateSequence(uint8_t* image, int recordSize) {
    int offset = 0;
    int count = 0;
    if (!LocateUpdateSequence(image, recordSize, &offset, &count)) return 0;
    const uint16_t number = ReadU16(image, static_cast<size_t>(offset));
    for (int i = 1; i < count; ++i) {
        if (ReadU16(image, StretchEnd(i)) != number) return 0;
        WriteU16(image, StretchEnd(i), ReadU16(image, static_cast<size_t>(offset + 2 * i)));
    }
    return 1;
}

void ProtectUpdateSequence(uint8_t* image, int recordSize) {
    int offset = 0;
    int count = 0;
    if (!LocateUpdateSequence(image, recordSize, &offset, &count)) return;
    const uint16_t number = ReadU16(image, static_cast<size_t>(offset));
    for (int i = 1; i < count; ++i) {
        WriteU16(image, static_cast<size_t>(offset + 2 * i), ReadU16(image, StretchEnd(i)));
        WriteU16(image, StretchEnd(i), number);
    }
}

int CFileRecord::InitializeFileRecord(_FILE_RECORD_HEADER* header, int recordSize, int sectorSize,
                                      const void* reference) {
    auto* image = reinterpret_cast<uint8_t*>(header);
    if (image == nullptr || reference == nullptr || sectorSize <= 0 || recordSize < kFileUpdateSequenceArrayOffset) {
        return 0;
    }
    if ((ReadU16(image, kFileFlagsOffset) & kFileRecordInUse) != 0) return 0;
    const int count = recordSize / sectorSize + 1;
    const int firstAttribute = (count * 2 + 57) & 0xFFF8;
    if (kFileUpdateSequenceArrayOffset + 2 * count > recordSize || firstAttribute + 8 > recordSize) {
        return 0;
    }

    WriteU32(image, kFileMagicOffset, kFileRecordMagic);
    WriteU16(image, kFileUpdateSequenceOffsetOffset, kFileUpdateSequenceArrayOffset);
    WriteU16(image, kFileUpdateSequenceCountOffset, static_cast<uint16_t>(count));
    WriteU64(image, kFileLogSequenceNumberOffset, 0);
    // Sequence numbers skip 0, which references use for "any".
    uint16_t sequence = static_cast<uint16_t>(ReadU16(image, kFileSequenceNumberOffset) + 1);
    if (sequence == 0) sequence = 1;
    WriteU16(image, kFileSequenceNumberOffset, sequence);
    WriteU16(image, kFileLinkCountOffset, 0);
    WriteU16(image, kFileFlagsOffset, 0);
    WriteU32(image, kFileAllocatedSizeOffset, static_cast<uint32_t>(recordSize));
    WriteU16(image, kFileFirstAttributeOffset, static_cast<uint16_t>(firstAttribute));
    WriteU32(image, kFileBytesInUseOffset, static_cast<uint32_t>(firstAttribute + 8));
    // The base reference's record number, then 32 bits from offset 38: the
    // reference's top two bytes and the next attribute identifier.
    WriteU48(image, kFileBaseReferenceOffset, 0);
    WriteU32(image, kFileBaseReferenceOffset + 6, 0);

    int64_t number = 0;
    std::memcpy(&number, reference, sizeof(number));
    const uint64_t bits = static_cast<uint64_t>(number);
    WriteU16(image, kFileRecordNumberHighOffset, static_cast<uint16_t>(bits >> 32));
    WriteU32(image, kFileRecordNumberLowOffset, static_cast<uint32_t>(bits));

    uint16_t updateNumber = static_cast<uint16_t>(ReadU16(image, kFileUpdateSequenceArrayOffset) + 1);
    if (updateNumber == 0) updateNumber = 1;
    WriteU16(image, kFileUpdateSequenceArrayOffset, updateNumber);
    WriteU32(image, static_cast<size_t>(firstAttribute), kAttributeEndMarker);
    ProtectUpdateSequence(image, recordSize);
    return 1;
}

}  // namespace ntfs
