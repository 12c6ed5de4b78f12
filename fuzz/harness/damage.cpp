#include "damage.h"

#include <algorithm>
#include <cstring>

#include "foundation/endian.h"
#include "record/layout.h"

namespace ntfs::fuzz {

namespace {

constexpr int kStride = 512;
constexpr uint32_t kIndexRecordMagic = 0x58444E49;  // "INDX"
constexpr int kFileRecordBytes = 1024;
constexpr int kIndexRecordBytes = 4096;
// An INDX record: its node header starts here; entry offsets count from it.
constexpr int kIndexNodeHeaderOffset = 24;

struct Field {
    int Offset;
    int Width;  // 1, 2, 4 or 8
};

// Values at the edges of what the readers check: zero, one, signs, the
// record and cluster sizes and the ends of each width.
constexpr uint64_t kBoundaryValues[] = {
    0,
    1,
    2,
    7,
    8,
    0x18,
    0x30,
    0x3F,
    0x40,
    0x41,
    0x48,
    0x7F,
    0x80,
    0xFF,
    0x100,
    0x1FE,
    0x200,
    0x3F8,
    0x400,
    0x401,
    0xFFF,
    0x1000,
    0x7FFF,
    0x8000,
    0xFFFF,
    0x10000,
    0x7FFFFFFF,
    0x80000000,
    0xFFFFFFFF,
    0x100000000,
    0x7FFFFFFFFFFFFFFF,
    0x8000000000000000,
    0xFFFFFFFFFFFFFFFF,
};

constexpr Field kBootFields[] = {
    {3, 8},  {11, 2}, {13, 1}, {14, 2}, {21, 1}, {24, 2}, {26, 2},  {28, 4},
    {40, 8}, {48, 8}, {56, 8}, {64, 1}, {68, 1}, {72, 8}, {510, 2},
};

constexpr Field kFileHeaderFields[] = {
    {kFileUpdateSequenceOffsetOffset, 2}, {kFileUpdateSequenceCountOffset, 2},
    {kFileSequenceNumberOffset, 2},       {kFileLinkCountOffset, 2},
    {kFileFirstAttributeOffset, 2},       {kFileFlagsOffset, 2},
    {kFileBytesInUseOffset, 4},           {kFileAllocatedSizeOffset, 4},
    {kFileBaseReferenceOffset, 8},        {kFileNextAttributeIdOffset, 2},
    {kFileRecordNumberHighOffset, 2},     {kFileRecordNumberLowOffset, 4},
};

constexpr Field kAttributeCommonFields[] = {
    {kAttributeTypeOffset, 4},       {kAttributeLengthOffset, 4},     {kAttributeNonResidentOffset, 1},
    {kAttributeNameLengthOffset, 1}, {kAttributeNameOffsetOffset, 2}, {kAttributeFlagsOffset, 2},
    {kAttributeInstanceOffset, 2},
};
constexpr Field kResidentFields[] = {
    {kResidentValueLengthOffset, 4},
    {kResidentValueOffsetOffset, 2},
    {kResidentIndexedFlagOffset, 1},
};
constexpr Field kNonResidentFields[] = {
    {kNonResidentLowestVcnOffset, 8},       {kNonResidentHighestVcnOffset, 8},     {kNonResidentRunListOffsetOffset, 2},
    {kNonResidentCompressionUnitOffset, 2}, {kNonResidentAllocatedSizeOffset, 8},  {kNonResidentDataSizeOffset, 8},
    {kNonResidentInitializedSizeOffset, 8}, {kNonResidentCompressedSizeOffset, 8},
};

constexpr Field kIndexHeaderFields[] = {
    {4, 2}, {6, 2}, {8, 8}, {16, 8}, {24, 4}, {28, 4}, {32, 4}, {36, 1},
};
// Index entry: file reference, entry length, key length, flags, then the
// $FILE_NAME key.
constexpr Field kIndexEntryFields[] = {
    {0, 8},
    {8, 2},
    {10, 2},
    {12, 2},
    {16 + kFileNameParentOffset, 8},
    {16 + kFileNameAllocatedSizeOffset, 8},
    {16 + kFileNameRealSizeOffset, 8},
    {16 + kFileNameFlagsOffset, 4},
    {16 + kFileNameLengthOffset, 1},
    {16 + kFileNameNamespaceOffset, 1},
};

template <size_t N>
Field Pick(const Field (&fields)[N], uint8_t selector) {
    return fields[selector % N];
}

// Offsets (in the image) of the entries of an INDX record, walked by their
// lengths inside the node.
std::vector<int> EntryOffsets(const std::vector<uint8_t>& record) {
    std::vector<int> offsets;
    const int size = static_cast<int>(record.size());
    int at = kIndexNodeHeaderOffset + static_cast<int>(ReadU32(record.data(), kIndexNodeHeaderOffset));
    while (at >= 0 && at + 16 <= size && offsets.size() < 256) {
        offsets.push_back(at);
        const int length = ReadU16(record.data(), at + 8);
        if ((ReadU16(record.data(), at + 12) & 2) != 0 || length < 16) break;  // last entry
        at += length;
    }
    return offsets;
}

// Chooses the field of a FILE record to change.
Field ChooseFileRecordField(ByteReader* reader, const std::vector<uint8_t>& record) {
    const uint8_t what = reader->U8();
    const uint8_t selector = reader->U8();
    const std::vector<int> attributes = AttributeOffsets(record);
    if (what % 4 == 0 || attributes.empty()) return Pick(kFileHeaderFields, selector);
    const int at = attributes[reader->U8() % attributes.size()];
    const bool resident = record[at + kAttributeNonResidentOffset] == 0;
    switch (what % 4) {
        case 1: {
            const Field common = Pick(kAttributeCommonFields, selector);
            if (selector / 8 % 2 == 0) return {at + common.Offset, common.Width};
            const Field body = resident ? Pick(kResidentFields, selector) : Pick(kNonResidentFields, selector);
            return {at + body.Offset, body.Width};
        }
        case 2: {
            // A byte of the body: the run list of a non-resident attribute, the
            // value of a resident one ($ATTRIBUTE_LIST entries, names, roots).
            const int bodyOffset = resident ? ReadU16(record.data(), at + kResidentValueOffsetOffset)
                                            : ReadU16(record.data(), at + kNonResidentRunListOffsetOffset);
            return {at + bodyOffset + reader->U8(), 1};
        }
        default:
            return {reader->U16(), 1 << (selector % 4)};
    }
}

Field ChooseIndexRecordField(ByteReader* reader, const std::vector<uint8_t>& record) {
    const uint8_t what = reader->U8();
    const uint8_t selector = reader->U8();
    const std::vector<int> entries = EntryOffsets(record);
    if (what % 4 == 0 || entries.empty()) return Pick(kIndexHeaderFields, selector);
    const int at = entries[reader->U8() % entries.size()];
    switch (what % 4) {
        case 1: {
            const Field field = Pick(kIndexEntryFields, selector);
            return {at + field.Offset, field.Width};
        }
        case 2: {
            // The child VCN in the last 8 bytes of a node entry, or a name byte.
            if (selector % 2 == 0) return {at + ReadU16(record.data(), at + 8) - 8, 8};
            return {at + 16 + kFileNameUnitsOffset + reader->U8(), 1};
        }
        default:
            return {reader->U16(), 1 << (selector % 4)};
    }
}

// Changes `field` of `bytes` as the next operation of the program says.
void ChangeField(ByteReader* reader, Field field, std::vector<uint8_t>* bytes) {
    const int size = static_cast<int>(bytes->size());
    if (field.Offset < 0 || field.Offset >= size) field.Offset = (field.Offset % size + size) % size;
    field.Width = std::min(field.Width, size - field.Offset);
    uint8_t* at = bytes->data() + field.Offset;
    const uint64_t old = ReadLittleEndian(at, 0, field.Width);
    uint64_t value = old;
    switch (reader->U8() % 6) {
        case 0:
            value = reader->Bytes(field.Width);
            break;
        case 1:
            value = old + static_cast<uint64_t>(static_cast<int64_t>(static_cast<int8_t>(reader->U8())));
            break;
        case 2:
            value = kBoundaryValues[reader->U8() % (sizeof(kBoundaryValues) / sizeof(kBoundaryValues[0]))];
            break;
        case 3:
            value = old ^ (uint64_t{1} << (reader->U8() % (8 * field.Width)));
            break;
        case 4:
            value = 0;
            break;
        default:
            value = ~uint64_t{0};
            break;
    }
    WriteLittleEndian(at, 0, value, field.Width);
}

const std::vector<Structure>& ChooseKind(uint8_t selector, const ImageMap& map) {
    // FILE records are hit most: they hold the most structure.
    switch (selector % 8) {
        case 0:
            return map.BootSectors;
        case 1:
        case 2:
        case 3:
        case 4:
            return map.FileRecords.empty() ? map.BootSectors : map.FileRecords;
        default:
            return map.IndexRecords.empty() ? map.BootSectors : map.IndexRecords;
    }
}

void ApplyEdit(ByteReader* reader, const ImageMap& map, OverlayStorage* storage) {
    const std::vector<Structure>& pool = ChooseKind(reader->U8(), map);
    if (pool.empty()) return;
    const Structure& target = pool[reader->U16() % pool.size()];
    std::vector<uint8_t> bytes(static_cast<size_t>(target.Size));
    storage->ReadBytes(target.Offset, bytes.data(), bytes.size());
    const bool consistent = target.Kind != StructureKind::BootSector && (reader->U8() & 1) != 0 && RemoveFixups(&bytes);
    Field field{0, 1};
    switch (target.Kind) {
        case StructureKind::BootSector: {
            const uint8_t selector = reader->U8();
            field = selector < 224 ? Pick(kBootFields, selector) : Field{reader->U16(), 1};
            break;
        }
        case StructureKind::FileRecord:
            field = ChooseFileRecordField(reader, bytes);
            break;
        case StructureKind::IndexRecord:
            field = ChooseIndexRecordField(reader, bytes);
            break;
    }
    ChangeField(reader, field, &bytes);
    if (consistent) ApplyFixups(&bytes);
    storage->WriteBytes(target.Offset, bytes.data(), bytes.size());
}

// The update sequence array's offset and count, when they fit the image.
bool FixupGeometry(const std::vector<uint8_t>& record, int* offset, int* count) {
    *offset = ReadU16(record.data(), kFileUpdateSequenceOffsetOffset);
    *count = ReadU16(record.data(), kFileUpdateSequenceCountOffset);
    const int size = static_cast<int>(record.size());
    return *count >= 1 && *count - 1 <= size / kStride && *offset + 2 * *count <= size;
}

}  // namespace

std::vector<int> AttributeOffsets(const std::vector<uint8_t>& record) {
    std::vector<int> offsets;
    int at = ReadU16(record.data(), kFileFirstAttributeOffset);
    const int size = static_cast<int>(record.size());
    while (at >= 0 && at + 16 <= size && offsets.size() < 64) {
        if (ReadU32(record.data(), at) == kAttributeEndMarker) break;
        offsets.push_back(at);
        const uint32_t length = ReadU32(record.data(), at + kAttributeLengthOffset);
        if (length < 16 || length > static_cast<uint32_t>(size)) break;
        at += static_cast<int>(length);
    }
    return offsets;
}

uint8_t ByteReader::U8() {
    return Position < Size ? Data[Position++] : 0;
}
uint16_t ByteReader::U16() {
    return static_cast<uint16_t>(Bytes(2));
}
uint32_t ByteReader::U32() {
    return static_cast<uint32_t>(Bytes(4));
}

uint64_t ByteReader::Bytes(int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i) value |= static_cast<uint64_t>(U8()) << (8 * i);
    return value;
}

std::vector<uint8_t> ByteReader::Take(size_t bytes) {
    bytes = std::min(bytes, Remaining());
    std::vector<uint8_t> taken(Data + Position, Data + Position + bytes);
    Position += bytes;
    return taken;
}

ImageMap ImageMap::Scan(const std::vector<uint8_t>& image) {
    ImageMap map;
    const int64_t size = static_cast<int64_t>(image.size());
    map.BootSectors.push_back({StructureKind::BootSector, 0, kStride});
    if (size >= 2 * kStride) map.BootSectors.push_back({StructureKind::BootSector, size - kStride, kStride});
    for (int64_t at = 0; at + kStride <= size; at += kStride) {
        const uint32_t magic = ReadU32(image.data(), static_cast<size_t>(at));
        if (magic == kFileRecordMagic && at + kFileRecordBytes <= size) {
            map.FileRecords.push_back({StructureKind::FileRecord, at, kFileRecordBytes});
        } else if (magic == kIndexRecordMagic && at + kIndexRecordBytes <= size) {
            map.IndexRecords.push_back({StructureKind::IndexRecord, at, kIndexRecordBytes});
        }
    }
    return map;
}

bool RemoveFixups(std::vector<uint8_t>* record) {
    int offset = 0, count = 0;
    if (!FixupGeometry(*record, &offset, &count)) return false;
    for (int i = 1; i < count; ++i) {
        WriteU16(record->data(), static_cast<size_t>(i * kStride - 2), ReadU16(record->data(), offset + 2 * i));
    }
    return true;
}

bool ApplyFixups(std::vector<uint8_t>* record) {
    int offset = 0, count = 0;
    if (!FixupGeometry(*record, &offset, &count)) return false;
    const uint16_t number = ReadU16(record->data(), offset);
    for (int i = 1; i < count; ++i) {
        const size_t end = static_cast<size_t>(i * kStride - 2);
        WriteU16(record->data(), offset + 2 * i, ReadU16(record->data(), end));
        WriteU16(record->data(), end, number);
    }
    return true;
}

void ApplyDamage(ByteReader* reader, const ImageMap& map, OverlayStorage* storage) {
    const int edits = 1 + reader->U8() % kMaxEdits;
    for (int i = 0; i < edits; ++i) ApplyEdit(reader, map, storage);
}

}  // namespace ntfs::fuzz
