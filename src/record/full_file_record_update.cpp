// Writing a full record back: the time stamps of a change, the base record
// first and then each modified extension record; the write-back of a bitmap's
// record at unmount; and the count of free records at mount.
#include <cstdlib>

#include "data/bitmap_data.h"
#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

// The piece of the MFT bitmap read at a time when counting free records.
constexpr uint32_t kFreeCountChunk = 2097152;

int64_t NowAsFileTime(CNTFSVolume* volume) {
    _SYSTEMTIME now{};
    GetSystemTime(&now);
    _LARGE_INTEGER time{};
    volume->SystemTimeToFileTime(&now, &time);
    return time.QuadPart;
}

int64_t LoadTime(CAttribute* attribute, int valueOffset) {
    uint8_t* value = attribute->GetValue();
    if (value == nullptr || !attribute->IsResident() || attribute->GetDataSize() < valueOffset + 8) return 0;
    return ReadI64(value, static_cast<size_t>(valueOffset));
}

// Stamps the change time (and the given access and write times) into
// $STANDARD_INFORMATION and every $FILE_NAME; returns the time found at value
// offset 24 of the last attribute visited.
int64_t StampTimes(CFullFileRecord* record, int64_t now, const int64_t* accessTime,
                   const int64_t* writeTime) {
    int64_t last = 0;
    if (CAttribute* standard = record->FindAttribute(AttributeStandardInformation, nullptr, 0, 0)) {
        StoreValue64(standard, kStandardChangeTimeOffset, now);
        if (accessTime != nullptr) StoreValue64(standard, kStandardAccessTimeOffset, *accessTime);
        if (writeTime != nullptr) StoreValue64(standard, kStandardWriteTimeOffset, *writeTime);
        last = LoadTime(standard, kStandardAccessTimeOffset);
    }
    for (unsigned int index = 0;; ++index) {
        CAttribute* name = record->FindAttribute(AttributeFileName, nullptr, 0, index);
        if (name == nullptr) break;
        StoreValue64(name, kFileNameChangeTimeOffset, now);
        if (accessTime != nullptr) StoreValue64(name, kFileNameAccessTimeOffset, *accessTime);
        if (writeTime != nullptr) StoreValue64(name, kFileNameWriteTimeOffset, *writeTime);
        last = LoadTime(name, kFileNameChangeTimeOffset);
    }
    return last;
}

}  // namespace

void StoreValue64(CAttribute* attribute, int valueOffset, int64_t value) {
    uint8_t* bytes = attribute->GetValue();
    if (bytes == nullptr || !attribute->IsResident() || attribute->GetDataSize() < valueOffset + 8) return;
    WriteU64(bytes, static_cast<size_t>(valueOffset), static_cast<uint64_t>(value));
    attribute->Mark();
}

unsigned int CNTFSVolume::WriteFullRecord(CFullFileRecord* record) {
    unsigned int code = record->WriteRecord();
    LastError = code;
    CPointerArray& extensions = record->GetExtensionRecords();
    for (int i = 0; i < extensions.GetCount() && code == ERROR_SUCCESS; ++i) {
        CFileRecord* extension = extensions.At<CFileRecord>(i);
        if (extension->IsModified()) {
            code = extension->WriteRecord();
            LastError = code;
        }
    }
    if (code == ERROR_SUCCESS) record->ClearModified();
    return code;
}

unsigned int CNTFSVolume::WriteChangedRecord(CFullFileRecord* record, int64_t* accessTime, int64_t* writeTime,
                                             int64_t* changeTime) {
    const int64_t now = NowAsFileTime(this);
    *changeTime = StampTimes(record, now, accessTime, writeTime);
    return WriteFullRecord(record);
}

int CNTFSVolume::UpdateFileRecord(CFullFileRecord* record, int64_t* accessTime, int64_t* writeTime,
                                  int64_t* changeTime) {
    return WriteChangedRecord(record, accessTime, writeTime, changeTime) == ERROR_SUCCESS ? 1 : 0;
}

unsigned int CNTFSVolume::FlushBitmapRecord(CBitmapData* bitmap) {
    if (bitmap->IsDirty()) {
        LastError = bitmap->FlushBitmap();
        if (LastError != ERROR_SUCCESS) return LastError;
    }
    CFullFileRecord* record = bitmap->GetOwner();
    StampTimes(record, NowAsFileTime(this), nullptr, nullptr);
    return WriteFullRecord(record);
}

unsigned int CNTFSVolume::FreeMftRecordCount() {
    CFullFileRecord* mft = MftBitmap->Mft;
    CAttribute* data = mft->FindAttribute(AttributeData, nullptr, 0, 0);
    if (data == nullptr) return ERROR_FILE_CORRUPT;
    const int64_t initialized =
        data->IsResident() ? 0 : ReadI64(data->Header, kNonResidentInitializedSizeOffset);
    const int64_t records = initialized / GetFileRecordSize();
    const int64_t bytes = (records + 7) >> 3;
    const int partialBits = static_cast<int>(records & 7);
    auto* buffer = static_cast<uint8_t*>(std::malloc(kFreeCountChunk));
    if (buffer == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    int64_t free = 0;
    for (int64_t offset = 0; offset < bytes;) {
        const uint32_t piece =
            bytes - offset < kFreeCountChunk ? static_cast<uint32_t>(bytes - offset) : kFreeCountChunk;
        int64_t at = offset;
        uint32_t read = 0;
        const unsigned int code = mft->ReadAttribute(AttributeBitmap, nullptr, 0, &at, piece, buffer, &read);
        if (code != ERROR_SUCCESS) {
            std::free(buffer);
            return code;
        }
        const bool lastPiece = offset + piece >= bytes;
        uint32_t counted = read < piece ? read : piece;
        if (lastPiece && partialBits != 0 && counted == piece) --counted;
        for (uint32_t i = 0; i < counted; ++i) free += CBitmapData::FreeBitsInByte(buffer[i]);
        if (lastPiece && partialBits != 0 && counted + 1 == piece && read == piece) {
            // The unused high bits of the partial byte count as in use.
            const uint8_t last = static_cast<uint8_t>(buffer[counted] | (0xFFu << partialBits));
            free += CBitmapData::FreeBitsInByte(last);
        }
        offset += piece;
    }
    std::free(buffer);
    MftBitmap->FreeRecords = free;
    return ERROR_SUCCESS;
}

}  // namespace ntfs
