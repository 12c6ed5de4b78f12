// CAttribute: construction, header accessors, form and name, size, moves,
// copies and values. Run list operations live in attribute_runs.cpp.
//
// Every offset read from a header is checked against Size before memory at it
// is touched, so an attribute read from a damaged record can give a wrong
// answer but never an access outside its bytes.
#include "record/attribute.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "record/file_record.h"
#include "record/layout.h"

namespace ntfs {

namespace {

constexpr int kAlignment = 8;
// The byte the constructor puts in the non-resident field so that the first
// SetResident takes effect whichever form it asks for.
constexpr uint8_t kFormUnset = 0xFF;
// The name sits 40 bytes lower in the resident form (at 24) than in the
// non-resident form (at 64).
constexpr int kNameShiftBetweenForms = kNonResidentHeaderSize - kResidentHeaderSize;

int64_t RoundUp8(int64_t size) {
    return (size + kAlignment - 1) & ~int64_t{kAlignment - 1};
}

// Bytes an attribute of this form needs for its header and a name.
int HeaderAndNameBytes(bool resident, int nameLength) {
    return (resident ? kResidentHeaderSize : kNonResidentHeaderSize) + 2 * nameLength;
}

}  // namespace

CAttribute::CAttribute(int size, int resident, const char16_t* name)
    : Header(nullptr), Modified(0), Valid(0), InRecord(0), Record(nullptr), Size(0) {
    const int nameLength = name != nullptr ? lstrlenW(name) : 0;
    const int64_t rounded = RoundUp8(size);
    if (size < 0 || nameLength > kMaxAttributeNameLength || rounded > INT32_MAX ||
        rounded < HeaderAndNameBytes(resident != 0, nameLength)) {
        return;
    }
    Header = static_cast<uint8_t*>(std::calloc(1, static_cast<size_t>(rounded)));
    if (Header == nullptr) return;

    Valid = 1;
    Size = static_cast<int>(rounded);
    WriteU32(Header, kAttributeLengthOffset, static_cast<uint32_t>(Size));
    WriteU8(Header, kAttributeNonResidentOffset, kFormUnset);
    WriteU8(Header, kAttributeNameLengthOffset, 0);
    SetResident(resident);

    if (name != nullptr) {
        // SetName measures the body it shifts by the value length (resident)
        // or the attribute length (non-resident); both are lowered by the name
        // for the call and raised again after it.
        WriteU8(Header, kAttributeNameLengthOffset, static_cast<uint8_t>(nameLength));
        const int field = resident ? kResidentValueLengthOffset : kAttributeLengthOffset;
        WriteU32(Header, field, ReadU32(Header, field) - static_cast<uint32_t>(2 * nameLength));
        SetName(name, nameLength);
        WriteU32(Header, field, ReadU32(Header, field) + static_cast<uint32_t>(2 * nameLength));
    }
}

CAttribute::CAttribute(uint8_t* header, CFileRecord* record, int size)
    : Header(header), Modified(0), Valid(1), InRecord(1), Record(record), Size(size) {}

CAttribute::~CAttribute() {
    if (Valid && !InRecord) std::free(Header);
}

void CAttribute::Mark() {
    if (Valid && InRecord && Record != nullptr) {
        Record->Modified = 1;
        if (Record->Owner != nullptr) MarkFullFileRecordModified(Record->Owner);
    }
    Modified = 1;
}

uint32_t CAttribute::GetType() const {
    return Valid ? ReadU32(Header, kAttributeTypeOffset) : 0;
}

int CAttribute::GetNameLength() const {
    return Valid ? ReadU8(Header, kAttributeNameLengthOffset) : -1;
}

bool CAttribute::IsResident() const {
    return Valid && ReadU8(Header, kAttributeNonResidentOffset) == 0;
}

uint16_t CAttribute::GetNameOffset() const {
    return Valid ? ReadU16(Header, kAttributeNameOffsetOffset) : 0;
}

int CAttribute::LengthField() const {
    return ReadI32(Header, kAttributeLengthOffset);
}

int CAttribute::RunListOffset() const {
    return ReadU16(Header, kNonResidentRunListOffsetOffset);
}

uint8_t* CAttribute::GetValue() const {
    if (!Valid) return nullptr;
    const int offset = IsResident() ? ReadU16(Header, kResidentValueOffsetOffset) : RunListOffset();
    return offset <= Size ? Header + offset : nullptr;
}

int64_t CAttribute::GetDataSize() const {
    if (!Valid) return 0;
    if (IsResident()) return ReadU32(Header, kResidentValueLengthOffset);
    return ReadI64(Header, kNonResidentDataSizeOffset);
}

int64_t CAttribute::GetLowestVcn() const {
    if (!Valid || IsResident()) return -1;
    return ReadI64(Header, kNonResidentLowestVcnOffset);
}

int64_t CAttribute::GetHighestVcn() const {
    if (!Valid || IsResident()) return -1;
    return ReadI64(Header, kNonResidentHighestVcnOffset);
}

char16_t CAttribute::GetNameUnit(int i) const {
    return static_cast<char16_t>(ReadU16(Header, GetNameOffset() + 2 * static_cast<size_t>(i)));
}

bool CAttribute::NameFits() const {
    if (!Valid) return false;
    return GetNameOffset() + 2 * GetNameLength() <= Size;
}

bool CAttribute::BodyFits() const {
    if (!Valid || !NameFits()) return false;
    if (IsResident()) {
        const int64_t end =
            int64_t{ReadU16(Header, kResidentValueOffsetOffset)} + ReadU32(Header, kResidentValueLengthOffset);
        return Size >= kResidentHeaderSize && end <= Size;
    }
    return Size >= kNonResidentHeaderSize && RunListOffset() <= Size;
}

int CAttribute::SetResident(int resident) {
    if (!Valid) return 0;
    const uint8_t wanted = resident ? 0 : 1;
    const uint8_t present = ReadU8(Header, kAttributeNonResidentOffset);
    if ((present == 0 || present == 1) && present == wanted) return 1;

    // Both forms keep the name right behind their header; the unit move below
    // takes it from where the other form keeps it.
    const int nameLength = ReadU8(Header, kAttributeNameLengthOffset);
    if (Size < HeaderAndNameBytes(false, nameLength) && (wanted == 1 || nameLength > 0)) return 0;
    if (Size < kResidentHeaderSize) return 0;

    WriteU8(Header, kAttributeNonResidentOffset, wanted);
    if (wanted == 0) {
        if (nameLength > 0) {
            WriteU16(Header, kAttributeNameOffsetOffset, kResidentHeaderSize);
            std::memmove(Header + kResidentHeaderSize, Header + kResidentHeaderSize + kNameShiftBetweenForms,
                         2 * static_cast<size_t>(nameLength));
            WriteU16(Header, kResidentValueOffsetOffset,
                     static_cast<uint16_t>((nameLength * 2 + 7 + kResidentHeaderSize) & 0xFFF8));
        } else {
            WriteU16(Header, kAttributeNameOffsetOffset, 0);
            WriteU16(Header, kResidentValueOffsetOffset, kResidentHeaderSize);
        }
        WriteU8(Header, kResidentIndexedFlagOffset, 0);
        WriteU8(Header, kResidentPaddingOffset, 0);
        WriteU32(Header, kResidentValueLengthOffset, 0);
    } else {
        if (nameLength > 0) {
            WriteU16(Header, kAttributeNameOffsetOffset, kNonResidentHeaderSize);
            std::memmove(Header + kNonResidentHeaderSize, Header + kNonResidentHeaderSize - kNameShiftBetweenForms,
                         2 * static_cast<size_t>(nameLength));
            WriteU16(Header, kNonResidentRunListOffsetOffset,
                     static_cast<uint16_t>((nameLength * 2 + 3 + kNonResidentHeaderSize) & 0xFFFC));
        } else {
            WriteU16(Header, kAttributeNameOffsetOffset, 0);
            WriteU16(Header, kNonResidentRunListOffsetOffset,
                     static_cast<uint16_t>((3 + kNonResidentHeaderSize) & 0xFFFC));
        }
        // The low byte of the compression unit stays as it was.
        std::memset(Header + kNonResidentCompressionUnitOffset + 1, 0, 5);
    }
    Mark();
    return 1;
}

int CAttribute::SetName(const char16_t* name, int length) {
    if (!Valid || length < 0 || length > kMaxAttributeNameLength) return 0;
    const bool resident = ReadU8(Header, kAttributeNonResidentOffset) == 0;
    const int nameOffset = resident ? kResidentHeaderSize : kNonResidentHeaderSize;
    if (nameOffset + 2 * length > Size) return 0;

    // Not the difference of two rounded sizes: this bit pattern is how the
    // body has always been shifted. It is only ever applied to the zero body
    // of a newly built attribute.
    const int oldLength = ReadU8(Header, kAttributeNameLengthOffset);
    const int shift = (2 * length + 7) & ~(2 * oldLength + 14) & ~7;

    int bodyStart;
    int64_t bodyBytes;
    if (resident) {
        bodyStart = ReadU16(Header, kResidentValueOffsetOffset);
        bodyBytes = ReadI32(Header, kResidentValueLengthOffset);
    } else {
        bodyStart = RunListOffset();
        bodyBytes = int64_t{LengthField()} - bodyStart;
    }
    if (shift > 0) {
        if (bodyBytes > Size - shift - bodyStart) bodyBytes = Size - shift - bodyStart;
        if (bodyBytes > 0) {
            std::memmove(Header + bodyStart + shift, Header + bodyStart, static_cast<size_t>(bodyBytes));
        }
    }

    WriteU8(Header, kAttributeNameLengthOffset, static_cast<uint8_t>(length));
    // The body offset counts the name in characters, not bytes: right for
    // "$I30", inside the name for names of 8 characters or more. Kept so.
    if (resident) {
        WriteU16(Header, kAttributeNameOffsetOffset, kResidentHeaderSize);
        WriteU16(Header, kResidentValueOffsetOffset,
                 static_cast<uint16_t>((length + 7 + kResidentHeaderSize) & 0xFFF8));
    } else {
        WriteU16(Header, kAttributeNameOffsetOffset, kNonResidentHeaderSize);
        WriteU16(Header, kNonResidentRunListOffsetOffset,
                 static_cast<uint16_t>((length + 7 + kNonResidentHeaderSize) & 0xFFF8));
    }
    for (int i = 0; i < length; ++i) {
        WriteU16(Header, nameOffset + 2 * static_cast<size_t>(i), name[i]);
    }
    Mark();
    return shift;
}

unsigned int CAttribute::SetSize(int size, CAttribute** result) {
    const int64_t rounded = RoundUp8(size);
    *result = this;
    if (!Valid || rounded < kResidentHeaderSize || rounded > INT32_MAX) {
        return ERROR_INVALID_PARAMETER;
    }
    const int newSize = static_cast<int>(rounded);
    const int change = newSize - Size;

    if (InRecord) {
        if (Record == nullptr || !Record->Valid) return ERROR_INTERNAL_ERROR;
        const int index = Record->GetAttributeIndex(this);
        if (index < 0) return ERROR_FILE_CORRUPT;
        if (change > Record->GetFreeSpace() || change > Record->GetGrowthRoom()) {
            return ERROR_INSUFFICIENT_BUFFER;
        }
        const int count = Record->Attributes.GetCount();
        if (change > 0) {
            for (int i = count - 1; i > index; --i) {
                Record->Attributes.At<CAttribute>(i)->MoveAttribute(change);
            }
        } else if (change < 0) {
            for (int i = index + 1; i < count; ++i) {
                Record->Attributes.At<CAttribute>(i)->MoveAttribute(change);
            }
        }
        Record->ShiftEndMarker(change);
    } else if (change > 0) {
        auto* grown = static_cast<uint8_t*>(std::malloc(static_cast<size_t>(newSize)));
        if (grown == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
        std::memcpy(grown, Header, static_cast<size_t>(Size));
        std::free(Header);
        Header = grown;
    }

    if (change > 0) std::memset(Header + Size, 0, static_cast<size_t>(change));
    Size = newSize;
    WriteU32(Header, kAttributeLengthOffset, static_cast<uint32_t>(newSize));
    return ERROR_SUCCESS;
}

void CAttribute::MoveAttribute(int delta) {
    std::memmove(Header + delta, Header, static_cast<size_t>(Size));
    Header += delta;
    Mark();
}

CAttribute* CAttribute::Clone() const {
    if (!Valid) return nullptr;
    char16_t name[kMaxAttributeNameLength + 1];
    int nameLength = NameFits() ? GetNameLength() : 0;
    for (int i = 0; i < nameLength; ++i) name[i] = GetNameUnit(i);
    name[nameLength] = 0;
    // A name with a zero unit inside is cut there by the constructor; the
    // header copy below brings the real name bytes along anyway.
    if (lstrlenW(name) < nameLength) nameLength = 0;

    auto* clone = new (std::nothrow) CAttribute(Size, IsResident() ? 1 : 0, nameLength > 0 ? name : nullptr);
    if (clone == nullptr) return nullptr;
    if (!clone->Valid) {
        delete clone;
        return nullptr;
    }
    int bytes = LengthField();
    if (bytes > Size) bytes = Size;
    if (bytes > 0) std::memcpy(clone->Header, Header, static_cast<size_t>(bytes));
    return clone;
}

int CAttribute::SetValue(const void* data, int size) {
    if (!Valid || size < 0) return 0;
    const bool resident = IsResident();
    const int start = resident ? ReadU16(Header, kResidentValueOffsetOffset) : RunListOffset();
    if (size > Size - start) return 0;
    if (size > 0) std::memcpy(Header + start, data, static_cast<size_t>(size));
    if (resident) WriteU32(Header, kResidentValueLengthOffset, static_cast<uint32_t>(size));
    Mark();
    return 1;
}

void CAttribute::WriteBytes(int at, const uint8_t* source, int bytes) {
    if (at < 0 || at >= Size) return;
    if (bytes > Size - at) bytes = Size - at;
    if (bytes > 0) std::memcpy(Header + at, source, static_cast<size_t>(bytes));
}

}  // namespace ntfs
