// On-disk layout of FILE records and attributes: byte offsets, constants and
// the attribute type codes. Everything that reads or writes these structures
// does so through the helpers of foundation/endian.h at the offsets named
// here; nothing is laid over a record image as a struct.
//
// This header holds no objects and no state.
#pragma once

#include <cstdint>

namespace ntfs {

// Attribute type codes the library knows by name.
enum _ATTRIBUTE_TYPE : uint32_t {
    AttributeStandardInformation = 16,
    AttributeAttributeList = 32,
    AttributeFileName = 48,
    AttributeVolumeInformation = 112,
    AttributeData = 128,
    AttributeIndexRoot = 144,
    AttributeIndexAllocation = 160,
    AttributeBitmap = 176,
};

// FILE record header (`_FILE_RECORD_HEADER`).
constexpr uint32_t kFileRecordMagic = 0x454C4946;  // "FILE"
constexpr int kFileMagicOffset = 0;
constexpr int kFileUpdateSequenceOffsetOffset = 4;
constexpr int kFileUpdateSequenceCountOffset = 6;
constexpr int kFileLogSequenceNumberOffset = 8;
constexpr int kFileSequenceNumberOffset = 16;
constexpr int kFileLinkCountOffset = 18;
constexpr int kFileFirstAttributeOffset = 20;
constexpr int kFileFlagsOffset = 22;
constexpr int kFileBytesInUseOffset = 24;
constexpr int kFileAllocatedSizeOffset = 28;
constexpr int kFileBaseReferenceOffset = 32;
constexpr int kFileNextAttributeIdOffset = 40;
constexpr int kFileRecordNumberHighOffset = 42;
constexpr int kFileRecordNumberLowOffset = 44;
// Where records made by this library keep the update sequence array.
constexpr int kFileUpdateSequenceArrayOffset = 48;

constexpr uint16_t kFileRecordInUse = 0x0001;
constexpr uint16_t kFileRecordIsDirectory = 0x0002;

// The 32-bit value that ends the attribute list of a record.
constexpr uint32_t kAttributeEndMarker = 0xFFFFFFFF;
// The update sequence protects the last word of every 512-byte stretch,
// whatever the device's sector size.
constexpr int kUpdateSequenceStride = 512;
// Record numbers are the low 48 bits of a file reference.
constexpr uint64_t kFileReferenceNumberMask = 0x0000FFFFFFFFFFFFull;

// Attribute header, common part.
constexpr int kAttributeTypeOffset = 0;
constexpr int kAttributeLengthOffset = 4;
constexpr int kAttributeNonResidentOffset = 8;
constexpr int kAttributeNameLengthOffset = 9;
constexpr int kAttributeNameOffsetOffset = 10;
constexpr int kAttributeFlagsOffset = 12;
constexpr int kAttributeInstanceOffset = 14;

// Resident form.
constexpr int kResidentValueLengthOffset = 16;
constexpr int kResidentValueOffsetOffset = 20;
constexpr int kResidentIndexedFlagOffset = 22;
constexpr int kResidentPaddingOffset = 23;
constexpr int kResidentHeaderSize = 24;

// Non-resident form.
constexpr int kNonResidentLowestVcnOffset = 16;
constexpr int kNonResidentHighestVcnOffset = 24;
constexpr int kNonResidentRunListOffsetOffset = 32;
constexpr int kNonResidentCompressionUnitOffset = 34;
constexpr int kNonResidentAllocatedSizeOffset = 40;
constexpr int kNonResidentDataSizeOffset = 48;
constexpr int kNonResidentInitializedSizeOffset = 56;
// Only in the first extent of a compressed attribute; the name follows at 72.
constexpr int kNonResidentCompressedSizeOffset = 64;
constexpr int kNonResidentHeaderSize = 64;

// Attribute flags (common header, kAttributeFlagsOffset): the low byte is the
// compression format (nonzero: stored compressed), the top bit marks sparse
// data. Data with any of these is stored in compression units.
constexpr uint16_t kAttributeCompressionMask = 0x00FF;
constexpr uint16_t kAttributeSparse = 0x8000;
constexpr uint16_t kAttributeUnitFlagsMask = kAttributeCompressionMask | kAttributeSparse;
// The first extent of a compressed or sparse attribute carries the
// compressed size: its header is 72 bytes, the name follows there.
constexpr int kCompressedNonResidentHeaderSize = 72;
// The unit that new compressed or sparse data starts with: 2^4 = 16 clusters.
constexpr int kDefaultCompressionUnitExponent = 4;
constexpr int kDefaultCompressionUnitClusters = 1 << kDefaultCompressionUnitExponent;

// Attribute type codes are multiples of 16 below 0x400: any bit of this mask
// set marks a damaged type.
constexpr uint32_t kAttributeTypeCheckMask = 0xFFFFFC0F;

// $STANDARD_INFORMATION value: the four times.
constexpr int kStandardCreationTimeOffset = 0x00;
constexpr int kStandardWriteTimeOffset = 0x08;
constexpr int kStandardChangeTimeOffset = 0x10;
constexpr int kStandardAccessTimeOffset = 0x18;

// $FILE_NAME value (also the key of a directory index entry).
constexpr int kFileNameParentOffset = 0x00;
constexpr int kFileNameCreationTimeOffset = 0x08;
constexpr int kFileNameWriteTimeOffset = 0x10;
constexpr int kFileNameChangeTimeOffset = 0x18;
constexpr int kFileNameAccessTimeOffset = 0x20;
constexpr int kFileNameAllocatedSizeOffset = 0x28;
constexpr int kFileNameRealSizeOffset = 0x30;
constexpr int kFileNameFlagsOffset = 0x38;
constexpr int kFileNameLengthOffset = 0x40;
constexpr int kFileNameNamespaceOffset = 0x41;
constexpr int kFileNameUnitsOffset = 0x42;
// Bit of the $FILE_NAME flags that marks a directory.
constexpr uint32_t kFileNameIsDirectory = 0x10000000;
// Name spaces: bit 0 Win32, bit 1 DOS; 0 is POSIX.
constexpr uint8_t kNamespaceDos = 0x02;

// The volume's own files, by record number. Records below the first user
// record are never listed.
constexpr int64_t kMftRecord = 0;
constexpr int64_t kMftMirrorRecord = 1;
constexpr int64_t kVolumeRecord = 3;
constexpr int64_t kRootDirectoryRecord = 5;
constexpr int64_t kBitmapRecord = 6;
constexpr int64_t kFirstUserRecord = 12;

// Names are counted by a byte.
constexpr int kMaxAttributeNameLength = 255;

}  // namespace ntfs
