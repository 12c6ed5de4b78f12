// The only roads by which FILE records travel between memory and the MFT:
// records are read from and written to $DATA of $MFT like any attribute
// value, and records 0 to 3 are written a second time into $MFTMirr.
#include "data/bitmap_data.h"
#include "foundation/log.h"
#include "record/full_file_record.h"
#include "record/layout.h"
#include "volume/ntfs_volume.h"

namespace ntfs {

namespace {
// $MFTMirr keeps copies of the records 0 to 3.
constexpr int64_t kMirroredRecords = 4;

// Whether `buffer` is the working copy of one of the records of $MFTMirr's
// own file, which only the holder of its exclusive lock writes.
bool IsMirrorImage(CFullFileRecord* mirror, const void* buffer) {
    if (mirror->Image == buffer) return true;
    CPointerArray& extensions = mirror->GetExtensionRecords();
    for (int i = 0; i < extensions.GetCount(); ++i) {
        if (extensions.At<CFileRecord>(i)->Image == buffer) return true;
    }
    return false;
}
}  // namespace

unsigned int CNTFSVolume::ReadFileRecord(int64_t* number, void* buffer) {
    if (MftBitmap == nullptr) return ERROR_INTERNAL_ERROR;
    CFullFileRecord* mft = MftBitmap->Mft;
    const int recordSize = GetFileRecordSize();
    int64_t offset = static_cast<int64_t>(recordSize) * *number;
    uint32_t read = 0;
    mft->LockShared();
    const unsigned int code =
        mft->ReadAttribute(AttributeData, nullptr, 0, &offset, static_cast<uint32_t>(recordSize), buffer, &read);
    mft->UnlockShared();
    return code;
}

unsigned int CNTFSVolume::WriteFileRecord(int64_t* number, void* buffer) {
    if (MftBitmap == nullptr) return LastError = ERROR_INTERNAL_ERROR;
    const int recordSize = GetFileRecordSize();
    int64_t offset = static_cast<int64_t>(recordSize) * *number;
    uint32_t written = 0;
    // The result is this write's own code, also left in LastError, which other
    // threads share.
    unsigned int code = MftBitmap->Mft->WriteAttribute(AttributeData, nullptr, 0, &offset,
                                                       static_cast<uint32_t>(recordSize), buffer, &written);
    LastError = code;
    if (code == ERROR_SUCCESS && *number < kMirroredRecords && MftMirror != nullptr) {
        // $MFTMirr's own records (a handle on it being closed, or an entry
        // that names its record) are written under its exclusive lock, which
        // is not re-entrant: taking it again would wait for ever. Their writer
        // has the mirror to itself already.
        const bool held = IsMirrorImage(MftMirror, buffer);
        if (!held) MftMirror->LockExclusive();
        code = MftMirror->WriteAttribute(AttributeData, nullptr, 0, &offset, static_cast<uint32_t>(recordSize), buffer,
                                         &written);
        if (!held) MftMirror->UnlockExclusive();
        LastError = code;
    }
    return code;
}

}  // namespace ntfs
