// CFileRecord: construction, the attribute walk, search, insertion and
// removal of attributes, backup and write-back. The update sequence and the
// initialisation of free records are in update_sequence.cpp.
//
// The walk bounds everything by the working copy as well as by the header's
// own sizes: a header that claims more than the buffer holds is clipped, and
// growth is refused when the end marker would leave the buffer. Valid records
// never reach those bounds.
#include "record/file_record.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"

namespace ntfs {

namespace {

// Compares the names of two attributes as the record orders them: unit by
// unit over the longer name, a missing unit counting as 0. Returns the sign of
// existing minus new at the first difference.
int CompareAttributeNames(const CAttribute* existing, const CAttribute* added) {
    const int existingLength = existing->NameFits() ? existing->GetNameLength() : 0;
    const int addedLength = added->NameFits() ? added->GetNameLength() : 0;
    const int longer = existingLength > addedLength ? existingLength : addedLength;
    for (int i = 0; i < longer; ++i) {
        const int a = i < existingLength ? existing->GetNameUnit(i) : 0;
        const int b = i < addedLength ? added->GetNameUnit(i) : 0;
        if (a != b) return a > b ? 1 : -1;
    }
    return 0;
}

}  // namespace

CFileRecord::CFileRecord(int64_t recordNumber, _FILE_RECORD_HEADER* buffer, CFullFileRecord* owner, CNTFSVolume* volume)
    : IsBase(0),
      AttributeTable(nullptr),
      EndMarker(nullptr),
      RecordNumber(0),
      Owner(nullptr),
      Volume(nullptr),
      ImageSize(volume != nullptr ? volume->GetFileRecordSize() : kFileRecordSize) {
    if (ImageSize <= 0) ImageSize = 0;
    CleanImage = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(ImageSize > 0 ? ImageSize : 1)));
    if (CleanImage == nullptr) {
        ++MemoryShortfalls;
        return;  // the buffer stays the caller's
    }
    Image = reinterpret_cast<uint8_t*>(buffer);
    if (Image == nullptr || ImageSize < kUpdateSequenceStride) return;
    if (ReadU32(Image, kFileMagicOffset) != kFileRecordMagic) return;
    if (!ApplyUpdateSequence(Image, ImageSize)) return;

    Valid = 1;
    std::memcpy(CleanImage, Image, static_cast<size_t>(ImageSize));
    IsBase = (ReadU64(Image, kFileBaseReferenceOffset) & kFileReferenceNumberMask) == 0;
    Valid = BuildAttributeTable();
    RecordNumber = recordNumber;
    Owner = owner;
    Volume = volume;
    AttributeTable = &Attributes;
}

CFileRecord::~CFileRecord() {
    std::free(CleanImage);
    DestroyAttributes();
    std::free(Image);
}

void CFileRecord::DestroyAttributes() {
    for (int i = 0; i < Attributes.GetCount(); ++i) delete Attributes.At<CAttribute>(i);
    Attributes.Clear();
}

int CFileRecord::AllocatedBytes() const {
    const uint32_t allocated = ReadU32(Image, kFileAllocatedSizeOffset);
    return allocated < static_cast<uint32_t>(ImageSize) ? static_cast<int>(allocated) : ImageSize;
}

int CFileRecord::BuildAttributeTable() {
    DestroyAttributes();
    if (Image == nullptr) return 0;
    const int limit = AllocatedBytes();
    int64_t inUse = ReadU32(Image, kFileBytesInUseOffset);
    if (inUse > ImageSize) inUse = ImageSize;

    int place = ReadU16(Image, kFileFirstAttributeOffset);
    while (place < limit && place + 4 <= ImageSize &&
           ReadU32(Image, place + kAttributeTypeOffset) != kAttributeEndMarker) {
        if (place + kAttributeLengthOffset + 4 > ImageSize) return 0;
        const uint32_t type = ReadU32(Image, place + kAttributeTypeOffset);
        const int64_t length = ReadU32(Image, place + kAttributeLengthOffset);
        if (length == 0 || place + length > inUse) return 0;
        if ((type & kAttributeTypeCheckMask) != 0) return 0;
        // A header must fit in its attribute before anything reads it.
        if (length < kResidentHeaderSize) return 0;
        if (ReadU8(Image, place + kAttributeNonResidentOffset) != 0 && length < kNonResidentHeaderSize) {
            return 0;
        }
        auto* attribute = new (std::nothrow) CAttribute(Image + place, this, static_cast<int>(length));
        if (attribute == nullptr || Attributes.InsertAfter(Attributes.GetCount(), attribute) == -2) {
            delete attribute;
            ++MemoryShortfalls;
            return 0;
        }
        place += static_cast<int>(length);
    }
    if (place >= limit || place + 4 > ImageSize) {
        LogMessage("Bad FILERECORD! The size of attributes is large than FILERECORD size.\n");
        return 0;
    }
    EndMarker = Image + place;
    return 1;
}

int CFileRecord::Revert() {
    if (!Valid) return 0;
    std::memcpy(Image, CleanImage, static_cast<size_t>(AllocatedBytes()));
    Modified = 0;
    return BuildAttributeTable();
}

int CFileRecord::Commit() {
    if (!Valid) return 0;
    std::memcpy(CleanImage, Image, static_cast<size_t>(AllocatedBytes()));
    Modified = 0;
    return 1;
}

int CFileRecord::GetFreeSpace() {
    if (!Valid) return 0;
    const int64_t free = int64_t{ReadU32(Image, kFileAllocatedSizeOffset)} - ReadU32(Image, kFileBytesInUseOffset);
    if (free > INT32_MAX) return INT32_MAX;
    if (free < INT32_MIN) return INT32_MIN;
    return static_cast<int>(free);
}

int CFileRecord::GetGrowthRoom() {
    if (!Valid || EndMarker == nullptr) return 0;
    const int markerRoom = ImageSize - 4 - static_cast<int>(EndMarker - Image);
    const int free = GetFreeSpace();
    return free < markerRoom ? free : markerRoom;
}

void CFileRecord::ShiftEndMarker(int delta) {
    EndMarker += delta;
    WriteU32(EndMarker, 0, kAttributeEndMarker);
    WriteU32(Image, kFileBytesInUseOffset, ReadU32(Image, kFileBytesInUseOffset) + static_cast<uint32_t>(delta));
}

int CFileRecord::GetAttributeIndex(CAttribute* attribute) {
    return Attributes.IndexOf(attribute);
}

CAttribute* CFileRecord::FindAttribute(uint32_t type, const char16_t* name, unsigned int nameLength,
                                       unsigned int index) {
    if (!Valid || AttributeTable == nullptr) return nullptr;
    if (nameLength != 0 && name == nullptr) return nullptr;
    for (int i = 0; i < AttributeTable->GetCount(); ++i) {
        CAttribute* attribute = AttributeTable->At<CAttribute>(i);
        if (attribute == nullptr || attribute->GetType() != type) continue;
        if (static_cast<unsigned int>(attribute->GetNameLength()) != nameLength) continue;
        if (nameLength != 0) {
            if (!attribute->NameFits()) continue;
            unsigned int unit = 0;
            while (unit < nameLength && attribute->GetNameUnit(static_cast<int>(unit)) == name[unit]) {
                ++unit;
            }
            if (unit != nameLength) continue;
        }
        if (index == 0) return attribute;
        --index;
    }
    return nullptr;
}

CAttribute* CFileRecord::FindInsertPosition(const CAttribute* attribute, int* position) {
    const int count = Attributes.GetCount();
    const uint32_t type = attribute->GetType();
    int at = 0;
    for (; at < count; ++at) {
        const CAttribute* existing = Attributes.At<CAttribute>(at);
        const uint32_t existingType = existing->GetType();
        if (existingType > type) break;
        if (existingType == type && CompareAttributeNames(existing, attribute) > 0) break;
    }
    *position = at;
    if (at < count) return Attributes.At<CAttribute>(at);
    return count > 0 ? Attributes.At<CAttribute>(count - 1) : nullptr;
}

CAttribute* CFileRecord::InsertAttribute(CAttribute* attribute) {
    if (!Valid || attribute == nullptr || !attribute->Valid) return nullptr;
    int position = 0;
    CAttribute* neighbour = FindInsertPosition(attribute, &position);
    const int size = attribute->Size;
    if (size > GetFreeSpace() || size > GetGrowthRoom()) return neighbour;

    // Open a gap of `size` bytes at the position, or take the end.
    uint8_t* target = EndMarker;
    const int count = Attributes.GetCount();
    if (position < count) {
        for (int i = count - 1; i >= position; --i) Attributes.At<CAttribute>(i)->MoveAttribute(size);
        target = Attributes.At<CAttribute>(position)->Header - size;
    }
    int bytes = ReadI32(attribute->Header, kAttributeLengthOffset);
    if (bytes > size) bytes = size;
    if (bytes > 0) std::memmove(target, attribute->Header, static_cast<size_t>(bytes));

    ShiftEndMarker(size);
    // The image has changed: a table that lost an object to a failed
    // allocation would hide attributes the record holds, so it is made once
    // more before the insertion is reported as failed.
    if (!BuildAttributeTable() && !BuildAttributeTable()) return nullptr;

    CAttribute* placed = Attributes.At<CAttribute>(position);
    if (placed == nullptr) return nullptr;
    const uint16_t instance = ReadU16(Image, kFileNextAttributeIdOffset);
    WriteU16(placed->Header, kAttributeInstanceOffset, instance);
    WriteU16(Image, kFileNextAttributeIdOffset, static_cast<uint16_t>(instance + 1));
    placed->Mark();
    Modified = 1;
    return placed;
}

void CFileRecord::RemoveAttribute(CAttribute* attribute) {
    if (!Valid) return;
    const int index = Attributes.IndexOf(attribute);
    if (index < 0) return;
    const int size = attribute->Size;
    for (int i = index + 1; i < Attributes.GetCount(); ++i) {
        Attributes.At<CAttribute>(i)->MoveAttribute(-size);
    }
    ShiftEndMarker(-size);
    // As for an insertion: one more try for a table that lost an object.
    if (!BuildAttributeTable()) (void)BuildAttributeTable();
    if (Owner != nullptr) RebuildFullFileRecordTable(Owner);
}

unsigned int CFileRecord::WriteRecord() {
    if (!Valid || Volume == nullptr) return ERROR_INTERNAL_ERROR;
    ProtectUpdateSequence(Image, ImageSize);
    const unsigned int result = Volume->WriteFileRecord(&RecordNumber, Image);
    // Unprotected again whatever the write gave; the check inside only ends
    // the step early for a header that has been damaged since.
    static_cast<void>(ApplyUpdateSequence(Image, ImageSize));
    if (result == ERROR_SUCCESS) Modified = 0;
    return result;
}

}  // namespace ntfs
