// Writing a full record back: the time stamps of a change, the base record
// first and then each modified extension record.
#include "foundation/endian.h"
#include "foundation/log.h"
#include "foundation/platform.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {

int64_t NowAsFileTime(CNTFSVolume* volume) {
    _SYSTEMTIME now{};
    GetSystemTime(&now);
    _LARGE_INTEGER time{};
    volume->SystemTimeToFileTime(&now, &time);
    return time.QuadPart;
}

int64_t LoadTime(CAttribute* attribute, int valueOffset) {
    uint8_t* value = attribute->GetValue();
    if (!attribute->IsResident() || !attribute->BodyFits() || attribute->GetDataSize() < valueOffset + 8) return 0;
    return ReadI64(value, static_cast<size_t>(valueOffset));
}

// Stamps the change time (and the given access and write times) into
// $STANDARD_INFORMATION and every $FILE_NAME; returns the time found at value
// offset 24 of the last attribute visited.
int64_t StampTimes(CFullFileRecord* record, int64_t now, const int64_t* accessTime, const int64_t* writeTime) {
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
    // The value length is trusted only inside the attribute.
    if (!attribute->IsResident() || !attribute->BodyFits() || attribute->GetDataSize() < valueOffset + 8) return;
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

}  // namespace ntfs
